#include "platform/sim/disk_image.h"

#include <fcntl.h>
#include <unistd.h>
#include <uuid/uuid.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>

#include "base/errors.h"

namespace platform::sim {
namespace {

// Room for 128 entries is kept, as GPT tools keep it; the header counts only
// the partitions in use, as the volume manager's tools write it and read it.
constexpr std::uint32_t kEntryCount = 128;
constexpr std::uint32_t kEntrySize = 128;
constexpr std::uint32_t kHeaderSize = 92;

void put16(std::span<std::uint8_t> b, std::size_t o, std::uint16_t v) {
  for (std::size_t i = 0; i < 2; ++i) b[o + i] = static_cast<std::uint8_t>(v >> (8 * i));
}
void put32(std::span<std::uint8_t> b, std::size_t o, std::uint32_t v) {
  for (std::size_t i = 0; i < 4; ++i) b[o + i] = static_cast<std::uint8_t>(v >> (8 * i));
}
void put64(std::span<std::uint8_t> b, std::size_t o, std::uint64_t v) {
  for (std::size_t i = 0; i < 8; ++i) b[o + i] = static_cast<std::uint8_t>(v >> (8 * i));
}
std::uint64_t get64(std::span<const std::uint8_t> b, std::size_t o) {
  std::uint64_t v = 0;
  for (std::size_t i = 8; i-- > 0;) v = (v << 8U) | b[o + i];
  return v;
}

// GPT keeps the first three fields of a GUID little-endian.
void put_guid(std::span<std::uint8_t> b, std::size_t o, const Guid& g) {
  const Guid mixed = {g[3], g[2], g[1],  g[0],  g[5],  g[4],  g[7],  g[6],
                      g[8], g[9], g[10], g[11], g[12], g[13], g[14], g[15]};
  std::memcpy(b.data() + o, mixed.data(), mixed.size());
}
Guid get_guid(std::span<const std::uint8_t> b, std::size_t o) {
  const std::uint8_t* m = b.data() + o;
  return {m[3], m[2], m[1],  m[0],  m[5],  m[4],  m[7],  m[6],
          m[8], m[9], m[10], m[11], m[12], m[13], m[14], m[15]};
}

std::uint32_t crc(std::span<const std::uint8_t> b) {
  return static_cast<std::uint32_t>(::crc32(0L, b.data(), static_cast<uInt>(b.size())));
}

bool write_all(int fd, std::span<const std::uint8_t> b, std::uint64_t offset) {
  while (!b.empty()) {
    const ssize_t n = ::pwrite(fd, b.data(), b.size(), static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    b = b.subspan(static_cast<std::size_t>(n));
    offset += static_cast<std::uint64_t>(n);
  }
  return true;
}

std::vector<std::uint8_t> gpt_header(const ImageLayout& l, std::uint64_t self,
                                     std::uint64_t alternate, std::uint64_t entries_lba,
                                     std::uint64_t first_usable, std::uint64_t last_usable,
                                     const Guid& disk, std::uint32_t entry_count,
                                     std::uint32_t entries_crc) {
  std::vector<std::uint8_t> h(l.block_size, 0);
  std::memcpy(h.data(), "EFI PART", 8);
  put32(h, 8, 0x00010000);
  put32(h, 12, kHeaderSize);
  put64(h, 24, self);
  put64(h, 32, alternate);
  put64(h, 40, first_usable);
  put64(h, 48, last_usable);
  put_guid(h, 56, disk);
  put64(h, 72, entries_lba);
  put32(h, 80, entry_count);
  put32(h, 84, kEntrySize);
  put32(h, 88, entries_crc);
  put32(h, 16, crc(std::span(h).first(kHeaderSize)));
  return h;
}

}  // namespace

std::string guid_text(const Guid& guid) {
  char text[37];
  uuid_unparse_upper(guid.data(), text);
  return text;
}

std::string write_disk_image(const std::string& path, const ImageLayout& l) {
  const std::uint64_t bs = l.block_size;
  const std::uint64_t entry_blocks = (std::uint64_t{kEntryCount} * kEntrySize + bs - 1) / bs;
  const std::uint64_t last = l.block_count - 1;
  const std::uint64_t first_usable = 2 + entry_blocks;
  const std::uint64_t last_usable = last - entry_blocks - 1;

  std::vector<std::uint8_t> entries(entry_blocks * bs, 0);
  std::uint64_t lba = first_usable;
  const auto count =
      static_cast<std::uint32_t>(std::min<std::size_t>(l.partitions.size(), kEntryCount));
  for (std::size_t i = 0; i < count; ++i) {
    const ImagePartition& p = l.partitions[i];
    const std::span<std::uint8_t> e = std::span(entries).subspan(i * kEntrySize, kEntrySize);
    put_guid(e, 0, p.type);
    put_guid(e, 16, p.unique);
    put64(e, 32, lba);
    put64(e, 40, lba + p.blocks - 1);
    for (std::size_t c = 0; c < p.name.size() && c < 36; ++c) {
      put16(e, 56 + 2 * c, static_cast<std::uint8_t>(p.name[c]));
    }
    lba += p.blocks;
  }
  if (lba - 1 > last_usable) return "partitions do not fit the disk image";
  const std::uint32_t entries_crc = crc(std::span(entries).first(std::size_t{count} * kEntrySize));

  uuid_t disk_uuid;
  uuid_generate_random(disk_uuid);
  Guid disk{};
  std::memcpy(disk.data(), disk_uuid, disk.size());

  // Protective MBR, with the volume manager's signature in the disk-signature
  // field: "Zmra" as stored bytes.
  std::vector<std::uint8_t> mbr(bs, 0);
  std::memcpy(mbr.data() + 440, "armZ", 4);
  mbr[446 + 4] = 0xEE;
  put32(mbr, 446 + 8, 1);
  put32(mbr, 446 + 12, static_cast<std::uint32_t>(std::min<std::uint64_t>(last, 0xFFFFFFFF)));
  mbr[510] = 0x55;
  mbr[511] = 0xAA;

  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return "cannot create " + path + ": " + vtl::error_description(errno);
  const std::uint64_t backup_entries = last - entry_blocks;
  const bool ok =
      ::ftruncate(fd, static_cast<off_t>(l.block_count * bs)) == 0 && write_all(fd, mbr, 0) &&
      write_all(fd, gpt_header(l, 1, last, 2, first_usable, last_usable, disk, count, entries_crc),
                bs) &&
      write_all(fd, entries, 2 * bs) && write_all(fd, entries, backup_entries * bs) &&
      write_all(fd,
                gpt_header(l, last, 1, backup_entries, first_usable, last_usable, disk, count,
                           entries_crc),
                last * bs);
  const int error = errno;
  ::close(fd);
  if (!ok) return "cannot write " + path + ": " + vtl::error_description(error);
  return {};
}

std::optional<std::uint64_t> partition_size_by_guid(const std::string& path,
                                                    std::uint32_t block_size,
                                                    const std::string& uuid_text) {
  uuid_t wanted;
  if (block_size == 0 || ::uuid_parse(uuid_text.c_str(), wanted) != 0) return std::nullopt;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::vector<std::uint8_t> entries(8 * kEntrySize);
  const ssize_t n = ::pread(fd, entries.data(), entries.size(),
                            static_cast<off_t>(2 * std::uint64_t{block_size}));
  ::close(fd);
  if (n != static_cast<ssize_t>(entries.size())) return std::nullopt;
  for (std::size_t i = 0; i < 8; ++i) {
    const std::span<const std::uint8_t> e = std::span(entries).subspan(i * kEntrySize, kEntrySize);
    const Guid unique = get_guid(e, 16);
    if (std::memcmp(unique.data(), wanted, unique.size()) != 0) continue;
    const std::uint64_t first = get64(e, 32);
    const std::uint64_t end = get64(e, 40);
    if (end < first) return std::nullopt;
    return (end - first + 1) * block_size;
  }
  return std::nullopt;
}

}  // namespace platform::sim
