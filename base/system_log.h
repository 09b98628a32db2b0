// Where every message the helper logs goes first: the system log, also before
// and without file logging. The logger writes to one; the platform supplies
// the real one (platform/system_log.h).
#pragma once

#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace vtl {

// How much a message matters to an operator; the values are syslog's.
enum class LogPriority : int { kError = 3, kWarning = 4, kInfo = 6 };

// A named value that travels with a message to a log that keeps fields (the
// host's journal): upper-case letters, digits and '_', as the journal wants.
struct LogField {
  std::string name;
  std::string value;
};

struct LogEntry {
  LogPriority priority = LogPriority::kInfo;
  std::string_view message;
  std::span<const LogField> fields;
};

class SystemLog {
 public:
  virtual ~SystemLog() = default;
  // Writes one message. Must not block for long and must be callable from any
  // thread; failures are swallowed (there is nowhere left to report them).
  virtual void write(std::string_view message) = 0;
  // Writes one message with its priority and fields. A log that keeps
  // neither writes the bare message.
  virtual void write_entry(const LogEntry& entry) { write(entry.message); }
};

// Standard error, one line per message: the simulated device's system log,
// and the logger's until the platform gives it another.
std::unique_ptr<SystemLog> make_stderr_system_log();

}  // namespace vtl
