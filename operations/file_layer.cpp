#include "operations/file_layer.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "base/errors.h"
#include "platform/accounts.h"
#include "platform/platform.h"

namespace vtl::files {

bool exists(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

std::optional<struct stat> attributes(const std::string& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return std::nullopt;
  return st;
}

int make_directories(const std::string& path, mode_t mode) {
  if (path.empty()) return ENOENT;
  // Walk down from the top, creating what is missing; an existing component
  // that is not a directory stops the walk with ENOTDIR from mkdir.
  std::string::size_type pos = 0;
  for (;;) {
    pos = path.find('/', pos + 1);
    const std::string prefix = path.substr(0, pos);
    if (!prefix.empty() && ::mkdir(prefix.c_str(), mode) != 0 && errno != EEXIST) return errno;
    if (pos == std::string::npos) break;
  }
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return errno;
  return S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
}

int set_mode(const std::string& path, mode_t mode) {
  struct stat seen {};
  if (::lstat(path.c_str(), &seen) != 0) return errno;
  // Only regular files and directories: opening a device to change its mode
  // could act on the device, and Linux cannot give a link a mode of its own.
  if (!S_ISREG(seen.st_mode) && !S_ISDIR(seen.st_mode)) return EOPNOTSUPP;
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return errno;
  struct stat opened {};
  int error = 0;
  if (::fstat(fd, &opened) != 0) {
    error = errno;
  } else if (opened.st_ino != seen.st_ino || opened.st_dev != seen.st_dev) {
    error = ESTALE;  // replaced between the look and the open
  } else {
    error = ::fchmod(fd, mode) == 0 ? 0 : errno;
  }
  ::close(fd);
  return error;
}

int set_owner(const std::string& path, uid_t uid, gid_t gid) {
  return ::lchown(path.c_str(), uid, gid) == 0 ? 0 : errno;
}

int set_owner_by_name_at(const platform::Accounts* accounts, int dir, const char* name,
                         std::string_view user, std::string_view group) {
  if (accounts == nullptr) return ENOENT;
  std::optional<uid_t> uid = accounts->user_id(user);
  std::optional<gid_t> gid = accounts->group_id(group);
  if (!uid || !gid) return ENOENT;
  return ::fchownat(dir, name, *uid, *gid, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
}

std::string data_area_path(std::string path) {
  if (path == "/var" || path.starts_with("/var/")) path.insert(0, "/private");
  return path;
}

int open_directory_plain(const std::string& path) {
  if (!path.starts_with('/')) {
    errno = EINVAL;
    return -1;
  }
  const std::string plain = data_area_path(path);
  int dir = ::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
  std::string component;
  for (std::size_t start = 1; dir >= 0 && start < plain.size();) {
    std::size_t end = plain.find('/', start);
    if (end == std::string::npos) end = plain.size();
    component.assign(plain, start, end - start);
    start = end + 1;
    if (component.empty() || component == ".") continue;
    if (component == "..") {
      ::close(dir);
      errno = EINVAL;
      return -1;
    }
    // O_NOFOLLOW with O_DIRECTORY: a link is not opened, whatever it names.
    const int next =
        ::openat(dir, component.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    const int error = errno;
    ::close(dir);
    dir = next;
    errno = error;
  }
  return dir;
}

int remove_tree(const std::string& path) {
  std::error_code ec;
  std::filesystem::remove_all(path, ec);
  return ec ? ec.value() : 0;
}

int move_no_replace(const std::string& from, const std::string& to) {
  return ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0 ? 0
                                                                                          : errno;
}

}  // namespace vtl::files
