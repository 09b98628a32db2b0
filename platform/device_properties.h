// Device properties: answers the device-information service gives by name.
//   "SigningFuse"  bool: true on production-fused hardware, false on
//                  development hardware
//   "DiskUsage"    dictionary of the data volume's usage, in bytes:
//                  "TotalDataAvailable" (free) and "TotalDataCapacity" (total)
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "service/value.h"

namespace platform {

inline constexpr std::string_view kSigningFuse = "SigningFuse";
inline constexpr std::string_view kDiskUsage = "DiskUsage";
inline constexpr std::string_view kDiskUsageAvailable = "TotalDataAvailable";
inline constexpr std::string_view kDiskUsageCapacity = "TotalDataCapacity";

class DeviceProperties {
 public:
  virtual ~DeviceProperties() = default;
  // The answer named `name`, or nullopt when the device gives none.
  virtual std::optional<vtl::Value> copy_property(std::string_view name) = 0;
};

// Simulated device: the top-level entries of <root>/sim/device.plist, read on
// every question, so a test or a developer can change the device's answers
// while the helper runs.
std::unique_ptr<DeviceProperties> make_sim_device_properties(std::string root);

// Linux host. "SigningFuse" is the firmware's Secure Boot state: true when
// the SecureBoot variable (EFI global GUID) in `efivars_dir` says enabled,
// false when it says disabled, no answer when firmware gives none (a host
// without EFI is treated as production hardware by callers, which take a
// missing answer as fused). "DiskUsage" comes from statvfs of `data_volume`
// (blocks available to unprivileged users, and total blocks, times the
// fragment size).
std::unique_ptr<DeviceProperties> make_linux_device_properties(std::string efivars_dir,
                                                               std::string data_volume);

}  // namespace platform
