// The simulated device's storage: its disk image and the state that goes with
// it (see storage_state.h), laid out by create_device.
//
//   /dev/rdisk0s1   512 MiB sparse image, 4096-byte blocks: "Zmra" MBR
//                   signature; GPT "System" 64 MiB, "Data" 256 MiB,
//                   "Update" 64 MiB, then 128 MiB free
//   mounts          "System" as "jrf" on "/" from /dev/disk0s1s1, "Data" as
//                   "jrf" on "/private/var" from /dev/disk0s1s2, devfs on /dev
//   disks           disk0s1s1..3 with their partitions' unique GUIDs as "UUID"
//   DiskUsage       the data volume: 256 MiB, 96 MiB of it in use
#pragma once

#include <cstdint>
#include <string>

namespace platform::sim {

inline constexpr std::uint32_t kSimBlockSize = 4096;
inline constexpr std::uint64_t kSimDiskBytes = std::uint64_t{512} << 20;
inline constexpr std::uint64_t kSimSystemBytes = std::uint64_t{64} << 20;
inline constexpr std::uint64_t kSimDataBytes = std::uint64_t{256} << 20;
inline constexpr std::uint64_t kSimUpdateBytes = std::uint64_t{64} << 20;
inline constexpr std::uint64_t kSimDataUsedBytes = std::uint64_t{96} << 20;

// Writes the image and the storage state under `root`. "" or the error.
std::string create_storage(const std::string& root);

}  // namespace platform::sim
