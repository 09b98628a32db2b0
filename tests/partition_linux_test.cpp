// Shrinking and expanding for real on a Linux host: a loop device with 4096
// byte sectors holds the volume manager's disk (a "Zmra" MBR signature and a
// GPT of "System", "Data" and "Update"), btrfs is mounted from its data
// partition, and the real helper, confined to this test's directory with the
// host's disks (--host-disks), resizes both. The result is checked with
// `btrfs filesystem show`, `sgdisk -p` and the kernel's view of the
// partition.
//
// Skipped, with the reason, where root, loop devices, btrfs or its tools or
// gdisk are missing. The loop device, its partitions and the mount are
// removed at the end whatever happens; nothing outside the test's own
// directory is touched (the device node the helper uses is made inside it).
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "krx/client.h"
#include "partition/bytes.h"
#include "platform/sim/device.h"
#include "platform/sim/storage_state.h"
#include "tests/support/daemon.h"
#include "tests/support/file_tree.h"
#include "vtldctl/helper_process.h"

namespace {

namespace fs = std::filesystem;
using testsupport::run;
using namespace std::chrono_literals;

std::string find_tool(const std::string& name) {
  for (const char* dir : {"/usr/sbin", "/sbin", "/usr/bin", "/bin", "/usr/local/sbin"}) {
    std::string path = std::string(dir) + "/" + name;
    if (::access(path.c_str(), X_OK) == 0) return path;
  }
  return "";
}

// Why this host cannot run the test, or "".
std::string missing_prerequisite() {
  if (::geteuid() != 0) return "needs root (loop devices, mount, the helper's chroot)";
  if (::access("/dev/loop-control", F_OK) != 0) return "no loop devices (/dev/loop-control)";
  for (const char* tool : {"losetup", "partx", "sgdisk", "mkfs.btrfs", "btrfs"}) {
    if (find_tool(tool).empty()) {
      return std::string("no ") + tool + " (btrfs-progs, gdisk and util-linux provide them)";
    }
  }
  std::ifstream filesystems("/proc/filesystems");
  const std::string known((std::istreambuf_iterator<char>(filesystems)),
                          std::istreambuf_iterator<char>());
  if (known.find("btrfs") == std::string::npos) return "the kernel has no btrfs";
  return "";
}

// Makes the disk as the volume manager's tools lay it out: the header counts
// only the three partitions in use (both GPT copies, CRCs mended), and the
// MBR carries "Zmra".
bool make_zmra_disk(const std::string& disk) {
  const int fd = ::open(disk.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) return false;
  constexpr std::uint64_t kBlock = 4096;
  bool ok = ::pwrite(fd, "armZ", 4, 440) == 4;
  std::uint64_t lba = 1;
  for (int copy = 0; copy < 2 && ok; ++copy) {
    std::uint8_t header[kBlock];
    ok = ::pread(fd, header, kBlock, static_cast<off_t>(lba * kBlock)) == kBlock;
    std::uint8_t entries[3 * 128];
    ok = ok && ::pread(fd, entries, sizeof entries,
                       static_cast<off_t>(vtl::le::load64(header, 72) * kBlock)) == sizeof entries;
    vtl::le::store<std::uint32_t>(header, 80, 3);
    vtl::le::store(header, 88, static_cast<std::uint32_t>(::crc32(0, entries, sizeof entries)));
    vtl::le::store<std::uint32_t>(header, 16, 0);
    vtl::le::store(header, 16, static_cast<std::uint32_t>(::crc32(0, header, 92)));
    ok = ok && ::pwrite(fd, header, kBlock, static_cast<off_t>(lba * kBlock)) == kBlock;
    lba = vtl::le::load64(header, 32);  // the alternate header's LBA
  }
  ok = ok && ::fsync(fd) == 0;
  ::close(fd);
  return ok;
}

class LinuxPartitionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const std::string why = missing_prerequisite(); !why.empty()) GTEST_SKIP() << why;
  }

  // Everything set up is taken down here, in reverse, whatever failed.
  void TearDown() override {
    helper_.reset();  // killed if it still runs
    if (mounted_) ::umount2(var_.c_str(), MNT_DETACH);
    if (!loop_.empty()) {
      run({find_tool("partx"), "-d", loop_});
      run({find_tool("losetup"), "-d", loop_});
    }
  }

  std::string device(int partition) const { return loop_ + "p" + std::to_string(partition); }

  std::optional<bool> send(const char* command) {
    std::string error;
    std::optional<krx::Client> client = krx::Client::connect_path(socket_, &error);
    if (!client) return std::nullopt;
    krx::Dictionary request;
    request.emplace_back(command, true);
    for (const krx::Value& m :
         testsupport::request(*client, krx::Value(std::move(request)), 1, 60s)) {
      if (const krx::Value* r = m.find("Response")) {
        if (const bool* b = std::get_if<bool>(&r->storage())) return *b;
      }
    }
    return std::nullopt;
  }

  // btrfs's own idea of its device's size, in bytes.
  std::uint64_t btrfs_size() {
    std::string out;
    EXPECT_EQ(run({find_tool("btrfs"), "filesystem", "show", "--raw", var_}, &out), 0) << out;
    std::smatch m;
    if (!std::regex_search(out, m, std::regex(R"(devid\s+1\s+size\s+(\d+))"))) {
      ADD_FAILURE() << out;
      return 0;
    }
    return std::stoull(m[1]);
  }

  // The data partition (the second GPT entry) as the disk has it, in bytes.
  std::uint64_t data_partition() {
    std::uint8_t entry[128];
    const int fd = ::open(loop_.c_str(), O_RDONLY | O_CLOEXEC);
    const bool read = ::pread(fd, entry, sizeof entry, 2 * 4096 + 128) == sizeof entry;
    ::close(fd);
    EXPECT_TRUE(read);
    return (vtl::le::load64(entry, 40) + 1 - vtl::le::load64(entry, 32)) * 4096;
  }

  // The kernel's size of the data partition, in bytes.
  std::uint64_t kernel_data_partition() {
    std::ifstream in("/sys/class/block/" + fs::path(device(2)).filename().string() + "/size");
    std::uint64_t sectors = 0;
    in >> sectors;
    return sectors * 512;
  }

  testsupport::TempDir dir_;
  std::string root_;
  std::string var_;
  std::string socket_;
  std::string loop_;
  bool mounted_ = false;
  std::optional<vtldctl::HelperProcess> helper_;
};

