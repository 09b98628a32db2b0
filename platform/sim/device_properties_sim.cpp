#include "base/plist.h"
#include "platform/device_properties.h"
#include "platform/platform.h"

namespace platform {
namespace {

class SimDeviceProperties final : public DeviceProperties {
 public:
  explicit SimDeviceProperties(const std::string& root)
      : path_(under_root(root, "/sim/device-properties.plist")) {}

  std::optional<vtl::Value> copy_answer(std::string_view question) override {
    std::optional<vtl::Value> all = vtl::read_plist_file(path_);
    const vtl::Value* value = all ? all->find(question) : nullptr;
    if (value == nullptr) return std::nullopt;
    return *value;
  }

 private:
  std::string path_;
};

}  // namespace

std::unique_ptr<DeviceProperties> make_sim_device_properties(const std::string& root) {
  return std::make_unique<SimDeviceProperties>(root);
}

}  // namespace platform
