// The Zmra volume manager's chunk-map header.
//
// Zmra divides a disk into at most 1024 equal chunks and hands them to up to
// 8 partitions. Its header is one 4096-byte little-endian record at the start
// of chunk 0 (a backup copy sits in the last block of chunk 0):
//
//   0     16  format identifier (current, CRC-protected; or the older one)
//   16    16  media identity (random UUID)
//   32     8  media size in bytes
//   40     4  number of partitions (1 to 8)
//   44     4  CRC-32 of the whole header with this field zero
//   48     8  flags
//   512 8x128 partition records: type GUID, identity, begin, end (byte
//             offsets in the partition's logical space, end exclusive),
//             attributes, name (UTF-16LE, 36 code units)
//   2048 1024x2 chunk map, one entry per physical chunk:
//             0xF000 chunk 0 (the header), 0xF111 spare, 0xF3FF beyond the
//             medium, else (partition << 12) | logical chunk
//
// Problems are reported as one line on standard error beginning "zmra: " and
// a negative result; buffers are left as far as the operation got. Nothing
// here logs through the helper's log: this is the volume manager's own code.
//
// Chunk arithmetic uses the chunk shift. On media above 2 TiB a chunk is
// 4 GiB, which the 32-bit chunkSize field cannot hold (it reads 0 there);
// the shift always can.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace platform {
class DiskDevice;
}

