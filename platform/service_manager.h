// The service manager that started the helper, kept told how it is doing:
// that it serves (READY=1) and what it is busy with (STATUS=...), in the
// notification protocol of systemd (sd_notify(3)).
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace platform {

class ServiceManager {
 public:
  virtual ~ServiceManager() = default;
  // The helper serves its socket; `status` says so in words.
  virtual void ready(std::string_view status) = 0;
  // What the helper is busy with, in one line.
  virtual void status(std::string_view status) = 0;
};

// The manager named by NOTIFY_SOCKET, when one is: a datagram socket connected
// to it at once, because a helper confined to a device directory can no
// longer reach the path (which is why sd_notify(3), which opens the path per
// call, is not used). NOTIFY_SOCKET is then removed from the environment, so
// that no program the helper starts talks to the manager in its name.
// Without one, nullptr with `error` empty; when it cannot be reached,
// nullptr with `error` saying why.
std::unique_ptr<ServiceManager> make_notify_service_manager(std::string* error);

}  // namespace platform
