// Shrinking and expanding the data partition through the real helper on a
// simulated device, over its socket, with faults injected through the
// device's state at every step: after each fault the mounted file system is
// never larger than its partition, and repeating the request brings file
// system and partition back to one size.
#include <fcntl.h>
#include <unistd.h>

#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "partition/gpt.h"
#include "platform/sim/storage_device.h"
#include "platform/sim/storage_state.h"
#include "tests/support/daemon.h"

namespace {

namespace sim = platform::sim;
using testsupport::Device;

struct ShrinkFault {
  const char* name;
  const char* key;
  vtl::Value value;
  bool helper_ends;
};

class PartitionE2ETest : public ::testing::Test {
 protected:
  void SetUp() override { device_.start(); }

  // Sends one command; the "Response" it got, or nullopt when the helper
  // ended before answering.
  std::optional<bool> send(const char* command) {
    krx::Client client = device_.connect();
    krx::Dictionary request;
    request.emplace_back(command, true);
    for (const krx::Value& m : testsupport::request(client, krx::Value(std::move(request)))) {
      if (const krx::Value* r = m.find("Response")) {
        if (const bool* b = std::get_if<bool>(&r->storage())) return *b;
      }
    }
    return std::nullopt;
  }

  // A helper that ended at a failpoint is started again, as the service
  // launcher would on the next connection.
  void restart() {
    const std::optional<int> status = device_.wait_exit(std::chrono::seconds(10));
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == sim::kFailpointExitStatus) << *status;
    ::unlink(device_.socket_path().c_str());
    device_.start();
  }

  void fault(const char* key, const vtl::Value& value) {
    ASSERT_EQ(
        sim::write_state(device_.root(), sim::kStorageFaultsPath, vtl::Dictionary{{key, value}}),
        0);
  }
  void clear_faults() { ::unlink(device_.path(sim::kStorageFaultsPath).c_str()); }
  // Sends `command` under the fault `f`: refused, or the helper ended.
  void fail(const ShrinkFault& f, const char* command) {
    fault(f.key, f.value);
    const std::optional<bool> answer = send(command);
    EXPECT_EQ(answer, f.helper_ends ? std::nullopt : std::optional<bool>(false));
    if (f.helper_ends) restart();
  }

  // The data partition's size as the disk's GPT has it, and the data
  // volume's as its file system has it.
  std::int64_t partition() const {
    std::uint8_t e[128];
    const int fd = ::open(device_.path(sim::kDiskImagePath).c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(::pread(fd, e, sizeof e, 2 * 4096 + 128), static_cast<ssize_t>(sizeof e));
    ::close(fd);
    return static_cast<std::int64_t>((vtl::gpt::ending_lba(e) + 1 - vtl::gpt::starting_lba(e)) *
                                     4096);
  }
  std::int64_t volume() const {
    const std::optional<vtl::Value> table = sim::read_state(device_.root(), sim::kMountsStatePath);
    for (const vtl::Value& m : *table->array()) {
      if (*m.find_string("MountedOn") == "/private/var") return *m.find("Size")->integer();
    }
    return -1;
  }
  void expect_safe() const {
    EXPECT_LE(volume(), partition()) << "the file system outgrew its partition";
  }

  Device device_;
};

TEST_F(PartitionE2ETest, EveryShrinkFaultLeavesASafeStateThatRepeatingRepairs) {
  const ShrinkFault faults[] = {
      {"file system does not shrink", "FileSystemResizeError", 5, false},
      {"map write fails", "DiskWriteError", 5, false},
      {"map write is short", "DiskWriteShort", 4096, false},
      {"dies before the map write", "Failpoint", "before-disk-write", true},
      {"dies after the file system shrank", "Failpoint", "after-filesystem-resize", true},
      {"dies after the map write", "Failpoint", "after-disk-write", true},
      {"dies after the sync", "Failpoint", "after-sync", true},
  };
  for (const ShrinkFault& f : faults) {
    SCOPED_TRACE(f.name);
    fail(f, "shrinkDataPartition:");
    expect_safe();
    clear_faults();
    EXPECT_EQ(send("shrinkDataPartition:"), true);
    expect_safe();
    EXPECT_EQ(volume(), partition());
  }
}

TEST_F(PartitionE2ETest, EveryExpandFaultLeavesASafeState) {
  const ShrinkFault faults[] = {
      {"file system does not grow", "FileSystemResizeError", 28, false},
      {"map write fails", "DiskWriteError", 5, false},
      {"map write is short", "DiskWriteShort", 4096, false},
      {"dies after the map write", "Failpoint", "after-disk-write", true},
      {"dies after the sync", "Failpoint", "after-sync", true},
      {"dies before the file system grows", "Failpoint", "before-filesystem-resize", true},
  };
  for (const ShrinkFault& f : faults) {
    SCOPED_TRACE(f.name);
    ASSERT_EQ(send("shrinkDataPartition:"), true);
    const std::int64_t before = volume();
    fail(f, "expandDataPartition:");
    expect_safe();
    EXPECT_EQ(volume(), before);
    clear_faults();

    // Where the map was written but the file system did not grow, the
    // partition is already its new size: the repeated request finds "no
    // change in size" and leaves the smaller file system in it, which is
    // safe. A shrink followed by an expand brings both to one size again.
    const bool map_written = partition() > before;
    EXPECT_EQ(send("expandDataPartition:"), true);
    expect_safe();
    if (map_written) {
      EXPECT_EQ(volume(), before);
      ASSERT_EQ(send("shrinkDataPartition:"), true);
      ASSERT_EQ(send("expandDataPartition:"), true);
    }
    EXPECT_EQ(volume(), partition());
  }
}

}  // namespace
