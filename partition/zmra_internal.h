// What the Zmra header code shares between its files: the record layout and
// the one way it reports a problem.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "partition/zmra.h"

namespace vtl::zmra_detail {

inline constexpr std::size_t kIdentifierOffset = 0;
inline constexpr std::size_t kMediaIdentityOffset = 16;
inline constexpr std::size_t kMediaSizeOffset = 32;
inline constexpr std::size_t kPartitionCountOffset = 40;
inline constexpr std::size_t kCRCOffset = 44;
inline constexpr std::size_t kFlagsOffset = 48;
inline constexpr std::size_t kRecordsOffset = 512;
inline constexpr std::size_t kRecordSize = 128;
inline constexpr std::size_t kMapOffset = 2048;

inline constexpr std::size_t kRecordTypeOffset = 0;
inline constexpr std::size_t kRecordIdentityOffset = 16;
inline constexpr std::size_t kRecordBeginOffset = 32;
inline constexpr std::size_t kRecordEndOffset = 40;
inline constexpr std::size_t kRecordAttributesOffset = 48;
inline constexpr std::size_t kRecordNameOffset = 56;

// Partition 0 of a fresh header starts after the header's chunk space proper
// (16 KiB) and two blocks.
inline std::uint64_t data_start(const ZmraMediaGeometry& g) {
  return 16384 + 2 * std::uint64_t{g.blockSize};
}
inline std::uint64_t data_end(const ZmraMediaGeometry& g) { return data_start(g) + g.usableSize; }

// One chunk in bytes. Unlike the 32-bit chunkSize field it also holds the
// 4 GiB chunks of media above 2 TiB.
inline std::uint64_t chunk_bytes(const ZmraMediaGeometry& g) {
  return g.chunkShift < 64 ? std::uint64_t{1} << g.chunkShift : 0;
}

// ceil(length / chunk) without overflow.
inline std::uint64_t chunks_for(const ZmraMediaGeometry& g, std::uint64_t length) {
  if (g.chunkShift >= 64) return 0;
  const std::uint64_t whole = length >> g.chunkShift;
  const std::uint64_t rest = length & (chunk_bytes(g) - 1);
  return whole + (rest != 0 ? 1 : 0);
}

// The map entry for a partition's logical chunk.
inline std::uint16_t chunk_entry(int partition, std::uint64_t logical) {
  return static_cast<std::uint16_t>((static_cast<unsigned>(partition) << 12U) |
                                    static_cast<unsigned>(logical & 0x3FFU));
}

// Writes one "zmra: ..." line to standard error, in one write.
void report(const char* format, ...) __attribute__((format(printf, 1, 2)));

bool is_zero(std::span<const std::uint8_t> bytes);
bool same_guid(std::span<const std::uint8_t> bytes, const ZmraGuid& guid);
ZmraGuid random_guid();

}  // namespace vtl::zmra_detail
