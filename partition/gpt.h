// The GUID Partition Table as the volume manager's disk carries it: the MBR's
// disk signature, the GPT header at LBA 1 and the entry array taken to start
// at LBA 2 with 128-byte entries. Only the fields below are used; the
// signature, revision, header size, both CRCs, the own and alternate LBAs and
// the entry array's LBA and entry size are neither checked nor updated.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "partition/bytes.h"

namespace vtl::gpt {

// MBR (LBA 0): the 4-byte disk signature, "Zmra" as one little-endian number.
inline constexpr std::size_t kDiskSignatureOffset = 440;
inline constexpr std::uint32_t kZmraDiskSignature = 0x5A6D7261;

// GPT header (LBA 1): the 92 bytes kept.
inline constexpr std::size_t kHeaderSize = 92;
inline constexpr std::size_t kFirstUsableLBAOffset = 40;
inline constexpr std::size_t kLastUsableLBAOffset = 48;
inline constexpr std::size_t kPartitionCountOffset = 80;

// Entries: the first 8 of the array, 128 bytes each.
inline constexpr std::size_t kEntrySize = 128;
inline constexpr int kEntriesHeld = 8;
inline constexpr std::size_t kEntriesSize = kEntrySize * kEntriesHeld;
inline constexpr std::size_t kTypeGuidOffset = 0;
inline constexpr std::size_t kUniqueGuidOffset = 16;
inline constexpr std::size_t kStartingLBAOffset = 32;
inline constexpr std::size_t kEndingLBAOffset = 40;
inline constexpr std::size_t kAttributesOffset = 48;
inline constexpr std::size_t kNameOffset = 56;
inline constexpr std::size_t kNameSize = 72;

inline std::uint64_t first_usable_lba(std::span<const std::uint8_t> header) {
  return le::load64(header, kFirstUsableLBAOffset);
}
inline std::uint64_t last_usable_lba(std::span<const std::uint8_t> header) {
  return le::load64(header, kLastUsableLBAOffset);
}
// NumberOfPartitionEntries, taken as the number of partitions in use.
inline std::int32_t partition_count(std::span<const std::uint8_t> header) {
  return static_cast<std::int32_t>(le::load32(header, kPartitionCountOffset));
}
inline void set_partition_count(std::span<std::uint8_t> header, std::int32_t count) {
  le::store(header, kPartitionCountOffset, static_cast<std::uint32_t>(count));
}

// Entry `i` of the held entries. REQUIRES: 0 <= i < kEntriesHeld.
inline std::span<std::uint8_t> entry(std::span<std::uint8_t> entries, int i) {
  return entries.subspan(static_cast<std::size_t>(i) * kEntrySize, kEntrySize);
}
inline std::span<const std::uint8_t> entry(std::span<const std::uint8_t> entries, int i) {
  return entries.subspan(static_cast<std::size_t>(i) * kEntrySize, kEntrySize);
}
inline std::uint64_t starting_lba(std::span<const std::uint8_t> e) {
  return le::load64(e, kStartingLBAOffset);
}
inline std::uint64_t ending_lba(std::span<const std::uint8_t> e) {
  return le::load64(e, kEndingLBAOffset);
}
inline void set_starting_lba(std::span<std::uint8_t> e, std::uint64_t lba) {
  le::store(e, kStartingLBAOffset, lba);
}
inline void set_ending_lba(std::span<std::uint8_t> e, std::uint64_t lba) {
  le::store(e, kEndingLBAOffset, lba);
}
inline std::array<std::uint8_t, 16> unique_guid(std::span<const std::uint8_t> e) {
  std::array<std::uint8_t, 16> guid{};
  for (std::size_t i = 0; i < guid.size(); ++i) guid[i] = e[kUniqueGuidOffset + i];
  return guid;
}
inline std::array<std::uint8_t, 16> type_guid(std::span<const std::uint8_t> e) {
  std::array<std::uint8_t, 16> guid{};
  for (std::size_t i = 0; i < guid.size(); ++i) guid[i] = e[kTypeGuidOffset + i];
  return guid;
}

// A GUID as GPT stores it (first three fields little-endian) in the byte
// order of RFC 4122, as uuid_unparse and uuid_parse use it. The swap is its
// own inverse.
inline std::array<std::uint8_t, 16> swap_guid_order(const std::array<std::uint8_t, 16>& in) {
  return {in[3], in[2], in[1],  in[0],  in[5],  in[4],  in[7],  in[6],
          in[8], in[9], in[10], in[11], in[12], in[13], in[14], in[15]};
}

}  // namespace vtl::gpt
