// Device properties: answers of the platform's device-information service,
// asked by name ("DiskUsage", "SigningFuse").
//
// "DiskUsage" is a dictionary about the data volume with at least
//   "TotalDataCapacity"   integer, bytes the data volume holds in all
//   "TotalDataAvailable"  integer, bytes of it still free
// "SigningFuse" is a boolean: true on production-fused hardware, false on
// development hardware. Callers take a missing answer as fused.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/value.h"

namespace platform {

inline constexpr std::string_view kDiskUsageQuestion = "DiskUsage";
inline constexpr std::string_view kTotalDataCapacityKey = "TotalDataCapacity";
inline constexpr std::string_view kTotalDataAvailableKey = "TotalDataAvailable";
inline constexpr std::string_view kSigningFuseQuestion = "SigningFuse";

class DeviceProperties {
 public:
  virtual ~DeviceProperties() = default;
  // The answer named `question`, or nullopt when the device has none.
  virtual std::optional<vtl::Value> copy_answer(std::string_view question) = 0;
};

// Simulated device: the answers are the top-level entries of
// <root>/sim/device-properties.plist, read on every question, so a test or a
// developer can change them while the helper runs. The simulated file
// system's resize keeps "DiskUsage" in step with the data volume.
std::unique_ptr<DeviceProperties> make_sim_device_properties(const std::string& root);

// Linux host: "DiskUsage" from statvfs of the data volume mounted at
// `data_volume` (capacity: all blocks; available: the blocks an
// unprivileged user may still take, as the provisioning daemon would see
// them). "SigningFuse" is the firmware's Secure Boot state, read from the
// SecureBoot variable (EFI global namespace) in `efivars_dir`: enabled means
// fused; no answer where the firmware gives none. Other questions have no
// answer here.
std::unique_ptr<DeviceProperties> make_linux_device_properties(
    std::string data_volume, std::string efivars_dir = "/sys/firmware/efi/efivars");

}  // namespace platform
