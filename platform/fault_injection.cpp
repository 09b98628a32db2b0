#include "platform/fault_injection.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

#include "base/plist.h"
#include "platform/platform.h"

namespace platform {
namespace {

// One fault plan file, read at each question.
class FaultPlan {
 public:
  FaultPlan(const std::string& root, std::string_view path) : path_(under_root(root, path)) {}

  std::optional<std::int64_t> number(std::string_view key) const {
    const std::optional<vtl::Value> plan = vtl::read_plist_file(path_);
    const vtl::Value* v = plan ? plan->find(key) : nullptr;
    if (v == nullptr || v->integer() == nullptr) return std::nullopt;
    return *v->integer();
  }

  bool flag(std::string_view key) const {
    const std::optional<vtl::Value> plan = vtl::read_plist_file(path_);
    const vtl::Value* v = plan ? plan->find(key) : nullptr;
    return v != nullptr && v->boolean() != nullptr && *v->boolean();
  }

  bool lists(std::string_view key, std::string_view item) const {
    const std::optional<vtl::Value> plan = vtl::read_plist_file(path_);
    const vtl::Value* list = plan ? plan->find(key) : nullptr;
    if (list == nullptr || list->array() == nullptr) return false;
    for (const vtl::Value& v : *list->array()) {
      if (v.string() != nullptr && *v.string() == item) return true;
    }
    return false;
  }

  // Ends the process at once when the plan's Failpoint is `step`. Nothing is
  // flushed or unwound, as on a power loss.
  void failpoint(std::string_view step) const {
    const std::optional<vtl::Value> plan = vtl::read_plist_file(path_);
    const std::string* name = plan ? plan->find_string("Failpoint") : nullptr;
    if (name != nullptr && *name == step) ::_exit(kFailpointExitStatus);
  }

 private:
  std::string path_;
};

class FaultyDiskDevice final : public DiskDevice {
 public:
  FaultyDiskDevice(std::unique_ptr<DiskDevice> device, const FaultPlan& plan)
      : device_(std::move(device)), plan_(plan) {}

  std::optional<NodeType> node_type() override { return device_->node_type(); }
  std::optional<std::uint32_t> block_size() override { return device_->block_size(); }
  std::optional<std::uint64_t> block_count() override { return device_->block_count(); }
  ssize_t read_at(std::span<std::uint8_t> buffer, std::uint64_t offset) override {
    return device_->read_at(buffer, offset);
  }

  ssize_t write_at(std::span<const std::uint8_t> buffer, std::uint64_t offset) override {
    plan_.failpoint("before-disk-write");
    if (std::optional<std::int64_t> error = plan_.number("DiskWriteError")) {
      errno = static_cast<int>(*error);
      return -1;
    }
    if (std::optional<std::int64_t> limit = plan_.number("DiskWriteShort");
        limit && *limit >= 0 && static_cast<std::uint64_t>(*limit) < buffer.size()) {
      buffer = buffer.first(static_cast<std::size_t>(*limit));
    }
    const ssize_t n = device_->write_at(buffer, offset);
    const int error = errno;
    plan_.failpoint("after-disk-write");
    errno = error;
    return n;
  }

 private:
  std::unique_ptr<DiskDevice> device_;
  const FaultPlan& plan_;
};

class FaultyRawDisks final : public RawDisks {
 public:
  FaultyRawDisks(std::unique_ptr<RawDisks> disks, const std::string& root)
      : disks_(std::move(disks)), plan_(root, kStorageFaultsPath) {}

  std::unique_ptr<DiskDevice> open(const std::string& path, int flags) override {
    std::unique_ptr<DiskDevice> device = disks_->open(path, flags);
    if (device == nullptr) return nullptr;
    return std::make_unique<FaultyDiskDevice>(std::move(device), plan_);
  }

  void sync() override {
    disks_->sync();
    plan_.failpoint("after-sync");
  }

 private:
  std::unique_ptr<RawDisks> disks_;
  FaultPlan plan_;  // outlives every device opened: the disks own it
};

class FaultyFileSystemResize final : public FileSystemResize {
 public:
  FaultyFileSystemResize(std::unique_ptr<FileSystemResize> resize, const std::string& root)
      : resize_(std::move(resize)), plan_(root, kStorageFaultsPath) {}

  int resize_volume(const std::string& mount_point, std::uint64_t new_size) override {
    plan_.failpoint("before-filesystem-resize");
    if (std::optional<std::int64_t> error = plan_.number("FileSystemResizeError")) {
      return static_cast<int>(*error);
    }
    const int error = resize_->resize_volume(mount_point, new_size);
    if (error == 0) plan_.failpoint("after-filesystem-resize");
    return error;
  }

 private:
  std::unique_ptr<FileSystemResize> resize_;
  FaultPlan plan_;
};

class FaultyRegistry final : public DeviceRegistry {
 public:
  FaultyRegistry(std::unique_ptr<DeviceRegistry> registry, const std::string& root)
      : registry_(std::move(registry)), plan_(root, kRegistryFaultsPath) {}

  int master_port() override {
    return plan_.flag("NoMasterPort") ? kRegistryNoDevice : registry_->master_port();
  }
  std::optional<Entry> entry_from_path(std::string_view path) override {
    if (plan_.flag("NoOptionsNode")) return std::nullopt;
    return registry_->entry_from_path(path);
  }
  int set_property(Entry entry, std::string_view name, const vtl::Value& value) override {
    if (plan_.lists("RefusedProperties", name)) return kRegistryNotPermitted;
    return registry_->set_property(entry, name, value);
  }

 private:
  std::unique_ptr<DeviceRegistry> registry_;
  FaultPlan plan_;
};

}  // namespace

std::unique_ptr<RawDisks> with_storage_faults(std::unique_ptr<RawDisks> disks,
                                              const std::string& root) {
  return std::make_unique<FaultyRawDisks>(std::move(disks), root);
}

std::unique_ptr<FileSystemResize> with_storage_faults(std::unique_ptr<FileSystemResize> resize,
                                                      const std::string& root) {
  return std::make_unique<FaultyFileSystemResize>(std::move(resize), root);
}

std::unique_ptr<DeviceRegistry> with_registry_faults(std::unique_ptr<DeviceRegistry> registry,
                                                     const std::string& root) {
  return std::make_unique<FaultyRegistry>(std::move(registry), root);
}

}  // namespace platform
