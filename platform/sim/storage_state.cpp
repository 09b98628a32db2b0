#include "platform/sim/storage_state.h"

#include <unistd.h>

#include <utility>

#include "platform/platform.h"
#include "base/plist.h"

namespace platform::sim {

std::optional<vtl::Value> read_state(const std::string& root, std::string_view path) {
  return vtl::read_plist_file(under_root(root, path));
}

int write_state(const std::string& root, std::string_view path, const vtl::Value& value) {
  const std::string xml = vtl::plist_to_xml(value);
  return vtl::write_file_atomically(
      under_root(root, path), {reinterpret_cast<const std::uint8_t*>(xml.data()), xml.size()});
}

std::optional<std::int64_t> fault_number(const std::string& root, std::string_view key) {
  const std::optional<vtl::Value> faults = read_state(root, kStorageFaultsPath);
  const vtl::Value* v = faults ? faults->find(key) : nullptr;
  if (v == nullptr || v->integer() == nullptr) return std::nullopt;
  return *v->integer();
}

void failpoint(const std::string& root, std::string_view step) {
  const std::optional<vtl::Value> faults = read_state(root, kStorageFaultsPath);
  const std::string* name = faults ? faults->find_string("Failpoint") : nullptr;
  if (name != nullptr && *name == step) ::_exit(kFailpointExitStatus);
}

void journal(const std::string& root, vtl::Dictionary event) {
  std::optional<vtl::Value> log = read_state(root, kStorageJournalPath);
  vtl::Array events;
  if (log && log->array() != nullptr) events = std::move(*log->array());
  events.emplace_back(std::move(event));
  static_cast<void>(write_state(root, kStorageJournalPath, vtl::Value(std::move(events))));
}

}  // namespace platform::sim
