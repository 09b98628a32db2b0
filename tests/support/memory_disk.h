// A disk held in memory, for tests and fuzz targets that drive the partition
// code without a device: any byte content, any block size, and the failures
// a real device can give (no geometry, no node, short reads).
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/raw_disk.h"

namespace testsupport {

struct MemoryDiskState {
  std::vector<std::uint8_t> bytes;
  std::optional<std::uint32_t> block_size = 4096;
  // Block count reported; nullopt: bytes.size() / block size.
  std::optional<std::uint64_t> block_count_override;
  bool block_count_fails = false;
  bool stat_fails = false;
  bool open_fails = false;
  int reads = 0;
  platform::DiskDevice::NodeType node_type = platform::DiskDevice::NodeType::kRawDisk;
};

class MemoryDiskDevice final : public platform::DiskDevice {
 public:
  explicit MemoryDiskDevice(MemoryDiskState* state) : state_(state) {}

  std::optional<NodeType> node_type() override {
    if (state_->stat_fails) {
      errno = EIO;
      return std::nullopt;
    }
    return state_->node_type;
  }
  std::optional<std::uint32_t> block_size() override {
    if (!state_->block_size) errno = ENOTTY;
    return state_->block_size;
  }
  std::optional<std::uint64_t> block_count() override {
    if (state_->block_count_fails || !state_->block_size || *state_->block_size == 0) {
      errno = ENOTTY;
      return std::nullopt;
    }
    return state_->block_count_override.value_or(state_->bytes.size() / *state_->block_size);
  }
  ssize_t read_at(std::span<std::uint8_t> buffer, std::uint64_t offset) override {
    ++state_->reads;
    if (offset >= state_->bytes.size()) return 0;
    const std::size_t n = std::min<std::size_t>(buffer.size(), state_->bytes.size() - offset);
    std::memcpy(buffer.data(), state_->bytes.data() + offset, n);
    return static_cast<ssize_t>(n);
  }
  ssize_t write_at(std::span<const std::uint8_t> buffer, std::uint64_t offset) override {
    const std::size_t n = buffer.size();
    if (offset + n > state_->bytes.size()) state_->bytes.resize(offset + n);
    std::memcpy(state_->bytes.data() + offset, buffer.data(), n);
    return static_cast<ssize_t>(n);
  }

 private:
  MemoryDiskState* state_;
};

// Raw disks whose every node is the one memory disk.
class MemoryRawDisks final : public platform::RawDisks {
 public:
  explicit MemoryRawDisks(MemoryDiskState* state) : state_(state) {}
  std::unique_ptr<platform::DiskDevice> open(const std::string& /*path*/, int /*flags*/) override {
    if (state_->open_fails) {
      errno = ENOENT;
      return nullptr;
    }
    return std::make_unique<MemoryDiskDevice>(state_);
  }
  void sync() override {}

 private:
  MemoryDiskState* state_;
};

}  // namespace testsupport
