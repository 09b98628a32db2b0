// VTLLogModel: the shared logger. Every message goes to the system log; once
// file logging is on, it is also appended, time-stamped, to one file per day.
#pragma once

#include <cstdio>
#include <mutex>
#include <span>
#include <string>
#include <string_view>

#include "service/VTLLog.h"
#include "service/clock.h"

namespace platform {
class SystemLog;
}

namespace vtl {

class VTLLogModel {
 public:
  static VTLLogModel& sharedInstance();

  void logWithFormat_andArgs(std::string_view format, std::span<const LogArg> args);
  // Writes "<date> <message>\n" to the day's file (one write and flush, under
  // the logger's lock) and the bare message to the system log.
  void logMessage(std::string_view message);
  // Opens `path` for appending, creating its parent directory if needed.
  // Returns whether a stream is now set.
  bool enableLogToFile(const std::string& path);
  bool logToFileEnabled() const;
  // Creates `dir` if needed, probes that it is writable, deletes every entry
  // created more than `days` days ago, then opens today's file.
  bool enableLogToFilesUnder_prefix_expireDays(const std::string& dir, const std::string& prefix,
                                               int days);
  // "<dir>/<prefix>-YYYYMMDD.log" for today's local date.
  std::string fileNameForTodayUnder_prefix(const std::string& dir, const std::string& prefix) const;

  FILE* logFP() const;
  void setLogFP(FILE* fp);

  // Seams for the process set-up and for tests. Neither is owned.
  void setSystemLog(platform::SystemLog* sink);
  void setClock(const Clock* clock);

 private:
  VTLLogModel();

  mutable std::mutex lock_;
  FILE* logFP_ = nullptr;
  platform::SystemLog* system_log_;
  const Clock* clock_;
};

}  // namespace vtl
