// NVRAM on a Linux host: EFI variables under our vendor GUID in efivarfs.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "platform/device_registry.h"

namespace platform {
namespace {

constexpr DeviceRegistry::Entry kOptionsNode = 1;
constexpr long kEfivarfsMagic = 0xde5e81e4;
// EFI_VARIABLE_NON_VOLATILE | BOOTSERVICE_ACCESS | RUNTIME_ACCESS.
constexpr std::uint32_t kAttributes = 0x7;

// errno values become registry statuses; 0 stays success.
int status_of(int error) {
  switch (error) {
    case 0:
      return 0;
    case ENOENT:
      return kRegistryNotFound;
    case EPERM:
    case EACCES:
    case EROFS:
      return kRegistryNotPermitted;
    case EINVAL:
    case ENAMETOOLONG:
      return kRegistryBadArgument;
    default:
      return kRegistryError;
  }
}

// Clears the immutable flag of an existing variable file for the lifetime of
// this object, and puts it back afterwards when asked to.
class Unlocked {
 public:
  explicit Unlocked(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return;
    const vtl::UniqueFd closer(fd);
    int flags = 0;
    if (::ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0 || (flags & FS_IMMUTABLE_FL) == 0) return;
    flags &= ~FS_IMMUTABLE_FL;
    if (::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0) {
      path_ = path;
      cleared_ = true;
    }
  }
  ~Unlocked() {
    if (!cleared_ || !restore_) return;
    const int fd = ::open(path_.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return;
    const vtl::UniqueFd closer(fd);
    int flags = 0;
    if (::ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0) return;
    flags |= FS_IMMUTABLE_FL;
    static_cast<void>(::ioctl(fd, FS_IOC_SETFLAGS, &flags));
  }
  Unlocked(const Unlocked&) = delete;
  Unlocked& operator=(const Unlocked&) = delete;
  // A deleted variable has nothing to restore.
  void forget() { restore_ = false; }

 private:
  std::string path_;
  bool cleared_ = false;
  bool restore_ = true;
};

class EfivarfsRegistry final : public DeviceRegistry {
 public:
  EfivarfsRegistry(std::string dir, bool require_efivarfs)
      : dir_(std::move(dir)), require_efivarfs_(require_efivarfs) {}

  int master_port() override { return 0; }

  std::optional<Entry> entry_from_path(std::string_view path) override {
    if (path != kOptionsNodePath) return std::nullopt;
    struct statfs fs {};
    if (::statfs(dir_.c_str(), &fs) != 0) return std::nullopt;
    if (require_efivarfs_ && fs.f_type != kEfivarfsMagic) return std::nullopt;
    return kOptionsNode;
  }

  int set_property(Entry entry, std::string_view name, const vtl::Value& value) override {
    if (entry != kOptionsNode) return kRegistryBadArgument;
    if (name == kNvramDeleteProperty || name == kNvramSyncNowProperty) {
      const std::string* variable = value.string();
      if (variable == nullptr) return kRegistryBadArgument;
      std::string path;
      if (!variable_path(*variable, &path)) return kRegistryBadArgument;
      return name == kNvramDeleteProperty ? remove(path) : commit(path);
    }
    std::string path;
    if (!variable_path(name, &path)) return kRegistryBadArgument;
    std::vector<std::uint8_t> bytes(sizeof kAttributes);
    for (std::size_t i = 0; i < sizeof kAttributes; ++i) {
      bytes[i] = static_cast<std::uint8_t>(kAttributes >> (8 * i));
    }
    if (const vtl::Data* data = value.data()) {
      bytes.insert(bytes.end(), data->begin(), data->end());
    } else if (const std::string* text = value.string()) {
      bytes.insert(bytes.end(), text->begin(), text->end());
    } else {
      return kRegistryBadArgument;
    }
    return write(path, bytes);
  }

 private:
  // "<dir>/<name>-<guid>"; false for names efivarfs cannot hold.
  bool variable_path(std::string_view name, std::string* path) const {
    if (name.empty() || name.find('/') != std::string_view::npos ||
        name.find('\0') != std::string_view::npos || name.size() > 200) {
      return false;
    }
    *path = dir_ + "/" + std::string(name) + "-" + std::string(kNvramVendorGuid);
    return true;
  }

  static int write(const std::string& path, const std::vector<std::uint8_t>& bytes) {
    Unlocked unlocked(path);
    const int fd =
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) return status_of(errno);
    const vtl::UniqueFd closer(fd);
    // One write: efivarfs takes a variable whole or not at all.
    const ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0) return status_of(errno);
    return static_cast<std::size_t>(n) == bytes.size() ? 0 : kRegistryError;
  }

  static int remove(const std::string& path) {
    Unlocked unlocked(path);
    unlocked.forget();
    return ::unlink(path.c_str()) == 0 ? 0 : status_of(errno);
  }

  int commit(const std::string& path) const {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return status_of(errno);
    const vtl::UniqueFd closer(fd);
    if (::fsync(fd) != 0 && errno != EINVAL) return status_of(errno);
    const int dir = ::open(dir_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0) return status_of(errno);
    const vtl::UniqueFd dir_closer(dir);
    if (::fsync(dir) != 0 && errno != EINVAL) return status_of(errno);
    return 0;
  }

  std::string dir_;
  bool require_efivarfs_;
};

}  // namespace

std::unique_ptr<DeviceRegistry> make_efivarfs_registry(std::string dir, bool require_efivarfs) {
  return std::make_unique<EfivarfsRegistry>(std::move(dir), require_efivarfs);
}

}  // namespace platform
