// `vtldctl disk show DISK`: the partition map of a disk or disk image as the
// helper reads it: the MBR's disk signature, the GPT header fields the
// helper uses, each entry it holds (name, type and unique GUIDs, first and
// last LBA, size) and the free space. Read directly, not through the helper.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "vtldctl/json_output.h"

namespace vtldctl {

struct DiskEntry {
  int index = 0;
  std::string name;  // UTF-8
  std::string type_guid;
  std::string unique_guid;
  std::uint64_t first_lba = 0;
  std::uint64_t last_lba = 0;
  std::uint64_t blocks() const { return last_lba >= first_lba ? last_lba - first_lba + 1 : 0; }
};

struct DiskMap {
  std::uint32_t block_size = 0;
  std::uint64_t block_count = 0;
  std::uint32_t disk_signature = 0;
  bool zmra = false;
  std::uint64_t first_usable_lba = 0;
  std::uint64_t last_usable_lba = 0;
  std::int32_t partition_count = 0;
  std::vector<DiskEntry> entries;  // the first min(count, 8) entries
  std::uint64_t free_blocks = 0;   // usable blocks no entry covers
};

// Reads the map of `path`: a block device (its own logical block size) or a
// file (the block size is the first of 512, 4096, 8192 and 16384 at which a
// GPT header begins). nullopt with `error` set when it cannot be read.
std::optional<DiskMap> read_disk_map(const std::string& path, std::string* error);

void print_disk_map(const std::string& path, const DiskMap& map, std::FILE* out);

// The map as one JSON object: {"Disk": path, "BlockSize", "BlockCount",
// "DiskSignature" (a number), "Zmra", "FirstUsableLBA", "LastUsableLBA",
// "PartitionCount", "Entries": [{"Index", "Name", "TypeGUID", "UniqueGUID",
// "FirstLBA", "LastLBA", "Blocks"}], "FreeBlocks"}.
Json disk_map_json(const std::string& path, const DiskMap& map);

// The subcommand: 0, or the local-failure exit status after saying why.
int disk_show(const std::string& path, bool json, std::FILE* out, std::FILE* err);

}  // namespace vtldctl