TEST_F(LinuxPartitionTest, ShrinksAndExpandsBtrfsOnALoopDeviceInTheOrderThatKeepsItSafe) {
  // The disk: 1 GiB, sparse, in this test's directory. Its partitions are
  // packed from the first usable block, as the volume manager keeps them
  // (every map it writes is packed so), hence no alignment gaps.
  const std::string image = dir_ / "disk.img";
  { std::ofstream(image).close(); }
  ASSERT_EQ(::truncate(image.c_str(), std::int64_t{1} << 30), 0);
  std::string out;
  ASSERT_EQ(run({find_tool("losetup"), "--find", "--show", "--sector-size", "4096", image}, &out),
            0)
      << out;
  loop_ = out.substr(0, out.find('\n'));
  std::vector<std::string> sgdisk = {find_tool("sgdisk"), "-o", "-a", "1"};
  const std::pair<const char*, const char*> partitions[] = {
      {"System", "64M"}, {"Data", "512M"}, {"Update", "64M"}};
  for (int i = 1; const auto& [name, size] : partitions) {
    const std::string n = std::to_string(i++);
    sgdisk.insert(sgdisk.end(), {"-n", n + ":0:+" + size, "-c", n + ":" + name, "-t", n + ":8300"});
  }
  sgdisk.push_back(loop_);
  ASSERT_EQ(run(sgdisk, &out), 0) << out;
  ASSERT_TRUE(make_zmra_disk(loop_));
  // The kernel learns the partitions (partition scanning may be off here).
  run({find_tool("partx"), "-u", loop_});
  ASSERT_EQ(::access(device(2).c_str(), F_OK), 0) << "no " << device(2);
  ASSERT_EQ(run({find_tool("mkfs.btrfs"), "-q", "-f", device(2)}, &out), 0) << out;

  // The device the helper serves: its data volume the btrfs, its disk node
  // the loop device.
  root_ = dir_ / "device";
  platform::sim::DeviceOptions options;
  options.entitled_clients.push_back(testsupport::self_executable());
  ASSERT_EQ(platform::sim::create_device(root_, options), "");
  var_ = root_ + "/private/var";
  ASSERT_EQ(::mount(device(2).c_str(), var_.c_str(), "btrfs", 0, nullptr), 0) << strerror(errno);
  mounted_ = true;
  fs::create_directories(var_ + "/logs/vtld");
  const std::string node = root_ + "/dev/rdisk0s1";
  struct stat loop_stat {};
  ASSERT_EQ(::stat(loop_.c_str(), &loop_stat), 0);
  ::unlink(node.c_str());
  ASSERT_EQ(::mknod(node.c_str(), S_IFBLK | 0600, loop_stat.st_rdev), 0) << strerror(errno);
  // Some data, so that the volume has something to keep.
  {
    std::ofstream data(var_ + "/payload.bin", std::ios::binary);
    const std::string chunk(1 << 20, 'x');
    for (int i = 0; i < 64; ++i) data << chunk;
  }
  ::sync();

  const std::string log = dir_ / "helper.log";
  socket_ = platform::sim::service_socket_path(root_, "com.tessal.vantreldhelper");
  vtldctl::HelperStart how;
  how.program = testsupport::program_path("vtld_helper");
  how.arguments = {"--root", root_, "--host-disks"};
  how.errors = vtldctl::HelperStream::file(log);
  how.environment = {"ASAN_OPTIONS=detect_leaks=0"};
  std::string error;
  helper_ = vtldctl::HelperProcess::start(how, &error);
  ASSERT_TRUE(helper_) << error;
  helper_->wait_for_socket(socket_, 20s);
  const auto helper_log = [&] {
    std::ifstream in(log);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  };

  const std::uint64_t before = data_partition();
  EXPECT_EQ(before, 512U << 20);
  EXPECT_EQ(btrfs_size(), before);

  // Shrink: the file system first, then the map, then the kernel.
  EXPECT_EQ(send("shrinkDataPartition:"), true) << helper_log();
  const std::uint64_t shrunk = data_partition();
  EXPECT_LT(shrunk, before);
  EXPECT_GE(shrunk, 64U << 20);
  EXPECT_EQ(btrfs_size(), shrunk) << helper_log();
  EXPECT_EQ(kernel_data_partition(), shrunk);
  // sgdisk reads the map as the helper left it: the partition table CRC is
  // written as it was read, so sgdisk sees the mismatch and says so.
  ASSERT_EQ(run({find_tool("sgdisk"), "-p", loop_}, &out), 0) << out;
  EXPECT_NE(out.find("CRC"), std::string::npos) << out;

  // Expand: the map first (synced, and the kernel told), then the file system.
  EXPECT_EQ(send("expandDataPartition:"), true) << helper_log();
  const std::uint64_t grown = data_partition();
  EXPECT_GT(grown, before);
  EXPECT_EQ(btrfs_size(), grown) << helper_log();
  EXPECT_EQ(kernel_data_partition(), grown);

  // A disk that fails its writes, injected around the host's disk as around
  // a simulated one: the file system shrinks first, the map cannot be
  // written, and the file system is left inside its unchanged partition.
  ASSERT_EQ(platform::sim::write_state(root_, platform::sim::kStorageFaultsPath,
                                       vtl::Dictionary{{"DiskWriteError", EIO}}),
            0);
  EXPECT_EQ(send("shrinkDataPartition:"), false) << helper_log();
  EXPECT_EQ(data_partition(), grown);
  EXPECT_EQ(kernel_data_partition(), grown);
  EXPECT_LT(btrfs_size(), grown);
  EXPECT_NE(helper_log().find("errno=5 : Input/output error"), std::string::npos) << helper_log();

  // The data is still there.
  EXPECT_EQ(fs::file_size(var_ + "/payload.bin"), 64U << 20);
}

}  // namespace
