#include "base/VTLLogModel.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <limits>
#include <optional>
#include <vector>

#include "base/description.h"
#include "base/path.h"
#include "base/plist.h"

namespace vtl {
namespace {

// The system's own texts.
constexpr std::string_view kLogLineFormat = "%@ %@\n";
constexpr std::string_view kLogFileNameFormat = "%@/%@-%4ld%02ld%02ld.log";
constexpr std::string_view kWritabilityProbeName = "testWritability.log";
constexpr std::string_view kCheckingMessage =
    "Checking existing log file (full path) %@ against %@";
constexpr std::string_view kRemovingMessage = "Removing %@ whose creation date is %@.";

constexpr mode_t kDirectoryMode = 0755;
constexpr mode_t kLogFileMode = 0644;
constexpr std::int64_t kSecondsPerDay = 86400;
// Expired directories are emptied recursively, one open descriptor per level;
// deeper than this the rest is left in place rather than run out of
// descriptors.
constexpr int kMaxRemovalDepth = 128;

SystemLog& default_system_log() {
  // Created once and never destroyed, like the logger that uses it.
  static SystemLog* const sink = make_stderr_system_log().release();
  return *sink;
}

std::string home_of_current_user() {
  if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') return home;
  passwd entry{};
  passwd* found = nullptr;
  std::vector<char> buffer(16384);
  if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
      found != nullptr && found->pw_dir != nullptr) {
    return found->pw_dir;
  }
  return {};
}

// "~" and "~/x" name the current user's home, "~name/x" that account's home.
// A path whose tilde cannot be expanded is used as written.
std::string expand_tilde(const std::string& path) {
  if (path.empty() || path[0] != '~') return path;
  const std::size_t slash = path.find('/');
  const std::string user =
      path.substr(1, slash == std::string::npos ? std::string::npos : slash - 1);
  const std::string rest = slash == std::string::npos ? std::string() : path.substr(slash);
  std::string home;
  if (user.empty()) {
    home = home_of_current_user();
  } else {
    passwd entry{};
    passwd* found = nullptr;
    std::vector<char> buffer(16384);
    if (::getpwnam_r(user.c_str(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
        found != nullptr && found->pw_dir != nullptr) {
      home = found->pw_dir;
    }
  }
  if (home.empty()) return path;
  if (home.size() > 1 && home.back() == '/') home.pop_back();
  return home + rest;
}

bool exists(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

// Creates `path` and any missing parents, each with kDirectoryMode.
bool make_directories(const std::string& path) {
  if (path.empty()) return false;
  std::size_t pos = 0;
  while (pos != std::string::npos) {
    pos = path.find('/', pos + 1);
    const std::string prefix = path.substr(0, pos);
    if (prefix.empty() || prefix == "/") continue;
    if (::mkdir(prefix.c_str(), kDirectoryMode) != 0 && errno != EEXIST) return false;
  }
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Opens `path` the way fopen(path, "a") does, except that it is close-on-exec,
// never goes through a symbolic link in the last component and accepts only a
// regular file (a FIFO planted under today's name would otherwise block the
// helper's start-up).
FILE* open_for_appending(const std::string& path) {
  const int fd = ::open(
      path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK,
      kLogFileMode);
  if (fd < 0) return nullptr;
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) ||
      ::fcntl(fd, F_SETFL, O_WRONLY | O_APPEND) != 0) {
    ::close(fd);
    return nullptr;
  }
  FILE* fp = ::fdopen(fd, "a");
  if (fp == nullptr) ::close(fd);
  return fp;
}

// The entry's creation date: its birth time, or where the file system keeps
// none its status-change time (see the header). Nothing when unreadable.
std::optional<Date> creation_date_at(int dir_fd, const char* name) {
  struct statx stx {};
  if (::statx(dir_fd, name, AT_SYMLINK_NOFOLLOW | AT_STATX_SYNC_AS_STAT, STATX_BTIME | STATX_CTIME,
              &stx) != 0) {
    return std::nullopt;
  }
  if ((stx.stx_mask & STATX_BTIME) != 0)
    return date_from_unix(stx.stx_btime.tv_sec, stx.stx_btime.tv_nsec);
  if ((stx.stx_mask & STATX_CTIME) != 0)
    return date_from_unix(stx.stx_ctime.tv_sec, stx.stx_ctime.tv_nsec);
  return std::nullopt;
}

// Removes `name` in `dir_fd`, a directory with everything in it. Works through
// descriptors opened with O_NOFOLLOW, so a link is removed itself and never
// followed, even if the entry is swapped for one while this runs. Failures are
// ignored: what cannot be removed stays.
void remove_tree_at(int dir_fd, const char* name, int depth) {
  if (::unlinkat(dir_fd, name, 0) == 0 || (errno != EISDIR && errno != EPERM)) return;
  if (depth < kMaxRemovalDepth) {
    const int fd = ::openat(dir_fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return;
    DIR* dir = ::fdopendir(fd);
    if (dir == nullptr) {
      ::close(fd);
      return;
    }
    std::vector<std::string> children;
    while (const dirent* entry = ::readdir(dir)) {
      const std::string_view child = entry->d_name;
      if (child != "." && child != "..") children.emplace_back(child);
    }
    for (const std::string& child : children) remove_tree_at(fd, child.c_str(), depth + 1);
    ::closedir(dir);
  }
  ::unlinkat(dir_fd, name, AT_REMOVEDIR);
}

// now - days, saturating at the ends of the representable range.
Date expiry_cutoff(Date now, int days) {
  std::int64_t back = 0;
  const std::int64_t now_ns = now.time_since_epoch().count();
  std::int64_t cutoff = 0;
  if (__builtin_mul_overflow(static_cast<std::int64_t>(days), kSecondsPerDay * 1'000'000'000,
                             &back) ||
      __builtin_sub_overflow(now_ns, back, &cutoff)) {
    cutoff = days > 0 ? std::numeric_limits<std::int64_t>::min()
                      : std::numeric_limits<std::int64_t>::max();
  }
  return Date(std::chrono::nanoseconds(cutoff));
}

}  // namespace

VTLLogModel::VTLLogModel() : system_log_(&default_system_log()), clock_(&Clock::system()) {}

VTLLogModel& VTLLogModel::sharedInstance() {
  // Created on first use under the once-only guard of a function-local static;
  // never destroyed, so that a thread logging while the process exits still
  // finds it.
  static VTLLogModel* const instance = new VTLLogModel();
  return *instance;
}

void VTLLogModel::logWithFormat_andArgs(std::string_view format, std::span<const LogArg> args) {
  logMessage(format_message(format, args));
}

void VTLLogModel::logMessage(std::string_view message) {
  const Clock* clock = nullptr;
  SystemLog* sink = nullptr;
  std::shared_ptr<const std::vector<LogField>> fields;
  {
    std::lock_guard<std::mutex> guard(lock_);
    clock = clock_;
    sink = system_log_;
    fields = context_fields_;
  }
  const std::string date = date_description(clock->now());
  const LogArg line_args[] = {LogArg(date), LogArg(message)};
  const std::string line = format_message(kLogLineFormat, line_args);
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (logFP_ != nullptr) {
      // Flushed at once: the helper can end at any moment (exit, reboot) and
      // no line may be lost. Write errors have nowhere to go and are ignored.
      static_cast<void>(std::fwrite(line.data(), 1, line.size(), logFP_));
      static_cast<void>(std::fflush(logFP_));
    }
  }
  // The system log stamps its own time: it gets the bare message.
  sink->write_entry(
      {.message = message,
       .fields = fields ? std::span<const LogField>(*fields) : std::span<const LogField>()});
}

void VTLLogModel::logToSystem(LogPriority priority, std::string_view message,
                              std::span<const LogField> fields) {
  SystemLog* sink = nullptr;
  std::vector<LogField> all;
  {
    std::lock_guard<std::mutex> guard(lock_);
    sink = system_log_;
    if (context_fields_) all = *context_fields_;
  }
  all.insert(all.end(), fields.begin(), fields.end());
  sink->write_entry({.priority = priority, .message = message, .fields = all});
}

void VTLLogModel::setContextFields(std::vector<LogField> fields) {
  auto shared =
      fields.empty() ? nullptr : std::make_shared<const std::vector<LogField>>(std::move(fields));
  std::lock_guard<std::mutex> guard(lock_);
  context_fields_ = std::move(shared);
}

bool VTLLogModel::enableLogToFile(const std::string& path) {
  const std::string expanded = expand_tilde(path);
  const std::size_t slash = expanded.rfind('/');
  if (slash != std::string::npos && slash > 0) {
    const std::string parent = expanded.substr(0, slash);
    if (!exists(parent) && !make_directories(parent)) return false;
  }
  FILE* fp = open_for_appending(expanded);
  std::lock_guard<std::mutex> guard(lock_);
  logFP_ = fp;
  return logFP_ != nullptr;
}

bool VTLLogModel::logToFileEnabled() const {
  std::lock_guard<std::mutex> guard(lock_);
  return logFP_ != nullptr;
}

bool VTLLogModel::enableLogToFilesUnder_prefix_expireDays(const std::string& dir,
                                                          const std::string& prefix, int days) {
  if (!exists(dir) && !make_directories(dir)) return false;

  const std::string probe = join(dir, kWritabilityProbeName);
  static constexpr std::uint8_t kProbeContent[] = {'a'};
  if (write_file_atomically(probe, kProbeContent, kLogFileMode) != 0) return false;
  static_cast<void>(::unlink(probe.c_str()));

  const Clock* clock = nullptr;
  SystemLog* sink = nullptr;
  {
    std::lock_guard<std::mutex> guard(lock_);
    clock = clock_;
    sink = system_log_;
  }
  const Date cutoff = expiry_cutoff(clock->now(), days);
  const std::string cutoff_text = date_description(cutoff);

  const int dir_fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* listing = dir_fd < 0 ? nullptr : ::fdopendir(dir_fd);
  if (listing == nullptr) {
    if (dir_fd >= 0) ::close(dir_fd);
  } else {
    // The names are taken first and then handled in listing order, so that
    // removals cannot disturb the listing itself.
    std::vector<std::string> names;
    while (const dirent* entry = ::readdir(listing)) {
      const std::string_view name = entry->d_name;
      if (name != "." && name != "..") names.emplace_back(name);
    }
    for (const std::string& name : names) {
      std::string full_path = dir;
      full_path += '/';
      full_path += name;
      const LogArg checking_args[] = {LogArg(full_path), LogArg(cutoff_text)};
      sink->write(format_message(kCheckingMessage, checking_args));
      const std::optional<Date> created = creation_date_at(::dirfd(listing), name.c_str());
      if (created && *created < cutoff) {
        const std::string created_text = date_description(*created);
        const LogArg removing_args[] = {LogArg(full_path), LogArg(created_text)};
        sink->write(format_message(kRemovingMessage, removing_args));
        remove_tree_at(::dirfd(listing), name.c_str(), 0);
      }
    }
    ::closedir(listing);
  }

  return enableLogToFile(fileNameForTodayUnder_prefix(dir, prefix));
}

std::string VTLLogModel::fileNameForTodayUnder_prefix(const std::string& dir,
                                                      const std::string& prefix) const {
  const Clock* clock = nullptr;
  {
    std::lock_guard<std::mutex> guard(lock_);
    clock = clock_;
  }
  const std::tm today = clock->local_calendar(clock->now());
  const LogArg args[] = {LogArg(dir), LogArg(prefix), LogArg(long{today.tm_year} + 1900),
                         LogArg(long{today.tm_mon} + 1), LogArg(long{today.tm_mday})};
  return format_message(kLogFileNameFormat, args);
}

FILE* VTLLogModel::logFP() const {
  std::lock_guard<std::mutex> guard(lock_);
  return logFP_;
}

void VTLLogModel::setLogFP(FILE* fp) {
  std::lock_guard<std::mutex> guard(lock_);
  logFP_ = fp;
}

void VTLLogModel::setSystemLog(SystemLog* sink) {
  std::lock_guard<std::mutex> guard(lock_);
  system_log_ = sink != nullptr ? sink : &default_system_log();
}

void VTLLogModel::setClock(const Clock* clock) {
  std::lock_guard<std::mutex> guard(lock_);
  clock_ = clock != nullptr ? clock : &Clock::system();
}

}  // namespace vtl
