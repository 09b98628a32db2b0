// The Zmra chunk-map header: geometry, creation, validation, reading from a
// device, chunk lookup, the consistency check with every invariant broken on
// purpose, the repair of each, the export, and the GPT adjustment. Every
// "zmra: " line is compared exactly as written to standard error.
#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "partition/gpt.h"
#include "partition/utf16.h"
#include "partition/zmra.h"
#include "tests/support/memory_disk.h"
#include "tests/support/stderr_capture.h"

namespace {

using testsupport::StderrCapture;
using vtl::ZmraHeader;
using vtl::ZmraMediaGeometry;

constexpr std::uint64_t KiB = 1024;
constexpr std::uint64_t MiB = 1024 * KiB;
constexpr std::uint64_t GiB = 1024 * MiB;
constexpr std::uint64_t TiB = 1024 * GiB;

// Runs `f` and returns what it wrote to standard error.
template <typename F>
std::string stderr_of(F&& f) {
  StderrCapture capture;
  f();
  return capture.text();
}

struct Medium {
  ZmraMediaGeometry geometry;
  ZmraHeader header;
};

Medium make_medium(std::uint64_t media_size, std::uint32_t block_size) {
  Medium m;
  EXPECT_EQ(vtl::zmraInitMediaGeometry(&m.geometry, media_size, block_size), 0);
  EXPECT_EQ(vtl::zmraCreateHeader(&m.geometry, &m.header), 0);
  vtl::zmraSetHeaderCRC(&m.header);
  return m;
}

// --- Geometry ----------------------------------------------------------------

struct GeometryCase {
  std::uint64_t media;
  std::uint32_t block;
  int rc;
  std::string lines;
  std::uint32_t shift, size, count;
};

TEST(ZmraGeometry, WorksOutChunksAndRefusesUnsuitableMedia) {
  const GeometryCase cases[] = {
      {GiB, 4096, 0, "", 20, 1 << 20, 1024},
      {3 * GiB, 4096, 0, "", 22, 1 << 22, 768},
      {2 * MiB + 4096, 4096, 0, "", 12, 4096, 513},
      {64 * GiB, 16384, 0, "", 26, 1 << 26, 1024},
      // Chunks of 1 KiB are smaller than a block: a warning, not a refusal.
      {MiB, 4096, 0, "zmra: media too small\n", 10, 1024, 1024},
      // 4 TiB is the largest medium; its 4 GiB chunk does not fit the
      // 32-bit size field, which reads 0.
      {4 * TiB, 4096, 0, "", 32, 0, 1024},
      {4 * TiB + 1, 4096, -1, "zmra: media too large\n", 0, 0, 0},
      {GiB, 8192, 0, "", 20, 1 << 20, 1024},
      {GiB, 2048, -1, "zmra: media block size too small\n", 0, 0, 0},
      {GiB, 32768, -1, "zmra: media block size too large\n", 0, 0, 0},
  };
  for (const GeometryCase& c : cases) {
    SCOPED_TRACE(std::to_string(c.media) + "/" + std::to_string(c.block));
    ZmraMediaGeometry g;
    int rc = 0;
    EXPECT_EQ(stderr_of([&] { rc = vtl::zmraInitMediaGeometry(&g, c.media, c.block); }), c.lines);
    EXPECT_EQ(rc, c.rc);
    EXPECT_EQ(g.mediaSize, c.media);
    EXPECT_EQ(g.blockSize, c.block);
    if (rc != 0) continue;
    EXPECT_EQ(g.chunkShift, c.shift);
    EXPECT_EQ(g.chunkSize, c.size);
    EXPECT_EQ(g.chunkCount, c.count);
    EXPECT_EQ(g.usableSize, std::uint64_t{c.count - 8} << c.shift);
    EXPECT_EQ(std::uint32_t{1} << g.blockShift, c.block);
  }
  EXPECT_EQ(stderr_of([] { EXPECT_EQ(vtl::zmraInitMediaGeometry(nullptr, GiB, 4096), -1); }),
            "zmra: NULL media properties\n");
}

// --- Creation and check over every size ----------------------------------------

// Media sizes from the smallest whose chunk holds a block (512 blocks and one
// byte) to 4 TiB: every power of two, its neighbours, and sizes in between.
std::vector<std::uint64_t> media_sizes(std::uint32_t block) {
  std::vector<std::uint64_t> sizes{512 * std::uint64_t{block} + 1};
  for (std::uint64_t p = 1024 * std::uint64_t{block}; p <= 4 * TiB; p *= 2) {
    for (std::uint64_t s : {p - 1, p, p + 1, p + block, p / 2 * 3, p / 4 * 5 + 12345}) {
      if (s >= sizes.front() && s <= 4 * TiB) sizes.push_back(s);
    }
  }
  return sizes;
}

TEST(ZmraCreate, EveryHeaderCreatedPassesTheCheckFromTheSmallestMediaTo4TiB) {
  int checked = 0;
  for (std::uint32_t block : {4096U, 8192U, 16384U}) {
    for (std::uint64_t size : media_sizes(block)) {
      SCOPED_TRACE(std::to_string(size) + "/" + std::to_string(block));
      Medium m;
      std::string out = stderr_of([&] {
        ASSERT_EQ(vtl::zmraInitMediaGeometry(&m.geometry, size, block), 0);
        ASSERT_EQ(vtl::zmraCreateHeader(&m.geometry, &m.header), 0);
        vtl::zmraSetHeaderCRC(&m.header);
        EXPECT_EQ(vtl::zmraCheckHeader(&m.geometry, &m.header), 0);
        EXPECT_EQ(vtl::zmraValidateHeader(&m.header), 0);
      });
      EXPECT_EQ(out, "");
      ++checked;
    }
  }
  EXPECT_GT(checked, 250);
}

TEST(ZmraCreate, LaysOutOnePartitionOverAllUsableChunksAndSevenSpares) {
  Medium m = make_medium(3 * GiB, 4096);  // 768 chunks of 4 MiB
  const ZmraHeader& h = m.header;
  EXPECT_EQ(vtl::zmraHeaderIdentifier(h), vtl::kZmraFormatCurrent);
  EXPECT_EQ(vtl::zmraHeaderMediaSize(h), 3 * GiB);
  EXPECT_EQ(vtl::zmraHeaderPartitionCount(h), 1U);
  EXPECT_EQ(vtl::zmraHeaderFlags(h), 0U);
  const vtl::ZmraPartitionRecord p0 = vtl::zmraHeaderPartition(h, 0);
  EXPECT_EQ(p0.type, vtl::kJrfPartitionType);
  EXPECT_NE(p0.identity, vtl::ZmraGuid{});
  EXPECT_EQ(p0.begin, 16384 + 2 * 4096U);
  EXPECT_EQ(p0.end, p0.begin + 760 * 4 * MiB);
  const std::uint8_t zmra_utf16[] = {'Z', 0, 'm', 0, 'r', 0, 'a', 0, 0, 0};
  EXPECT_EQ(std::memcmp(p0.name.data(), zmra_utf16, sizeof zmra_utf16), 0);
  EXPECT_EQ(vtl::zmraHeaderChunk(h, 0), 0xF000);
  for (int k = 1; k <= 760; ++k) EXPECT_EQ(vtl::zmraHeaderChunk(h, k), k - 1) << k;
  for (int k = 761; k < 768; ++k) EXPECT_EQ(vtl::zmraHeaderChunk(h, k), 0xF111) << k;
  for (int k = 768; k < 1024; ++k) EXPECT_EQ(vtl::zmraHeaderChunk(h, k), 0xF3FF) << k;

  ZmraHeader flagged;
  ASSERT_EQ(vtl::zmraCreateHeaderWithFlags(&m.geometry, &flagged, 0x8000000000000001ULL), 0);
  EXPECT_EQ(vtl::zmraHeaderFlags(flagged), 0x8000000000000001ULL);
  // Every header gets its own media and partition identities.
  EXPECT_NE(std::memcmp(flagged.bytes.data() + 16, h.bytes.data() + 16, 16), 0);

  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(vtl::zmraCreateHeader(nullptr, &flagged), -1); }),
            "zmra: NULL media properties\n");
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(vtl::zmraCreateHeader(&m.geometry, nullptr), -1); }),
            "zmra: NULL header buffer\n");
}

