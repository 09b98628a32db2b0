#include "operations/link_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "operations/file_layer.h"

namespace vtl::files {
namespace {

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
// New directories stay private to root until their entries are in and their
// source's owner and mode are applied.
constexpr mode_t kBuildingMode = 0700;

// The names in the directory open at `fd` (the descriptor stays open).
int list(int fd, std::vector<std::string>* names) {
  const int own = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (own < 0) return errno;
  DIR* dir = ::fdopendir(own);
  if (dir == nullptr) {
    const int error = errno;
    ::close(own);
    return error;
  }
  errno = 0;
  while (const dirent* entry = ::readdir(dir)) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names->emplace_back(name);
  }
  const int error = errno;
  ::closedir(dir);
  return error;
}

int finish_directory(int fd, const struct stat& source) {
  if (::fchown(fd, source.st_uid, source.st_gid) != 0) return errno;
  if (::fchmod(fd, source.st_mode & 07777) != 0) return errno;
  return 0;
}

// Fills the new directory `to` with the entries of `from`.
int link_entries(int from, int to) {
  std::vector<std::string> names;
  if (int error = list(from, &names); error != 0) return error;
  for (const std::string& name : names) {
    struct stat st {};
    if (::fstatat(from, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return errno;
    if (!S_ISDIR(st.st_mode)) {
      if (::linkat(from, name.c_str(), to, name.c_str(), 0) != 0) return errno;
      continue;
    }
    UniqueFd child_from(::openat(from, name.c_str(), kDirectoryFlags));
    if (child_from.get() < 0) return errno;
    if (::mkdirat(to, name.c_str(), kBuildingMode) != 0) return errno;
    UniqueFd child_to(::openat(to, name.c_str(), kDirectoryFlags));
    if (child_to.get() < 0) return errno;
    if (int error = link_entries(child_from.get(), child_to.get()); error != 0) return error;
    if (int error = finish_directory(child_to.get(), st); error != 0) return error;
  }
  return 0;
}

}  // namespace

int link_item(const std::string& source, const std::string& destination) {
  struct stat st {};
  if (::lstat(source.c_str(), &st) != 0) return errno;
  if (!S_ISDIR(st.st_mode)) {
    return ::linkat(AT_FDCWD, source.c_str(), AT_FDCWD, destination.c_str(), 0) == 0 ? 0 : errno;
  }
  UniqueFd from(::open(source.c_str(), kDirectoryFlags));
  if (from.get() < 0) return errno;
  if (::mkdir(destination.c_str(), kBuildingMode) != 0) return errno;
  int error = 0;
  {
    UniqueFd to(::open(destination.c_str(), kDirectoryFlags));
    if (to.get() < 0) {
      error = errno;
    } else {
      error = link_entries(from.get(), to.get());
      if (error == 0) error = finish_directory(to.get(), st);
    }
  }
  if (error != 0) static_cast<void>(remove_tree(destination));
  return error;
}

}  // namespace vtl::files
