// Shrinking and expanding the data partition in process, over a simulated
// device's disk image, mount table and file system: every branch of the
// resize engine with its exact log, the order of the file-system resize and
// the map write, and the state each fault leaves behind.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "partition/partition_map.h"
#include "partition/resize.h"
#include "partition/utf16.h"
#include "platform/device_properties.h"
#include "platform/filesystem_resize.h"
#include "platform/mounted_volumes.h"
#include "platform/raw_disk.h"
#include "platform/sim/device.h"
#include "platform/sim/storage_device.h"
#include "platform/sim/storage_state.h"
#include "tests/support/capture.h"
#include "tests/support/daemon.h"

namespace {

using Lines = std::vector<std::string>;
namespace sim = platform::sim;
constexpr std::uint64_t MiB = 1 << 20;
constexpr std::uint64_t kBlock = sim::kSimBlockSize;

struct Extent {
  std::uint64_t first, last;
  std::uint64_t bytes() const { return (last + 1 - first) * kBlock; }
  bool operator==(const Extent&) const = default;
};

class ResizeTest : public ::testing::Test {
 public:
  void SetUp() override { fresh_device(); }

  // A new simulated device, served in process from here on.
  void fresh_device() {
    root_ = dir_ / ("device" + std::to_string(devices_++));
    ASSERT_EQ(sim::create_device(root(), {}), "");
    raw_disks_ = platform::with_storage_faults(platform::make_sim_raw_disks(root()), root());
    volumes_ = platform::make_sim_mounted_volumes(root());
    resize_ = platform::with_storage_faults(platform::make_sim_filesystem_resize(root()), root());
    properties_ = platform::make_sim_device_properties(root());
    storage_ = {.raw_disks = raw_disks_.get(),
                .mounted_volumes = volumes_.get(),
                .filesystem_resize = resize_.get(),
                .device_properties = properties_.get()};
    for (vtl::NamedPartition& row : vtl::named_partitions()) row.index = -1;
  }

  const std::string& root() const { return root_; }

