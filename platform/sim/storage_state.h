// The simulated device's storage state under <root>/sim/, shared by its disk,
// mount table, device-property and file-system-resize backends: readable
// property lists, replaced whole on every change.
//
//   disk.plist              the raw disk: BlockSize (integer), NodeType
//                           ("CharacterSpecial" for the raw node the image
//                           stands for, the default; anything else is
//                           refused as not a raw disk node)
//   mounts.plist            the mount table (see mounted_volumes.h)
//   disks.plist             BSD disk name -> registry properties ("UUID")
//   device-properties.plist device-information answers ("DiskUsage")
//   storage-journal.plist   what happened, in order: DiskWrite, Sync and
//                           FileSystemResize events
//   storage-faults.plist    faults to inject, read at every operation:
//     DiskWriteError         integer  disk writes fail with this errno
//     DiskWriteShort         integer  disk writes stop after this many bytes
//     FileSystemResizeError  integer  file-system resizes fail with this errno
//     Failpoint              string   the helper ends at once (_exit) at this
//                                     step, as a device losing power would:
//                                     "before-disk-write", "after-disk-write",
//                                     "after-sync", "before-filesystem-resize",
//                                     "after-filesystem-resize"
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/value.h"

namespace platform::sim {

inline constexpr const char* kDiskImagePath = "/dev/rdisk0s1";
inline constexpr const char* kDiskStatePath = "/sim/disk.plist";
inline constexpr const char* kMountsStatePath = "/sim/mounts.plist";
inline constexpr const char* kDisksStatePath = "/sim/disks.plist";
inline constexpr const char* kDevicePropertiesStatePath = "/sim/device-properties.plist";
inline constexpr const char* kStorageJournalPath = "/sim/storage-journal.plist";
inline constexpr const char* kStorageFaultsPath = "/sim/storage-faults.plist";

// How a failpoint ends the helper: a status no other exit of the helper uses.
inline constexpr int kFailpointExitStatus = 86;

// The property list at a device path under `root`; nullopt when absent or
// not a property list.
std::optional<vtl::Value> read_state(const std::string& root, std::string_view path);
// Replaces it: 0 or an errno value.
int write_state(const std::string& root, std::string_view path, const vtl::Value& value);

// One integer fault from storage-faults.plist.
std::optional<std::int64_t> fault_number(const std::string& root, std::string_view key);
// Ends the process at once when storage-faults.plist names `step` as its
// Failpoint. Nothing is flushed or unwound, as on a power loss.
void failpoint(const std::string& root, std::string_view step);
// Appends one event to storage-journal.plist.
void journal(const std::string& root, vtl::Dictionary event);

}  // namespace platform::sim
