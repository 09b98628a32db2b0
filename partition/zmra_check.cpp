// The Zmra header's consistency check and its repair.
//
// The check tests the format's invariants in a fixed order and reports the
// first one broken. The repair mends, in the same order, everything the
// check could report, choosing at each step the mend that loses the least:
//
//   identifier        set to the current format
//   media size        set to the medium's
//   partition count   at most 8; partitions with a null type or identity,
//                     and slots beyond the count that are not empty, deleted
//   extents           swapped when reversed; rounded inward to whole blocks;
//                     clipped to the data area; moved up past an earlier
//                     partition they overlap; deleted when nothing is left
//   chunk map         chunk 0 reserved; entries beyond the medium invalid;
//                     entries of no partition, past a partition's end, or
//                     repeating a logical chunk made spare; a missing logical
//                     chunk given the first spare chunk, or, with none left,
//                     the partition truncated before it
//
// Deleting a partition moves the later ones down one slot and renumbers their
// chunks, so partitions stay dense from slot 0 as the count requires.
#include <algorithm>
#include <array>
#include <vector>

#include "partition/bytes.h"
#include "partition/zmra.h"
#include "partition/zmra_internal.h"

namespace vtl {

using namespace zmra_detail;

namespace {

constexpr int kMapEntries = kZmraMapEntries;

// The map entries that stand for physical chunks of the medium: 1 to
// chunkCount - 1 (entry 0 is the header's).
int chunk_limit(const ZmraMediaGeometry& g) {
  return static_cast<int>(std::min<std::uint32_t>(g.chunkCount, kMapEntries));
}

bool names_partition(std::uint16_t entry) { return (entry & 0x8C00U) == 0; }
int entry_partition(std::uint16_t entry) { return entry >> 12U; }
std::uint64_t entry_logical(std::uint16_t entry) { return entry & 0x3FFU; }

bool slot_empty(const ZmraPartitionRecord& r) {
  return is_zero(r.type) && is_zero(r.identity) && r.begin == 0 && r.end == 0;
}

bool overlaps(const ZmraPartitionRecord& a, const ZmraPartitionRecord& b) {
  return a.end > b.begin && a.begin < b.end;
}

// Logical chunks a partition's extent needs; the map can tell at most 1024
// apart, and a check of those 1024 decides for any more (they alias).
std::uint64_t needed_chunks(const ZmraMediaGeometry& g, const ZmraPartitionRecord& r) {
  return std::min<std::uint64_t>(chunks_for(g, r.end - r.begin), kMapEntries);
}

int check(const ZmraMediaGeometry* geometry, const ZmraHeader* header, bool verbose) {
#define ZMRA_FAIL(...)                \
  do {                                \
    if (verbose) report(__VA_ARGS__); \
    return -1;                        \
  } while (false)

  // A geometry whose block size is 0 was never filled in (its set-up failed).
  if (geometry == nullptr || geometry->blockSize == 0) ZMRA_FAIL("zmra: NULL media properties\n");
  if (header == nullptr) ZMRA_FAIL("zmra: NULL header buffer\n");
  const ZmraMediaGeometry& g = *geometry;
  const ZmraHeader& h = *header;
  const ZmraGuid id = zmraHeaderIdentifier(h);
  if (id != kZmraFormatCurrent && id != kZmraFormatOlder) {
    ZMRA_FAIL("zmra: media header mismatch\n");
  }
  if (zmraHeaderMediaSize(h) != g.mediaSize) ZMRA_FAIL("zmra: media size mismatch\n");
  const std::uint32_t count32 = zmraHeaderPartitionCount(h);
  if (count32 > kZmraMaxPartitions) ZMRA_FAIL("zmra: illegal partition count\n");
  const int count = static_cast<int>(count32);

  const int limit = chunk_limit(g);
  // How often each (partition, logical chunk) appears among the medium's
  // chunks, counted once instead of searched for every chunk.
  std::vector<std::uint8_t> seen(static_cast<std::size_t>(kZmraMaxPartitions * kMapEntries));
  for (int i = 1; i < limit; ++i) {
    const std::uint16_t e = zmraHeaderChunk(h, i);
    if (!names_partition(e)) continue;
    std::uint8_t& n = seen[static_cast<std::size_t>(entry_partition(e) * kMapEntries) +
                           static_cast<std::size_t>(entry_logical(e))];
    if (n < 2) ++n;
  }

  const std::uint64_t start = data_start(g);
  const std::uint64_t end = data_end(g);
  std::array<ZmraPartitionRecord, kZmraMaxPartitions> records;
  for (int p = 0; p < kZmraMaxPartitions; ++p)
    records[static_cast<std::size_t>(p)] = zmraHeaderPartition(h, p);
  for (int p = 0; p < count; ++p) {
    const ZmraPartitionRecord& r = records[static_cast<std::size_t>(p)];
    if (is_zero(r.type)) ZMRA_FAIL("zmra: partition %d has type zero\n", p);
    if (is_zero(r.identity)) ZMRA_FAIL("zmra: partition %d has identity zero\n", p);
    if (r.begin < start) ZMRA_FAIL("zmra: partition %d starts too low\n", p);
    if (r.end > end) ZMRA_FAIL("zmra: partition %d ends too high\n", p);
    if (r.begin >= r.end) ZMRA_FAIL("zmra: partition %d start/end not in order\n", p);
    if (r.begin % g.blockSize != 0 || r.end % g.blockSize != 0) {
      ZMRA_FAIL("zmra: partition %d start/end not block aligned\n", p);
    }
    for (int q = 0; q < p; ++q) {
      if (overlaps(r, records[static_cast<std::size_t>(q)])) {
        ZMRA_FAIL("zmra: partition %d overlaps partition %d\n", p, q);
      }
    }
    const std::uint64_t needed = needed_chunks(g, r);
    for (std::uint64_t i = 0; i < needed; ++i) {
      if (limit < 2 || seen[static_cast<std::size_t>(p * kMapEntries) + i] != 1) {
        ZMRA_FAIL("zmra: partition %d missing chunk 0x%04x\n", p, static_cast<unsigned>(i));
      }
    }
  }
  for (int p = count; p < kZmraMaxPartitions; ++p) {
    if (!slot_empty(records[static_cast<std::size_t>(p)])) {
      ZMRA_FAIL("zmra: partition %d orphaned\n", p);
    }
  }
  if (zmraHeaderChunk(h, 0) != kZmraChunkHeader) {
    ZMRA_FAIL("zmra: chunk zero not marked reserved\n");
  }
  for (int i = 1; i < limit; ++i) {
    const std::uint16_t e = zmraHeaderChunk(h, i);
    if (e == kZmraChunkSpare) continue;
    const int p = entry_partition(e);
    if (p >= count) {
      ZMRA_FAIL("zmra: chunk 0x%04x claims nonexistent partition (0x%04x)\n",
                static_cast<unsigned>(i), static_cast<unsigned>(e));
    }
    const ZmraPartitionRecord& r = records[static_cast<std::size_t>(p)];
    const std::uint64_t offset = g.chunkShift < 64 ? entry_logical(e) << g.chunkShift : 0;
    if (offset > r.end - r.begin) {
      ZMRA_FAIL("zmra: chunk 0x%04x assigned to invalid partition offset (0x%04x)\n",
                static_cast<unsigned>(i), static_cast<unsigned>(e));
    }
  }
  for (int i = limit; i < kMapEntries; ++i) {
    const std::uint16_t e = zmraHeaderChunk(h, i);
    if (e != kZmraChunkNone) {
      ZMRA_FAIL("zmra: chunk 0x%04x not invalid (0x%04x)\n", static_cast<unsigned>(i),
                static_cast<unsigned>(e));
    }
  }
  return 0;
#undef ZMRA_FAIL
}

class Repair {
 public:
  Repair(const ZmraMediaGeometry& g, ZmraHeader& h) : g_(g), h_(h), limit_(chunk_limit(g)) {}

