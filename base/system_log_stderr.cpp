// The system log on standard error, one line per message.
#include <errno.h>
#include <unistd.h>

#include <string>

#include "base/system_log.h"

namespace vtl {
namespace {

class StderrSystemLog final : public SystemLog {
 public:
  void write(std::string_view message) override {
    // One write(2) per line, so that lines from concurrent threads (and from
    // other processes sharing the stream) do not interleave; a pipe keeps
    // writes up to PIPE_BUF whole. The rest of a short write follows at once.
    std::string line;
    line.reserve(message.size() + 1);
    line.append(message);
    line += '\n';
    const char* p = line.data();
    std::size_t left = line.size();
    while (left > 0) {
      const ssize_t n = ::write(STDERR_FILENO, p, left);
      if (n < 0) {
        if (errno == EINTR) continue;
        return;  // nowhere left to report it
      }
      p += n;
      left -= static_cast<std::size_t>(n);
    }
  }
};

}  // namespace

std::unique_ptr<SystemLog> make_stderr_system_log() { return std::make_unique<StderrSystemLog>(); }

}  // namespace vtl