// --- Validation and CRC ------------------------------------------------------

TEST(ZmraValidate, CurrentFormatIsCRCProtectedOlderIsNotOthersAreUnknown) {
  Medium m = make_medium(GiB, 4096);
  EXPECT_EQ(vtl::zmraValidateHeader(&m.header), 0);

  ZmraHeader flipped = m.header;
  flipped.bytes[3000] ^= 0x01;
  const std::uint32_t stale = vtl::zmraHeaderStoredCRC(flipped);
  EXPECT_EQ(vtl::zmraValidateHeader(&flipped), -1);
  // The header now holds the CRC computed over it, so it validates.
  EXPECT_NE(vtl::zmraHeaderStoredCRC(flipped), stale);
  EXPECT_EQ(vtl::zmraValidateHeader(&flipped), 0);

  ZmraHeader older = m.header;
  std::copy(vtl::kZmraFormatOlder.begin(), vtl::kZmraFormatOlder.end(), older.bytes.begin());
  older.bytes[3000] ^= 0x01;
  const ZmraHeader before = older;
  EXPECT_EQ(vtl::zmraValidateHeader(&older), 0);
  EXPECT_NE(vtl::zmraSetHeaderCRC(&older), 0);
  EXPECT_EQ(older.bytes, before.bytes);

  ZmraHeader unknown = m.header;
  unknown.bytes[0] ^= 0xFF;
  EXPECT_EQ(vtl::zmraValidateHeader(&unknown), -2);
  EXPECT_EQ(vtl::zmraValidateHeader(nullptr), -2);

  ZmraHeader fresh = m.header;
  const std::int64_t crc = vtl::zmraSetHeaderCRC(&fresh);
  EXPECT_EQ(crc, vtl::zmraHeaderStoredCRC(fresh));
}

