// The Linux host's system log: syslog(3), which journald collects.
#include <syslog.h>

#include <string>

#include "platform/system_log.h"

namespace platform {
namespace {

class SyslogSystemLog final : public SystemLog {
 public:
  explicit SyslogSystemLog(const char* ident) : ident_(ident != nullptr ? ident : "") {
    // LOG_NDELAY connects to the log socket now, before the helper confines
    // itself to the device directory, where /dev/log is out of reach. openlog
    // keeps the ident pointer, so it points into this object, which lives as
    // long as the sink.
    ::openlog(ident_.c_str(), LOG_PID | LOG_NDELAY, LOG_DAEMON);
  }

  ~SyslogSystemLog() override { ::closelog(); }
  SyslogSystemLog(const SyslogSystemLog&) = delete;
  SyslogSystemLog& operator=(const SyslogSystemLog&) = delete;

  void write(std::string_view message) override {
    // Always through "%s": a message may contain '%' of its own.
    const std::string text(message);
    ::syslog(LOG_NOTICE, "%s", text.c_str());
  }

 private:
  std::string ident_;
};

}  // namespace

std::unique_ptr<SystemLog> make_syslog_system_log(const char* ident) {
  return std::make_unique<SyslogSystemLog>(ident);
}

}  // namespace platform
