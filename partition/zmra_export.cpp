// Zmra_ExportMediaInfo: the media description as JSON, for tools and people.
//
// One object, keys in this order, numbers as JSON integers (bytes unless
// named otherwise):
//
//   "Format"        "current", "older" or "unknown" (the identifier)
//   "CRCValid"      true when a current header's stored CRC matches
//   "MediaIdentity" the media identity as UUID text
//   "MediaSize"     the header's media size
//   "Flags"         the creator's flags
//   "Geometry"      { "MediaSize", "BlockSize", "ChunkSize", "ChunkCount",
//                     "UsableSize" } of the medium (ChunkSize is the true
//                     chunk size, also above 2 TiB)
//   "Partitions"    one object per partition below the count (at most 8):
//                   { "Index", "Type" (as GPT tools show partition types),
//                     "Identity" (UUID text), "Begin", "End", "Attributes",
//                     "Name", "Chunks" (the physical chunk of each logical
//                     chunk, in order; -1 where the map has none) }
//   "SpareChunks"   how many chunks of the medium are spare
//
// The output is ASCII: names are UTF-16 in the header and are written code
// unit by code unit, everything outside printable ASCII as a \uXXXX escape,
// so that any stored name, even one with an unpaired surrogate, comes out
// exactly and every JSON reader takes it.
#include <uuid/uuid.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <string>
#include <vector>

#include "partition/gpt.h"
#include "partition/zmra.h"
#include "partition/zmra_internal.h"

namespace vtl {

using namespace zmra_detail;

namespace {

std::string uuid_text(const ZmraGuid& bytes) {
  char text[37];
  uuid_unparse_upper(bytes.data(), text);
  return text;
}

std::string json_name(const std::array<std::uint8_t, kZmraNameBytes>& name) {
  std::string out = "\"";
  for (std::size_t i = 0; i + 1 < name.size(); i += 2) {
    const unsigned unit = name[i] | (unsigned{name[i + 1]} << 8U);
    if (unit == 0) break;
    if (unit >= 0x20 && unit < 0x7F && unit != '"' && unit != '\\') {
      out += static_cast<char>(unit);
    } else {
      char escape[8];
      static_cast<void>(std::snprintf(escape, sizeof escape, "\\u%04X", unit));
      out += escape;
    }
  }
  return out + "\"";
}

std::string number(std::uint64_t n) { return std::to_string(n); }

}  // namespace

int Zmra_ExportMediaInfo(const ZmraMediaGeometry* geometry, const ZmraHeader* header,
                         std::string* out) {
  if (geometry == nullptr) {
    report("zmra: NULL media properties\n");
    return -1;
  }
  if (header == nullptr || out == nullptr) {
    report("zmra: NULL header buffer\n");
    return -1;
  }
  const ZmraMediaGeometry& g = *geometry;
  const ZmraHeader& h = *header;
  const ZmraGuid id = zmraHeaderIdentifier(h);
  const char* format = id == kZmraFormatCurrent ? "current"
                       : id == kZmraFormatOlder ? "older"
                                                : "unknown";
  ZmraHeader copy = h;
  const bool crc_valid = id == kZmraFormatCurrent && zmraValidateHeader(&copy) == 0;
  ZmraGuid media_identity{};
  std::copy_n(h.bytes.begin() + 16, 16, media_identity.begin());

  std::string& s = *out;
  s += "{\n";
  s += "  \"Format\": \"" + std::string(format) + "\",\n";
  s += "  \"CRCValid\": " + std::string(crc_valid ? "true" : "false") + ",\n";
  s += "  \"MediaIdentity\": \"" + uuid_text(media_identity) + "\",\n";
  s += "  \"MediaSize\": " + number(zmraHeaderMediaSize(h)) + ",\n";
  s += "  \"Flags\": " + number(zmraHeaderFlags(h)) + ",\n";
  s += "  \"Geometry\": {\"MediaSize\": " + number(g.mediaSize) +
       ", \"BlockSize\": " + number(g.blockSize) + ", \"ChunkSize\": " + number(chunk_bytes(g)) +
       ", \"ChunkCount\": " + number(g.chunkCount) + ", \"UsableSize\": " + number(g.usableSize) +
       "},\n";

  const int limit = static_cast<int>(std::min<std::uint32_t>(g.chunkCount, kZmraMapEntries));
  const int count =
      static_cast<int>(std::min<std::uint32_t>(zmraHeaderPartitionCount(h), kZmraMaxPartitions));
  // The physical chunk of each (partition, logical chunk); the first entry
  // wins where the map repeats one.
  std::vector<int> physical(static_cast<std::size_t>(kZmraMaxPartitions * kZmraMapEntries), -1);
  for (int i = limit - 1; i >= 1; --i) {
    const std::uint16_t e = zmraHeaderChunk(h, i);
    if ((e & 0x8C00U) != 0) continue;
    physical[static_cast<std::size_t>((e >> 12U) * kZmraMapEntries) + (e & 0x3FFU)] = i;
  }
  s += "  \"Partitions\": [";
  for (int p = 0; p < count; ++p) {
    const ZmraPartitionRecord r = zmraHeaderPartition(h, p);
    s += p == 0 ? "\n" : ",\n";
    s += "    {\"Index\": " + std::to_string(p) + ", \"Type\": \"" +
         uuid_text(gpt::swap_guid_order(r.type)) + "\"" + ", \"Identity\": \"" +
         uuid_text(r.identity) + "\"" + ", \"Begin\": " + number(r.begin) +
         ", \"End\": " + number(r.end) + ", \"Attributes\": " + number(r.attributes) +
         ", \"Name\": " + json_name(r.name) + ", \"Chunks\": [";
    const std::uint64_t needed =
        r.begin < r.end ? std::min<std::uint64_t>(chunks_for(g, r.end - r.begin), kZmraMapEntries)
                        : 0;
    for (std::uint64_t logical = 0; logical < needed; ++logical) {
      if (logical > 0) s += ", ";
      s += std::to_string(physical[static_cast<std::size_t>(p * kZmraMapEntries) + logical]);
    }
    s += "]}";
  }
  s += count > 0 ? "\n  ],\n" : "],\n";
  int spare = 0;
  for (int i = 1; i < limit; ++i) {
    if (zmraHeaderChunk(h, i) == kZmraChunkSpare) ++spare;
  }
  s += "  \"SpareChunks\": " + std::to_string(spare) + "\n}\n";
  return 0;
}

}  // namespace vtl
