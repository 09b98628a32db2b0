// The simulated device's disk image: a sparse file laid out as the volume
// manager's disk, with the "Zmra" signature in the MBR's disk-signature field
// and a complete GPT (primary and backup, with their CRCs), so that GPT tools
// can read it as it is created.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace platform::sim {

using Guid = std::array<std::uint8_t, 16>;  // RFC 4122 byte order

struct ImagePartition {
  std::string name;  // ASCII
  Guid type;         // partition type, RFC 4122 byte order
  Guid unique;       // unique partition GUID, RFC 4122 byte order
  std::uint64_t blocks = 0;
};

struct ImageLayout {
  std::uint32_t block_size = 4096;
  std::uint64_t block_count = 0;
  // Laid out one after the other from the first usable block.
  std::vector<ImagePartition> partitions;
};

// Writes the image at `path` (created, or truncated and rewritten). Only the
// metadata blocks are written; the rest stays a hole. Returns "" or the error.
std::string write_disk_image(const std::string& path, const ImageLayout& layout);

// The size in bytes of the partition whose unique GUID reads `uuid_text`
// (any case), from the first 8 entries of the GPT as the image holds it now
// (the entry array taken at LBA 2). nullopt when unreadable or not found.
std::optional<std::uint64_t> partition_size_by_guid(const std::string& path,
                                                    std::uint32_t block_size,
                                                    const std::string& uuid_text);

// The GUID's text form, upper case.
std::string guid_text(const Guid& guid);

}  // namespace platform::sim
