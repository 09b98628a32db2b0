// Finishing an installation: the attribute restore from the signed manifest,
// and the promotion of a staging tree into "/var/backup".
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include <algorithm>
#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_set>
#include <vector>

#include "base/VTLLog.h"
#include "base/VTLLogModel.h"
#include "base/binary_plist_reader.h"
#include "base/errors.h"
#include "base/path.h"
#include "manifest/VTLFileMetadata.h"
#include "manifest/VTLSignedManifest.h"
#include "manifest/input_stream.h"
#include "operations/VTLHOperations.h"
#include "operations/file_layer.h"

namespace vtl {
namespace {

constexpr const char* kRestoreMethod =
    "-[VTLHOperations restoreAttributesUnder:fromManifest:containerType:identifier:]";

constexpr std::string_view kFinalPlace = "/var/backup";
constexpr std::string_view kAppDataType = "AppData";
constexpr std::string_view kGroupDataType = "GroupData";
constexpr std::string_view kExtensionDataType = "ExtensionData";
constexpr std::string_view kManifestKey = "Manifest";

constexpr const char* kLoading = "Loading signed manifest.";
constexpr const char* kCannotOpen = "Cannot open manifest file.";
constexpr const char* kNoContainerData = "Couldn't load container data for %@/%@";
constexpr const char* kNoManifestDict = "Couldn't load manifest dict for %@/%@";
constexpr const char* kNotPlain = "%s: Refusing %@: it is not a plain path under the staging root.";
// The error a record's restore reports when the request named no staging
// root.
constexpr std::string_view kNoStagingRoot = "no staging root path was given";
constexpr const char* kMoveTogether = "Move the whole thing together.";
constexpr const char* kStagingLooksWrong = "Staging path %@ looks wrong.";
constexpr const char* kCouldNotMove = "Could not move %@ to %@ with error - %@";

// The file-record dictionary the container type and identifier select;
// nullopt after logging why there is none. A missing type or identifier
// always selects the backup's records.
std::optional<bplist::Object> select_records(const VTLSignedManifest& manifest,
                                             const std::string* type,
                                             const std::string* identifier) {
  std::optional<bplist::Object> records;
  if (type == nullptr || identifier == nullptr) {
    records = manifest.getManifest();
  } else if (*type == kAppDataType) {
    const std::optional<bplist::Object> list = manifest.getAppDataList();
    const std::optional<bplist::Object> entry = list ? list->find(*identifier) : std::nullopt;
    if (!entry) {
      VTLLog(kNoContainerData, type, identifier);
      return std::nullopt;
    }
    // Only application data wraps its records under "Manifest".
    records = entry->find(kManifestKey);
  } else if (*type == kGroupDataType || *type == kExtensionDataType) {
    const std::optional<bplist::Object> list =
        *type == kGroupDataType ? manifest.getGroupDataList() : manifest.getPlugInDataList();
    records = list ? list->find(*identifier) : std::nullopt;
  }
  if (!records || records->type() != bplist::Object::Type::kDictionary) {
    VTLLog(kNoManifestDict, type, identifier);
    return std::nullopt;
  }
  return records;
}

// The signed manifest at `path`, or nothing (logged). The stream is closed
// whether or not the manifest was accepted.
std::unique_ptr<VTLSignedManifest> load_signed_manifest(const std::string* path,
                                                        const VTLSignedManifest::Roles& roles) {
  int error = 0;
  std::unique_ptr<FileInputStream> stream =
      path != nullptr ? FileInputStream::inputStreamWithFileAtPath(*path, &error) : nullptr;
  if (!stream) {
    VTLLog(kCannotOpen);
    // Which file and why, for the operator, beside the system's own line.
    VTLLogModel::sharedInstance().logToSystem(
        LogPriority::kError,
        path == nullptr ? "Cannot open manifest file: no path was given"
                        : "Cannot open manifest file " + *path + ": " + error_description(error));
    return nullptr;
  }
  std::unique_ptr<VTLSignedManifest> manifest =
      VTLSignedManifest::signedManifestWithNSStream(*stream, roles);
  stream->close();
  return manifest;
}

// Whether `relative` names a place inside the staging root that is reached
// without passing a symbolic link or a "." or ".." component: the look made
// where the kernel has no openat2 (ItemFinder below).
//
// The client owns the staging tree: a directory it swaps for a link would
// otherwise send root's chown, chmod and setxattr wherever the link points.
// A tree the walker recorded never holds an item beneath a link, so nothing
// legitimate is refused. Directories found plain are remembered for the rest
// of the walk (`plain`), so that each is looked at once. A swap after the
// look is not caught here; the final component is never followed anyway.
bool is_plain_path(const std::string& root, std::string_view relative,
                   std::unordered_set<std::string>* plain) {
  std::string prefix = root;
  std::size_t start = 0;
  while (start <= relative.size()) {
    std::size_t end = relative.find('/', start);
    if (end == std::string_view::npos) end = relative.size();
    const std::string_view component = relative.substr(start, end - start);
    const bool last = end == relative.size();
    start = end + 1;
    if (component.empty()) continue;
    if (component == "." || component == "..") return false;
    prefix = join(prefix, component);
    if (last) break;
    if (plain->contains(prefix)) continue;
    struct stat st {};
    if (::lstat(prefix.c_str(), &st) == 0) {
      if (S_ISLNK(st.st_mode)) return false;
      plain->insert(prefix);
    }
    // A missing or unreadable directory leaves the restore of the item to
    // fail on its own, with its own message.
  }
  return true;
}

// `root` joined with `relative` as a path component; the root itself for
// "/".
std::string absolute_path(const std::string& root, std::string_view relative) {
  std::string path = join(root, relative);
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// Where a restoring thread finds the items of its records: each item's
// directory is opened beneath the staging root without passing a symbolic
// link (openat2 with RESOLVE_BENEATH and RESOLVE_NO_SYMLINKS), once for all
// the neighbouring records in it, and the item is then named in it. So every
// call on an item resolves one name, and a directory the client swaps for a
// link is never passed, before the look or after it.
class ItemFinder {
 public:
  ItemFinder(const std::string& root, const FileRoles& roles)
      : root_(root),
        roles_(roles),
        root_fd_(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {}
  ~ItemFinder() {
    close_directory();
    if (root_fd_ >= 0) ::close(root_fd_);
  }
  ItemFinder(const ItemFinder&) = delete;
  ItemFinder& operator=(const ItemFinder&) = delete;

  // Restores `record` onto the item at `relative`; false after the first
  // failure, logged.
  bool restore(const std::string& relative, const VTLFileMetadata& record) {
    const std::string path = absolute_path(root_, relative);
    std::string_view name;
    switch (find(relative, &name)) {
      case Found::kOutside:
        VTLLog(kNotPlain, kRestoreMethod, relative);
        return false;
      case Found::kByPath:
        return record.restoreAttribuesToPath(path, roles_);
      case Found::kInDirectory:
        name_.assign(name);
        return record.restoreAttribuesToPath(platform::ItemAt{directory_fd_, name_.c_str(), path},
                                             roles_);
    }
    return false;
  }

 private:
  enum class Found { kInDirectory, kByPath, kOutside };

  // Splits `relative` into its directory (opened into directory_fd_) and the
  // item's name there. kByPath for the staging root itself, and where the
  // directory cannot be opened for another reason than a link or an escape:
  // the item then fails on its own, with its own message.
  Found find(std::string_view relative, std::string_view* name) {
    parent_.clear();
    name->remove_prefix(name->size());
    for (std::size_t start = 0; start <= relative.size();) {
      std::size_t end = relative.find('/', start);
      if (end == std::string_view::npos) end = relative.size();
      const std::string_view component = relative.substr(start, end - start);
      start = end + 1;
      if (component.empty()) continue;
      if (component == "." || component == "..") return Found::kOutside;
      if (!name->empty()) {
        if (!parent_.empty()) parent_ += '/';
        parent_ += *name;
      }
      *name = component;
    }
    if (name->empty() || root_fd_ < 0) return Found::kByPath;
    if (directory_fd_ >= 0 && parent_ == directory_) return Found::kInDirectory;
    close_directory();
    open_how how{};
    how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    const long fd =
        ::syscall(SYS_openat2, root_fd_, parent_.empty() ? "." : parent_.c_str(), &how, sizeof how);
    if (fd < 0) {
      if (errno == ELOOP || errno == EXDEV) return Found::kOutside;
      if (errno == ENOSYS) {
        // Kernels before openat2: every directory is looked at first.
        return is_plain_path(root_, relative, &plain_directories_) ? Found::kByPath
                                                                   : Found::kOutside;
      }
      return Found::kByPath;
    }
    directory_fd_ = static_cast<int>(fd);
    directory_ = parent_;
    return Found::kInDirectory;
  }

  void close_directory() {
    if (directory_fd_ >= 0) ::close(directory_fd_);
    directory_fd_ = -1;
  }

  const std::string& root_;
  const FileRoles& roles_;
  const int root_fd_;
  int directory_fd_ = -1;
  std::string directory_;  // what directory_fd_ is, relative to the root
  // Scratch, reused from record to record.
  std::string parent_;
  std::string name_;
  std::unordered_set<std::string> plain_directories_;  // without openat2 only
};

// Restoring is a handful of system calls on each of many independent files;
// several threads overlap them. The records are read in place from the
// signed manifest: each thread takes the next few entries of the record
// dictionary, turns one record at a time into a VTLFileMetadata and restores
// it, so memory holds the manifest's bytes and a record per thread, whatever
// the count of files.
//
// What the log and the files show is one walk in some order, as if a single
// thread had restored them: after the first failure no file is begun, and
// exactly that failure is logged, last. Each thread holds back its messages
// while it restores a file (LogHold). A file that is restored releases them.
// The first file that fails claims the end of the walk, waits for the files
// begun before the claim to finish and release theirs, and then releases
// its own; a failure that loses the claim is dropped, as a walk that had
// already stopped would never have begun it.
class ParallelRestore {
 public:
  ParallelRestore(const std::string& root, const bplist::Object& records, const FileRoles& roles)
      : root_(root), records_(records), roles_(roles) {}

  // Restores every record on `threads` threads; whether all were restored.
  bool run(unsigned threads) {
    std::vector<std::thread> workers;
    for (unsigned i = 1; i < threads; ++i) workers.emplace_back([this] { work(); });
    work();
    for (std::thread& t : workers) t.join();
    return !failed_.load();
  }

 private:
  // Entries taken at a time: neighbours in the dictionary are neighbours in
  // the tree, whose directory a thread then has open already.
  static constexpr std::size_t kBatch = 32;

  void work() {
    ItemFinder items(root_, roles_);
    LogHold hold;
    std::string relative;
    const std::size_t count = records_.size();
    for (;;) {
      const std::size_t begin = next_.fetch_add(kBatch);
      if (begin >= count) return;
      for (std::size_t i = begin; i < std::min(count, begin + kBatch); ++i) {
        // Counted before the look, so that a claim made after the look
        // waits for this file.
        in_flight_.fetch_add(1);
        if (failed_.load()) {
          finish_file();
          return;
        }
        if (!restore_one(items, i, &relative)) {
          bool first = false;
          if (failed_.compare_exchange_strong(first, true)) {
            finish_file();
            for (int n = in_flight_.load(); n != 0; n = in_flight_.load()) in_flight_.wait(n);
            hold.release();
          } else {
            hold.discard();
            finish_file();
          }
          return;
        }
        hold.release();
        finish_file();
      }
    }
  }

  bool restore_one(ItemFinder& items, std::size_t i, std::string* relative) {
    static_cast<void>(records_.key(i).text(relative));  // keys are strings
    const bplist::Object record = records_.value(i);
    // An entry that is not a dictionary has no metadata.
    if (record.type() != bplist::Object::Type::kDictionary) return false;
    Value value = bplist::to_value(record);
    return items.restore(*relative, VTLFileMetadata::fileMetaDataWithMetadataDictionary(
                                        std::move(*value.dictionary())));
  }

  // A file is done, its messages released: the claimant may be waiting for
  // the last one.
  void finish_file() {
    if (in_flight_.fetch_sub(1) == 1 && failed_.load()) in_flight_.notify_all();
  }

  const std::string& root_;
  const bplist::Object& records_;
  const FileRoles& roles_;
  std::atomic<std::size_t> next_{0};
  std::atomic<bool> failed_{false};
  std::atomic<int> in_flight_{0};  // files begun and not yet finished
};

// A restore given no staging root: each record's path under no root is no
// path, so every record that needs one fails, and the first ends the walk
// with its own message saying why.
bool restore_without_root(const bplist::Object& records) {
  for (std::size_t i = 0; i < records.size(); ++i) {
    const bplist::Object record = records.value(i);
    if (record.type() != bplist::Object::Type::kDictionary) return false;
    Value value = bplist::to_value(record);
    const VTLFileMetadata metadata =
        VTLFileMetadata::fileMetaDataWithMetadataDictionary(std::move(*value.dictionary()));
    if (!metadata.restoreAttribuesToNoPath(kNoStagingRoot)) return false;
  }
  return true;
}

// Threads for a restore: each file's calls sleep in the file system's locks
// and journal as much as they run, so four per core. (Measured on two cores
// over 51,000 items: 1 thread 1.6 s, 2 0.89 s, 4 0.89 s, 8 0.77 s, 16
// 0.77 s.)
unsigned restore_threads() { return std::clamp(4 * std::thread::hardware_concurrency(), 4U, 16U); }

}  // namespace

bool VTLHOperations::restoreAttributesUnder_fromManifest_containerType_identifier(
    const std::string* root, const std::string* manifestPath, const std::string* containerType,
    const std::string* identifier) {
  VTLLog(kLoading);
  std::unique_ptr<VTLSignedManifest> signed_manifest =
      load_signed_manifest(manifestPath, environment_.signing);
  if (!signed_manifest) return false;

  const std::optional<bplist::Object> records =
      select_records(*signed_manifest, containerType, identifier);
  if (!records) return false;

  // Keys of the program's dictionaries are strings by type, so the
  // platform's "Got non-string value from array." case cannot arise here.
  if (root == nullptr) return restore_without_root(*records);
  return ParallelRestore(*root, *records, environment_.files).run(restore_threads());
}

bool VTLHOperations::moveStagingToFinal(const std::string* staging) {
  VTLLog(kMoveTogether);
  // The staging tree itself, not whatever a link in its place points to:
  // promoting a client's link would make "/var/backup" lead where the
  // client chose.
  std::optional<struct stat> st =
      staging != nullptr ? files::attributes(*staging) : std::optional<struct stat>();
  if (!st || !S_ISDIR(st->st_mode)) {
    VTLLog(kStagingLooksWrong, staging);
    return false;
  }
  const std::string destination(kFinalPlace);
  // A removal that fails is not reported by itself: the move below then
  // finds the old tree in its way.
  if (files::exists(destination)) static_cast<void>(files::remove_tree(destination));
  if (int error = files::move_no_replace(*staging, destination); error != 0) {
    VTLLog(kCouldNotMove, staging, destination, error_description(error));
    return false;
  }
  return true;
}

}  // namespace vtl
