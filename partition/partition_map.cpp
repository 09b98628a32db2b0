#include "partition/partition_map.h"

#include <algorithm>
#include <vector>

#include "base/VTLLog.h"
#include "partition/utf16.h"
#include "platform/platform.h"

namespace vtl {
namespace {

NamedPartition g_named_partitions[kNamedPartitionCount] = {
    {-1, "System"},
    {-1, "Data"},
    {-1, "Update"},
};

// Without a geometry the block size is the device's word alone. The buffers
// are sized by it, so a device claiming a block of gigabytes must not make
// us allocate one; real disks use 512 to 64 KiB.
constexpr std::uint32_t kLargestBlockSize = 1U << 20;

}  // namespace

std::span<NamedPartition, kNamedPartitionCount> named_partitions() {
  return std::span<NamedPartition, kNamedPartitionCount>(g_named_partitions);
}

std::unique_ptr<platform::DiskDevice> open_raw_disk(platform::RawDisks* disks, int flags) {
  std::unique_ptr<platform::DiskDevice> disk =
      disks != nullptr ? disks->open(kRawDiskPath, flags) : nullptr;
  if (!disk) {
    VTLLog("failed to open %s", kRawDiskPath);
    return nullptr;
  }
  const std::optional<platform::DiskDevice::NodeType> type = disk->node_type();
  if (!type) {
    VTLLog("failed to stat %s", kRawDiskPath);
    return nullptr;
  }
  if (*type != platform::DiskDevice::NodeType::kRawDisk) {
    VTLLog("%s is not a suitable device (try /dev/rdisk*)", kRawDiskPath);
    return nullptr;
  }
  return disk;
}

int read_partition_map(platform::RawDisks* disks, PartitionMapSnapshot* snapshot,
                       ZmraMediaGeometry* geometry) {
  std::unique_ptr<platform::DiskDevice> disk = open_raw_disk(disks, platform::kDiskOpenReadOnly);
  if (!disk) return 0;
  const std::optional<std::uint32_t> block_size = disk->block_size();
  if (!block_size) {
    VTLLog("ioctl DKIOCGETBLOCKSIZE failed");
    return 0;
  }
  const std::optional<std::uint64_t> block_count = disk->block_count();
  if (!block_count) {
    VTLLog("ioctl DKIOCGETBLOCKCOUNT failed");
    return 0;
  }
  if (geometry != nullptr) {
    std::uint64_t media_size = 0;
    if (__builtin_mul_overflow(std::uint64_t{*block_size}, *block_count, &media_size) ||
        zmraInitMediaGeometry(geometry, media_size, *block_size) != 0) {
      VTLLog("Device %s not suitable", kRawDiskPath);
      return 0;
    }
  } else if (*block_size == 0 || *block_size > kLargestBlockSize) {
    VTLLog("Device %s not suitable", kRawDiskPath);
    return 0;
  }

  // Each buffer is at least as large as what is taken from it, so that a
  // small block leaves zeros (no signature, no entries) rather than a read
  // past its end.
  const std::size_t block = *block_size;
  std::vector<std::uint8_t> mbr(std::max(block, gpt::kDiskSignatureOffset + 4), 0);
  const ssize_t mbr_read = disk->read_at(std::span(mbr).first(block), 0);
  if (mbr_read < 0 || static_cast<std::size_t>(mbr_read) != block) {
    VTLLog("Failed to read MBR from %s", kRawDiskPath);
    return 0;
  }
  if (le::load32(mbr, gpt::kDiskSignatureOffset) != gpt::kZmraDiskSignature) {
    VTLLog("%s not managed by Zmra", kRawDiskPath);
    return 0;
  }

  std::vector<std::uint8_t> tables(2 * block, 0);
  const ssize_t read = disk->read_at(tables, block);
  if (read < 0 || static_cast<std::size_t>(read) != tables.size()) {
    VTLLog("Failed to read GPT header and table from %s", kRawDiskPath);
    return 0;
  }
  snapshot->header.fill(0);
  snapshot->entries.fill(0);
  std::copy_n(tables.begin(), std::min(block, gpt::kHeaderSize), snapshot->header.begin());
  std::copy_n(tables.begin() + static_cast<std::ptrdiff_t>(block),
              std::min(block, gpt::kEntriesSize), snapshot->entries.begin());

  const std::int32_t count = snapshot->nPartitions();
  if (count < 1) return 1;
  // Only the entries held are scanned, whatever the header counts.
  const int scanned = std::min(count, gpt::kEntriesHeld);
  for (int i = 0; i < scanned; ++i) {
    const std::span<const std::uint8_t> name =
        snapshot->entry(i).subspan(gpt::kNameOffset, gpt::kNameSize);
    for (NamedPartition& row : named_partitions()) {
      std::array<std::uint8_t, gpt::kNameSize> wanted{};
      if (utf_encodestr2(row.name, wanted) < 0) {
        VTLLog("Could not get unicode name for partition %s", row.name);
        return 0;
      }
      if (std::equal(wanted.begin(), wanted.end(), name.begin())) {
        row.index = i;
        break;
      }
    }
  }
  return 1;
}

}  // namespace vtl
