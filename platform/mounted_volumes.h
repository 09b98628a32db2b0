// Mounted volumes: the mount table (getfsstat) and, for the disk a volume is
// mounted from, the device registry's "UUID" property: the unique GUID of the
// partition that holds it, as UUID text.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/value.h"

namespace platform {

struct MountedFileSystem {
  std::string type_name;     // "jrf" for the platform's journaled file system
  std::string mounted_from;  // e.g. "/dev/disk0s1s2"
  std::string mounted_on;    // e.g. "/private/var"
};

class MountedVolumes {
 public:
  virtual ~MountedVolumes() = default;
  // getfsstat(MNT_NOWAIT) into room for `capacity` records: fills `records`
  // with at most that many, in mount order, and returns how many; -1 with
  // errno set when the table cannot be read.
  virtual int file_systems(std::vector<MountedFileSystem>& records, int capacity) = 0;
  // The properties of the registry service that owns the BSD disk
  // `bsd_name` (e.g. "disk0s1s2"), or nullopt when no service owns it.
  virtual std::optional<vtl::Dictionary> disk_properties(std::string_view bsd_name) = 0;
};

inline constexpr std::string_view kJrfTypeName = "jrf";
inline constexpr std::string_view kDiskUUIDProperty = "UUID";

// Simulated device: the mount table <root>/sim/mounts.plist, an array of
//   Type         string   file-system type name
//   MountedFrom  string   device path
//   MountedOn    string   mount point
//   Size         integer  the file system's size in bytes (its resize keeps it)
//   Used         integer  bytes in use (a resize never goes below)
// and the registry's disks <root>/sim/disks.plist: BSD name -> properties.
std::unique_ptr<MountedVolumes> make_sim_mounted_volumes(std::string root);

// Linux host: /proc/self/mountinfo (read through `proc_dir_fd`, the host's
// /proc opened before any confinement; borrowed), with btrfs reported as
// "jrf". A disk's "UUID" is its GPT partition GUID: the kernel's PARTUUID
// from the host's /sys/class/block (`sys_block_fd`) where it records one,
// else read from the GPT of the parent disk, opened through the host's /dev
// (`dev_dir_fd`). All three are opened before confinement and borrowed.
std::unique_ptr<MountedVolumes> make_linux_mounted_volumes(int proc_dir_fd, int sys_block_fd,
                                                           int dev_dir_fd);

}  // namespace platform
