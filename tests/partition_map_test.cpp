// Disk and partition-map access: opening the raw disk, its geometry, the
// "Zmra" signature, the GPT snapshot and the partitions found by name, on
// well-formed and malformed disks held in memory. Every message is compared
// as the helper logs it.
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "partition/partition_map.h"
#include "partition/utf16.h"
#include "platform/sim/disk_image.h"
#include "tests/support/capture.h"
#include "tests/support/daemon.h"
#include "tests/support/memory_disk.h"
#include "tests/support/stderr_capture.h"

namespace {

using testsupport::MemoryDiskState;
using Lines = std::vector<std::string>;

// A disk image as the simulated device lays one out, small: 8 MiB of
// 4096-byte blocks with "System", "Data" and "Update".
std::vector<std::uint8_t> small_image(const std::vector<std::string>& names = {"System", "Data",
                                                                               "Update"}) {
  testsupport::TempDir dir;
  platform::sim::ImageLayout layout;
  layout.block_size = 4096;
  layout.block_count = 2048;
  for (std::size_t i = 0; i < names.size(); ++i) {
    platform::sim::Guid unique{};
    unique[0] = static_cast<std::uint8_t>(0x10 + i);
    layout.partitions.push_back({names[i], {0x0F, 0xC6}, unique, 100});
  }
  const std::string path = dir / "image";
  EXPECT_EQ(platform::sim::write_disk_image(path, layout), "");
  std::ifstream in(path, std::ios::binary);
  std::vector<std::uint8_t> bytes(layout.block_count * layout.block_size);
  in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  EXPECT_TRUE(in);
  return bytes;
}

std::span<std::uint8_t> entry_of(std::vector<std::uint8_t>& image, int i) {
  return std::span(image).subspan(2 * 4096 + 128 * static_cast<std::size_t>(i), 128);
}

class PartitionMapTest : public ::testing::Test {
 protected:
  void SetUp() override {
    state_.bytes = small_image();
    for (vtl::NamedPartition& row : vtl::named_partitions()) row.index = -1;
  }

  // Reads the map; returns the result and leaves the log in log_.
  int read(bool with_geometry = true) {
    test_.log.clear();
    return vtl::read_partition_map(&disks_, &snapshot_, with_geometry ? &geometry_ : nullptr);
  }
  Lines log() const { return test_.log.lines(); }
  std::vector<std::int32_t> rows() const {
    std::vector<std::int32_t> out;
    for (const vtl::NamedPartition& row : vtl::named_partitions()) out.push_back(row.index);
    return out;
  }

