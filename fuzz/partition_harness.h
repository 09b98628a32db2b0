// What the partition fuzz targets run on one input, shared with the test that
// replays their corpora (tests/partition_fuzz_corpus_test.cpp).
//
//   zmra header:    8 bytes media size, 1 byte block-size choice, then the
//                   bytes of a header (padded with zeros to 4096). Every
//                   reader runs on it; a header the repair accepts must then
//                   pass the check, or the harness aborts.
//   partition map:  1 byte block-size choice, 1 byte of options, then the
//                   disk's first bytes. The map reader runs on that disk; a
//                   map it accepts is adjusted in every way the resize
//                   engine can ask for.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>

#include "partition/partition_map.h"
#include "partition/zmra.h"
#include "platform/platform.h"
#include "tests/support/memory_disk.h"

namespace vtl::fuzzing {

inline std::uint32_t chosen_block_size(std::uint8_t choice) {
  constexpr std::uint32_t kSizes[] = {4096, 8192, 16384, 512, 2048, 32768, 1, 0};
  return kSizes[choice % 8];
}

inline void run_zmra_header(std::span<const std::uint8_t> data) {
  if (data.size() < 9) return;
  std::uint64_t media_size = 0;
  std::memcpy(&media_size, data.data(), 8);
  // Mostly sizes a medium can have, sometimes anything.
  if ((data[8] & 0x80U) == 0) media_size %= (std::uint64_t{1} << 43);
  const std::uint32_t block_size = chosen_block_size(data[8]);
  ZmraHeader header;
  const std::span<const std::uint8_t> bytes = data.subspan(9);
  std::memcpy(header.bytes.data(), bytes.data(), std::min(bytes.size(), header.bytes.size()));

  ZmraMediaGeometry geometry;
  if (zmraInitMediaGeometry(&geometry, media_size, block_size) != 0) return;
  ZmraHeader copy = header;
  static_cast<void>(zmraValidateHeader(&copy));
  static_cast<void>(zmraSetHeaderCRC(&copy));
  static_cast<void>(zmraCheckHeader(&geometry, &header));
  std::string text;
  static_cast<void>(Zmra_ExportMediaInfo(&geometry, &header, &text));
  for (int p = 0; p < kZmraMaxPartitions; ++p) {
    std::uint16_t chunk = 0;
    static_cast<void>(zmraChunkContainingPartitionByte(&geometry, &header, p, 0, &chunk));
    static_cast<void>(
        zmraChunkContainingPartitionBlock(&geometry, &header, p, media_size >> 13U, &chunk));
  }
  if (zmraRepairHeader(&geometry, &header) == 0 && zmraCheckHeader(&geometry, &header) != 0) {
    std::abort();  // the repair said it mended what the check still reports
  }

  // The same bytes as a device holding the header at its start.
  testsupport::MemoryDiskState state;
  state.block_size = block_size;
  state.block_count_override = block_size != 0 ? media_size / block_size : 0;
  state.bytes.assign(bytes.begin(), bytes.end());
  testsupport::MemoryDiskDevice device(&state);
  ZmraMediaGeometry acquired;
  static_cast<void>(zmraAcquireHeader(&device, &acquired, &header));
}

inline void run_partition_map(std::span<const std::uint8_t> data) {
  if (data.size() < 2) return;
  testsupport::MemoryDiskState state;
  state.block_size = chosen_block_size(data[0]);
  const std::uint8_t options = data[1];
  if ((options & 1U) != 0) state.node_type = platform::DiskDevice::NodeType::kOther;
  // A disk larger than its bytes: reads past them come back short.
  if ((options & 2U) != 0) state.block_count_override = std::uint64_t{1} << (options >> 2U);
  state.bytes.assign(data.begin() + 2, data.end());
  testsupport::MemoryRawDisks disks(&state);

  for (NamedPartition& row : named_partitions()) row.index = -1;

  PartitionMapSnapshot map;
  ZmraMediaGeometry geometry;
  const bool with_geometry = (options & 0x40U) == 0;
  const int read = read_partition_map(&disks, &map, with_geometry ? &geometry : nullptr);
  if (read != 1 || !with_geometry) return;
  // Every change the engine could make: each slot resized, emptied and
  // created, at sizes from one block to more than the disk.
  for (std::int32_t index = -1; index <= 8; ++index) {
    for (const std::uint64_t size : {std::uint64_t{0}, std::uint64_t{1}, geometry.mediaSize / 3,
                                     geometry.mediaSize, ~std::uint64_t{0}}) {
      PartitionMapSnapshot copy = map;
      static_cast<void>(zmraAdjustPartition(&geometry, copy.header, copy.entries, index, size));
    }
  }
}

}  // namespace vtl::fuzzing
