#include "operations/VTLHOperations.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string_view>

#include "base/VTLLog.h"
#include "base/errors.h"
#include "base/path.h"
#include "base/unique_fd.h"
#include "operations/file_layer.h"

namespace vtl {
namespace {

struct DirCloser {
  void operator()(DIR* d) const { ::closedir(d); }
};

constexpr const char* kPreferencesFile = "com.tessal.Vantrel.plist";
constexpr std::string_view kRootPreferences = "/var/root/Library/Preferences/";
constexpr std::string_view kMobilePreferences = "/var/mobile/Library/Preferences/";
constexpr std::string_view kMobile = "mobile";
constexpr std::string_view kStagingName = "VTL_staging";
constexpr std::string_view kLogEntryPrefix = "vtld-";
// Group and others gain read, write and search; the owner's bits and the
// set-id and sticky bits stay as they were.
constexpr mode_t kMobileWritableBits = 077;
// Directories the helper creates before widening them.
constexpr mode_t kNewDirectoryMode = 0755;

}  // namespace

VTLHOperations& VTLHOperations::sharedInstance() {
  static VTLHOperations* const instance = new VTLHOperations();
  return *instance;
}

bool VTLHOperations::migratePreferencesFile() {
  const std::string source = join(kRootPreferences, kPreferencesFile);
  const std::string destination = join(kMobilePreferences, kPreferencesFile);
  // Both folders are opened without passing a link and the file is moved
  // and re-owned through them: mobile owns its folder, and a link put there
  // would otherwise send root's move and chown wherever it points. Such a
  // folder cannot be opened, so the move fails.
  const UniqueFd from(files::open_directory_plain(std::string(kRootPreferences)));
  const UniqueFd to(files::open_directory_plain(std::string(kMobilePreferences)));
  const char* const name = kPreferencesFile;
  struct stat st {};
  if (from.get() < 0 || ::fstatat(from.get(), name, &st, AT_SYMLINK_NOFOLLOW) != 0) return false;
  // A second migration is a failed call, never an overwrite.
  if (to.get() >= 0 && ::fstatat(to.get(), name, &st, AT_SYMLINK_NOFOLLOW) == 0) return false;
  if (to.get() < 0 || ::renameat2(from.get(), name, to.get(), name, RENAME_NOREPLACE) != 0) {
    VTLLog("Couldn't move %@ to %@", source, destination);
    return false;
  }
  if (files::set_owner_by_name_at(environment_.files.accounts, to.get(), name, kMobile, kMobile) !=
      0) {
    VTLLog("Couldn't change ownership for %@", destination);
    return false;
  }
  return true;
}

bool VTLHOperations::prepareDirectory_writableByMobile(const std::string* path,
                                                       bool writableByMobile) {
  if (path == nullptr) return false;
  const std::string& directory = *path;
  // Whatever already stands at the path, a regular file included, is taken
  // as it is.
  if (!files::exists(directory)) {
    if (files::make_directories(directory, kNewDirectoryMode) != 0) return false;
  }
  if (writableByMobile) {
    // These two messages get the path for their "%s" and no method name: the
    // helper has always logged them so, and log readers match on it.
    std::optional<struct stat> st = files::attributes(directory);
    if (!st) {
      VTLLog("%s: Cannot get attribute from %@", directory);
      return false;
    }
    const auto mode = static_cast<mode_t>(((st->st_mode & 07777) | kMobileWritableBits) & 0xFFFF);
    if (int error = files::set_mode(directory, mode); error != 0) {
      VTLLog("%s: Cannot set attribute for %@ - %@", directory, error_description(error));
      return false;
    }
  }
  // A new staging always starts clean: whatever an unfinished one left goes.
  const std::string staging = join(directory, kStagingName);
  if (files::exists(staging)) {
    if (int error = files::remove_tree(staging); error != 0) {
      VTLLog("%s: Could not remove the path %@ with error - %@(0x%x)",
             "-[VTLHOperations prepareDirectory:writableByMobile:]", staging,
             error_description(error), error);
      return false;
    }
  }
  return true;
}

bool VTLHOperations::prepareLogContainer(const std::string* path) {
  if (!prepareDirectory_writableByMobile(path, true)) return false;
  // The folder is now the client's to change: it is listed and its entries
  // re-owned through one descriptor, opened without passing a link, and no
  // entry is followed.
  const UniqueFd folder(files::open_directory_plain(*path));
  const int listing =
      folder.get() >= 0 ? ::openat(folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1;
  std::unique_ptr<DIR, DirCloser> dir(listing >= 0 ? ::fdopendir(listing) : nullptr);
  if (!dir) {
    if (listing >= 0) ::close(listing);
    return true;
  }
  while (const dirent* entry = ::readdir(dir.get())) {
    const std::string_view name = entry->d_name;
    if (!name.starts_with(kLogEntryPrefix)) continue;
    // Best effort by design: an entry that cannot be re-owned is left as it is.
    static_cast<void>(files::set_owner_by_name_at(environment_.files.accounts, folder.get(),
                                                  entry->d_name, kMobile, kMobile));
  }
  return true;
}

bool VTLHOperations::removeDirectory(const std::string* path) {
  if (path == nullptr || !files::exists(*path)) return true;
  return files::remove_tree(*path) == 0;
}

}  // namespace vtl
