#include "partition/resize.h"

#include <uuid/uuid.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>
#include <vector>

#include "base/VTLLog.h"
#include "base/errors.h"
#include "partition/partition_map.h"
#include "platform/device_properties.h"
#include "platform/filesystem_resize.h"
#include "platform/mounted_volumes.h"
#include "platform/platform.h"
#include "platform/raw_disk.h"

namespace vtl {
namespace {

// getfsstat is given room for this many file systems.
constexpr int kFileSystemSlots = 8;
constexpr std::size_t kUUIDTextMax = 36;

std::uint64_t entry_blocks(std::span<const std::uint8_t> e) {
  return gpt::ending_lba(e) + 1 - gpt::starting_lba(e);
}

// The mount point of the "jrf" file system whose disk's registry "UUID" is
// `guid`, or nullopt.
std::optional<std::string> find_mount_point(platform::MountedVolumes* volumes, const uuid_t guid,
                                            const std::string& guid_text) {
  std::vector<platform::MountedFileSystem> records;
  int count = -1;
  if (volumes != nullptr) count = volumes->file_systems(records, kFileSystemSlots);
  if (count < 0) {
    VTLLog("failed to get filesystem information");
    records.clear();
  }
  VTLLog("scanning %d filesystems for %s", count, guid_text);
  for (const platform::MountedFileSystem& fs : records) {
    if (fs.type_name != platform::kJrfTypeName) continue;
    const std::size_t slash = fs.mounted_from.rfind('/');
    const std::string bsd_name =
        slash == std::string::npos ? fs.mounted_from : fs.mounted_from.substr(slash + 1);
    const std::optional<Dictionary> properties = volumes->disk_properties(bsd_name);
    if (!properties) {
      VTLLog("failed to find an RegService owning %s (unexpected)", bsd_name);
      continue;
    }
    const auto uuid = properties->find(platform::kDiskUUIDProperty);
    if (uuid == properties->end()) {
      VTLLog("device matching %s has no UUID (unexpected)", bsd_name);
      continue;
    }
    const std::string* text = uuid->second.string();
    if (text == nullptr || text->size() > kUUIDTextMax || text->find('\0') != std::string::npos) {
      VTLLog("failed to get string from UUID property (unexpected)");
      continue;
    }
    uuid_t parsed{};
    if (::uuid_parse(text->c_str(), parsed) != 0) uuid_clear(parsed);
    const bool match = ::uuid_compare(parsed, guid) == 0;
    VTLLog("UUID %s %smatch", *text, match ? "" : "does not ");
    if (match) {
      VTLLog("matched %s on %s", fs.mounted_from, fs.mounted_on);
      return fs.mounted_on;
    }
  }
  return std::nullopt;
}

// Writes the adjusted header and entries back: the header at LBA 1 and the
// entries at LBA 2, in one write of two blocks. The GPT CRC fields go out as
// they were read, and the backup GPT is not written.
bool write_partition_map(platform::RawDisks* disks, const PartitionMapSnapshot& map,
                         std::uint32_t block_size) {
  std::unique_ptr<platform::DiskDevice> disk =
      open_raw_disk(disks, platform::kDiskOpenReadWriteShared);
  if (!disk) {
    VTLLog("Failed to open %s to write new GPT header out to disk.\n", kRawDiskPath);
    return false;
  }
  std::vector<std::uint8_t> blocks(2 * std::size_t{block_size}, 0);
  std::copy(map.header.begin(), map.header.end(), blocks.begin());
  std::copy(map.entries.begin(), map.entries.end(), blocks.begin() + block_size);
  const ssize_t written = disk->write_at(blocks, block_size);
  const int error = errno;
  if (written != static_cast<ssize_t>(blocks.size())) {
    VTLLog("failed to write GPT header and table to %s (return %d). errno=%d : %s", kRawDiskPath,
           static_cast<int>(written), error, vtl::error_description(error));
    return false;
  }
  VTLLog("Wrote GPT header back to disk");
  disk.reset();
  // open_raw_disk has refused a missing role already.
  disks->sync();
  return true;
}

}  // namespace

void read_usage_number(const Value& dictionary, std::string_view key, std::int64_t* out) {
  const Value* value = dictionary.find(key);
  if (value == nullptr) return;
  if (const std::int64_t* integer = value->integer()) {
    *out = *integer;
  } else if (const double* real = value->real()) {
    // As the platform converts a number to a 64-bit integer: toward zero,
    // saturating at the ends of the range, NaN as 0.
    constexpr double kLimit = 9223372036854775808.0;  // 2^63
    if (std::isnan(*real)) {
      *out = 0;
    } else if (*real >= kLimit) {
      *out = std::numeric_limits<std::int64_t>::max();
    } else if (*real < -kLimit) {
      *out = std::numeric_limits<std::int64_t>::min();
    } else {
      *out = static_cast<std::int64_t>(*real);
    }
  }
}

std::int32_t shrink_data_partition(const StorageRoles& storage) {
  platform::DeviceProperties* properties = storage.device_properties;
  std::optional<Value> usage;
  if (properties != nullptr) usage = properties->copy_answer(platform::kDiskUsageQuestion);
  if (!usage || usage->dictionary() == nullptr) {
    VTLLog("Cannot get disk usage.");
    return -1;
  }
  std::int64_t free_size = 0;
  std::int64_t total_size = 0;
  read_usage_number(*usage, platform::kTotalDataAvailableKey, &free_size);
  read_usage_number(*usage, platform::kTotalDataCapacityKey, &total_size);
  // Keep everything in use and half of what is free. Wrapping, as the
  // platform's 64-bit arithmetic does, for values no volume reports.
  const auto new_size = static_cast<std::int64_t>(static_cast<std::uint64_t>(total_size) -
                                                  static_cast<std::uint64_t>(free_size / 2));
  VTLLog("freeSize = %lld(bytes), totalSize = %lld(bytes), newSize = %lld(bytes)\n\n", free_size,
         total_size, new_size);
  return adjust_partition(storage, new_size) == 0 ? 0 : -1;
}

std::int32_t expand_data_partition(const StorageRoles& storage) {
  PartitionMapSnapshot map;
  ZmraMediaGeometry geometry;
  std::uint64_t new_size = 0;
  if (read_partition_map(storage.raw_disks, &map, &geometry) > 0) {
    const std::uint64_t first = gpt::first_usable_lba(map.header);
    const std::uint64_t last = gpt::last_usable_lba(map.header);
    VTLLog("gpt.pth.first_lba = %lld, last_lba = %lld", static_cast<std::int64_t>(first),
           static_cast<std::int64_t>(last));
    std::uint64_t free = last + 1 - first;
    // The data partition is the second GPT entry here, by position: the
    // expand flow counts every other entry as taken. Only the 8 entries held
    // can be counted.
    const int held = std::clamp(map.nPartitions(), 0, gpt::kEntriesHeld);
    for (int i = 0; i < held; ++i) {
      const std::span<const std::uint8_t> e = map.entry(i);
      VTLLog("Partition %d: first = %lld, last = %lld, lbaNumber = %lld", i,
             static_cast<std::int64_t>(gpt::starting_lba(e)),
             static_cast<std::int64_t>(gpt::ending_lba(e)),
             static_cast<std::int64_t>(entry_blocks(e)));
      if (i != 1) free -= entry_blocks(e);
    }
    VTLLog("Block numbers that could be used as data partition = %lld",
           static_cast<std::int64_t>(free));
    new_size = free * geometry.blockSize;
  }
  VTLLog("newSize = %lld(bytes)", static_cast<std::int64_t>(new_size));
  return adjust_partition(storage, static_cast<std::int64_t>(new_size));
}

namespace {

// What adjusting the data partition to a new size comes to on this map.
struct Adjustment {
  std::int32_t count = 0;      // entries the header counts
  std::int32_t which = 0;      // the data partition's entry; `count` for a new one
  int held = 0;                // entries the snapshot holds
  bool existing = false;       // `which` is one of them
  std::uint64_t required = 0;  // blocks the new size takes, rounded up
  std::uint64_t new_bytes = 0;
  std::uint64_t old_bytes = 0;