// --- Reading from a device ------------------------------------------------------

struct AcquireFixture {
  testsupport::MemoryDiskState state;
  Medium medium = make_medium(64 * MiB, 4096);  // 64 KiB chunks

  AcquireFixture() { state.bytes.assign(64 * MiB, 0); }
  void put(std::uint64_t offset, const ZmraHeader& h) {
    std::copy(h.bytes.begin(), h.bytes.end(), state.bytes.begin() + static_cast<long>(offset));
  }
  std::uint64_t backup_offset() const { return 64 * KiB - 4096; }
  ZmraHeader corrupt() const {
    ZmraHeader bad = medium.header;
    bad.bytes[100] ^= 1;
    return bad;
  }
};

TEST(ZmraAcquire, TakesTheMainCopyThenTheBackupAndSaysWhyNeitherServed) {
  struct Case {
    const char* name;
    std::function<void(AcquireFixture&)> arrange;
    int rc;
    std::string lines;
  };
  const Case cases[] = {
      {"main valid", [](AcquireFixture& f) { f.put(0, f.medium.header); }, 0, ""},
      {"main corrupt, backup valid",
       [](AcquireFixture& f) {
         f.put(0, f.corrupt());
         f.put(f.backup_offset(), f.medium.header);
       },
       0, ""},
      {"both corrupt",
       [](AcquireFixture& f) {
         f.put(0, f.corrupt());
         f.put(f.backup_offset(), f.corrupt());
       },
       -1, "zmra: media header corrupt\n"},
      {"no header", [](AcquireFixture&) {}, -1, "zmra: media header not found or not supported\n"},
      {"device shorter than it says",
       [](AcquireFixture& f) {
         f.state.block_count_override = f.state.bytes.size() / 4096;
         f.state.bytes.resize(2048);
       },
       -1,
       "zmra: failed to read main header\n"
       "zmra: failed to read backup header\n"
       "zmra: could not read media header\n"},
      {"no block size", [](AcquireFixture& f) { f.state.block_size.reset(); }, -1,
       "zmra: block size acquisition error\n"},
      {"no block count", [](AcquireFixture& f) { f.state.block_count_fails = true; }, -1,
       "zmra: block count acquisition error\n"},
      {"unsuitable block size", [](AcquireFixture& f) { f.state.block_size = 512; }, -1,
       "zmra: media block size too small\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    AcquireFixture f;
    c.arrange(f);
    testsupport::MemoryDiskDevice device(&f.state);
    ZmraMediaGeometry g;
    ZmraHeader h;
    int rc = 0;
    EXPECT_EQ(stderr_of([&] { rc = vtl::zmraAcquireHeader(&device, &g, &h); }), c.lines);
    EXPECT_EQ(rc, c.rc);
    if (rc == 0) {
      EXPECT_EQ(h.bytes, f.medium.header.bytes);
      EXPECT_EQ(g.mediaSize, 64 * MiB);
      EXPECT_EQ(vtl::zmraCheckHeader(&g, &h), 0);
    }
  }
}

// --- Check and repair, one invariant at a time ------------------------------------

// A 1 GiB medium (1 MiB chunks, 1024 of them) whose partition 0 is split in
// two: partition 0 keeps logical chunks 0..399, partition 1 the rest.
Medium two_partitions() {
  Medium m = make_medium(GiB, 4096);
  vtl::ZmraPartitionRecord p0 = vtl::zmraHeaderPartition(m.header, 0);
  vtl::ZmraPartitionRecord p1 = p0;
  p1.identity[0] ^= 0x5A;
  p0.end = p0.begin + 400 * MiB;
  p1.begin = p0.end;
  vtl::zmraHeaderSetPartition(m.header, 0, p0);
  vtl::zmraHeaderSetPartition(m.header, 1, p1);
  m.header.bytes[40] = 2;
  for (int k = 401; k <= 1016; ++k) {
    vtl::zmraHeaderSetChunk(m.header, k, static_cast<std::uint16_t>(0x1000 | (k - 401)));
  }
  vtl::zmraSetHeaderCRC(&m.header);
  return m;
}

struct Breakage {
  const char* name;
  std::function<void(Medium&)> mutate;
  std::string check_line;
  std::string repair_lines;
  bool on_a_smaller_medium = false;  // 3 GiB, 768 chunks, one partition
};

void set_record(Medium& m, int p, const std::function<void(vtl::ZmraPartitionRecord&)>& f) {
  vtl::ZmraPartitionRecord r = vtl::zmraHeaderPartition(m.header, p);
  f(r);
  vtl::zmraHeaderSetPartition(m.header, p, r);
}

TEST(ZmraCheckAndRepair, EachBrokenInvariantIsReportedByItsOwnLineAndMended) {
  const std::uint64_t block = 4096;
  const Breakage cases[] = {
      {"unknown identifier", [](Medium& m) { m.header.bytes[5] ^= 0x40; },
       "zmra: media header mismatch\n", "zmra: media header mismatch\n"},
      {"header claims a larger medium",
       [](Medium& m) { m.header.bytes[32 + 3] ^= 0x01; },  // 16 MiB more
       "zmra: media size mismatch\n",
       "zmra: media size smaller than required by header\nzmra: adjusting header media size\n"},
      {"header claims a smaller medium", [](Medium& m) { m.header.bytes[32 + 3] = 0x3F; },
       "zmra: media size mismatch\n", "zmra: adjusting header media size\n"},
      {"nine partitions", [](Medium& m) { m.header.bytes[40] = 9; },
       "zmra: illegal partition count\n",
       "zmra: fixing illegal partition count\n"
       "zmra: found null partition type/identity\n"
       "zmra: deleting partition(s) and fixing partition count\n"},
      {"type zero", [](Medium& m) { set_record(m, 1, [](auto& r) { r.type = {}; }); },
       "zmra: partition 1 has type zero\n",
       "zmra: found null partition type/identity\n"
       "zmra: deleting partition(s) and fixing partition count\n"},
      {"identity zero", [](Medium& m) { set_record(m, 0, [](auto& r) { r.identity = {}; }); },
       "zmra: partition 0 has identity zero\n",
       "zmra: found null partition type/identity\n"
       "zmra: deleting partition(s) and fixing partition count\n"},
      {"starts too low",
       [&](Medium& m) {
         set_record(m, 0, [&](auto& r) {
           r.begin -= block;
           r.end -= block;
         });
       },
       "zmra: partition 0 starts too low\n", "zmra: partition 0 starts too low\n"},
      {"ends too high", [&](Medium& m) { set_record(m, 1, [&](auto& r) { r.end += block; }); },
       "zmra: partition 1 ends too high\n", "zmra: partition 1 ends too high\n"},
      {"start and end reversed",
       [](Medium& m) { set_record(m, 0, [](auto& r) { std::swap(r.begin, r.end); }); },
       "zmra: partition 0 start/end not in order\n", "zmra: partition 0 start/end not in order\n"},
      {"not block aligned", [](Medium& m) { set_record(m, 1, [](auto& r) { r.end -= 512; }); },
       "zmra: partition 1 start/end not block aligned\n",
       "zmra: partition 1 start/end not block aligned\n"},
      {"overlapping", [](Medium& m) { set_record(m, 1, [](auto& r) { r.begin -= MiB; }); },
       "zmra: partition 1 overlaps partition 0\n",
       "zmra: partition 1 out of order or overlapping\n"},
      {"missing chunk", [](Medium& m) { vtl::zmraHeaderSetChunk(m.header, 6, 0xF111); },
       "zmra: partition 0 missing chunk 0x0005\n", "zmra: partition 0 missing chunk 0x0005\n"},
      {"duplicate chunk", [](Medium& m) { vtl::zmraHeaderSetChunk(m.header, 1020, 0x1007); },
       "zmra: partition 1 missing chunk 0x0007\n", "zmra: partition 1 duplicate chunk 0x0007\n"},
      {"orphaned slot", [](Medium& m) { set_record(m, 5, [](auto& r) { r.begin = 12345; }); },
       "zmra: partition 5 orphaned\n", "zmra: deleting partition(s) and fixing partition count\n"},
      {"chunk zero not reserved", [](Medium& m) { vtl::zmraHeaderSetChunk(m.header, 0, 0xF111); },
       "zmra: chunk zero not marked reserved\n", "zmra: fixing chunk0 assignment\n"},
      {"chunk of a nonexistent partition",
       [](Medium& m) { vtl::zmraHeaderSetChunk(m.header, 1023, 0x3001); },
       "zmra: chunk 0x03ff claims nonexistent partition (0x3001)\n",
       "zmra: reclaiming chunk 0x03ff not assigned to valid partition\n"},
      {"chunk past a partition's end",
       [](Medium& m) { vtl::zmraHeaderSetChunk(m.header, 1022, 0x0195); },
       "zmra: chunk 0x03fe assigned to invalid partition offset (0x0195)\n",
       "zmra: reclaiming chunk 0x03fe off the end of partition 0\n"},
      {"chunk beyond the medium not invalid",
       [](Medium& m) { vtl::zmraHeaderSetChunk(m.header, 800, 0xF111); },
       "zmra: chunk 0x0320 not invalid (0xf111)\n",
       "zmra: reclaiming chunk 0x0320 not assigned to valid partition\n", true},
  };
  for (const Breakage& c : cases) {
    SCOPED_TRACE(c.name);
    Medium m = c.on_a_smaller_medium ? make_medium(3 * GiB, 4096) : two_partitions();
    ASSERT_EQ(stderr_of([&] { EXPECT_EQ(vtl::zmraCheckHeader(&m.geometry, &m.header), 0); }), "");
    c.mutate(m);
    int rc = 0;
    EXPECT_EQ(stderr_of([&] { rc = vtl::zmraCheckHeader(&m.geometry, &m.header); }), c.check_line);
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(stderr_of([&] { rc = vtl::zmraRepairHeader(&m.geometry, &m.header); }),
              c.repair_lines);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(stderr_of([&] { rc = vtl::zmraCheckHeader(&m.geometry, &m.header); }), "");
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(vtl::zmraValidateHeader(&m.header), 0);
  }
}

// --- UTF-16 names --------------------------------------------------------------

TEST(ZmraNames, Utf8IsEncodedAsUtf16LEOrRefused) {
  struct Case {
    std::string utf8;
    int units;
    std::vector<std::uint8_t> prefix;
  };
  const Case cases[] = {
      {"Data", 4, {'D', 0, 'a', 0, 't', 0, 'a', 0, 0, 0}},
      {"\xC3\xA4", 1, {0xE4, 0x00, 0, 0}},
      {"\xE2\x82\xAC", 1, {0xAC, 0x20, 0, 0}},
      {"\xF0\x9F\x98\x80", 2, {0x3D, 0xD8, 0x00, 0xDE, 0, 0}},
      {std::string(36, 'x'), 36, {'x', 0}},
      {std::string(37, 'x'), -1, {0, 0}},
      {std::string(35, 'x') + "\xF0\x9F\x98\x80", -1, {0, 0}},
      {"\xC0\x80", -1, {0, 0}},          // overlong
      {"\xED\xA0\x80", -1, {0, 0}},      // a surrogate
      {"\xF4\x90\x80\x80", -1, {0, 0}},  // above U+10FFFF
      {"ab\xE2\x82", -1, {0, 0}},        // cut off
      {"\x80", -1, {0, 0}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.utf8);
    std::vector<std::uint8_t> field(72, 0xEE);
    EXPECT_EQ(vtl::utf_encodestr2(c.utf8, field), c.units);
    EXPECT_TRUE(std::equal(c.prefix.begin(), c.prefix.end(), field.begin()));
    if (c.units < 0) {
      EXPECT_TRUE(std::all_of(field.begin(), field.end(), [](auto b) { return b == 0; }));
    }
  }
}

// --- GPT adjustment -------------------------------------------------------------

using Extent = std::pair<std::uint64_t, std::uint64_t>;

struct Gpt {
  std::vector<std::uint8_t> header = std::vector<std::uint8_t>(92);
  std::vector<std::uint8_t> entries = std::vector<std::uint8_t>(1024);

  Gpt(std::uint64_t first, std::uint64_t last) {
    vtl::le::store(std::span(header), 40, first);
    vtl::le::store(std::span(header), 48, last);
  }
  void add(std::uint64_t start, std::uint64_t end, const char* name) {
    const int i = vtl::gpt::partition_count(header);
    const auto e = vtl::gpt::entry(std::span(entries), i);
    e[0] = 0x11;
    e[16] = static_cast<std::uint8_t>(0xA0 + i);
    vtl::gpt::set_starting_lba(e, start);
    vtl::gpt::set_ending_lba(e, end);
    vtl::utf_encodestr2(name, e.subspan(56, 72));
    vtl::gpt::set_partition_count(header, i + 1);
  }
  Extent extent(int i) const {
    const auto e = vtl::gpt::entry(std::span<const std::uint8_t>(entries), i);
    return {vtl::gpt::starting_lba(e), vtl::gpt::ending_lba(e)};
  }
  int count() const { return vtl::gpt::partition_count(header); }
};

// Resizes partition `index` of `gpt` on a 1 GiB medium of 4 KiB blocks.
std::int64_t adjust(Gpt& gpt, std::int32_t index, std::uint64_t bytes, std::string* out) {
  const ZmraMediaGeometry g = make_medium(GiB, 4096).geometry;
  std::int64_t rc = 0;
  *out =
      stderr_of([&] { rc = vtl::zmraAdjustPartition(&g, gpt.header, gpt.entries, index, bytes); });
  return rc;
}

Gpt three_partitions() {
  Gpt gpt(6, 1000);
  gpt.add(6, 105, "System");
  gpt.add(106, 905, "Data");
  gpt.add(906, 955, "Update");
  return gpt;
}

TEST(ZmraAdjust, ResizingPacksTheFollowingPartitionsBehind) {
  Gpt gpt = three_partitions();
  std::string out;
  // A size that is not a whole number of blocks takes one block more.
  EXPECT_EQ(adjust(gpt, 0, 50 * 4096 + 1, &out), 0);
  EXPECT_EQ(out, "");
  EXPECT_EQ(gpt.extent(0), Extent(6, 56));
  EXPECT_EQ(gpt.extent(1), Extent(57, 856));
  EXPECT_EQ(gpt.extent(2), Extent(857, 906));
  EXPECT_EQ(gpt.count(), 3);

  // Growing up to the last usable block fits; three blocks more do not.
  EXPECT_EQ(adjust(gpt, 1, (1000 - 57 + 1 - 50) * 4096ULL, &out), 0);
  EXPECT_EQ(gpt.extent(2), Extent(951, 1000));
  const std::vector<std::uint8_t> header_before = gpt.header;
  EXPECT_EQ(adjust(gpt, 1, (1000 - 57 + 1 - 50 + 3) * 4096ULL, &out), -1);
  EXPECT_EQ(out, "zmra: new layout does not fit, overflows by 0x3 blocks\n");
  EXPECT_EQ(gpt.header, header_before);
}

TEST(ZmraAdjust, CreatesAfterTheLastAndDeletesByMovingUp) {
  Gpt gpt(6, 1000);
  gpt.add(6, 105, "System");
  gpt.add(206, 305, "Data");  // a gap before it closes on packing
  std::string out;
  EXPECT_EQ(adjust(gpt, 2, 10 * 4096, &out), 0);
  EXPECT_EQ(out, "");
  EXPECT_EQ(gpt.count(), 3);
  EXPECT_EQ(gpt.extent(1), Extent(106, 205));
  EXPECT_EQ(gpt.extent(2), Extent(206, 215));
  const auto created = vtl::gpt::entry(std::span<const std::uint8_t>(gpt.entries), 2);
  EXPECT_EQ(vtl::gpt::type_guid(created), vtl::kJrfPartitionType);
  EXPECT_NE(vtl::gpt::unique_guid(created), (std::array<std::uint8_t, 16>{}));
  const std::uint8_t new_utf16[] = {'N', 0, 'e', 0, 'w', 0, 0, 0};
  EXPECT_EQ(std::memcmp(created.data() + 56, new_utf16, sizeof new_utf16), 0);

  EXPECT_EQ(adjust(gpt, 0, 0, &out), 0);
  EXPECT_EQ(gpt.count(), 2);
  EXPECT_EQ(gpt.extent(0), Extent(6, 105));
  EXPECT_EQ(gpt.extent(1), Extent(106, 115));
  EXPECT_TRUE(
      std::all_of(gpt.entries.begin() + 256, gpt.entries.end(), [](auto b) { return b == 0; }));
}

TEST(ZmraAdjust, RefusesWhatItCannotDo) {
  struct Case {
    const char* name;
    std::int32_t index;
    std::uint64_t bytes;
    std::string line;
  };
  const Case cases[] = {
      {"index 8", 8, 4096, "zmra: cannot adjust partition 8 - out of range\n"},
      {"index past the count", 4, 4096, "zmra: cannot adjust partition 4 - out of range\n"},
      {"negative index", -1, 4096, "zmra: cannot adjust partition -1 - out of range\n"},
      {"create with no size", 3, 0, "zmra: cannot create zero-sized partition\n"},
      {"create in a full table", 3, 46 * 4096,
       "zmra: new layout does not fit, overflows by 0x1 blocks\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Gpt gpt = three_partitions();
    std::string out;
    EXPECT_EQ(adjust(gpt, c.index, c.bytes, &out), -1);
    EXPECT_EQ(out, c.line);
    EXPECT_EQ(gpt.count(), 3);
  }
}

TEST(ZmraAdjust, CorruptEntriesNeverWrapIntoAFittingLayout) {
  Gpt gpt = three_partitions();
  // An entry ending before it starts is "huge", not small.
  vtl::gpt::set_ending_lba(vtl::gpt::entry(std::span(gpt.entries), 2), 900);
  std::string out;
  EXPECT_EQ(adjust(gpt, 0, 4096, &out), -1);
  EXPECT_EQ(out.rfind("zmra: new layout does not fit, overflows by 0x", 0), 0U) << out;
  // A header counting more entries than are held only packs those held.
  Gpt many = three_partitions();
  vtl::gpt::set_partition_count(many.header, 200);
  // The five empty slots among the eight held pack as one block each.
  EXPECT_EQ(adjust(many, 1, 10 * 4096, &out), 0);
  EXPECT_EQ(many.count(), 200);
  EXPECT_EQ(many.extent(0), Extent(11, 110));
}

}  // namespace
