// The disk that carries the volume manager's partition map, as the resize
// flows see it: the raw node "/dev/rdisk0s1", its logical block size and
// block count, the "Zmra" signature in its MBR, and a snapshot of its GPT
// header and first 8 entries. Messages go through the helper's log.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>

#include "partition/gpt.h"
#include "partition/zmra.h"
#include "platform/raw_disk.h"

namespace vtl {

inline constexpr const char* kRawDiskPath = "/dev/rdisk0s1";

// The 92 GPT header bytes and the first 1024 bytes of the entry array (the
// first 8 entries), as read. Owned by the caller.
struct PartitionMapSnapshot {
  std::array<std::uint8_t, gpt::kHeaderSize> header{};
  std::array<std::uint8_t, gpt::kEntriesSize> entries{};

  std::int32_t nPartitions() const { return gpt::partition_count(header); }
  std::span<const std::uint8_t> entry(int i) const { return gpt::entry(entries, i); }
};

// The partitions found by name. Each map read stores the GPT index of every
// entry that carries a row's name; a row keeps what an earlier read found
// when a later one does not find the name again (it is never reset to -1).
struct NamedPartition {
  std::int32_t index;
  const char* name;
};
inline constexpr int kNamedPartitionCount = 3;
// The rows, in order: "System", "Data", "Update". Process-wide, like the
// request handling that uses them (one request at a time).
std::span<NamedPartition, kNamedPartitionCount> named_partitions();
inline constexpr int kDataPartitionRow = 1;

// Opens "/dev/rdisk0s1" through `disks` (nullptr: it cannot) with
// platform::kDiskOpenReadOnly or platform::kDiskOpenReadWriteShared. nullptr
// (after logging why) when it cannot be opened or examined, or is not a raw
// disk node.
std::unique_ptr<platform::DiskDevice> open_raw_disk(platform::RawDisks* disks, int flags);

// Reads the partition map of "/dev/rdisk0s1" through `disks` into `snapshot`; with `geometry`, also
// works out the disk's Zmra geometry and refuses a disk Zmra cannot manage. 1 on success, 0 on
// failure (logged; the snapshot may then be partly filled and must not be used).
int read_partition_map(platform::RawDisks* disks, PartitionMapSnapshot* snapshot,
                       ZmraMediaGeometry* geometry);

}  // namespace vtl
