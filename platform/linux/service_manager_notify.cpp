#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/errors.h"
#include "base/unique_fd.h"
#include "platform/service_manager.h"

namespace platform {
namespace {

class NotifySocket final : public ServiceManager {
 public:
  explicit NotifySocket(vtl::UniqueFd fd) : fd_(std::move(fd)) {}

  void ready(std::string_view status) override { send("READY=1\nSTATUS=" + line(status)); }
  void status(std::string_view status) override { send("STATUS=" + line(status)); }

 private:
  // A status is one line: a newline would start another assignment.
  static std::string line(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
      if (c == '\n' || c == '\r') c = ' ';
    }
    return out;
  }

  // Best effort: a manager that has gone away is not the helper's concern.
  void send(const std::string& message) const {
    static_cast<void>(::send(fd_.get(), message.data(), message.size(), MSG_NOSIGNAL));
  }

  vtl::UniqueFd fd_;
};

}  // namespace

std::unique_ptr<ServiceManager> make_notify_service_manager(std::string* error) {
  error->clear();
  const char* named = std::getenv("NOTIFY_SOCKET");
  if (named == nullptr || *named == '\0') return nullptr;
  const std::string path = named;
  ::unsetenv("NOTIFY_SOCKET");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  // "@name" is a name in the abstract namespace.
  const bool abstract = path.front() == '@';
  if ((path.front() != '/' && !abstract) || path.size() >= sizeof address.sun_path) {
    *error = "the notification socket " + path + " is not a usable socket path";
    return nullptr;
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  if (abstract) address.sun_path[0] = '\0';
  const auto length =
      static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + (abstract ? 0 : 1));
  vtl::UniqueFd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!fd || ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), length) != 0) {
    *error = "cannot reach the notification socket " + path + ": " + vtl::error_description(errno);
    return nullptr;
  }
  return std::make_unique<NotifySocket>(std::move(fd));
}

}  // namespace platform
