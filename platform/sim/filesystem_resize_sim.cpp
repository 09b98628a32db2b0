// The simulated journaled file system's online resize. It refuses to become
// larger than its partition is at that moment, so a flow that grows the file
// system before its partition, or shrinks the partition before the file
// system, fails here as it would corrupt a real one.
#include <cerrno>

#include "platform/device_properties.h"
#include "platform/filesystem_resize.h"
#include "platform/mounted_volumes.h"
#include "platform/platform.h"
#include "platform/sim/disk_image.h"
#include "platform/sim/storage_state.h"

namespace platform {
namespace {

constexpr const char* kDataVolume = "/private/var";

std::int64_t number(const vtl::Value& v, std::string_view key) {
  const vtl::Value* n = v.find(key);
  return n != nullptr && n->integer() != nullptr ? *n->integer() : 0;
}

class SimFileSystemResize final : public FileSystemResize {
 public:
  explicit SimFileSystemResize(std::string root) : root_(std::move(root)) {}

  int resize_volume(const std::string& mount_point, std::uint64_t new_size) override {
    vtl::Dictionary event{{"Event", "FileSystemResize"},
                          {"MountedOn", mount_point},
                          {"Size", static_cast<std::int64_t>(new_size)}};
    const int error = resize(mount_point, new_size, event);
    event.emplace("Accepted", error == 0);
    if (error != 0) event.emplace("Error", error);
    sim::journal(root_, std::move(event));
    return error;
  }

 private:
  int resize(const std::string& mount_point, std::uint64_t new_size, vtl::Dictionary& event) {
    std::optional<vtl::Value> table = sim::read_state(root_, sim::kMountsStatePath);
    vtl::Value* volume = nullptr;
    if (table && table->array() != nullptr) {
      for (vtl::Value& entry : *table->array()) {
        const std::string* on = entry.find_string("MountedOn");
        if (on != nullptr && *on == mount_point) volume = &entry;
      }
    }
    if (volume == nullptr) return ENOENT;
    const std::string* type = volume->find_string("Type");
    const std::string* from = volume->find_string("MountedFrom");
    if (type == nullptr || *type != kJrfTypeName || from == nullptr) return ENOTSUP;

    const std::optional<std::uint64_t> partition = partition_size(*from);
    if (!partition) return ENXIO;
    event.emplace("PartitionSize", static_cast<std::int64_t>(*partition));
    const std::int64_t used = number(*volume, "Used");
    if (new_size > *partition || new_size < static_cast<std::uint64_t>(used)) return ENOSPC;

    const std::int64_t size = static_cast<std::int64_t>(new_size);
    volume->dictionary()->insert_or_assign("Size", size);
    if (const int e = sim::write_state(root_, sim::kMountsStatePath, *table); e != 0) return e;
    if (mount_point == kDataVolume) {
      std::optional<vtl::Value> answers = sim::read_state(root_, sim::kDevicePropertiesStatePath);
      if (!answers || answers->dictionary() == nullptr) answers = vtl::Value(vtl::Dictionary{});
      vtl::Dictionary usage{{std::string(kTotalDataCapacityKey), size},
                            {std::string(kTotalDataAvailableKey), size - used}};
      answers->dictionary()->insert_or_assign(std::string(kDiskUsageQuestion), std::move(usage));
      if (const int e = sim::write_state(root_, sim::kDevicePropertiesStatePath, *answers);
          e != 0) {
        return e;
      }
    }
    return 0;
  }

  // The partition the volume is mounted from, as the disk image's GPT has it
  // now: its registry "UUID" matched against the entries' unique GUIDs.
  std::optional<std::uint64_t> partition_size(const std::string& mounted_from) {
    const std::size_t slash = mounted_from.rfind('/');
    const std::string bsd =
        slash == std::string::npos ? mounted_from : mounted_from.substr(slash + 1);
    const std::optional<vtl::Value> disks = sim::read_state(root_, sim::kDisksStatePath);
    const vtl::Value* disk = disks ? disks->find(bsd) : nullptr;
    const std::string* uuid = disk != nullptr ? disk->find_string(kDiskUUIDProperty) : nullptr;
    const std::optional<vtl::Value> state = sim::read_state(root_, sim::kDiskStatePath);
    const std::int64_t block_size = state ? number(*state, "BlockSize") : 0;
    if (uuid == nullptr || block_size <= 0 || block_size > UINT32_MAX) return std::nullopt;
    return sim::partition_size_by_guid(under_root(root_, sim::kDiskImagePath),
                                       static_cast<std::uint32_t>(block_size), *uuid);
  }

  std::string root_;
};

}  // namespace

std::unique_ptr<FileSystemResize> make_sim_filesystem_resize(std::string root) {
  return std::make_unique<SimFileSystemResize>(std::move(root));
}

}  // namespace platform