  testsupport::TempDir dir_;
  testsupport::TestPlatform test_{dir_.path()};
  MemoryDiskState state_;
  testsupport::MemoryRawDisks disks_{&state_};
  vtl::PartitionMapSnapshot snapshot_;
  vtl::ZmraMediaGeometry geometry_;
};

TEST_F(PartitionMapTest, ReadsGeometryHeaderEntriesAndNames) {
  ASSERT_EQ(read(), 1);
  EXPECT_EQ(log(), Lines{});
  EXPECT_EQ(geometry_.blockSize, 4096U);
  EXPECT_EQ(geometry_.mediaSize, 2048U * 4096);
  EXPECT_EQ(vtl::gpt::first_usable_lba(snapshot_.header), 6U);
  EXPECT_EQ(vtl::gpt::last_usable_lba(snapshot_.header), 2048U - 6);
  EXPECT_EQ(snapshot_.nPartitions(), 3);
  EXPECT_EQ(vtl::gpt::starting_lba(snapshot_.entry(1)), 106U);
  EXPECT_EQ(vtl::gpt::ending_lba(snapshot_.entry(1)), 205U);
  EXPECT_EQ(rows(), (std::vector<std::int32_t>{0, 1, 2}));
  EXPECT_TRUE(
      std::equal(snapshot_.header.begin(), snapshot_.header.end(), state_.bytes.begin() + 4096));
}

TEST_F(PartitionMapTest, MalformedDisksGetTheirMessagesAndNeverMore) {
  struct Case {
    const char* name;
    std::function<void(MemoryDiskState&)> arrange;
    Lines lines;
  };
  const Case cases[] = {
      {"cannot be opened",
       [](MemoryDiskState& s) { s.open_fails = true; },
       {"failed to open /dev/rdisk0s1"}},
      {"cannot be examined",
       [](MemoryDiskState& s) { s.stat_fails = true; },
       {"failed to stat /dev/rdisk0s1"}},
      {"a block node, not the raw node",
       [](MemoryDiskState& s) { s.node_type = platform::DiskDevice::NodeType::kOther; },
       {"/dev/rdisk0s1 is not a suitable device (try /dev/rdisk*)"}},
      {"no block size",
       [](MemoryDiskState& s) { s.block_size.reset(); },
       {"ioctl DKIOCGETBLOCKSIZE failed"}},
      {"no block count",
       [](MemoryDiskState& s) { s.block_count_fails = true; },
       {"ioctl DKIOCGETBLOCKCOUNT failed"}},
      {"512-byte blocks",
       [](MemoryDiskState& s) { s.block_size = 512; },
       {"Device /dev/rdisk0s1 not suitable"}},
      {"larger than Zmra manages",
       [](MemoryDiskState& s) { s.block_count_override = (std::uint64_t{1} << 40) + 1; },
       {"Device /dev/rdisk0s1 not suitable"}},
      {"no signature",
       [](MemoryDiskState& s) { s.bytes[440] = 'Z'; },
       {"/dev/rdisk0s1 not managed by Zmra"}},
      {"shorter than one block",
       [](MemoryDiskState& s) {
         s.block_count_override = 2048;
         s.bytes.resize(1000);
       },
       {"Failed to read MBR from /dev/rdisk0s1"}},
      {"cut off inside the GPT",
       [](MemoryDiskState& s) {
         s.block_count_override = 2048;
         s.bytes.resize(3 * 4096 - 1);
       },
       {"Failed to read GPT header and table from /dev/rdisk0s1"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    state_ = MemoryDiskState{};
    state_.bytes = small_image();
    c.arrange(state_);
    int rc = 0;
    {
      testsupport::StderrCapture quiet;  // the geometry's own "zmra: " line
      rc = read();
    }
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(log(), c.lines);
    EXPECT_EQ(rows(), (std::vector<std::int32_t>{-1, -1, -1}));
  }
}

TEST_F(PartitionMapTest, WithoutSignatureNothingButTheMBRIsRead) {
  state_.bytes[443] = 0;
  EXPECT_EQ(read(), 0);
  EXPECT_EQ(state_.reads, 1);
}

TEST_F(PartitionMapTest, HeaderCountsDecideHowManyEntriesAreScanned) {
  // No entry counted: success, nothing found.
  state_.bytes[4096 + 80] = 0;
  EXPECT_EQ(read(), 1);
  EXPECT_EQ(rows(), (std::vector<std::int32_t>{-1, -1, -1}));
  // One counted: only "System".
  state_.bytes[4096 + 80] = 1;
  EXPECT_EQ(read(), 1);
  EXPECT_EQ(rows(), (std::vector<std::int32_t>{0, -1, -1}));
  // 200 counted, 8 held: the scan stops at the eighth.
  vtl::le::store(std::span(state_.bytes), 4096 + 80, std::uint32_t{200});
  vtl::utf_encodestr2("Update", entry_of(state_.bytes, 7).subspan(56, 72));
  EXPECT_EQ(read(), 1);
  EXPECT_EQ(rows(), (std::vector<std::int32_t>{0, 1, 7}));
  // A negative count (from 2^31 up) is below 1.
  vtl::le::store(std::span(state_.bytes), 4096 + 80, std::uint32_t{0x80000000});
  EXPECT_EQ(read(), 1);
}

TEST_F(PartitionMapTest, NamesAreComparedAsWholeFieldsAndTheLaterDuplicateWins) {
  state_.bytes = small_image({"System", "Data", "Update", "Data"});
  ASSERT_EQ(read(), 1);
  EXPECT_EQ(rows(), (std::vector<std::int32_t>{0, 3, 2}));

  // A name filling all 36 code units has no terminator; it matches nothing
  // that is only its prefix, and the scan stays inside the field.
  for (vtl::NamedPartition& row : vtl::named_partitions()) row.index = -1;
  state_.bytes = small_image({"System", "Data", "Update"});
  vtl::utf_encodestr2("Data" + std::string(32, 'x'), entry_of(state_.bytes, 1).subspan(56, 72));
  ASSERT_EQ(read(), 1);
  EXPECT_EQ(rows(), (std::vector<std::int32_t>{0, -1, 2}));
  // "data" is not "Data".
  vtl::utf_encodestr2("data", entry_of(state_.bytes, 1).subspan(56, 72));
  ASSERT_EQ(read(), 1);
  EXPECT_EQ(rows(), (std::vector<std::int32_t>{0, -1, 2}));
}

TEST_F(PartitionMapTest, ARowKeepsWhatAnEarlierReadFound) {
  ASSERT_EQ(read(), 1);
  state_.bytes = small_image({"System", "Other", "Update"});
  ASSERT_EQ(read(), 1);
  EXPECT_EQ(rows(), (std::vector<std::int32_t>{0, 1, 2}));
}

TEST_F(PartitionMapTest, WithoutGeometryAnyBlockSizeTheDeviceGivesIsSafe) {
  for (std::uint32_t block : {1U, 64U, 512U, 1024U, 4096U, 65536U}) {
    SCOPED_TRACE(block);
    state_.block_size = block;
    const int rc = read(false);
    // Blocks too small to hold the signature cannot carry one; larger ones
    // are read in full, whatever GPT they then show.
    EXPECT_EQ(rc, block >= 444 ? 1 : 0);
  }
  state_.block_size = 1U << 30;
  EXPECT_EQ(read(false), 0);
  EXPECT_EQ(log(), Lines{"Device /dev/rdisk0s1 not suitable"});
}

}  // namespace
