// The platform's system log (base/system_log.h): standard error on a
// simulated device, syslog on the Linux host.
#pragma once

#include <memory>

#include "base/system_log.h"

namespace platform {

using vtl::make_stderr_system_log;
using vtl::SystemLog;

// Linux host: syslog(3) under the identity `ident`, so journald keeps it. The
// connection to the log socket is opened at once, so it survives a chroot.
std::unique_ptr<SystemLog> make_syslog_system_log(const char* ident);

}  // namespace platform