  // The last word of every failure after the plan is made.
  std::int32_t fail() const {
    VTLLog("failed to %s partition %d", which == count ? "create" : "adjust", which);
    return 1;
  }
};

Adjustment plan_adjustment(const PartitionMapSnapshot& map, std::uint64_t block_size,
                           std::int64_t newSize) {
  Adjustment a;
  const auto size = static_cast<std::uint64_t>(newSize);
  a.required = size / block_size + (size % block_size != 0 ? 1 : 0);
  VTLLog("partition: requiredSize=%llu", a.required);
  a.count = map.nPartitions();
  const std::int32_t data_index = named_partitions()[kDataPartitionRow].index;
  a.which = data_index != -1 ? data_index : a.count;
  a.held = std::clamp(a.count, 0, gpt::kEntriesHeld);
  a.existing = a.which >= 0 && a.which < a.count && a.which < a.held;
  a.new_bytes = a.required * block_size;
  a.old_bytes = a.existing ? entry_blocks(map.entry(a.which)) * block_size : 0;
  return a;
}

// Whether the new size fits beside every other partition. Entries beyond
// the 8 held count as empty.
bool fits_beside_the_others(const PartitionMapSnapshot& map, const Adjustment& a) {
  if (a.count < 0) return true;
  const std::uint64_t available =
      gpt::last_usable_lba(map.header) + 1 - gpt::first_usable_lba(map.header);
  std::uint64_t sum = 0;
  for (int i = 0; i < a.held; ++i) sum += i == a.which ? a.required : entry_blocks(map.entry(i));
  if (a.which >= a.held && a.which <= a.count) sum += a.required;
  return sum <= available;
}

// The answer when the adjustment ends before anything is touched: refused,
// or nothing to do. nullopt when it goes ahead.
std::optional<std::int32_t> refused_or_unchanged(const PartitionMapSnapshot& map,
                                                 const Adjustment& a) {
  if (!fits_beside_the_others(map, a)) return 1;
  if (a.required == 0) {
    // Always names partition 1, whichever it is.
    VTLLog("deletion of partition %d disallowed", 1);
    return 1;
  }
  if (a.existing && entry_blocks(map.entry(a.which)) == a.required) {
    VTLLog("no change in size");
    return 0;
  }
  // A negative index can only come from a header counting more than 2^31
  // entries; it is as bad a partition number as one past the table.
  if (a.which > 7 || a.which > a.count || a.which < 0) {
    VTLLog("bad partion number");
    return a.fail();
  }
  return std::nullopt;
}

// Where the file system on the partition's entry is mounted, found by the
// entry's unique GUID: GPT stores it in mixed-endian order, the registry's
// "UUID" is written in RFC 4122 order.
std::optional<std::string> mount_point_of(platform::MountedVolumes* volumes,
                                          std::span<const std::uint8_t> entry) {
  const std::array<std::uint8_t, 16> guid = gpt::swap_guid_order(gpt::unique_guid(entry));
  char guid_text[37];
  ::uuid_unparse(guid.data(), guid_text);
  return find_mount_point(volumes, guid.data(), guid_text);
}

// Shrinking: the file system first, so that it never outgrows its
// partition; if it cannot shrink, the map stays as it is.
bool shrink_file_system_first(platform::FileSystemResize* resize, const Adjustment& a,
                              const std::optional<std::string>& mount_point) {
  if (!mount_point || a.new_bytes >= a.old_bytes) return true;
  if (a.new_bytes == 0) {
    VTLLog("can't delete partition %d, currently mounted on %s", a.which, *mount_point);
    return false;
  }
  VTLLog("shrinking JRF filesystem on %s from %llu to %llu", *mount_point, a.old_bytes,
         a.new_bytes);
  if (resize_filesystem(resize, *mount_point, a.new_bytes) != 0) {
    VTLLog("can't shrink partition %d, currently mounted on %s", a.which, *mount_point);
    return false;
  }
  return true;
}

// The new map, computed by the volume manager's code; false when it refuses.
bool adjust_map(PartitionMapSnapshot& map, ZmraMediaGeometry& geometry, const Adjustment& a) {
  if (a.which == a.count) {
    VTLLog("Creating new partition instead of adjusting existing one");
  } else {
    VTLLog("Resizing existing partition with GPT index %d", a.which);
  }
  VTLLog("About to adjust with settings partitionIndex:%d size:%llu MB", a.which,
         a.new_bytes >> 20U);
  const std::int64_t adjusted =
      zmraAdjustPartition(&geometry, map.header, map.entries, a.which, a.new_bytes);
  if (static_cast<std::int32_t>(adjusted) != 0) {
    VTLLog("adjustment failed");
    return false;
  }
  return true;
}

// Growing: the file system last, once the larger partition is on disk.
std::int32_t grow_file_system_last(platform::FileSystemResize* resize, const Adjustment& a,
                                   const std::optional<std::string>& mount_point) {
  if (!mount_point || a.new_bytes < a.old_bytes) return 0;
  VTLLog("expanding JRF filesystem on %s to %llu", *mount_point, a.new_bytes);
  if (resize_filesystem(resize, *mount_point, a.new_bytes) != 0) {
    VTLLog("can't expanding JRF filesystem on %s", *mount_point);
    return 1;
  }
  return 0;
}

}  // namespace

std::int32_t adjust_partition(const StorageRoles& storage, std::int64_t newSize) {
  VTLLog("entering %s", "adjust_partition");
  PartitionMapSnapshot map;
  ZmraMediaGeometry geometry;
  if (read_partition_map(storage.raw_disks, &map, &geometry) <= 0) return 1;

  const Adjustment a = plan_adjustment(map, geometry.blockSize, newSize);
  if (std::optional<std::int32_t> answer = refused_or_unchanged(map, a)) return *answer;

  const std::optional<std::string> mount_point =
      mount_point_of(storage.mounted_volumes, map.entry(a.which));
  if (a.existing && !mount_point) {
    VTLLog("filesystem must be mounted (mountPoint=%s,which=%d,nPartitions=%d,newSize=%llu)",
           nullptr, a.which, a.count, a.required);
    return a.fail();
  }
  if (!shrink_file_system_first(storage.filesystem_resize, a, mount_point)) return a.fail();
  if (!adjust_map(map, geometry, a)) return a.fail();
  if (!write_partition_map(storage.raw_disks, map, geometry.blockSize)) return 1;
  return grow_file_system_last(storage.filesystem_resize, a, mount_point);
}

std::int32_t resize_filesystem(platform::FileSystemResize* resize, const std::string& mountPoint,
                               std::uint64_t newSize) {
  const int error = resize != nullptr ? resize->resize_volume(mountPoint, newSize) : ENOTSUP;
  if (error == 0) return 0;
  VTLLog("JRF resize failed. errno=%d", error);
  return 1;
}

}  // namespace vtl
