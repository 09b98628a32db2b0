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
//
// Faults are not the backends' business: fault_injection.h wraps them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/value.h"
#include "platform/fault_injection.h"

namespace platform::sim {

inline constexpr const char* kDiskImagePath = "/dev/rdisk0s1";
inline constexpr const char* kDiskStatePath = "/sim/disk.plist";
inline constexpr const char* kMountsStatePath = "/sim/mounts.plist";
inline constexpr const char* kDisksStatePath = "/sim/disks.plist";
inline constexpr const char* kDevicePropertiesStatePath = "/sim/device-properties.plist";
inline constexpr const char* kStorageJournalPath = "/sim/storage-journal.plist";
// Where tests set faults, and the status a failpoint ends the helper with.
using platform::kFailpointExitStatus;
using platform::kStorageFaultsPath;

// The property list at a device path under `root`; nullopt when absent or
// not a property list.
std::optional<vtl::Value> read_state(const std::string& root, std::string_view path);
// Replaces it: 0 or an errno value.
int write_state(const std::string& root, std::string_view path, const vtl::Value& value);

// Appends one event to storage-journal.plist.
void journal(const std::string& root, vtl::Dictionary event);

}  // namespace platform::sim
