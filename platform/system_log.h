// The platform's system log (base/system_log.h): standard error on a
// simulated device, the journal or syslog on the Linux host.
#pragma once

#include <memory>

#include "base/system_log.h"

namespace platform {

using vtl::LogEntry;
using vtl::LogField;
using vtl::LogPriority;
using vtl::make_stderr_system_log;
using vtl::SystemLog;

// Linux host: syslog(3) under the identity `ident`, so journald keeps it. The
// connection to the log socket is opened at once, so it survives a chroot.
std::unique_ptr<SystemLog> make_syslog_system_log(const char* ident);

// Linux host: the journal where journald listens, else syslog where a syslog
// daemon listens, else standard error: a helper started by hand on a host
// without either still says what it does.
std::unique_ptr<SystemLog> make_host_system_log(const char* ident);
inline constexpr const char* kJournalSocket = "/run/systemd/journal/socket";
inline constexpr const char* kSyslogSocket = "/dev/log";

}  // namespace platform
