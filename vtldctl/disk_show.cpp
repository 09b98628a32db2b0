#include "vtldctl/disk_show.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <span>

#include "base/errors.h"
#include "partition/gpt.h"
#include "vtldctl/exit_status.h"

namespace vtldctl {
namespace {

std::string guid_text(const std::array<std::uint8_t, 16>& gpt_order) {
  const std::array<std::uint8_t, 16> rfc = vtl::gpt::swap_guid_order(gpt_order);
  char text[37];
  uuid_unparse_upper(rfc.data(), text);
  return text;
}

// The 36 UTF-16LE code units of a name field as UTF-8, up to the first zero;
// what is not UTF-16 shows as U+FFFD.
std::string name_text(std::span<const std::uint8_t> field) {
  std::string out;
  const auto put = [&](char32_t c) {
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6U));
      out += static_cast<char>(0x80 | (c & 0x3FU));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | (c >> 12U));
      out += static_cast<char>(0x80 | ((c >> 6U) & 0x3FU));
      out += static_cast<char>(0x80 | (c & 0x3FU));
    } else {
      out += static_cast<char>(0xF0 | (c >> 18U));
      out += static_cast<char>(0x80 | ((c >> 12U) & 0x3FU));
      out += static_cast<char>(0x80 | ((c >> 6U) & 0x3FU));
      out += static_cast<char>(0x80 | (c & 0x3FU));
    }
  };
  for (std::size_t i = 0; i + 1 < field.size(); i += 2) {
    const char32_t unit = field[i] | (char32_t{field[i + 1]} << 8U);
    if (unit == 0) break;
    if (unit >= 0xD800 && unit < 0xDC00 && i + 3 < field.size()) {
      const char32_t low = field[i + 2] | (char32_t{field[i + 3]} << 8U);
      if (low >= 0xDC00 && low < 0xE000) {
        put(0x10000 + ((unit - 0xD800) << 10U) + (low - 0xDC00));
        i += 2;
        continue;
      }
    }
    put(unit >= 0xD800 && unit < 0xE000 ? 0xFFFD : unit);
  }
  return out;
}

std::string size_text(std::uint64_t bytes) {
  return fmt::format("{:.1f} MiB", static_cast<double>(bytes) / (1024.0 * 1024.0));
}

}  // namespace

std::optional<DiskMap> read_disk_map(const std::string& path, std::string* error) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *error = fmt::format("cannot open {}: {}", path, vtl::error_description(errno));
    return std::nullopt;
  }
  DiskMap map;
  struct stat st {};
  std::uint64_t bytes = 0;
  if (::fstat(fd, &st) == 0 && S_ISBLK(st.st_mode)) {
    int size = 0;
    if (::ioctl(fd, BLKSSZGET, &size) == 0 && size > 0)
      map.block_size = static_cast<std::uint32_t>(size);
    if (::ioctl(fd, BLKGETSIZE64, &bytes) != 0) bytes = 0;
  } else {
    bytes = static_cast<std::uint64_t>(st.st_size);
    for (std::uint32_t size : {512U, 4096U, 8192U, 16384U}) {
      char signature[8] = {};
      if (::pread(fd, signature, sizeof signature, size) == 8 &&
          std::memcmp(signature, "EFI PART", 8) == 0) {
        map.block_size = size;
        break;
      }
    }
  }
  if (map.block_size == 0) {
    ::close(fd);
    *error = path + ": no GPT header found at 512, 4096, 8192 or 16384 bytes";
    return std::nullopt;
  }
  map.block_count = bytes / map.block_size;
  std::vector<std::uint8_t> blocks(3 * std::size_t{map.block_size});
  const ssize_t n = ::pread(fd, blocks.data(), blocks.size(), 0);
  ::close(fd);
  if (n != static_cast<ssize_t>(blocks.size()) || map.block_size < vtl::gpt::kEntriesSize) {
    *error = path + ": too short to hold an MBR and a GPT";
    return std::nullopt;
  }
  const std::span<const std::uint8_t> all(blocks);
  map.disk_signature = vtl::le::load32(all, vtl::gpt::kDiskSignatureOffset);
  map.zmra = map.disk_signature == vtl::gpt::kZmraDiskSignature;
  const std::span<const std::uint8_t> header = all.subspan(map.block_size, vtl::gpt::kHeaderSize);
  const std::span<const std::uint8_t> entries =
      all.subspan(2 * std::size_t{map.block_size}, vtl::gpt::kEntriesSize);
  map.first_usable_lba = vtl::gpt::first_usable_lba(header);
  map.last_usable_lba = vtl::gpt::last_usable_lba(header);
  map.partition_count = vtl::gpt::partition_count(header);
  std::uint64_t used = 0;
  for (int i = 0; i < std::clamp(map.partition_count, 0, vtl::gpt::kEntriesHeld); ++i) {
    const std::span<const std::uint8_t> e = vtl::gpt::entry(entries, i);
    DiskEntry entry;
    entry.index = i;
    entry.name = name_text(e.subspan(vtl::gpt::kNameOffset, vtl::gpt::kNameSize));
    entry.type_guid = guid_text(vtl::gpt::type_guid(e));
    entry.unique_guid = guid_text(vtl::gpt::unique_guid(e));
    entry.first_lba = vtl::gpt::starting_lba(e);
    entry.last_lba = vtl::gpt::ending_lba(e);
    used += entry.blocks();
    map.entries.push_back(entry);
  }
  const std::uint64_t usable = map.last_usable_lba >= map.first_usable_lba
                                   ? map.last_usable_lba - map.first_usable_lba + 1
                                   : 0;
  map.free_blocks = usable > used ? usable - used : 0;
  return map;
}