namespace vtl {

inline constexpr std::size_t kZmraHeaderSize = 4096;
inline constexpr int kZmraMaxPartitions = 8;
inline constexpr int kZmraMapEntries = 1024;
inline constexpr std::size_t kZmraNameBytes = 72;

inline constexpr std::uint16_t kZmraChunkHeader = 0xF000;
inline constexpr std::uint16_t kZmraChunkSpare = 0xF111;
inline constexpr std::uint16_t kZmraChunkNone = 0xF3FF;

// The largest medium Zmra manages: 4 TiB.
inline constexpr std::uint64_t kZmraMaxMediaSize = std::uint64_t{1} << 42;
inline constexpr std::uint32_t kZmraMinBlockSize = 4096;
inline constexpr std::uint32_t kZmraMaxBlockSize = 16384;

using ZmraGuid = std::array<std::uint8_t, 16>;

// The format identifiers, as stored.
inline constexpr ZmraGuid kZmraFormatCurrent = {0x6a, 0x90, 0x88, 0xcf, 0x8a, 0xfd, 0x63, 0x0a,
                                                0xe3, 0x51, 0xe2, 0x48, 0x87, 0xe0, 0xb9, 0x8b};
inline constexpr ZmraGuid kZmraFormatOlder = {0xb1, 0x89, 0xa5, 0x19, 0x4f, 0x59, 0x4b, 0x1d,
                                              0xad, 0x44, 0x1e, 0x12, 0x7a, 0xaf, 0x45, 0x39};

// The partition type of the platform's journaled file system (JRF), in the
// byte order GPT stores a type GUID: the platform's file systems live on
// partitions of the published "Linux filesystem data" type,
// 0FC63DAF-8483-4772-8E79-3D69D8477DE4. Keeping the 16 bytes as GPT stores
// them means both the Zmra records and the GPT entries copy them as they
// stand, and GPT tools name the type correctly.
inline constexpr ZmraGuid kJrfPartitionType = {0xAF, 0x3D, 0xC6, 0x0F, 0x83, 0x84, 0x72, 0x47,
                                               0x8E, 0x79, 0x3D, 0x69, 0xD8, 0x47, 0x7D, 0xE4};

struct ZmraMediaGeometry {
  std::uint64_t mediaSize = 0;   // bytes
  std::uint64_t usableSize = 0;  // (chunkCount - 8) chunks: what a first partition receives
  std::uint32_t chunkCount = 0;  // mediaSize >> chunkShift
  std::uint32_t blockSize = 0;   // logical block size in bytes
  std::uint32_t blockShift = 0;  // log2(blockSize)
  std::uint32_t chunkSize = 0;   // 1 << chunkShift; 0 when the shift is 32
  std::uint32_t chunkShift = 0;  // bit length of (mediaSize - 1) >> 10
};

struct ZmraHeader {
  std::array<std::uint8_t, kZmraHeaderSize> bytes{};
};

// One partition record of a header, decoded.
struct ZmraPartitionRecord {
  ZmraGuid type{};
  ZmraGuid identity{};
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
  std::uint64_t attributes = 0;
  std::array<std::uint8_t, kZmraNameBytes> name{};
};

// Decoded fields, for the tools and the tests. REQUIRES: p < 8, i < 1024.
ZmraGuid zmraHeaderIdentifier(const ZmraHeader& header);
std::uint64_t zmraHeaderMediaSize(const ZmraHeader& header);
std::uint32_t zmraHeaderPartitionCount(const ZmraHeader& header);
std::uint32_t zmraHeaderStoredCRC(const ZmraHeader& header);
std::uint64_t zmraHeaderFlags(const ZmraHeader& header);
ZmraPartitionRecord zmraHeaderPartition(const ZmraHeader& header, int p);
void zmraHeaderSetPartition(ZmraHeader& header, int p, const ZmraPartitionRecord& record);
std::uint16_t zmraHeaderChunk(const ZmraHeader& header, int i);
void zmraHeaderSetChunk(ZmraHeader& header, int i, std::uint16_t entry);

// Works out the geometry of a medium of `mediaSize` bytes with `blockSize`
// byte blocks. Refuses (-1) media above 4 TiB and block sizes outside
// 4096..16384; warns "media too small" when a chunk is smaller than a block.
int zmraInitMediaGeometry(ZmraMediaGeometry* geometry, std::uint64_t mediaSize,
                          std::uint32_t blockSize);

// A fresh header with one partition ("Zmra", the JRF type) over all usable
// chunks and 7 spares; the CRC is left 0 (see zmraSetHeaderCRC).
int zmraCreateHeader(const ZmraMediaGeometry* geometry, ZmraHeader* header);
int zmraCreateHeaderWithFlags(const ZmraMediaGeometry* geometry, ZmraHeader* header,
                              std::uint64_t flags);

// Reads the header from an open device: the geometry from the device's block
// size and count (through zmraInitMediaGeometry), then the main copy, then
// the backup copy; 0 with the first valid copy in `header`, else -1.
int zmraAcquireHeader(platform::DiskDevice* device, ZmraMediaGeometry* geometry,
                      ZmraHeader* header);

// 0 valid, -1 CRC mismatch, -2 unknown identifier (or no header). A current
// header is left holding the CRC computed over it.
int zmraValidateHeader(ZmraHeader* header);

// Stores the CRC of a current-format header and returns it. A header of any
// other format is left alone and the (non-zero) result of comparing its
// identifier with the current one is returned instead.
std::int64_t zmraSetHeaderCRC(ZmraHeader* header);

// The physical chunk holding a partition's block (or byte offset, relative to
// the partition's begin): 0 with *chunk set, or -1.
int zmraChunkContainingPartitionBlock(const ZmraMediaGeometry* geometry, const ZmraHeader* header,
                                      int partition, std::uint64_t block, std::uint16_t* chunk);
int zmraChunkContainingPartitionByte(const ZmraMediaGeometry* geometry, const ZmraHeader* header,
                                     int partition, std::uint64_t byteOffset, std::uint16_t* chunk);

// The format's invariants against a geometry, in a fixed order: the first
// broken one is reported on standard error and -1 returned; 0 when all hold.
int zmraCheckHeader(const ZmraMediaGeometry* geometry, const ZmraHeader* header);

// Mends whatever zmraCheckHeader would report, saying on standard error what
// it does, and stores the CRC of a current-format header. 0 when the header
// now passes the check, else "zmra: partition table corrupt" and -1.
int zmraRepairHeader(const ZmraMediaGeometry* geometry, ZmraHeader* header);

// The media description as a JSON document (ASCII only; see zmra_export.cpp
// for its form), appended to *out. 0, or -1 for a missing argument.
int Zmra_ExportMediaInfo(const ZmraMediaGeometry* geometry, const ZmraHeader* header,
                         std::string* out);

// Applies a partition change to a GPT header (92 bytes) and its first 8
// entries (1024 bytes), sizes in blocks of the geometry's block size:
// index == entry count creates a partition of sizeBytes, sizeBytes 0 deletes
// entry `index`, anything else resizes it; then every partition is packed,
// in order of its starting LBA, from the first usable LBA with no gaps. The
// GPT CRC fields are not touched. The low 32 bits of the result are 0 on
// success, -1 on failure.
std::int64_t zmraAdjustPartition(const ZmraMediaGeometry* geometry,
                                 std::span<std::uint8_t> gptHeader,
                                 std::span<std::uint8_t> gptEntries, std::int32_t index,
                                 std::uint64_t sizeBytes);

}  // namespace vtl