  std::vector<std::uint8_t> gpt_block(std::uint64_t lba) const {
    std::vector<std::uint8_t> block(kBlock);
    const int fd = ::open((root() + sim::kDiskImagePath).c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(::pread(fd, block.data(), block.size(), static_cast<off_t>(lba * kBlock)),
              static_cast<ssize_t>(kBlock));
    ::close(fd);
    return block;
  }
  Extent extent(int i) const {
    const std::vector<std::uint8_t> entries = gpt_block(2);
    const auto e = std::span<const std::uint8_t>(entries).subspan(128 * std::size_t(i), 128);
    return {vtl::gpt::starting_lba(e), vtl::gpt::ending_lba(e)};
  }
  std::int32_t count() const { return vtl::gpt::partition_count(gpt_block(1)); }

  vtl::Value state(const char* path) const { return sim::read_state(root(), path).value(); }
  void set_state(const char* path, const vtl::Value& v) {
    ASSERT_EQ(sim::write_state(root(), path, v), 0);
  }
  // The data volume's size as its file system has it.
  std::int64_t volume_size() const {
    // A device whose mount table was taken away has no data volume.
    const std::optional<vtl::Value> table = sim::read_state(root(), sim::kMountsStatePath);
    if (!table) return -1;
    for (const vtl::Value& m : *table->array()) {
      if (*m.find_string("MountedOn") == "/private/var") return *m.find("Size")->integer();
    }
    return -1;
  }
  std::vector<std::string> journal() const {
    std::vector<std::string> events;
    std::optional<vtl::Value> j = sim::read_state(root(), sim::kStorageJournalPath);
    if (!j) return events;
    for (const vtl::Value& e : *j->array()) {
      std::string name = *e.find_string("Event");
      if (const vtl::Value* ok = e.find("Accepted")) name += *ok->boolean() ? "+" : "-";
      events.push_back(name);
    }
    return events;
  }
  void set_usage(std::int64_t total, std::int64_t free) {
    vtl::Value answers = state(sim::kDevicePropertiesStatePath);
    answers.dictionary()->insert_or_assign(
        "DiskUsage", vtl::Dictionary{{"TotalDataCapacity", total}, {"TotalDataAvailable", free}});
    set_state(sim::kDevicePropertiesStatePath, answers);
  }
  // The registry's entry for the data volume's disk; nullopt removes it.
  void set_data_disk(const std::optional<vtl::Value>& entry) {
    vtl::Value disks = state(sim::kDisksStatePath);
    if (entry) {
      disks.dictionary()->insert_or_assign("disk0s1s2", *entry);
    } else {
      disks.dictionary()->erase("disk0s1s2");
    }
    set_state(sim::kDisksStatePath, disks);
  }
  void set_fault(const char* key, const vtl::Value& v) {
    set_state(sim::kStorageFaultsPath, vtl::Dictionary{{key, v}});
  }
  std::string uuid_of(const char* bsd) const {
    return *state(sim::kDisksStatePath).find(bsd)->find_string("UUID");
  }
  Lines log() const { return test_.log.lines(); }
  // The last `n` lines of the log (all of it, if it has fewer).
  Lines log_tail(std::size_t n) const {
    const Lines all = log();
    return Lines(all.end() - static_cast<long>(std::min(n, all.size())), all.end());
  }

  testsupport::TempDir dir_;
  testsupport::TestPlatform test_{dir_.path()};
  std::string root_;
  int devices_ = 0;
  std::unique_ptr<platform::RawDisks> raw_disks_;
  std::unique_ptr<platform::MountedVolumes> volumes_;
  std::unique_ptr<platform::FileSystemResize> resize_;
  std::unique_ptr<platform::DeviceProperties> properties_;
  vtl::StorageRoles storage_;
};

// Layout of a fresh device, in blocks: usable 6..131066; System 6..16389,
// Data 16390..81925, Update 81926..98309.
constexpr Extent kSystem{6, 16389};
constexpr Extent kData{16390, 81925};

TEST_F(ResizeTest, ShrinkKeepsWhatIsUsedAndHalfWhatIsFreeFileSystemFirst) {
  ASSERT_EQ(extent(0), kSystem);
  ASSERT_EQ(extent(1), kData);
  EXPECT_EQ(vtl::shrink_data_partition(storage_), 0);

  // The registry writes UUIDs upper case; the engine formats its own lower.
  std::string data = uuid_of("disk0s1s2");
  for (char& c : data) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  const Lines expected = {
      "freeSize = 167772160(bytes), totalSize = 268435456(bytes), newSize = 184549376(bytes)\n\n",
      "entering adjust_partition",
      "partition: requiredSize=45056",
      "scanning 3 filesystems for " + data,
      "UUID " + uuid_of("disk0s1s1") + " does not match",
      "UUID " + uuid_of("disk0s1s2") + " match",
      "matched /dev/disk0s1s2 on /private/var",
      "shrinking JRF filesystem on /private/var from 268435456 to 184549376",
      "Resizing existing partition with GPT index 1",
      "About to adjust with settings partitionIndex:1 size:176 MB",
      "Wrote GPT header back to disk",
  };
  EXPECT_EQ(log(), expected);
  EXPECT_EQ(extent(1), (Extent{16390, 16390 + 45056 - 1}));
  // Update packed right behind, the map's CRC fields left as read.
  EXPECT_EQ(extent(2), (Extent{16390 + 45056, 16390 + 45056 + 16383}));
  EXPECT_EQ(volume_size(), 176 * MiB);
  EXPECT_EQ(journal(), (std::vector<std::string>{"FileSystemResize+", "DiskWrite", "Sync"}));
  // The file system's resize keeps "DiskUsage" in step.
  const vtl::Value usage = *state(sim::kDevicePropertiesStatePath).find("DiskUsage");
  EXPECT_EQ(*usage.find("TotalDataCapacity")->integer(), 176 * MiB);
  EXPECT_EQ(*usage.find("TotalDataAvailable")->integer(), 80 * MiB);
}

TEST_F(ResizeTest, ExpandTakesEveryBlockNoOtherPartitionUsesMapFirst) {
  ASSERT_EQ(vtl::shrink_data_partition(storage_), 0);
  test_.log.clear();
  EXPECT_EQ(vtl::expand_data_partition(storage_), 0);
  const std::uint64_t free_blocks = 131066 + 1 - 6 - 16384 - 16384;
  const Lines head = {
      "gpt.pth.first_lba = 6, last_lba = 131066",
      "Partition 0: first = 6, last = 16389, lbaNumber = 16384",
      "Partition 1: first = 16390, last = 61445, lbaNumber = 45056",
      "Partition 2: first = 61446, last = 77829, lbaNumber = 16384",
      "Block numbers that could be used as data partition = " + std::to_string(free_blocks),
      "newSize = " + std::to_string(free_blocks * kBlock) + "(bytes)",
      "entering adjust_partition",
  };
  Lines all = log();
  ASSERT_GE(all.size(), head.size());
  EXPECT_EQ(Lines(all.begin(), all.begin() + static_cast<long>(head.size())), head);
  EXPECT_EQ(all.back(),
            "expanding JRF filesystem on /private/var to " + std::to_string(free_blocks * kBlock));
  EXPECT_EQ(extent(1), (Extent{16390, 16390 + free_blocks - 1}));
  EXPECT_EQ(extent(2).last, 131066U);
  EXPECT_EQ(volume_size(), static_cast<std::int64_t>(free_blocks * kBlock));
  EXPECT_EQ(journal(), (std::vector<std::string>{"FileSystemResize+", "DiskWrite", "Sync",
                                                 "DiskWrite", "Sync", "FileSystemResize+"}));
}

TEST_F(ResizeTest, TheCurrentSizeChangesNothingAndOtherSizesRound) {
  set_usage(256 * MiB, 0);
  EXPECT_EQ(vtl::shrink_data_partition(storage_), 0);
  EXPECT_EQ(log().back(), "no change in size");
  EXPECT_EQ(journal(), std::vector<std::string>{});

  // Half an odd free size rounds toward zero, and sizes round up to blocks.
  test_.log.clear();
  set_usage(200 * MiB + 1, 100 * MiB + 1);
  EXPECT_EQ(vtl::shrink_data_partition(storage_), 0);
  EXPECT_EQ(log().front(),
            "freeSize = 104857601(bytes), totalSize = 209715201(bytes), newSize = 157286401(bytes)"
            "\n\n");
  EXPECT_EQ(extent(1).bytes(), 150 * MiB + kBlock);
}

TEST_F(ResizeTest, RefusalsAndTheirMessages) {
  const std::string kNotMounted =
      "filesystem must be mounted (mountPoint=(null),which=1,nPartitions=3,newSize=45056)";
  const std::string kNotAdjusted = "failed to adjust partition 1";
  struct Case {
    const char* name;
    std::function<void(ResizeTest&)> arrange;
    Lines tail;           // the last lines of the log
    bool expand = false;  // else a shrink; an expand fails with 1, a shrink with -1
  };
  const Case cases[] = {
      {"no disk usage",
       [](ResizeTest& t) {
         vtl::Value answers = t.state(sim::kDevicePropertiesStatePath);
         answers.dictionary()->erase("DiskUsage");
         t.set_state(sim::kDevicePropertiesStatePath, answers);
       },
       {"Cannot get disk usage."}},
      {"a size of no blocks",
       [](ResizeTest& t) { t.set_usage(0, 0); },
       {"partition: requiredSize=0", "deletion of partition 1 disallowed"}},
      {"more than the disk holds",
       [](ResizeTest& t) { t.set_usage(1 << 30, 0); },
       {"partition: requiredSize=262144"}},
      {"not mounted",
       [](ResizeTest& t) {
         vtl::Value table = t.state(sim::kMountsStatePath);
         table.array()->pop_back();
         t.set_state(sim::kMountsStatePath, table);
       },
       {kNotMounted, kNotAdjusted}},
      {"no registry service for the disk",
       [](ResizeTest& t) { t.set_data_disk(std::nullopt); },
       {"failed to find an RegService owning disk0s1s2 (unexpected)", kNotMounted, kNotAdjusted}},
      {"a disk without UUID",
       [](ResizeTest& t) { t.set_data_disk(vtl::Dictionary{}); },
       {"device matching disk0s1s2 has no UUID (unexpected)", kNotMounted, kNotAdjusted}},
      {"a UUID that is no string",
       [](ResizeTest& t) {
         t.set_data_disk(vtl::Dictionary{{"UUID", 7}});
       },
       {"failed to get string from UUID property (unexpected)", kNotMounted, kNotAdjusted}},
      {"no mount table",
       [](ResizeTest& t) { ::unlink((t.root() + sim::kMountsStatePath).c_str()); },
       {kNotMounted, kNotAdjusted}},
      {"the disk is a block node",
       [](ResizeTest& t) {
         t.set_state(sim::kDiskStatePath,
                     vtl::Dictionary{{"BlockSize", 4096}, {"NodeType", "BlockSpecial"}});
       },
       {"/dev/rdisk0s1 is not a suitable device (try /dev/rdisk*)", "newSize = 0(bytes)",
        "entering adjust_partition", "/dev/rdisk0s1 is not a suitable device (try /dev/rdisk*)"},
       true},
      {"the file system cannot shrink",
       [](ResizeTest& t) { t.set_fault("FileSystemResizeError", 5); },
       {"JRF resize failed. errno=5", "can't shrink partition 1, currently mounted on /private/var",
        "failed to adjust partition 1"}},
      {"the map cannot be written",
       [](ResizeTest& t) { t.set_fault("DiskWriteError", 28); },
       {"About to adjust with settings partitionIndex:1 size:176 MB",
        "failed to write GPT header and table to /dev/rdisk0s1 (return -1). errno=28 : No space "
        "left on device"}},
      {"the file system cannot grow",
       [](ResizeTest& t) {
         t.set_usage(128 * MiB, 0);
         ASSERT_EQ(vtl::shrink_data_partition(t.storage_), 0);
         t.test_.log.clear();
         t.set_fault("FileSystemResizeError", 28);
       },
       {"Wrote GPT header back to disk", "expanding JRF filesystem on /private/var to 402608128",
        "JRF resize failed. errno=28", "can't expanding JRF filesystem on /private/var"},
       true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fresh_device();
    test_.log.clear();
    c.arrange(*this);
    const auto run = c.expand ? vtl::expand_data_partition : vtl::shrink_data_partition;
    EXPECT_EQ(run(storage_), c.expand ? 1 : -1);
    const Lines all = log();
    EXPECT_EQ(log_tail(c.tail.size()), c.tail) << ::testing::PrintToString(all);
    if (std::string(c.name) == "no mount table") {
      EXPECT_NE(std::find(all.begin(), all.end(), "failed to get filesystem information"),
                all.end());
    }
    // Whatever failed, the data volume is never larger than its partition.
    EXPECT_LE(volume_size(), static_cast<std::int64_t>(extent(1).bytes()));
  }
}

TEST_F(ResizeTest, WithoutADataEntryAPartitionIsCreatedInTheFirstFreeSlot) {
  // Rename "Data": the map then has no partition of that name.
  std::vector<std::uint8_t> entries = gpt_block(2);
  vtl::utf_encodestr2("Other", std::span(entries).subspan(128 + 56, 72));
  const int fd = ::open((root() + sim::kDiskImagePath).c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_EQ(::pwrite(fd, entries.data(), entries.size(), 2 * kBlock), static_cast<ssize_t>(kBlock));
  ::close(fd);

  // Too large to fit beside the others: refused without a word.
  EXPECT_EQ(vtl::shrink_data_partition(storage_), -1);
  EXPECT_EQ(log().back(), "partition: requiredSize=45056");

  test_.log.clear();
  set_usage(32 * MiB, 0);
  EXPECT_EQ(vtl::shrink_data_partition(storage_), 0);
  EXPECT_EQ(log_tail(3), (Lines{"Creating new partition instead of adjusting existing one",
                                "About to adjust with settings partitionIndex:3 size:32 MB",
                                "Wrote GPT header back to disk"}));
  EXPECT_EQ(count(), 4);
  EXPECT_EQ(extent(3), (Extent{98310, 98310 + 8191}));
  EXPECT_EQ(volume_size(), 256 * MiB);
}

TEST_F(ResizeTest, TheSimulatedFileSystemRefusesToOutgrowItsPartition) {
  EXPECT_EQ(resize_->resize_volume("/private/var", 256 * MiB + kBlock), ENOSPC);
  EXPECT_EQ(resize_->resize_volume("/private/var", 95 * MiB), ENOSPC);  // below what is used
  EXPECT_EQ(resize_->resize_volume("/nowhere", MiB), ENOENT);
  EXPECT_EQ(resize_->resize_volume("/private/var", 200 * MiB), 0);
  EXPECT_EQ(volume_size(), 200 * MiB);
  EXPECT_EQ(journal(), (std::vector<std::string>{"FileSystemResize-", "FileSystemResize-",
                                                 "FileSystemResize-", "FileSystemResize+"}));
}

TEST_F(ResizeTest, UsageNumbersAreTakenOnlyWhenTheyAreNumbers) {
  const vtl::Value usage =
      vtl::Dictionary{{"Int", 42}, {"Real", 1.9e3}, {"Huge", 1e30}, {"Text", "7"}, {"Flag", true}};
  // -5: what the number was before, left as it was.
  const std::pair<const char*, std::int64_t> cases[] = {{"Int", 42},         {"Real", 1900},
                                                        {"Huge", INT64_MAX}, {"Text", -5},
                                                        {"Flag", -5},        {"Missing", -5}};
  for (const auto& [key, expected] : cases) {
    std::int64_t out = -5;
    vtl::read_usage_number(usage, key, &out);
    EXPECT_EQ(out, expected) << key;
  }
}

}  // namespace
