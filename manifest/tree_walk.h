// Deep enumeration of a directory tree, the platform's directory enumerator
// for the manifest builder.
//
// Order: pre-order (a directory, then everything under it), the entries of
// each directory in byte order of their names, so that a walk of the same
// tree always meets items in the same order.
// The walked directory itself is not among the items; it may be reached
// through links, but nothing under it is followed: links are reported as
// links, and every directory is entered through its parent's descriptor
// without following a link, so that a directory swapped for a link during
// the walk is not entered.
// Each item comes with the type its directory listing gave (d_type; an
// fstatat only where the file system does not give one), so classifying an
// item costs no system call.
// Errors do not stop the walk: a directory that cannot be opened or read is
// reported as an error event and the walk goes on past it. A name that is not
// UTF-8 cannot be recorded (a manifest holds only Unicode text): it is
// reported as an error event (EILSEQ) and, for a directory, not entered.
// Open descriptors: one per directory level being walked, and the directories
// that reported items still hold (see OpenDirectory), at most
// kMaxOpenDirectories in all.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace vtl::manifest {

// A directory the walk opened, kept open for as long as an item reported from
// it holds it: whoever works on the item later, on any thread, opens it
// through its directory, one name looked up with no link followed on the way,
// even after the walk has moved on.
class OpenDirectory {
 public:
  // Takes `fd`, which it closes.
  OpenDirectory(int fd, std::shared_ptr<std::atomic<std::uint32_t>> open_count);
  ~OpenDirectory();
  OpenDirectory(const OpenDirectory&) = delete;
  OpenDirectory& operator=(const OpenDirectory&) = delete;

  int fd() const { return fd_; }

 private:
  int fd_;
  std::shared_ptr<std::atomic<std::uint32_t>> open_count_;
};

struct WalkEvent {
  enum class Kind : std::uint8_t { kItem, kError };
  enum class Type : std::uint8_t { kRegular, kDirectory, kSymbolicLink, kOther, kUnknown };
  Kind kind = Kind::kItem;
  Type type = Type::kUnknown;  // kItem: kUnknown when the type could not be read
  int error = 0;               // kError: an errno value
  std::string path;            // the item, or what could not be enumerated
  // kItem: the directory it was listed in, unless the walk already holds
  // kMaxOpenDirectories open; it is then reached by its path alone.
  // Its name there is the last component of `path`.
  std::shared_ptr<const OpenDirectory> directory;
};

class TreeWalk {
 public:
  // Beyond this many directories held open (each level of the walk, and the
  // ones that items reported earlier still hold), items come without theirs.
  static constexpr std::uint32_t kMaxOpenDirectories = 256;

  // What a walk reports: every item, or only what a walk that wants no file
  // still has to see: directories, items whose type the listing does not
  // give, and the names that are reported as errors (not UTF-8). Skipping
  // the rest before it is sorted saves most of a listing's cost.
  enum class Items : std::uint8_t { kAll, kDirectories };

  // `keep_out(path)` is asked of each directory before it is entered; true
  // means its entries are not walked (the directory itself was reported).
  TreeWalk(std::string root, std::function<bool(const std::string&)> keep_out,
           Items items = Items::kAll);
  ~TreeWalk();
  TreeWalk(const TreeWalk&) = delete;
  TreeWalk& operator=(const TreeWalk&) = delete;

  // The next event, or false when the walk is over.
  bool next(WalkEvent& event);
  // lstat of the item the last event reported, looked up in its directory
  // (one name, not the whole path). 0 or an errno value.
  int stat_item(struct stat* st) const;

 private:
  struct Entry {
    std::string name;
    unsigned char type;
  };
  struct Frame {
    std::shared_ptr<const OpenDirectory> dir;
    std::string path;
    std::vector<Entry> entries;
    std::size_t index = 0;
  };

  // Opens a directory and reads all its entries; an error event otherwise.
  bool push(int fd, std::string path, WalkEvent& event);
  // Adds the entries of the directory open at `fd` that this walk reports.
  // 0, or the errno value that ended the reading.
  int read_entries(int fd, std::vector<Entry>& entries);

  // Listings are read straight from the kernel into this, many entries a
  // call: a directory stream would cost three more calls per directory
  // (fdopendir's checks).
  static constexpr std::size_t kListingBuffer = std::size_t{32} << 10;

  std::string root_;
  std::function<bool(const std::string&)> keep_out_;
  Items items_;
  // Directories open now, theirs and the walk's; shared with each of them,
  // since an item may keep one beyond the walk.
  std::shared_ptr<std::atomic<std::uint32_t>> open_count_ =
      std::make_shared<std::atomic<std::uint32_t>>(0);
  std::vector<Frame> stack_;
  std::unique_ptr<char[]> listing_;  // kListingBuffer bytes, once a listing is read
  bool started_ = false;
  // The directory just reported, to be entered on the next call.
  std::string descend_name_;
  bool descend_ = false;
  // The item last reported: its directory's descriptor and its name.
  int item_directory_ = -1;
  std::string item_name_;
};

// `path` without trailing slashes ("/" stays "/").
std::string without_trailing_slashes(std::string path);

}  // namespace vtl::manifest
