// Raw disks of a Linux host: block device nodes. Linux has no separate raw
// (character) node for a disk; its block node, read and written at byte
// offsets, is what the helper needs, so a block node is the suitable kind.
//
// The kernel keeps its own copy of a disk's partition table and does not
// re-read it while a partition is in use (the mounted data partition always
// is). So when a disk that was written to is closed, the partitions of the
// GPT now on it are handed to the kernel one by one through BLKPG: resized
// in place where they start where they did, re-added where they moved (which
// the kernel allows only for partitions not in use). This happens at the
// close that follows the partition-map write, so the kernel knows the new
// sizes before a file system grows into them and right after it shrank.
#include <fcntl.h>
#include <linux/blkpg.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "base/errors.h"
#include "platform/platform.h"
#include "platform/raw_disk.h"
#include "platform/system_log.h"

namespace platform {
namespace {

constexpr std::size_t kEntrySize = 128;
constexpr int kEntriesHeld = 8;

std::uint64_t get64(const std::uint8_t* p) {
  std::uint64_t v = 0;
  for (int i = 7; i >= 0; --i) v = (v << 8U) | p[i];
  return v;
}

// Where the kernel's refusals are told: the system log the disks were made
// with (nullptr: nowhere).
void log_line(SystemLog* log, const std::string& line) {
  if (log != nullptr) log->write(line);
}

int blkpg(int fd, int op, int number, std::uint64_t start, std::uint64_t length) {
  blkpg_partition part{};
  part.pno = number;
  part.start = static_cast<long long>(start);
  part.length = static_cast<long long>(length);
  blkpg_ioctl_arg arg{};
  arg.op = op;
  arg.datalen = sizeof part;
  arg.data = &part;
  return ::ioctl(fd, BLKPG, &arg) == 0 ? 0 : errno;
}

class LinuxDiskDevice final : public DiskDevice {
 public:
  LinuxDiskDevice(int fd, SystemLog* log) : fd_(fd), log_(log) {}
  ~LinuxDiskDevice() override {
    if (written_) publish_partitions();
    ::close(fd_);
  }
  LinuxDiskDevice(const LinuxDiskDevice&) = delete;
  LinuxDiskDevice& operator=(const LinuxDiskDevice&) = delete;

  std::optional<NodeType> node_type() override {
    struct stat st {};
    if (::fstat(fd_, &st) != 0) return std::nullopt;
    return S_ISBLK(st.st_mode) ? NodeType::kRawDisk : NodeType::kOther;
  }

  std::optional<std::uint32_t> block_size() override {
    int size = 0;
    if (::ioctl(fd_, BLKSSZGET, &size) != 0 || size <= 0) return std::nullopt;
    return static_cast<std::uint32_t>(size);
  }

  std::optional<std::uint64_t> block_count() override {
    const std::optional<std::uint32_t> size = block_size();
    std::uint64_t bytes = 0;
    if (!size || ::ioctl(fd_, BLKGETSIZE64, &bytes) != 0) return std::nullopt;
    return bytes / *size;
  }

  ssize_t read_at(std::span<std::uint8_t> buffer, std::uint64_t offset) override {
    return ::pread(fd_, buffer.data(), buffer.size(), static_cast<off_t>(offset));
  }

  ssize_t write_at(std::span<const std::uint8_t> buffer, std::uint64_t offset) override {
    const ssize_t n = ::pwrite(fd_, buffer.data(), buffer.size(), static_cast<off_t>(offset));
    if (n > 0) written_ = true;
    return n;
  }

 private:
  // Tells the kernel the partitions of the GPT now on the disk (the header
  // at LBA 1, the first 8 entries at LBA 2, as the helper writes them).
  void publish_partitions() {
    if (::fsync(fd_) != 0)
      log_line(log_, "raw disk: fsync failed: " + vtl::error_description(errno));
    const std::optional<std::uint32_t> size = block_size();
    if (!size) return;
    std::vector<std::uint8_t> header(*size);
    std::vector<std::uint8_t> entries(*size);
    if (read_at(header, *size) != static_cast<ssize_t>(header.size()) ||
        read_at(entries, 2 * std::uint64_t{*size}) != static_cast<ssize_t>(entries.size()) ||
        entries.size() < kEntriesHeld * kEntrySize) {
      log_line(log_, "raw disk: cannot read back the partition map");
      return;
    }
    const std::uint32_t count = std::uint32_t{header[80]} | std::uint32_t{header[81]} << 8U |
                                std::uint32_t{header[82]} << 16U | std::uint32_t{header[83]} << 24U;
    // Two passes, because the kernel refuses an extent that overlaps another
    // partition's current one: first what shrank or stayed is resized and
    // what moved is taken out; then what grew is resized into the room made
    // and what moved is put back.
    struct Pending {
      int number;
      std::uint64_t start, length;
      bool add;
    };
    std::vector<Pending> pending;
    for (int i = 0; i < kEntriesHeld; ++i) {
      const std::uint8_t* e = entries.data() + static_cast<std::size_t>(i) * kEntrySize;
      const int number = i + 1;
      const std::uint64_t first = get64(e + 32);
      const std::uint64_t last = get64(e + 40);
      if (static_cast<std::uint32_t>(i) >= count || last < first) {
        static_cast<void>(blkpg(fd_, BLKPG_DEL_PARTITION, number, 0, 0));
        continue;
      }
      const std::uint64_t start = first * *size;
      const std::uint64_t length = (last - first + 1) * *size;
      const int error = blkpg(fd_, BLKPG_RESIZE_PARTITION, number, start, length);
      if (error == 0) continue;
      // Not there yet: added below. It moved: only a partition nobody uses
      // can be taken out, and is added again below. Otherwise resized again.
      const bool add =
          error == ENXIO || (error == EINVAL && blkpg(fd_, BLKPG_DEL_PARTITION, number, 0, 0) == 0);
      pending.push_back({number, start, length, add});
    }
    for (const bool adding : {false, true}) {
      for (const Pending& p : pending) {
        if (p.add != adding) continue;
        const int error = blkpg(fd_, adding ? BLKPG_ADD_PARTITION : BLKPG_RESIZE_PARTITION,
                                p.number, p.start, p.length);
        if (error != 0) {
          log_line(log_, "raw disk: the kernel did not take partition " + std::to_string(p.number) +
                             ": " + vtl::error_description(error));
        }
      }
    }
  }

  int fd_;
  bool written_ = false;
  SystemLog* log_;
};

class LinuxRawDisks final : public RawDisks {
 public:
  explicit LinuxRawDisks(SystemLog* log) : log_(log) {}

  std::unique_ptr<DiskDevice> open(const std::string& path, int flags) override {
    const bool write = flags == kDiskOpenReadWriteShared;
    if (!write && flags != kDiskOpenReadOnly) {
      errno = EINVAL;
      return nullptr;
    }
    const int fd = ::open(path.c_str(), (write ? O_RDWR : O_RDONLY) | O_CLOEXEC);
    if (fd < 0) return nullptr;
    if (write && ::flock(fd, LOCK_SH) != 0) {
      const int error = errno;
      ::close(fd);
      errno = error;
      return nullptr;
    }
    return std::make_unique<LinuxDiskDevice>(fd, log_);
  }

  void sync() override { ::sync(); }

 private:
  SystemLog* log_;
};

}  // namespace

std::unique_ptr<RawDisks> make_linux_raw_disks(SystemLog* log) {
  return std::make_unique<LinuxRawDisks>(log);
}

}  // namespace platform
