#include "manifest/tree_walk.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string_view>

#include "base/utf8.h"

namespace vtl::manifest {
namespace {

WalkEvent::Type type_of_dirent(unsigned char d_type) {
  switch (d_type) {
    case DT_REG:
      return WalkEvent::Type::kRegular;
    case DT_DIR:
      return WalkEvent::Type::kDirectory;
    case DT_LNK:
      return WalkEvent::Type::kSymbolicLink;
    case DT_UNKNOWN:
      return WalkEvent::Type::kUnknown;
    default:
      return WalkEvent::Type::kOther;
  }
}

WalkEvent::Type type_of_mode(mode_t mode) {
  if (S_ISREG(mode)) return WalkEvent::Type::kRegular;
  if (S_ISDIR(mode)) return WalkEvent::Type::kDirectory;
  if (S_ISLNK(mode)) return WalkEvent::Type::kSymbolicLink;
  return WalkEvent::Type::kOther;
}

// Not vtl::join: a record's key is its path with the walk's root cut off as
// given, so the root's own slashes must stay as they are.
std::string child_path(const std::string& parent, const std::string& name) {
  std::string path;
  path.reserve(parent.size() + 1 + name.size());
  path.append(parent);
  if (path.empty() || path.back() != '/') path.push_back('/');
  path.append(name);
  return path;
}

}  // namespace

OpenDirectory::OpenDirectory(int fd, std::shared_ptr<std::atomic<std::uint32_t>> open_count)
    : fd_(fd), open_count_(std::move(open_count)) {
  open_count_->fetch_add(1, std::memory_order_relaxed);
}

OpenDirectory::~OpenDirectory() {
  ::close(fd_);
  open_count_->fetch_sub(1, std::memory_order_relaxed);
}

int TreeWalk::stat_item(struct stat* st) const {
  if (item_directory_ < 0) return ENOENT;
  return ::fstatat(item_directory_, item_name_.c_str(), st, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
}

std::string without_trailing_slashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

TreeWalk::TreeWalk(std::string root, std::function<bool(const std::string&)> keep_out, Items items)
    : root_(without_trailing_slashes(std::move(root))),
      keep_out_(std::move(keep_out)),
      items_(items) {}

TreeWalk::~TreeWalk() = default;

bool TreeWalk::push(int fd, std::string path, WalkEvent& event) {
  if (fd < 0) {
    event.kind = WalkEvent::Kind::kError;
    event.error = errno;
    event.path = std::move(path);
    return false;
  }
  Frame frame;
  frame.dir = std::make_shared<const OpenDirectory>(fd, open_count_);
  frame.path = std::move(path);
  const int read_error = read_entries(fd, frame.entries);
  std::sort(frame.entries.begin(), frame.entries.end(),
            [](const Entry& a, const Entry& b) { return a.name < b.name; });
  stack_.push_back(std::move(frame));
  if (read_error != 0) {
    // What could be read is walked; the error is reported first.
    event.kind = WalkEvent::Kind::kError;
    event.error = read_error;
    event.path = stack_.back().path;
    return false;
  }
  return true;
}

int TreeWalk::read_entries(int fd, std::vector<Entry>& entries) {
  if (!listing_) listing_ = std::make_unique<char[]>(kListingBuffer);
  for (;;) {
    const ssize_t n = ::getdents64(fd, listing_.get(), kListingBuffer);
    if (n == 0) return 0;
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    // Records of the kernel's own layout, each d_reclen long and aligned
    // for its fields.
    for (ssize_t at = 0; at < n;) {
      const auto* entry = reinterpret_cast<const dirent64*>(listing_.get() + at);
      at += entry->d_reclen;
      const std::string_view name = entry->d_name;
      if (name == "." || name == "..") continue;
      if (items_ == Items::kDirectories && entry->d_type != DT_DIR && entry->d_type != DT_UNKNOWN &&
          is_text(name)) {
        continue;
      }
      entries.push_back(Entry{std::string(name), entry->d_type});
    }
  }
}

bool TreeWalk::next(WalkEvent& event) {
  if (!started_) {
    started_ = true;
    const int fd = ::open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (!push(fd, root_, event)) return true;
  }
  if (descend_) {
    descend_ = false;
    Frame& parent = stack_.back();
    const int fd = ::openat(parent.dir->fd(), descend_name_.c_str(),
                            O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    std::string path = child_path(parent.path, descend_name_);
    if (!push(fd, std::move(path), event)) return true;
  }
  while (!stack_.empty()) {
    Frame& frame = stack_.back();
    if (frame.index == frame.entries.size()) {
      stack_.pop_back();
      continue;
    }
    Entry& entry = frame.entries[frame.index++];
    event.path = child_path(frame.path, entry.name);
    event.error = 0;
    if (!is_text(entry.name)) {
      event.kind = WalkEvent::Kind::kError;
      event.error = EILSEQ;
      return true;
    }
    event.kind = WalkEvent::Kind::kItem;
    event.type = type_of_dirent(entry.type);
    event.directory.reset();
    if (open_count_->load(std::memory_order_relaxed) <= kMaxOpenDirectories) {
      event.directory = frame.dir;
    }
    item_directory_ = frame.dir->fd();
    item_name_ = entry.name;
    if (event.type == WalkEvent::Type::kUnknown) {
      struct stat st {};
      if (::fstatat(frame.dir->fd(), entry.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
        event.type = type_of_mode(st.st_mode);
      }
    }
    if (event.type == WalkEvent::Type::kDirectory && !(keep_out_ && keep_out_(event.path))) {
      descend_ = true;
      descend_name_ = std::move(entry.name);
    }
    return true;
  }
  return false;
}

}  // namespace vtl::manifest