  int run() {
    identifier();
    media_size();
    partition_count();
    extents();
    chunk_map();
    static_cast<void>(zmraSetHeaderCRC(&h_));
    if (check(&g_, &h_, false) != 0) {
      report("zmra: partition table corrupt\n");
      return -1;
    }
    return 0;
  }

 private:
  int count() const { return static_cast<int>(zmraHeaderPartitionCount(h_)); }
  void set_count(int n) {
    le::store(std::span(h_.bytes), kPartitionCountOffset, static_cast<std::uint32_t>(n));
  }
  ZmraPartitionRecord record(int p) const { return zmraHeaderPartition(h_, p); }

  void identifier() {
    const ZmraGuid id = zmraHeaderIdentifier(h_);
    if (id == kZmraFormatCurrent || id == kZmraFormatOlder) return;
    report("zmra: media header mismatch\n");
    std::copy(kZmraFormatCurrent.begin(), kZmraFormatCurrent.end(), h_.bytes.begin());
  }

  void media_size() {
    const std::uint64_t recorded = zmraHeaderMediaSize(h_);
    if (recorded == g_.mediaSize) return;
    if (recorded > g_.mediaSize) report("zmra: media size smaller than required by header\n");
    report("zmra: adjusting header media size\n");
    le::store(std::span(h_.bytes), kMediaSizeOffset, g_.mediaSize);
  }

