// Geometry, creation, reading, validation and chunk lookup of the Zmra
// chunk-map header, and the partition-table adjustment the resize flows use.
#include "partition/zmra.h"

#include <uuid/uuid.h>
#include <zlib.h>

#include <algorithm>
#include <bit>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "partition/gpt.h"
#include "partition/utf16.h"
#include "partition/zmra_internal.h"
#include "platform/raw_disk.h"

namespace vtl {

using namespace zmra_detail;

namespace zmra_detail {

void report(const char* format, ...) {
  // Formatted first and written with one call, so that a line is never split
  // between two writers on the same standard error.
  char line[256];
  va_list args;
  va_start(args, format);
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): started just above
  const int n = std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  if (n < 0) return;
  const std::size_t length = std::min(static_cast<std::size_t>(n), sizeof line - 1);
  static_cast<void>(std::fwrite(line, 1, length, stderr));
}

bool is_zero(std::span<const std::uint8_t> bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](std::uint8_t b) { return b == 0; });
}

bool same_guid(std::span<const std::uint8_t> bytes, const ZmraGuid& guid) {
  return std::equal(guid.begin(), guid.end(), bytes.begin(), bytes.begin() + 16);
}

ZmraGuid random_guid() {
  uuid_t uuid;
  uuid_generate_random(uuid);
  ZmraGuid guid{};
  std::memcpy(guid.data(), uuid, guid.size());
  return guid;
}

}  // namespace zmra_detail

namespace {

constexpr const char* kNullGeometry = "zmra: NULL media properties\n";
constexpr const char* kNullHeader = "zmra: NULL header buffer\n";

// The name of the partition a fresh header holds, and of one the GPT
// adjustment creates.
constexpr const char* kFirstPartitionName = "Zmra";
constexpr const char* kCreatedPartitionName = "New";

std::span<std::uint8_t> record_bytes(ZmraHeader& h, int p) {
  return std::span(h.bytes).subspan(kRecordsOffset + static_cast<std::size_t>(p) * kRecordSize,
                                    kRecordSize);
}
std::span<const std::uint8_t> record_bytes(const ZmraHeader& h, int p) {
  return std::span(h.bytes).subspan(kRecordsOffset + static_cast<std::size_t>(p) * kRecordSize,
                                    kRecordSize);
}

std::uint32_t header_crc(const ZmraHeader& header) {
  ZmraHeader copy = header;
  le::store(std::span(copy.bytes), kCRCOffset, std::uint32_t{0});
  return static_cast<std::uint32_t>(::crc32(0L, copy.bytes.data(), kZmraHeaderSize));
}

void copy_guid(std::span<std::uint8_t> to, const ZmraGuid& guid) {
  std::copy(guid.begin(), guid.end(), to.begin());
}

}  // namespace

// --- Field access -----------------------------------------------------------

ZmraGuid zmraHeaderIdentifier(const ZmraHeader& header) {
  ZmraGuid id{};
  std::copy_n(header.bytes.begin(), id.size(), id.begin());
  return id;
}
std::uint64_t zmraHeaderMediaSize(const ZmraHeader& header) {
  return le::load64(header.bytes, kMediaSizeOffset);
}
std::uint32_t zmraHeaderPartitionCount(const ZmraHeader& header) {
  return le::load32(header.bytes, kPartitionCountOffset);
}
std::uint32_t zmraHeaderStoredCRC(const ZmraHeader& header) {
  return le::load32(header.bytes, kCRCOffset);
}
std::uint64_t zmraHeaderFlags(const ZmraHeader& header) {
  return le::load64(header.bytes, kFlagsOffset);
}

ZmraPartitionRecord zmraHeaderPartition(const ZmraHeader& header, int p) {
  const std::span<const std::uint8_t> r = record_bytes(header, p);
  ZmraPartitionRecord record;
  std::copy_n(r.begin() + kRecordTypeOffset, 16, record.type.begin());
  std::copy_n(r.begin() + kRecordIdentityOffset, 16, record.identity.begin());
  record.begin = le::load64(r, kRecordBeginOffset);
  record.end = le::load64(r, kRecordEndOffset);
  record.attributes = le::load64(r, kRecordAttributesOffset);
  std::copy_n(r.begin() + kRecordNameOffset, kZmraNameBytes, record.name.begin());
  return record;
}

void zmraHeaderSetPartition(ZmraHeader& header, int p, const ZmraPartitionRecord& record) {
  const std::span<std::uint8_t> r = record_bytes(header, p);
  std::copy(record.type.begin(), record.type.end(), r.begin() + kRecordTypeOffset);
  std::copy(record.identity.begin(), record.identity.end(), r.begin() + kRecordIdentityOffset);
  le::store(r, kRecordBeginOffset, record.begin);
  le::store(r, kRecordEndOffset, record.end);
  le::store(r, kRecordAttributesOffset, record.attributes);
  std::copy(record.name.begin(), record.name.end(), r.begin() + kRecordNameOffset);
}

