#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <array>

#include "base/path.h"
#include "platform/device_properties.h"

namespace platform {
namespace {

// The firmware's global variable namespace, where SecureBoot lives.
constexpr const char* kSecureBootVariable = "SecureBoot-8be4df61-93ca-11d2-aa0d-00e098032b8c";

class LinuxDeviceProperties final : public DeviceProperties {
 public:
  LinuxDeviceProperties(std::string data_volume, std::string efivars_dir)
      : efivars_(std::move(efivars_dir)), data_volume_(std::move(data_volume)) {}

  std::optional<vtl::Value> copy_answer(std::string_view question) override {
    if (question == kSigningFuseQuestion) return secure_boot();
    if (question == kDiskUsageQuestion) return disk_usage();
    return std::nullopt;
  }

 private:
  // Four attribute bytes, then one byte: 1 enabled, 0 disabled.
  std::optional<vtl::Value> secure_boot() const {
    const std::string path = vtl::join(efivars_, kSecureBootVariable);
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::array<unsigned char, 8> bytes{};
    const ssize_t n = ::read(fd, bytes.data(), bytes.size());
    ::close(fd);
    if (n != 5) return std::nullopt;
    return vtl::Value(bytes[4] == 1);
  }

  std::optional<vtl::Value> disk_usage() const {
    struct statvfs fs {};
    if (::statvfs(data_volume_.c_str(), &fs) != 0) return std::nullopt;
    const auto unit = static_cast<std::int64_t>(fs.f_frsize);
    vtl::Dictionary usage;
    usage.emplace(kTotalDataAvailableKey,
                  vtl::Value(static_cast<std::int64_t>(fs.f_bavail) * unit));
    usage.emplace(kTotalDataCapacityKey, vtl::Value(static_cast<std::int64_t>(fs.f_blocks) * unit));
    return vtl::Value(std::move(usage));
  }

  std::string efivars_;
  std::string data_volume_;
};

}  // namespace

std::unique_ptr<DeviceProperties> make_linux_device_properties(std::string data_volume,
                                                               std::string efivars_dir) {
  return std::make_unique<LinuxDeviceProperties>(std::move(data_volume), std::move(efivars_dir));
}

}  // namespace platform
