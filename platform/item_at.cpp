#include "platform/item_at.h"

#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

namespace platform {
namespace {

// The *xattrat calls (Linux 6.13): the C library of this system does not wrap
// them yet; their numbers are the same on every architecture.
constexpr long kSysSetxattrat = 463;
constexpr long kSysGetxattrat = 464;
constexpr long kSysListxattrat = 465;
struct XattrArgs {
  alignas(8) std::uint64_t value;
  std::uint32_t size;
  std::uint32_t flags;
};

// Cleared at the first ENOSYS, so that an older kernel is asked once.
std::atomic<bool> xattrat_available{true};

// Whether the item is to be reached through its directory: it has one, and
// the kernel has not said it lacks the *xattrat calls.
bool through_directory(const ItemAt& item) {
  return item.directory != AT_FDCWD && xattrat_available.load(std::memory_order_relaxed);
}

// Whether `result`, what an *xattrat call gave, is the kernel's answer (errno
// left as the call set it); false for ENOSYS, which sends this call and every
// later one by path.
bool answered(long result) {
  if (result >= 0 || errno != ENOSYS) return true;
  xattrat_available.store(false, std::memory_order_relaxed);
  return false;
}

}  // namespace

int set_xattr(const ItemAt& item, const char* name, const void* value, std::size_t size) {
  if (through_directory(item)) {
    const XattrArgs args{reinterpret_cast<std::uintptr_t>(value), static_cast<std::uint32_t>(size),
                         0};
    const long result = ::syscall(kSysSetxattrat, item.directory, item.name, AT_SYMLINK_NOFOLLOW,
                                  name, &args, sizeof args);
    if (answered(result)) return result == 0 ? 0 : errno;
  }
  return ::lsetxattr(item.path.c_str(), name, value, size, 0) == 0 ? 0 : errno;
}

ssize_t list_xattrs(const ItemAt& item, char* buffer, std::size_t size) {
  if (through_directory(item)) {
    const long result =
        ::syscall(kSysListxattrat, item.directory, item.name, AT_SYMLINK_NOFOLLOW, buffer, size);
    if (answered(result)) return result;
  }
  return ::llistxattr(item.path.c_str(), buffer, size);
}

ssize_t get_xattr(const ItemAt& item, const char* name, void* buffer, std::size_t size) {
  if (through_directory(item)) {
    XattrArgs args{reinterpret_cast<std::uintptr_t>(buffer), static_cast<std::uint32_t>(size), 0};
    const long result = ::syscall(kSysGetxattrat, item.directory, item.name, AT_SYMLINK_NOFOLLOW,
                                  name, &args, sizeof args);
    if (answered(result)) return result;
  }
  return ::lgetxattr(item.path.c_str(), name, buffer, size);
}

}  // namespace platform