std::uint16_t zmraHeaderChunk(const ZmraHeader& header, int i) {
  return le::load16(header.bytes, kMapOffset + 2 * static_cast<std::size_t>(i));
}
void zmraHeaderSetChunk(ZmraHeader& header, int i, std::uint16_t entry) {
  le::store(std::span(header.bytes), kMapOffset + 2 * static_cast<std::size_t>(i), entry);
}

// --- Geometry ---------------------------------------------------------------

int zmraInitMediaGeometry(ZmraMediaGeometry* geometry, std::uint64_t mediaSize,
                          std::uint32_t blockSize) {
  if (geometry == nullptr) {
    report("%s", kNullGeometry);
    return -1;
  }
  geometry->mediaSize = mediaSize;
  geometry->blockSize = blockSize;
  if (mediaSize > kZmraMaxMediaSize) {
    report("zmra: media too large\n");
    return -1;
  }
  if (blockSize < kZmraMinBlockSize) {
    report("zmra: media block size too small\n");
    return -1;
  }
  if (blockSize > kZmraMaxBlockSize) {
    report("zmra: media block size too large\n");
    return -1;
  }
  // The smallest power of two for which 1024 chunks cover the medium.
  const auto scaled = static_cast<std::uint32_t>((mediaSize - 1) >> 10U);
  geometry->chunkShift = static_cast<std::uint32_t>(std::bit_width(scaled));
  geometry->chunkSize = geometry->chunkShift < 32 ? std::uint32_t{1} << geometry->chunkShift : 0;
  geometry->blockShift = static_cast<std::uint32_t>(std::bit_width(blockSize) - 1);
  if (chunk_bytes(*geometry) < blockSize) report("zmra: media too small\n");
  geometry->chunkCount = static_cast<std::uint32_t>(mediaSize >> geometry->chunkShift);
  // Chunk 0 holds the header and 7 more stay spare. Media of fewer than 8
  // chunks (a few bytes) wrap here as the 32-bit count does; they are far
  // below the "media too small" warning and no header made for them passes
  // the check.
  geometry->usableSize = std::uint64_t{geometry->chunkCount - 8U} << geometry->chunkShift;
  return 0;
}

// --- Creation ---------------------------------------------------------------

int zmraCreateHeader(const ZmraMediaGeometry* geometry, ZmraHeader* header) {
  return zmraCreateHeaderWithFlags(geometry, header, 0);
}

int zmraCreateHeaderWithFlags(const ZmraMediaGeometry* geometry, ZmraHeader* header,
                              std::uint64_t flags) {
  if (geometry == nullptr) {
    report("%s", kNullGeometry);
    return -1;
  }
  if (header == nullptr) {
    report("%s", kNullHeader);
    return -1;
  }
  const ZmraMediaGeometry& g = *geometry;
  std::span<std::uint8_t> h(header->bytes);
  std::fill(h.begin(), h.end(), std::uint8_t{0});
  copy_guid(h.subspan(kIdentifierOffset, 16), kZmraFormatCurrent);
  copy_guid(h.subspan(kMediaIdentityOffset, 16), random_guid());
  le::store(h, kMediaSizeOffset, g.mediaSize);
  le::store(h, kFlagsOffset, flags);
  le::store(h, kPartitionCountOffset, std::uint32_t{1});

  ZmraPartitionRecord first;
  first.type = kJrfPartitionType;
  first.identity = random_guid();
  first.begin = data_start(g);
  first.end = first.begin + g.usableSize;
  static_cast<void>(utf_encodestr2(kFirstPartitionName, first.name));
  zmraHeaderSetPartition(*header, 0, first);

  const std::uint64_t used_chunks = chunks_for(g, g.usableSize);
  const int count = static_cast<int>(std::min<std::uint32_t>(g.chunkCount, kZmraMapEntries));
  zmraHeaderSetChunk(*header, 0, kZmraChunkHeader);
  for (int k = 1; k < count; ++k) {
    const auto chunk = static_cast<std::uint64_t>(k);
    zmraHeaderSetChunk(*header, k,
                       chunk <= used_chunks ? chunk_entry(0, chunk - 1) : kZmraChunkSpare);
  }
  for (int k = std::max(count, 1); k < kZmraMapEntries; ++k) {
    zmraHeaderSetChunk(*header, k, kZmraChunkNone);
  }
  return 0;
}

