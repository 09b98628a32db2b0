#include "platform/sim/storage_state.h"

#include <utility>

#include "base/plist.h"
#include "platform/platform.h"

namespace platform::sim {

std::optional<vtl::Value> read_state(const std::string& root, std::string_view path) {
  return vtl::read_plist_file(under_root(root, path));
}

int write_state(const std::string& root, std::string_view path, const vtl::Value& value) {
  const std::string xml = vtl::plist_to_xml(value);
  return vtl::write_file_atomically(
      under_root(root, path), {reinterpret_cast<const std::uint8_t*>(xml.data()), xml.size()});
}

void journal(const std::string& root, vtl::Dictionary event) {
  std::optional<vtl::Value> log = read_state(root, kStorageJournalPath);
  vtl::Array events;
  if (log && log->array() != nullptr) events = std::move(*log->array());
  events.emplace_back(std::move(event));
  static_cast<void>(write_state(root, kStorageJournalPath, vtl::Value(std::move(events))));
}

}  // namespace platform::sim
