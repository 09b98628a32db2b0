// The Linux host's system log: syslog(3) (priorities, no fields), or the
// journal's own protocol (priorities and fields).
#include <syslog.h>
#include <systemd/sd-journal.h>

#include <sys/uio.h>
#include <unistd.h>

#include <string>
#include <vector>

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

  void write(std::string_view message) override { write_entry({.message = message, .fields = {}}); }

  void write_entry(const LogEntry& entry) override {
    // Always through "%s": a message may contain '%' of its own.
    const std::string text(entry.message);
    ::syslog(static_cast<int>(entry.priority), "%s", text.c_str());
  }

 private:
  std::string ident_;
};

// One journal entry per message: MESSAGE, PRIORITY and SYSLOG_IDENTIFIER,
// then the entry's fields, so that `journalctl -p err` finds the failures and
// `journalctl VTL_CLIENT_PID=...` one client's requests.
class JournalSystemLog final : public SystemLog {
 public:
  explicit JournalSystemLog(const char* ident) : ident_(ident != nullptr ? ident : "") {}

  void write(std::string_view message) override { write_entry({.message = message, .fields = {}}); }

  void write_entry(const LogEntry& entry) override {
    std::vector<std::string> lines;
    lines.reserve(entry.fields.size() + 3);
    lines.push_back("MESSAGE=" + std::string(entry.message));
    lines.push_back("PRIORITY=" + std::to_string(static_cast<int>(entry.priority)));
    lines.push_back("SYSLOG_IDENTIFIER=" + ident_);
    for (const LogField& field : entry.fields) lines.push_back(field.name + "=" + field.value);
    std::vector<iovec> parts;
    parts.reserve(lines.size());
    for (std::string& line : lines) parts.push_back({line.data(), line.size()});
    static_cast<void>(::sd_journal_sendv(parts.data(), static_cast<int>(parts.size())));
  }

 private:
  std::string ident_;
};

}  // namespace

std::unique_ptr<SystemLog> make_syslog_system_log(const char* ident) {
  return std::make_unique<SyslogSystemLog>(ident);
}

std::unique_ptr<SystemLog> make_host_system_log(const char* ident) {
  if (::access(kJournalSocket, W_OK) == 0) return std::make_unique<JournalSystemLog>(ident);
  if (::access(kSyslogSocket, W_OK) == 0) return std::make_unique<SyslogSystemLog>(ident);
  return make_stderr_system_log();
}

}  // namespace platform
