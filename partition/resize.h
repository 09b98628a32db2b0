// Shrinking and expanding the data partition together with the journaled
// file system mounted on it.
//
// Both flows end in one engine, adjust_partition, which recomputes the
// partition map in memory, resizes the mounted file system through the file
// system's own resize request, and writes the GPT header and first entries
// back to "/dev/rdisk0s1". The order of those two writes keeps a mounted file
// system inside its partition at every moment:
//   shrinking: the file system shrinks first; if that fails the map is left
//              as it was; if the map write then fails, a smaller file system
//              sits in the old, larger partition;
//   growing:   the map is written and synced first; if the file system then
//              fails to grow, a larger partition holds the old file system.
// Both states are safe. Nothing is rolled back; every failure is logged and
// ends the request with a failure result. No state survives a request except
// the process-wide NamedPartition rows (see partition_map.h).
//
// Threads: the request-handling thread only, one request at a time.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/value.h"
#include "platform/device_properties.h"
#include "platform/filesystem_resize.h"
#include "platform/mounted_volumes.h"
#include "platform/raw_disk.h"

namespace vtl {

// The storage roles the flows use, handed down by their caller. A role left
// out fails the step that needs it, as a platform without it would.
struct StorageRoles {
  platform::RawDisks* raw_disks = nullptr;
  platform::MountedVolumes* mounted_volumes = nullptr;
  platform::FileSystemResize* filesystem_resize = nullptr;
  platform::DeviceProperties* device_properties = nullptr;
};

// Shrinks the data partition so that it keeps everything in use plus half of
// what is free ("DiskUsage"). 0 on success, -1 on any failure.
std::int32_t shrink_data_partition(const StorageRoles& storage);

// Grows the data partition over every block no other partition uses. 0 on
// success, 1 on failure.
std::int32_t expand_data_partition(const StorageRoles& storage);

// Resizes the partition named "Data" (or, where the map has none, creates a
// partition in the first free slot) to `newSize` bytes rounded up to whole
// blocks, together with the file system mounted on it. 0 on success (also
// when nothing had to change), 1 on any failure.
std::int32_t adjust_partition(const StorageRoles& storage, std::int64_t newSize);

// The file system's resize-volume request: 0, or 1 after logging the errno.
std::int32_t resize_filesystem(platform::FileSystemResize* resize, const std::string& mountPoint,
                               std::uint64_t newSize);

// Stores the number under `key` of `dictionary`, converted to a signed
// 64-bit integer, into *out; leaves *out untouched when the key is missing or
// its value is not a number.
void read_usage_number(const Value& dictionary, std::string_view key, std::int64_t* out);

}  // namespace vtl
