// The simulated device's mount table and the registry's disks, from its state.
#include <cerrno>

#include "platform/mounted_volumes.h"
#include "platform/sim/storage_state.h"

namespace platform {
namespace {

class SimMountedVolumes final : public MountedVolumes {
 public:
  explicit SimMountedVolumes(std::string root) : root_(std::move(root)) {}

  int file_systems(std::vector<MountedFileSystem>& records, int capacity) override {
    records.clear();
    const std::optional<vtl::Value> table = sim::read_state(root_, sim::kMountsStatePath);
    if (!table || table->array() == nullptr) {
      errno = EIO;
      return -1;
    }
    for (const vtl::Value& entry : *table->array()) {
      if (static_cast<int>(records.size()) >= capacity) break;
      const std::string* type = entry.find_string("Type");
      const std::string* from = entry.find_string("MountedFrom");
      const std::string* on = entry.find_string("MountedOn");
      if (type == nullptr || from == nullptr || on == nullptr) continue;
      records.push_back({*type, *from, *on});
    }
    return static_cast<int>(records.size());
  }

  std::optional<vtl::Dictionary> disk_properties(std::string_view bsd_name) override {
    const std::optional<vtl::Value> disks = sim::read_state(root_, sim::kDisksStatePath);
    const vtl::Value* disk = disks ? disks->find(bsd_name) : nullptr;
    if (disk == nullptr || disk->dictionary() == nullptr) return std::nullopt;
    return *disk->dictionary();
  }

 private:
  std::string root_;
};

}  // namespace

std::unique_ptr<MountedVolumes> make_sim_mounted_volumes(std::string root) {
  return std::make_unique<SimMountedVolumes>(std::move(root));
}

}  // namespace platform