  void partition_count() {
    if (zmraHeaderPartitionCount(h_) > kZmraMaxPartitions) {
      report("zmra: fixing illegal partition count\n");
      set_count(kZmraMaxPartitions);
    }
    bool found_null = false;
    for (int p = 0; p < count();) {
      const ZmraPartitionRecord r = record(p);
      if (is_zero(r.type) || is_zero(r.identity)) {
        if (!found_null) report("zmra: found null partition type/identity\n");
        found_null = true;
        remove(p);
      } else {
        ++p;
      }
    }
    bool orphans = false;
    for (int p = count(); p < kZmraMaxPartitions; ++p) {
      if (!slot_empty(record(p))) {
        orphans = true;
        zmraHeaderSetPartition(h_, p, ZmraPartitionRecord{});
      }
    }
    if (found_null || orphans) report("zmra: deleting partition(s) and fixing partition count\n");
  }

  void extents() {
    const std::uint64_t block = g_.blockSize;
    for (int p = 0; p < count();) {
      ZmraPartitionRecord r = record(p);
      if (r.begin >= r.end) {
        report("zmra: partition %d start/end not in order\n", p);
        std::swap(r.begin, r.end);
      }
      if (r.begin % block != 0 || r.end % block != 0) {
        report("zmra: partition %d start/end not block aligned\n", p);
        // Inward, so that the partition never grows over a neighbour.
        r.begin = r.begin % block == 0 || r.begin > UINT64_MAX - block
                      ? r.begin - r.begin % block
                      : r.begin + (block - r.begin % block);
        r.end -= r.end % block;
      }
      if (r.begin < data_start(g_)) {
        report("zmra: partition %d starts too low\n", p);
        r.begin = data_start(g_);
      }
      if (r.end > data_end(g_)) {
        report("zmra: partition %d ends too high\n", p);
        r.end = data_end(g_);
      }
      for (bool moved = true; moved && r.begin < r.end;) {
        moved = false;
        for (int q = 0; q < p; ++q) {
          const ZmraPartitionRecord earlier = record(q);
          if (!overlaps(r, earlier)) continue;
          report("zmra: partition %d out of order or overlapping\n", p);
          r.begin = earlier.end;
          moved = true;
        }
      }
      if (r.begin >= r.end) {
        report("zmra: deleting partition(s) and fixing partition count\n");
        remove(p);
        continue;
      }
      zmraHeaderSetPartition(h_, p, r);
      ++p;
    }
  }

  void chunk_map() {
    if (zmraHeaderChunk(h_, 0) != kZmraChunkHeader) {
      report("zmra: fixing chunk0 assignment\n");
      zmraHeaderSetChunk(h_, 0, kZmraChunkHeader);
    }
    for (int i = std::max(limit_, 1); i < kMapEntries; ++i) {
      if (zmraHeaderChunk(h_, i) == kZmraChunkNone) continue;
      report("zmra: reclaiming chunk 0x%04x not assigned to valid partition\n",
             static_cast<unsigned>(i));
      zmraHeaderSetChunk(h_, i, kZmraChunkNone);
    }
    // Each pass either leaves the map settled or deletes a partition that no
    // chunk at all could be found for; there are at most 8 of those.
    for (int pass = 0; pass <= kZmraMaxPartitions; ++pass) {
      reclaim();
      if (give_missing_chunks()) break;
    }
  }

