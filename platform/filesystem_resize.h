// File-system resize: the journaled file system's resize-volume control
// request (fsctl JRF_RESIZE_VOLUME, 0x80086802) on a mounted volume, growing
// or shrinking it online to a new size in bytes.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace platform {

class FileSystemResize {
 public:
  virtual ~FileSystemResize() = default;
  // Resizes the file system mounted on `mount_point` to `new_size` bytes:
  // 0, or the errno value of the failure.
  virtual int resize_volume(const std::string& mount_point, std::uint64_t new_size) = 0;
};

// Simulated device: the volume is the entry of <root>/sim/mounts.plist with
// that mount point. A size larger than its partition holds at that moment
// (read from the disk image's GPT) is refused (ENOSPC), as is one below the
// bytes in use; every resize accepted or refused is recorded in
// <root>/sim/storage-journal.plist, and an accepted one updates the volume's
// size and, for the data volume, "DiskUsage".
std::unique_ptr<FileSystemResize> make_sim_filesystem_resize(std::string root);

// Linux host: btrfs's online resize (BTRFS_IOC_RESIZE) of the mount point's
// only device.
std::unique_ptr<FileSystemResize> make_btrfs_filesystem_resize();

}  // namespace platform
