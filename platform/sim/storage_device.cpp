#include "platform/sim/storage_device.h"

#include <uuid/uuid.h>

#include <cstring>

#include "base/errors.h"
#include "platform/device_properties.h"
#include "platform/mounted_volumes.h"
#include "platform/platform.h"
#include "platform/sim/disk_image.h"
#include "platform/sim/storage_state.h"

namespace platform::sim {
namespace {

// The platform's journaled file system's partition type.
constexpr const char* kJrfType = "0FC63DAF-8483-4772-8E79-3D69D8477DE4";

Guid parse(const char* text) {
  uuid_t u;
  static_cast<void>(::uuid_parse(text, u));
  Guid g{};
  std::memcpy(g.data(), u, g.size());
  return g;
}

Guid random_guid() {
  uuid_t u;
  uuid_generate_random(u);
  Guid g{};
  std::memcpy(g.data(), u, g.size());
  return g;
}

vtl::Dictionary mount(const char* type, const char* from, const char* on, std::uint64_t size,
                      std::uint64_t used) {
  return {{"Type", type},
          {"MountedFrom", from},
          {"MountedOn", on},
          {"Size", static_cast<std::int64_t>(size)},
          {"Used", static_cast<std::int64_t>(used)}};
}

}  // namespace

std::string create_storage(const std::string& root) {
  ImageLayout layout;
  layout.block_size = kSimBlockSize;
  layout.block_count = kSimDiskBytes / kSimBlockSize;
  const Guid type = parse(kJrfType);
  for (const auto& [name, bytes] :
       {std::pair{"System", kSimSystemBytes}, std::pair{"Data", kSimDataBytes},
        std::pair{"Update", kSimUpdateBytes}}) {
    layout.partitions.push_back({name, type, random_guid(), bytes / kSimBlockSize});
  }
  if (std::string err = write_disk_image(under_root(root, kDiskImagePath), layout); !err.empty()) {
    return err;
  }

  vtl::Dictionary disks;
  for (std::size_t i = 0; i < layout.partitions.size(); ++i) {
    disks.emplace(
        "disk0s1s" + std::to_string(i + 1),
        vtl::Dictionary{{std::string(kDiskUUIDProperty), guid_text(layout.partitions[i].unique)}});
  }
  vtl::Array mounts{
      mount("jrf", "/dev/disk0s1s1", "/", kSimSystemBytes, kSimSystemBytes / 4 * 3),
      mount("devfs", "devfs", "/dev", 0, 0),
      mount("jrf", "/dev/disk0s1s2", "/private/var", kSimDataBytes, kSimDataUsedBytes),
  };
  // Other answers may already be kept there: add to them.
  std::optional<vtl::Value> answers = read_state(root, kDevicePropertiesStatePath);
  if (!answers || answers->dictionary() == nullptr) answers = vtl::Value(vtl::Dictionary{});
  answers->dictionary()->insert_or_assign(
      std::string(kDiskUsageQuestion),
      vtl::Dictionary{
          {std::string(kTotalDataCapacityKey), static_cast<std::int64_t>(kSimDataBytes)},
          {std::string(kTotalDataAvailableKey),
           static_cast<std::int64_t>(kSimDataBytes - kSimDataUsedBytes)}});

  const struct {
    const char* path;
    vtl::Value value;
  } files[] = {
      {kDiskStatePath, vtl::Dictionary{{"BlockSize", static_cast<std::int64_t>(kSimBlockSize)},
                                       {"NodeType", "CharacterSpecial"}}},
      {kDisksStatePath, std::move(disks)},
      {kMountsStatePath, std::move(mounts)},
      {kDevicePropertiesStatePath, std::move(*answers)},
  };
  for (const auto& f : files) {
    if (int e = write_state(root, f.path, f.value); e != 0) {
      return std::string("cannot write ") + f.path + ": " + vtl::error_description(e);
    }
  }
  return {};
}

}  // namespace platform::sim