void print_disk_map(const std::string& path, const DiskMap& map, std::FILE* out) {
  fmt::print(out, "Disk {}: {} blocks of {} bytes ({})\n", path, map.block_count, map.block_size,
             size_text(map.block_count * map.block_size));
  fmt::print(out, "MBR disk signature: 0x{:08X} ({})\n", map.disk_signature,
             map.zmra ? "\"Zmra\": managed by the volume manager" : "not \"Zmra\"");
  fmt::print(out, "GPT header: first usable LBA {}, last usable LBA {}, partitions {}\n",
             map.first_usable_lba, map.last_usable_lba, map.partition_count);
  fmt::print(out, "{:>2}  {:<12} {:<36}  {:<36}  {:>10}  {:>10}  {:>10}\n", "#", "Name",
             "Type GUID", "Unique GUID", "First LBA", "Last LBA", "Size");
  for (const DiskEntry& e : map.entries) {
    fmt::print(out, "{:>2}  {:<12} {:<36}  {:<36}  {:>10}  {:>10}  {:>10}\n", e.index, e.name,
               e.type_guid, e.unique_guid, e.first_lba, e.last_lba,
               size_text(e.blocks() * map.block_size));
  }
  fmt::print(out, "Free: {} blocks ({})\n", map.free_blocks,
             size_text(map.free_blocks * map.block_size));
}

Json disk_map_json(const std::string& path, const DiskMap& map) {
  Json entries = Json::array();
  for (const DiskEntry& e : map.entries) {
    entries.push_back({{"Index", e.index},
                       {"Name", e.name},
                       {"TypeGUID", e.type_guid},
                       {"UniqueGUID", e.unique_guid},
                       {"FirstLBA", e.first_lba},
                       {"LastLBA", e.last_lba},
                       {"Blocks", e.blocks()}});
  }
  return {{"Disk", path},
          {"BlockSize", map.block_size},
          {"BlockCount", map.block_count},
          {"DiskSignature", map.disk_signature},
          {"Zmra", map.zmra},
          {"FirstUsableLBA", map.first_usable_lba},
          {"LastUsableLBA", map.last_usable_lba},
          {"PartitionCount", map.partition_count},
          {"Entries", std::move(entries)},
          {"FreeBlocks", map.free_blocks}};
}

int disk_show(const std::string& path, bool json, std::FILE* out, std::FILE* err) {
  std::string error;
  const std::optional<DiskMap> map = read_disk_map(path, &error);
  if (!map) {
    fmt::print(err, "vtldctl: {}\n", error);
    return kExitLocalFailure;
  }
  if (json) {
    print_json_line(out, disk_map_json(path, *map));
  } else {
    print_disk_map(path, *map, out);
  }
  return 0;
}

}  // namespace vtldctl
