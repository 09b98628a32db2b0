// Faults injected around any backend: each wrapper forwards every call to the
// role it wraps, simulated or Linux, except where the device's fault plan
// says to fail or to end. The helper puts them around the storage and the
// registry whenever it serves a device directory, so the same drills run
// against a disk image and against a real block device.
//
// The plan is read afresh at each call that can fail, so that a test can set
// or clear a fault while the helper runs. Files under <root>/sim/:
//
//   storage-faults.plist
//     DiskWriteError         integer  disk writes fail with this errno
//     DiskWriteShort         integer  disk writes stop after this many bytes
//     FileSystemResizeError  integer  file-system resizes fail with this errno
//     Failpoint              string   the helper ends at once (_exit, status
//                                     kFailpointExitStatus) at this step, as a
//                                     device losing power would:
//                                     "before-disk-write", "after-disk-write",
//                                     "after-sync", "before-filesystem-resize",
//                                     "after-filesystem-resize"
//   registry-faults.plist
//     NoMasterPort           boolean  no connection to the registry
//     NoOptionsNode          boolean  the options node is not found
//     RefusedProperties      array    property names the node refuses to set
//
// An injected failure never reaches the wrapped role: nothing is written and
// nothing recorded. Threads: as the wrapped role.
#pragma once

#include <memory>
#include <string>

#include "platform/device_registry.h"
#include "platform/filesystem_resize.h"
#include "platform/raw_disk.h"

namespace platform {

// How a failpoint ends the helper: a status no other exit of the helper uses.
inline constexpr int kFailpointExitStatus = 86;
inline constexpr const char* kStorageFaultsPath = "/sim/storage-faults.plist";
inline constexpr const char* kRegistryFaultsPath = "/sim/registry-faults.plist";

// `root` is the device directory whose sim/ holds the plan ("/" inside the
// confined helper).
std::unique_ptr<RawDisks> with_storage_faults(std::unique_ptr<RawDisks> disks,
                                              const std::string& root);
std::unique_ptr<FileSystemResize> with_storage_faults(std::unique_ptr<FileSystemResize> resize,
                                                      const std::string& root);
std::unique_ptr<DeviceRegistry> with_registry_faults(std::unique_ptr<DeviceRegistry> registry,
                                                     const std::string& root);

}  // namespace platform