  // Spares every entry that names no partition, lies past its partition's
  // extent, or repeats a logical chunk already seen.
  void reclaim() {
    std::vector<bool> seen(static_cast<std::size_t>(kZmraMaxPartitions * kMapEntries));
    for (int i = 1; i < limit_; ++i) {
      const std::uint16_t e = zmraHeaderChunk(h_, i);
      if (e == kZmraChunkSpare) continue;
      const int p = entry_partition(e);
      if (!names_partition(e) || p >= count()) {
        report("zmra: reclaiming chunk 0x%04x not assigned to valid partition\n",
               static_cast<unsigned>(i));
        zmraHeaderSetChunk(h_, i, kZmraChunkSpare);
        continue;
      }
      const std::uint64_t logical = entry_logical(e);
      if (logical >= needed_chunks(g_, record(p))) {
        report("zmra: reclaiming chunk 0x%04x off the end of partition %d\n",
               static_cast<unsigned>(i), p);
        zmraHeaderSetChunk(h_, i, kZmraChunkSpare);
        continue;
      }
      const std::size_t slot = static_cast<std::size_t>(p * kMapEntries) + logical;
      if (seen[slot]) {
        report("zmra: partition %d duplicate chunk 0x%04x\n", p, static_cast<unsigned>(logical));
        zmraHeaderSetChunk(h_, i, kZmraChunkSpare);
        continue;
      }
      seen[slot] = true;
    }
  }

  // Gives every missing logical chunk a spare one. False when a partition had
  // to be deleted (the map was renumbered: run again).
  bool give_missing_chunks() {
    // Spares are handed out front to back, so the search resumes where the
    // last one was found: the whole map is walked once, not once per chunk.
    spare_cursor_ = 1;
    for (int p = 0; p < count(); ++p) {
      ZmraPartitionRecord r = record(p);
      std::vector<bool> present(kMapEntries);
      for (int i = 1; i < limit_; ++i) {
        const std::uint16_t e = zmraHeaderChunk(h_, i);
        if (names_partition(e) && entry_partition(e) == p) present[entry_logical(e)] = true;
      }
      const std::uint64_t needed = needed_chunks(g_, r);
      for (std::uint64_t logical = 0; logical < needed; ++logical) {
        if (present[logical]) continue;
        report("zmra: partition %d missing chunk 0x%04x\n", p, static_cast<unsigned>(logical));
        if (const int spare = first_spare(); spare > 0) {
          zmraHeaderSetChunk(h_, spare, chunk_entry(p, logical));
          continue;
        }
        // No chunk left to give: the partition ends before this one.
        report("zmra: truncated partition %d\n", p);
        const std::uint64_t kept = (logical << g_.chunkShift) / g_.blockSize * g_.blockSize;
        if (kept == 0) {
          report("zmra: deleting partition(s) and fixing partition count\n");
          remove(p);
          return false;
        }
        r.end = r.begin + kept;
        zmraHeaderSetPartition(h_, p, r);
        reclaim();
        break;
      }
    }
    return true;
  }

  int first_spare() {
    for (; spare_cursor_ < limit_; ++spare_cursor_) {
      if (zmraHeaderChunk(h_, spare_cursor_) == kZmraChunkSpare) return spare_cursor_++;
    }
    return -1;
  }

  // Deletes partition p: its chunks become spare, later partitions move down
  // one slot with their chunks renumbered, the count drops by one.
  // The deletion line is the caller's: one for each step that deletes.
  void remove(int p) {
    const int n = count();
    for (int i = 1; i < limit_; ++i) {
      const std::uint16_t e = zmraHeaderChunk(h_, i);
      if (!names_partition(e)) continue;
      const int q = entry_partition(e);
      if (q == p) {
        zmraHeaderSetChunk(h_, i, kZmraChunkSpare);
      } else if (q > p && q < n) {
        zmraHeaderSetChunk(h_, i, static_cast<std::uint16_t>(e - 0x1000U));
      }
    }
    for (int q = p; q + 1 < n; ++q) zmraHeaderSetPartition(h_, q, record(q + 1));
    zmraHeaderSetPartition(h_, n - 1, ZmraPartitionRecord{});
    set_count(n - 1);
  }

  const ZmraMediaGeometry& g_;
  ZmraHeader& h_;
  int limit_;
  int spare_cursor_ = 1;
};

}  // namespace

int zmraCheckHeader(const ZmraMediaGeometry* geometry, const ZmraHeader* header) {
  return check(geometry, header, true);
}

int zmraRepairHeader(const ZmraMediaGeometry* geometry, ZmraHeader* header) {
  if (geometry == nullptr || geometry->blockSize == 0) {
    report("zmra: NULL media properties\n");
    return -1;
  }
  if (header == nullptr) {
    report("zmra: NULL header buffer\n");
    return -1;
  }
  return Repair(*geometry, *header).run();
}

}  // namespace vtl