// --- CRC and validation -----------------------------------------------------

std::int64_t zmraSetHeaderCRC(ZmraHeader* header) {
  if (header == nullptr) return -1;
  const int order = std::memcmp(header->bytes.data(), kZmraFormatCurrent.data(), 16);
  if (order != 0) return order;
  const std::uint32_t crc = header_crc(*header);
  le::store(std::span(header->bytes), kCRCOffset, crc);
  return crc;
}

int zmraValidateHeader(ZmraHeader* header) {
  if (header == nullptr) return -2;
  const std::span<const std::uint8_t> id(header->bytes.data(), 16);
  if (same_guid(id, kZmraFormatCurrent)) {
    const std::uint32_t stored = zmraHeaderStoredCRC(*header);
    const std::uint32_t computed = header_crc(*header);
    le::store(std::span(header->bytes), kCRCOffset, computed);
    return stored == computed ? 0 : -1;
  }
  if (same_guid(id, kZmraFormatOlder)) return 0;
  return -2;
}

// --- Reading from a device --------------------------------------------------

int zmraAcquireHeader(platform::DiskDevice* device, ZmraMediaGeometry* geometry,
                      ZmraHeader* header) {
  if (geometry == nullptr) {
    report("%s", kNullGeometry);
    return -1;
  }
  if (header == nullptr) {
    report("%s", kNullHeader);
    return -1;
  }
  const std::optional<std::uint32_t> block_size =
      device != nullptr ? device->block_size() : std::nullopt;
  if (!block_size) {
    report("zmra: block size acquisition error\n");
    return -1;
  }
  const std::optional<std::uint64_t> block_count = device->block_count();
  if (!block_count) {
    report("zmra: block count acquisition error\n");
    return -1;
  }
  std::uint64_t media_size = 0;
  if (__builtin_mul_overflow(*block_count, std::uint64_t{*block_size}, &media_size)) {
    report("zmra: media too large\n");
    return -1;
  }
  if (zmraInitMediaGeometry(geometry, media_size, *block_size) != 0) return -1;

  struct Copy {
    const char* name;
    std::uint64_t offset;
  };
  const Copy copies[] = {{"main", 0}, {"backup", chunk_bytes(*geometry) - *block_size}};
  std::vector<std::uint8_t> block(*block_size);
  bool any_read = false;
  bool any_corrupt = false;
  for (const Copy& copy : copies) {
    const ssize_t n = device->read_at(block, copy.offset);
    if (n < 0 || static_cast<std::size_t>(n) != block.size()) {
      report("zmra: failed to read %s header\n", copy.name);
      continue;
    }
    any_read = true;
    std::copy_n(block.begin(), kZmraHeaderSize, header->bytes.begin());
    const int verdict = zmraValidateHeader(header);
    if (verdict == 0) return 0;
    if (verdict == -1) any_corrupt = true;
  }
  if (any_corrupt) {
    report("zmra: media header corrupt\n");
  } else if (any_read) {
    report("zmra: media header not found or not supported\n");
  } else {
    report("zmra: could not read media header\n");
  }
  return -1;
}

// --- Chunk lookup -----------------------------------------------------------

int zmraChunkContainingPartitionByte(const ZmraMediaGeometry* geometry, const ZmraHeader* header,
                                     int partition, std::uint64_t byteOffset,
                                     std::uint16_t* chunk) {
  if (geometry == nullptr || header == nullptr || chunk == nullptr) return -1;
  if (partition < 0 || partition >= kZmraMaxPartitions) return -1;
  const ZmraPartitionRecord record = zmraHeaderPartition(*header, partition);
  std::uint64_t position = 0;
  if (__builtin_add_overflow(record.begin, byteOffset, &position) || position >= record.end) {
    return -1;
  }
  const std::uint64_t logical = geometry->chunkShift < 64 ? byteOffset >> geometry->chunkShift : 0;
  if (logical > geometry->chunkCount) return -1;
  const std::uint16_t wanted = chunk_entry(partition, logical);
  for (int i = 0; i < kZmraMapEntries; ++i) {
    if (zmraHeaderChunk(*header, i) == wanted) {
      *chunk = static_cast<std::uint16_t>(i);
      return 0;
    }
  }
  return -1;
}

int zmraChunkContainingPartitionBlock(const ZmraMediaGeometry* geometry, const ZmraHeader* header,
                                      int partition, std::uint64_t block, std::uint16_t* chunk) {
  if (geometry == nullptr) return -1;
  std::uint64_t offset = 0;
  if (__builtin_mul_overflow(block, std::uint64_t{geometry->blockSize}, &offset)) return -1;
  return zmraChunkContainingPartitionByte(geometry, header, partition, offset, chunk);
}

