// The operations that act on the device rather than on files: NVRAM
// variables, restart, and the helper's own end.
#include <cstdlib>

#include "base/VTLLog.h"
#include "operations/VTLHOperations.h"
#include "platform/device_registry.h"
#include "platform/platform.h"
#include "platform/power.h"

namespace vtl {
namespace {

// The options node, or nullopt after logging why it cannot be reached. The
// entry is looked up afresh on every call.
std::optional<platform::DeviceRegistry::Entry> options_node(platform::DeviceRegistry* registry) {
  if (registry == nullptr || registry->master_port() != 0) {
    VTLLog("Couldn't locate bootstrap_port mach port");
    return std::nullopt;
  }
  std::optional<platform::DeviceRegistry::Entry> node =
      registry->entry_from_path(platform::kOptionsNodePath);
  if (!node) {
    VTLLog("Couldn't locate options node in IODeviceTree");
    return std::nullopt;
  }
  return node;
}

}  // namespace

bool VTLHOperations::deleteNvram(const std::string* name) {
  platform::DeviceRegistry* registry = environment_.device_registry;
  std::optional<platform::DeviceRegistry::Entry> node = options_node(registry);
  if (!node) return false;
  const Value variable = name != nullptr ? Value(*name) : Value(Data{});
  // A refused delete reports with the commit's message: that is the text the
  // helper has always logged for it.
  if (registry->set_property(*node, platform::kNvramDeleteProperty, variable) != 0) {
    VTLLog("Couldn't force sync new nvram to device");
    return false;
  }
  return true;
}

bool VTLHOperations::writeNVRam_withValue(const std::string* name, const std::string* value) {
  platform::DeviceRegistry* registry = environment_.device_registry;
  std::optional<platform::DeviceRegistry::Entry> node = options_node(registry);
  if (!node) return false;
  // A missing name or value (a request whose value was dropped in
  // conversion, data for one) names no property or holds no bytes: the
  // property cannot be set, and the variable is left as it was. An empty
  // string is a value, and writes an empty byte string.
  if (name == nullptr || value == nullptr ||
      registry->set_property(*node, *name, Value(Data(value->begin(), value->end()))) != 0) {
    VTLLog("Couldn't write nvram");
    return false;
  }
  // The commit names the variable, not its value.
  if (registry->set_property(*node, platform::kNvramSyncNowProperty, Value(*name)) != 0) {
    VTLLog("Couldn't force sync new nvram to device");
    return false;
  }
  return true;
}

bool VTLHOperations::reboot() {
  if (platform::Power* power = environment_.power) power->reboot(0);
  return false;
}

void VTLHOperations::quitHelper() { std::exit(0); }

}  // namespace vtl
