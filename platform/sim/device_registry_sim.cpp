// NVRAM of the simulated device, kept as a readable property list.
#include <string>

#include "base/plist.h"
#include "platform/device_registry.h"
#include "platform/platform.h"

namespace platform {
namespace {

constexpr DeviceRegistry::Entry kOptionsNode = 1;

class SimRegistry final : public DeviceRegistry {
 public:
  explicit SimRegistry(const std::string& root) : store_(under_root(root, "/sim/nvram.plist")) {}

  int master_port() override { return 0; }

  std::optional<Entry> entry_from_path(std::string_view path) override {
    if (path != kOptionsNodePath) return std::nullopt;
    return kOptionsNode;
  }

  int set_property(Entry entry, std::string_view name, const vtl::Value& value) override {
    if (entry != kOptionsNode) return kRegistryBadArgument;
    vtl::Dictionary variables = load();
    if (name == kNvramDeleteProperty || name == kNvramSyncNowProperty) {
      const std::string* variable = value.string();
      if (variable == nullptr) return kRegistryBadArgument;
      auto it = variables.find(*variable);
      if (it == variables.end()) return kRegistryNotFound;
      // Every change is already durable (see save); a commit only has to find
      // what it commits.
      if (name == kNvramSyncNowProperty) return 0;
      variables.erase(it);
    } else {
      if (name.empty()) return kRegistryBadArgument;
      if (value.string() == nullptr && value.data() == nullptr) return kRegistryBadArgument;
      variables.insert_or_assign(std::string(name), value);
    }
    return save(variables);
  }

 private:
  vtl::Dictionary load() const {
    std::optional<vtl::Value> plist = vtl::read_plist_file(store_);
    if (plist && plist->dictionary() != nullptr) return *plist->dictionary();
    return {};
  }

  int save(const vtl::Dictionary& variables) const {
    const std::string xml = vtl::plist_to_xml(vtl::Value(variables));
    const int error = vtl::write_file_atomically(
        store_, {reinterpret_cast<const std::uint8_t*>(xml.data()), xml.size()});
    return error == 0 ? 0 : kRegistryError;
  }

  std::string store_;
};

}  // namespace

std::unique_ptr<DeviceRegistry> make_sim_registry(const std::string& root) {
  return std::make_unique<SimRegistry>(root);
}

}  // namespace platform
