// The simulated device's raw disk: the image file standing for the raw node,
// its geometry and node type from the device's state, every write and sync
// recorded in the device's storage journal.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/platform.h"
#include "platform/raw_disk.h"
#include "platform/sim/storage_state.h"

namespace platform {
namespace {

class SimDiskDevice final : public DiskDevice {
 public:
  SimDiskDevice(std::string root, int fd) : root_(std::move(root)), fd_(fd) {}
  ~SimDiskDevice() override { ::close(fd_); }
  SimDiskDevice(const SimDiskDevice&) = delete;
  SimDiskDevice& operator=(const SimDiskDevice&) = delete;

  std::optional<NodeType> node_type() override {
    struct stat st {};
    if (::fstat(fd_, &st) != 0) return std::nullopt;
    if (!S_ISREG(st.st_mode)) return NodeType::kOther;
    const std::optional<vtl::Value> disk = sim::read_state(root_, sim::kDiskStatePath);
    const std::string* type = disk ? disk->find_string("NodeType") : nullptr;
    return type == nullptr || *type == "CharacterSpecial" ? NodeType::kRawDisk : NodeType::kOther;
  }

  std::optional<std::uint32_t> block_size() override {
    const std::optional<vtl::Value> disk = sim::read_state(root_, sim::kDiskStatePath);
    const vtl::Value* v = disk ? disk->find("BlockSize") : nullptr;
    if (v == nullptr || v->integer() == nullptr || *v->integer() <= 0 ||
        *v->integer() > UINT32_MAX) {
      errno = ENOTTY;
      return std::nullopt;
    }
    return static_cast<std::uint32_t>(*v->integer());
  }

  std::optional<std::uint64_t> block_count() override {
    const std::optional<std::uint32_t> size = block_size();
    struct stat st {};
    if (!size || ::fstat(fd_, &st) != 0) return std::nullopt;
    return static_cast<std::uint64_t>(st.st_size) / *size;
  }

  ssize_t read_at(std::span<std::uint8_t> buffer, std::uint64_t offset) override {
    return ::pread(fd_, buffer.data(), buffer.size(), static_cast<off_t>(offset));
  }

  ssize_t write_at(std::span<const std::uint8_t> buffer, std::uint64_t offset) override {
    vtl::Dictionary event{{"Event", "DiskWrite"},
                          {"Offset", static_cast<std::int64_t>(offset)},
                          {"Length", static_cast<std::int64_t>(buffer.size())}};
    const ssize_t n = ::pwrite(fd_, buffer.data(), buffer.size(), static_cast<off_t>(offset));
    const int error = errno;
    event.emplace("Written", static_cast<std::int64_t>(n));
    sim::journal(root_, std::move(event));
    errno = error;
    return n;
  }

 private:
  std::string root_;
  int fd_;
};

class SimRawDisks final : public RawDisks {
 public:
  explicit SimRawDisks(std::string root) : root_(std::move(root)) {}

  std::unique_ptr<DiskDevice> open(const std::string& path, int flags) override {
    const bool write = flags == kDiskOpenReadWriteShared;
    if (!write && flags != kDiskOpenReadOnly) {
      errno = EINVAL;
      return nullptr;
    }
    const int fd = ::open(under_root(root_, path).c_str(),
                          (write ? O_RDWR : O_RDONLY) | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return nullptr;
    if (write && ::flock(fd, LOCK_SH) != 0) {
      const int error = errno;
      ::close(fd);
      errno = error;
      return nullptr;
    }
    return std::make_unique<SimDiskDevice>(root_, fd);
  }

  void sync() override { sim::journal(root_, vtl::Dictionary{{"Event", "Sync"}}); }

 private:
  std::string root_;
};

}  // namespace

std::unique_ptr<RawDisks> make_sim_raw_disks(std::string root) {
  return std::make_unique<SimRawDisks>(std::move(root));
}

}  // namespace platform
