#include "platform/item_at.h"

#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

namespace platform {
namespace {

// setxattrat (Linux 6.13): the C library of this system does not wrap it yet;
// its number is the same on every architecture.
constexpr long kSysSetxattrat = 463;
struct XattrArgs {
  alignas(8) std::uint64_t value;
  std::uint32_t size;
  std::uint32_t flags;
};

// Cleared at the first ENOSYS, so that an older kernel is asked once.
std::atomic<bool> setxattrat_available{true};

}  // namespace

int set_xattr(const ItemAt& item, const char* name, const void* value, std::size_t size) {
  if (item.directory != AT_FDCWD && setxattrat_available.load(std::memory_order_relaxed)) {
    const XattrArgs args{reinterpret_cast<std::uintptr_t>(value), static_cast<std::uint32_t>(size),
                         0};
    if (::syscall(kSysSetxattrat, item.directory, item.name, AT_SYMLINK_NOFOLLOW, name, &args,
                  sizeof args) == 0) {
      return 0;
    }
    if (errno != ENOSYS) return errno;
    setxattrat_available.store(false, std::memory_order_relaxed);
  }
  return ::lsetxattr(item.path.c_str(), name, value, size, 0) == 0 ? 0 : errno;
}

}  // namespace platform
