// The journaled file system's resize on a Linux host: btrfs resizes online,
// to a size in bytes, through BTRFS_IOC_RESIZE on its mount point. The data
// volume has one device (devid 1), which the request addresses by default.
#include <fcntl.h>
#include <linux/btrfs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "platform/filesystem_resize.h"

namespace platform {
namespace {

class BtrfsFileSystemResize final : public FileSystemResize {
 public:
  int resize_volume(const std::string& mount_point, std::uint64_t new_size) override {
    const int fd = ::open(mount_point.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return errno;
    btrfs_ioctl_vol_args args{};
    static_cast<void>(std::snprintf(args.name, sizeof args.name, "%llu",
                                    static_cast<unsigned long long>(new_size)));
    const int error = ::ioctl(fd, BTRFS_IOC_RESIZE, &args) == 0 ? 0 : errno;
    ::close(fd);
    return error;
  }
};

}  // namespace

std::unique_ptr<FileSystemResize> make_btrfs_filesystem_resize() {
  return std::make_unique<BtrfsFileSystemResize>();
}

}  // namespace platform
