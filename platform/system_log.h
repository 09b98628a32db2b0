// The platform's system log. Every message the helper logs reaches it, also
// before and without file logging.
#pragma once

#include <memory>
#include <string_view>

namespace platform {

class SystemLog {
 public:
  virtual ~SystemLog() = default;
  // Writes one message. Must not block for long and must be callable from any
  // thread; failures are swallowed (there is nowhere left to report them).
  virtual void write(std::string_view message) = 0;
};

// Simulated device: standard error, one line per message.
std::unique_ptr<SystemLog> make_stderr_system_log();
// Linux host: syslog(3) under the identity `ident`, so journald keeps it. The
// connection to the log socket is opened at once, so it survives a chroot.
std::unique_ptr<SystemLog> make_syslog_system_log(const char* ident);

}  // namespace platform
