// VTLLogModel: the shared logger. Every message goes to the system log; once
// file logging is on, it is also appended, time-stamped, to one file per day.
//
// Threads: every operation may be called from any thread. The stream, the
// sink and the clock are read and set under the logger's lock; the system-log
// copy of a message is written outside it.
//
// Streams are never closed here. File logging is turned on once at start-up;
// a stream replaced by a later enableLogToFile (or setLogFP) may still be in
// the middle of a write on another thread, and closing it there would free it
// under that writer. The process's end closes it.
#pragma once

#include <cstdio>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/VTLLog.h"
#include "base/clock.h"
#include "base/system_log.h"

namespace vtl {

class VTLLogModel {
 public:
  static VTLLogModel& sharedInstance();

  void logWithFormat_andArgs(std::string_view format, std::span<const LogArg> args);
  // Writes "<date> <message>\n" to the day's file (one write and flush, under
  // the logger's lock) and the bare message to the system log.
  void logMessage(std::string_view message);
  // Opens `path` for appending, creating its parent directory if needed
  // (with intermediates, mode 0755). A leading "~" or "~user" is expanded.
  // The stream is stored even when the open failed (file logging is then
  // off); the one it replaces is left open. The file is opened close-on-exec
  // and never through a symbolic link in its last component: the log
  // directory is shared with the client, and a link planted there must not
  // make root append to some other file.
  // Returns whether a stream is now set; false with the stream unchanged when
  // the parent directory cannot be created.
  bool enableLogToFile(const std::string& path);
  bool logToFileEnabled() const;
  // Creates `dir` if needed, probes that it is writable, deletes every entry
  // created more than `days` days ago, then opens today's file.
  //
  // The probe "testWritability.log" is written by replacing the name (a new
  // file renamed over it), so a link planted under that name is never
  // followed; it is removed again at once. When the probe cannot be written
  // nothing is deleted and false is returned.
  //
  // Every entry of `dir` is checked (its "Checking existing log file ..." line
  // goes straight to the system log, the file not being open yet) and removed
  // with its contents when its creation date is strictly earlier than now
  // minus `days` days. Removal never follows a symbolic link: a link is
  // removed itself, and a directory is emptied through descriptors, so an
  // entry swapped for a link halfway does not lead outside `dir`.
  //
  // Creation date: the file's birth time where the file system records one.
  // Where it does not, the status-change time stands in for it: it is the
  // closest record of creation the kernel keeps, a client cannot set it back
  // (unlike the modification time), and for a log file that is only ever
  // appended to and then left alone it equals the creation time. An entry
  // whose attributes cannot be read is kept.
  bool enableLogToFilesUnder_prefix_expireDays(const std::string& dir, const std::string& prefix,
                                               int days);
  // "<dir>/<prefix>-YYYYMMDD.log" for today's local date.
  std::string fileNameForTodayUnder_prefix(const std::string& dir, const std::string& prefix) const;

  // Lines for the operator beside the system's own messages: written to the
  // system log only (the day's file keeps the system's messages alone), with
  // `priority` and `fields` added to the context's.
  void logToSystem(LogPriority priority, std::string_view message,
                   std::span<const LogField> fields = {});
  // Fields every message carries to the system log until they are replaced
  // (the request being served: requests are served one at a time, so the
  // lines of its worker threads carry them too). Empty clears them.
  void setContextFields(std::vector<LogField> fields);

  FILE* logFP() const;
  void setLogFP(FILE* fp);

  // Seams for the process set-up and for tests. Neither is owned; each must
  // outlive its use here. nullptr restores the default: standard error, and
  // the system clock.
  void setSystemLog(SystemLog* sink);
  void setClock(const Clock* clock);

 private:
  VTLLogModel();

  mutable std::mutex lock_;
  FILE* logFP_ = nullptr;
  SystemLog* system_log_;
  const Clock* clock_;
  // Shared, not copied: every line takes the current set by reference.
  std::shared_ptr<const std::vector<LogField>> context_fields_;
};

}  // namespace vtl
