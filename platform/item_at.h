// An item named relative to an open directory, as the *at system calls take
// it, for work over many items of the same directories: a name looked up in
// an open directory costs one step of path resolution instead of one per
// component, and nothing above the directory is looked at again.
//
// `directory` may be AT_FDCWD with `name` a whole path: the item by path.
// `path` is always the item's whole path, for messages and for the calls that
// have no *at form on the running kernel.
#pragma once

#include <fcntl.h>
#include <sys/types.h>

#include <cstddef>
#include <string>

namespace platform {

struct ItemAt {
  int directory = AT_FDCWD;
  const char* name = nullptr;
  const std::string& path;

  // The item at `whole_path` (which must outlive it), by path.
  static ItemAt by_path(const std::string& whole_path) {
    return ItemAt{AT_FDCWD, whole_path.c_str(), whole_path};
  }
};

// Sets the extended attribute `name` of the item, never following a link in
// the final component: setxattrat (Linux 6.13) where the kernel has it, else
// lsetxattr on the whole path. 0 or an errno value.
int set_xattr(const ItemAt& item, const char* name, const void* value, std::size_t size);

// The names of the item's extended attributes as listxattr gives them, never
// following a link in the final component: listxattrat (Linux 6.13) where the
// kernel has it, else llistxattr on the whole path. Their length in bytes, or
// -1 with errno set.
ssize_t list_xattrs(const ItemAt& item, char* buffer, std::size_t size);

// The value of the item's extended attribute `name`, the same way
// (getxattrat, else lgetxattr): its length in bytes, or -1 with errno set.
ssize_t get_xattr(const ItemAt& item, const char* name, void* buffer, std::size_t size);

}  // namespace platform
