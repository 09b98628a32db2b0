// VTLManifest: the manifest of one file tree, a dictionary from each item's
// path relative to a base directory ("/" for the base directory itself, else
// beginning with "/" when the base has no trailing slash) to that item's file
// metadata record (VTLFileMetadata).
//
// A manifest takes exactly one add (addFilesFromPath...): the walk records
// every item under the path, skipping listed sub-trees and special files,
// and drives the progress updater by bytes. Records are built on every core
// and committed in walk order, so what the manifest holds, the order of its
// messages and of its progress, and where a walk ends early are those of a
// walk that builds one record after the other.
//
// Records are kept in compact form (manifest_store.h, about 300 bytes each);
// `dict()` turns them into Values on demand, and writeBinaryPropertyList
// streams them into a binary property list without doing so.
//
// Failures are logged through VTLLog and reported by the boolean result.
// Threads: a manifest is used by one thread at a time (its walk uses worker
// threads of its own inside a call).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "base/value.h"
#include "manifest/VTLFileMetadata.h"
#include "manifest/file_roles.h"
#include "manifest/manifest_store.h"
#include "manifest/progress_reporter.h"

namespace vtl {

class VTLManifest {
 public:
  using Handler = std::function<bool(const VTLFileMetadata& record, const std::string& path)>;

  // init: empty, no base directory, no progress updater; its walk reads
  // names and protection classes through `roles`.
  explicit VTLManifest(const FileRoles& roles);
  // initWithDictionary: a copy of `dictionary`; no base directory, no
  // progress updater (so it could still take one add, through `roles`).
  VTLManifest(const FileRoles& roles, const Dictionary& dictionary);
  ~VTLManifest();
  VTLManifest(const VTLManifest&) = delete;
  VTLManifest& operator=(const VTLManifest&) = delete;

  // The manifest dictionary, built from the compact records (O(records)).
  Dictionary dict() const;
  void setDict(const Dictionary& dictionary);
  const std::optional<std::string>& rootPath() const { return root_path_; }
  void setRootPath(std::optional<std::string> path) { root_path_ = std::move(path); }
  ProgressReporter* progressUpdater() const { return progress_; }
  void setProgressUpdater(ProgressReporter* updater) { progress_ = updater; }

  // The record under `path` when it is a dictionary, else nothing.
  std::optional<VTLFileMetadata> metadataForFile(std::string_view path) const;
  // Stores the record's dictionary under `path`, replacing an earlier one.
  void setMetadata_forFile(const VTLFileMetadata& record, std::string_view path);
  std::unordered_set<std::string> pathSet() const;
  std::size_t count() const { return store_.size(); }

  // Whether `path` is one of `folders` or lies beneath one: the folder /a
  // holds /a and /a/b but not /ab; the folder /a/ holds /a/b.
  static bool folder_contains(const std::vector<std::string>& folders, std::string_view path);

  // Walks the tree under `path` into this manifest, names relative to `base`,
  // skipping `skip` (folder_contains) and special files; with `inclusive` the
  // path itself is recorded too, after everything under it. False when a
  // manifest already had its add, when an item's type cannot be read, or when
  // the handler refuses. True when an item vanished before its record could
  // be built: the walk ends there and the records before it stand.
  bool addFilesFromPath_relativeTo_skip_inclusive(const std::string& path, const std::string& base,
                                                  const std::vector<std::string>& skip,
                                                  bool inclusive);
  // The same walk, handing each record to `handler` instead of storing it.
  // The handler runs on the calling thread, in walk order, before the next
  // record is built, and may look at or change the tree.
  bool enumerateAndCollectMetaData_relativeTo_skip_inclusive_handler(
      const std::string& path, const std::string& base, const std::vector<std::string>& skip,
      bool inclusive, const Handler& handler);

  // Full paths of the directory's immediate entries whose names begin with
  // "."; empty when it cannot be listed.
  static std::vector<std::string> immediateHiddenFilesUnderPath(const std::string& path);
  // Bytes of the regular files under `path` (links not counted, nor the path
  // itself), skipping `skip`. 0 when an item cannot be read. With kSkip the
  // tree is enumerated (and its errors logged) but no size is looked up: 0.
  enum class Sizes : bool { kSkip, kSum };
  static std::uint64_t calculateTotalFileSize_skipPaths(const std::string& path,
                                                        const std::vector<std::string>& skip,
                                                        Sizes sizes = Sizes::kSum);
  // The item's own size, a link not followed; 0 when unreadable.
  static std::uint64_t fileSizeToAdjustPercentage(const std::string& path);

  // Writes `dict()` to `fd` as a binary property list, streamed from the
  // compact records. 0 or an errno value.
  int writeBinaryPropertyList(int fd) const;
  // Replaces `path` whole with that property list (mode 0644; see
  // bplist::replace_file). 0 or an errno value.
  int writeBinaryPropertyListToFile(const std::string& path) const;

  // Threads that build records during an add: two per core, at least four.
  // Hashing a warm tree needs one per core; a cold one spends most of its
  // time waiting for the disk, and more reads in flight shorten that (on two
  // cores, four threads read a cold tree about a third faster than two, and
  // hash a warm one as fast).
  static unsigned worker_count();
  // And more while the files met are not in the page cache, to have more
  // reads in flight: as many again, at least twelve.
  static unsigned cold_worker_count();
  // How many items an add may build ahead of the one it commits next. On
  // two cores over 100,000 warm items: 2.0 s with 512, 1.8 s with 2,048 or
  // 4,096 (the builders less often find the queue empty while the next item
  // to commit is still being built); cold, no difference within the noise.
  static constexpr std::size_t kLookAhead = 2048;
  // The same while the count that comes before any commit still runs on a
  // thread of its own: enough for the builders to keep both cores busy
  // until it is over.
  static constexpr std::size_t kLookAheadWhileCounting = 8192;
  // Tasks added to the window at a time, once that many have been committed.
  static constexpr std::size_t kRefillStride = 64;

  // Test seam: called on the building thread just before each record is built.
  void set_before_record_for_testing(std::function<void(const std::string&)> hook) {
    before_record_ = std::move(hook);
  }

 private:
  struct Walk;
  bool walk(const std::string& path, const std::string& base, const std::vector<std::string>& skip,
            bool inclusive, const Handler* handler);

  FileRoles roles_;
  manifest::ManifestStore store_;
  std::optional<std::string> root_path_;
  ProgressReporter* progress_ = nullptr;
  std::function<void(const std::string&)> before_record_;
};

}  // namespace vtl
