// Finishing an installation: the attribute restore from the signed manifest,
// and the promotion of a staging tree into "/var/backup".
#include <sys/stat.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>
#include <unordered_set>
#include <vector>

#include "manifest/VTLManifest.h"
#include "manifest/VTLSignedManifest.h"
#include "manifest/input_stream.h"
#include "operations/VTLHOperations.h"
#include "operations/file_layer.h"
#include "service/VTLLog.h"

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
constexpr const char* kMoveTogether = "Move the whole thing together.";
constexpr const char* kStagingLooksWrong = "Staging path %@ looks wrong.";
constexpr const char* kCouldNotMove = "Could not move %@ to %@ with error - %@";

// The file-record dictionary the container type and identifier select;
// nullptr after logging why there is none. A missing type or identifier
// always selects the backup's records.
const Dictionary* select_records(const VTLSignedManifest& manifest, const std::string* type,
                                 const std::string* identifier) {
  const Value* records = nullptr;
  if (type == nullptr || identifier == nullptr) {
    records = manifest.getManifest();
  } else if (*type == kAppDataType) {
    const Value* list = manifest.getAppDataList();
    const Value* entry = list != nullptr ? list->find(*identifier) : nullptr;
    if (entry == nullptr) {
      VTLLog(kNoContainerData, type, identifier);
      return nullptr;
    }
    // Only application data wraps its records under "Manifest".
    records = entry->find(kManifestKey);
  } else if (*type == kGroupDataType || *type == kExtensionDataType) {
    const Value* list =
        *type == kGroupDataType ? manifest.getGroupDataList() : manifest.getPlugInDataList();
    records = list != nullptr ? list->find(*identifier) : nullptr;
  }
  const Dictionary* dictionary = records != nullptr ? records->dictionary() : nullptr;
  if (dictionary == nullptr) VTLLog(kNoManifestDict, type, identifier);
  return dictionary;
}

// The signed manifest at `path`, or nothing (logged). The stream is closed
// whether or not the manifest was accepted.
std::unique_ptr<VTLSignedManifest> load_signed_manifest(const std::string* path) {
  int error = 0;
  std::unique_ptr<FileInputStream> stream =
      path != nullptr ? FileInputStream::inputStreamWithFileAtPath(*path, &error) : nullptr;
  if (!stream) {
    VTLLog(kCannotOpen);
    return nullptr;
  }
  std::unique_ptr<VTLSignedManifest> manifest =
      VTLSignedManifest::signedManifestWithNSStream(*stream);
  stream->close();
  return manifest;
}

// Whether `relative` names a place inside the staging root that is reached
// without passing a symbolic link or a "." or ".." component.
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
    prefix = files::join(prefix, component);
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
  std::string path = files::join(root, relative);
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// Restoring is a handful of system calls on each of many independent files;
// several threads overlap them. Records are decoded by the one thread that
// reads the manifest and handed over through a short queue, so that memory
// holds a bounded number of records whatever the count of files. After the
// first failure no thread takes another file: files not taken keep their
// attributes, as when one thread walks them.
class ParallelRestore {
 public:
  ParallelRestore(const std::string& root, unsigned threads) : root_(root) {
    for (unsigned i = 0; i < threads; ++i) threads_.emplace_back([this] { work(); });
  }
  ~ParallelRestore() { finish(); }
  ParallelRestore(const ParallelRestore&) = delete;
  ParallelRestore& operator=(const ParallelRestore&) = delete;

  // Queues one file; false once a file has failed (then nothing is queued).
  bool submit(const std::string& relative, VTLFileMetadata record) {
    std::unique_lock<std::mutex> lock(mutex_);
    room_.wait(lock, [this] { return queue_.size() < kQueued || failed_; });
    if (failed_) return false;
    queue_.emplace_back(relative, std::move(record));
    ready_.notify_one();
    return true;
  }
  // Waits for every queued file; whether all were restored.
  bool finish() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      done_ = true;
    }
    ready_.notify_all();
    for (std::thread& t : threads_) {
      if (t.joinable()) t.join();
    }
    return !failed_;
  }
  void fail() {
    std::lock_guard<std::mutex> lock(mutex_);
    failed_ = true;
    queue_.clear();
    room_.notify_all();
  }

 private:
  static constexpr std::size_t kQueued = 256;

  void work() {
    // Each thread remembers the directories it has found plain.
    std::unordered_set<std::string> plain_directories;
    for (;;) {
      std::pair<std::string, VTLFileMetadata> item("", VTLFileMetadata(Dictionary{}));
      {
        std::unique_lock<std::mutex> lock(mutex_);
        ready_.wait(lock, [this] { return !queue_.empty() || done_ || failed_; });
        if (failed_ || queue_.empty()) return;
        item = std::move(queue_.front());
        queue_.pop_front();
        room_.notify_one();
      }
      const std::string& relative = item.first;
      if (!is_plain_path(root_, relative, &plain_directories)) {
        VTLLog(kNotPlain, kRestoreMethod, relative);
        fail();
        return;
      }
      if (!item.second.restoreAttribuesToPath(absolute_path(root_, relative))) {
        fail();
        return;
      }
    }
  }

  const std::string& root_;
  std::mutex mutex_;
  std::condition_variable ready_;
  std::condition_variable room_;
  std::deque<std::pair<std::string, VTLFileMetadata>> queue_;
  bool done_ = false;
  bool failed_ = false;
  std::vector<std::thread> threads_;
};

// Threads for a restore: the work waits on the file system more than on a
// core, so a few more than there are cores.
unsigned restore_threads() { return std::clamp(2 * std::thread::hardware_concurrency(), 2U, 8U); }

}  // namespace

bool VTLHOperations::restoreAttributesUnder_fromManifest_containerType_identifier(
    const std::string* root, const std::string* manifestPath, const std::string* containerType,
    const std::string* identifier) {
  VTLLog(kLoading);
  std::unique_ptr<VTLSignedManifest> signed_manifest = load_signed_manifest(manifestPath);
  if (!signed_manifest) return false;

  const Dictionary* records = select_records(*signed_manifest, containerType, identifier);
  if (records == nullptr) return false;
  // The records are copied into the manifest's compact form; the parsed
  // payload, the largest thing held, goes before the walk starts.
  const VTLManifest manifest(*records);
  signed_manifest.reset();

  // Keys of the program's dictionaries are strings by type, so the
  // platform's "Got non-string value from array." case cannot arise here.
  if (root == nullptr) return manifest.count() == 0;
  ParallelRestore restore(*root, restore_threads());
  for (const std::string& relative : manifest.pathSet()) {
    std::optional<VTLFileMetadata> record = manifest.metadataForFile(relative);
    if (!record) {
      restore.fail();
      break;
    }
    if (!restore.submit(relative, std::move(*record))) break;
  }
  return restore.finish();
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
    VTLLog(kCouldNotMove, staging, destination, files::error_description(error));
    return false;
  }
  return true;
}

}  // namespace vtl
