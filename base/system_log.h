// Where every message the helper logs goes first: the system log, also before
// and without file logging. The logger writes to one; the platform supplies
// the real one (platform/system_log.h).
#pragma once

#include <memory>
#include <string_view>

namespace vtl {

class SystemLog {
 public:
  virtual ~SystemLog() = default;
  // Writes one message. Must not block for long and must be callable from any
  // thread; failures are swallowed (there is nowhere left to report them).
  virtual void write(std::string_view message) = 0;
};

// Standard error, one line per message: the simulated device's system log,
// and the logger's until the platform gives it another.
std::unique_ptr<SystemLog> make_stderr_system_log();

}  // namespace vtl