// --- GPT adjustment ---------------------------------------------------------

std::int64_t zmraAdjustPartition(const ZmraMediaGeometry* geometry,
                                 std::span<std::uint8_t> gptHeader,
                                 std::span<std::uint8_t> gptEntries, std::int32_t index,
                                 std::uint64_t sizeBytes) {
  if (geometry == nullptr || geometry->blockSize == 0) {
    report("%s", kNullGeometry);
    return -1;
  }
  if (gptHeader.size() < gpt::kHeaderSize || gptEntries.size() < gpt::kEntriesSize) {
    report("%s", kNullHeader);
    return -1;
  }
  const std::uint64_t block_size = geometry->blockSize;
  const std::uint64_t blocks = sizeBytes / block_size + (sizeBytes % block_size != 0 ? 1 : 0);
  const std::int32_t count = gpt::partition_count(gptHeader);

  if (index < 0 || index >= gpt::kEntriesHeld || index > count) {
    report("zmra: cannot adjust partition %d - out of range\n", index);
    return -1;
  }
  const std::uint64_t last_usable = gpt::last_usable_lba(gptHeader);
  std::int32_t new_count = count;
  if (index == count) {
    if (blocks == 0) {
      report("zmra: cannot create zero-sized partition\n");
      return -1;
    }
    // Placed after the end, so that ordering by start puts it last.
    const std::span<std::uint8_t> e = gpt::entry(gptEntries, index);
    std::fill(e.begin(), e.end(), std::uint8_t{0});
    copy_guid(e.subspan(gpt::kTypeGuidOffset, 16), kJrfPartitionType);
    copy_guid(e.subspan(gpt::kUniqueGuidOffset, 16), gpt::swap_guid_order(random_guid()));
    static_cast<void>(
        utf_encodestr2(kCreatedPartitionName, e.subspan(gpt::kNameOffset, gpt::kNameSize)));
    gpt::set_starting_lba(e, last_usable + 1);
    gpt::set_ending_lba(e, last_usable + blocks);
    new_count = count + 1;
  } else if (blocks == 0) {
    const int held = std::min(count, gpt::kEntriesHeld);
    for (int i = index; i + 1 < held; ++i) {
      const std::span<std::uint8_t> to = gpt::entry(gptEntries, i);
      const std::span<const std::uint8_t> from = gpt::entry(gptEntries, i + 1);
      std::copy(from.begin(), from.end(), to.begin());
    }
    const std::span<std::uint8_t> freed = gpt::entry(gptEntries, held - 1);
    std::fill(freed.begin(), freed.end(), std::uint8_t{0});
    new_count = count - 1;
  } else {
    const std::span<std::uint8_t> e = gpt::entry(gptEntries, index);
    gpt::set_ending_lba(e, gpt::starting_lba(e) + blocks - 1);
  }

  // Order by start (stable: a bubble sort over an index list), then pack from
  // the first usable block with no gaps. Entries keep their slots; only their
  // LBAs move.
  const int held = std::clamp(new_count, 0, gpt::kEntriesHeld);
  std::vector<int> order(static_cast<std::size_t>(held));
  for (int i = 0; i < held; ++i) order[static_cast<std::size_t>(i)] = i;
  const auto start_of = [&](int i) { return gpt::starting_lba(gpt::entry(gptEntries, i)); };
  for (std::size_t pass = 0; pass + 1 < order.size(); ++pass) {
    for (std::size_t j = 0; j + 1 < order.size() - pass; ++j) {
      if (start_of(order[j]) > start_of(order[j + 1])) std::swap(order[j], order[j + 1]);
    }
  }
  // The cursor is kept wide enough that no layout, however corrupt the
  // entries it came from, can wrap it back into range.
  __extension__ using Wide = unsigned __int128;
  Wide cursor = gpt::first_usable_lba(gptHeader);
  for (const int i : order) {
    const std::span<std::uint8_t> e = gpt::entry(gptEntries, i);
    const std::uint64_t length = gpt::ending_lba(e) - gpt::starting_lba(e);
    gpt::set_starting_lba(e, static_cast<std::uint64_t>(cursor));
    gpt::set_ending_lba(e, static_cast<std::uint64_t>(cursor + length));
    cursor += Wide{length} + 1;
  }
  const Wide limit = Wide{last_usable} + 1;
  if (cursor > limit) {
    report("zmra: new layout does not fit, overflows by 0x%llx blocks\n",
           static_cast<unsigned long long>(cursor - limit));
    return -1;
  }
  gpt::set_partition_count(gptHeader, new_count);
  return 0;
}

}  // namespace vtl
