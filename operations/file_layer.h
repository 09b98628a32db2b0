// The file operations the helper's actions are made of, on plain POSIX calls.
// Each returns 0 or an errno value, so that callers can log the platform's own
// description of what went wrong (base/errors.h).
//
// None follows a symbolic link in the final component of its path: a client
// that plants a link where a container should be gets a failure, not a root
// action on whatever the link names.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "base/errors.h"

namespace platform {
class Accounts;
}

namespace vtl::files {

// Whether anything, a dangling symbolic link included, is at `path`.
bool exists(const std::string& path);
// The item's own attributes (lstat); nullopt and errno set when unreadable.
std::optional<struct stat> attributes(const std::string& path);
// Creates `path` and missing parents with `mode` (before the umask).
int make_directories(const std::string& path, mode_t mode);
// Sets the permission bits of a regular file or directory; a symbolic link or
// special file gets EOPNOTSUPP.
int set_mode(const std::string& path, mode_t mode);
int set_owner(const std::string& path, uid_t uid, gid_t gid);
// Removes `path` and everything under it; 0 when nothing was there.
int remove_tree(const std::string& path);
// Renames `from` to `to`, failing with EEXIST rather than replacing `to`.
int move_no_replace(const std::string& from, const std::string& to);
// `path` with the data area's other name read as its own: the device's
// "/var" is a link to "private/var", so "/var/x" is "/private/var/x".
std::string data_area_path(std::string path);
// The directory at the absolute `path`, opened (O_PATH) without passing a
// symbolic link anywhere on the way: for folders a client owns, where a link
// put in place of a folder would send root's action wherever it points. The
// device's own "/var" (a link to "private/var") is read as "/private/var".
// A descriptor, or -1 with errno set (a link on the way: ENOTDIR or ELOOP;
// a ".." component: EINVAL).
int open_directory_plain(const std::string& path);
// Gives the item `name` in the open directory `dir` to the named user and
// group, looked up in `accounts`, never following a link: a link is re-owned
// itself. ENOENT when either name is unknown (or there are no accounts).
int set_owner_by_name_at(const platform::Accounts* accounts, int dir, const char* name,
                         std::string_view user, std::string_view group);

}  // namespace vtl::files
