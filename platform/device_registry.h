// The device registry: where NVRAM variables live, as properties of the
// options node "IODeviceTree:/options". Statuses follow the registry's own
// convention: 0 is success, anything else a failure.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/value.h"

namespace platform {

// Registry statuses the backends report.
inline constexpr int kRegistryNotFound = static_cast<int>(0xe00002f0);
inline constexpr int kRegistryNotPermitted = static_cast<int>(0xe00002e2);
inline constexpr int kRegistryNoDevice = static_cast<int>(0xe00002c0);
inline constexpr int kRegistryBadArgument = static_cast<int>(0xe00002c2);
inline constexpr int kRegistryError = static_cast<int>(0xe00002bc);

class DeviceRegistry {
 public:
  using Entry = std::uint64_t;

  virtual ~DeviceRegistry() = default;
  // The handle through which entries are looked up; 0 or a failure status.
  virtual int master_port() = 0;
  // The entry at a registry path, or nullopt when the path does not resolve.
  virtual std::optional<Entry> entry_from_path(std::string_view path) = 0;
  // Sets one property (a string or bytes). On the options node, the
  // pseudo-properties "IONVRAM-DELETE-PROPERTY" and "IONVRAM-SYNCNOW-PROPERTY",
  // given a variable's name, delete that variable and commit it to the store.
  virtual int set_property(Entry entry, std::string_view name, const vtl::Value& value) = 0;
};

inline constexpr std::string_view kOptionsNodePath = "IODeviceTree:/options";
inline constexpr std::string_view kNvramDeleteProperty = "IONVRAM-DELETE-PROPERTY";
inline constexpr std::string_view kNvramSyncNowProperty = "IONVRAM-SYNCNOW-PROPERTY";

// Simulated device: the variables are a property list, <root>/sim/nvram.plist
// (variable name -> bytes), replaced whole on every change so that a crash
// never leaves it half written. Faults are injected around it
// (fault_injection.h).
std::unique_ptr<DeviceRegistry> make_sim_registry(const std::string& root);

// Linux host: EFI variables in efivarfs, all under the vendor GUID below.
// A variable file holds the 4-byte attribute word (non-volatile, boot-service
// and runtime access) and the value, written in one write as efivarfs
// requires. The kernel marks variable files immutable; the flag is cleared
// before a write or delete and restored after a write. efivarfs hands each
// write to the firmware before returning, so a variable is stored when its
// write returns; the commit ("IONVRAM-SYNCNOW-PROPERTY") additionally fsyncs
// the variable and its directory, which makes it durable on any other file
// system standing in for efivarfs. Firmware takes a variable written with no
// bytes as a deletion, so on real efivarfs an empty value cannot be stored
// (its commit then reports the variable missing). `require_efivarfs` makes the options node
// resolve only where `dir` is a mounted efivarfs (tests pass a plain
// temporary directory and false).
std::unique_ptr<DeviceRegistry> make_efivarfs_registry(std::string dir, bool require_efivarfs);

inline constexpr std::string_view kNvramVendorGuid = "9ff5892a-6c94-4c30-8080-cf65e87eb475";
inline constexpr std::string_view kEfivarsDirectory = "/sys/firmware/efi/efivars";

}  // namespace platform
