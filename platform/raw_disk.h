// Raw disks: the device node that carries the volume manager's partition map
// ("/dev/rdisk0s1"), opened, asked for its geometry, read and written at byte
// offsets.
//
//   simulated device  the image file <root>/dev/rdisk0s1; its logical block
//                     size and node type kept in <root>/sim/disk.plist
//   Linux host        the block device node, BLKSSZGET and BLKGETSIZE64; the
//                     kernel is told the new partition sizes when a disk that
//                     was written is closed
//
// Errors are errno values, reported the way the system calls they stand for
// report them: a null device or -1 with errno set. Faults are injected around
// either backend (fault_injection.h).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace vtl {
class SystemLog;
}

namespace platform {

using vtl::SystemLog;

// Open flags as the platform numbers them: read access, and read-write with a
// shared lock (O_RDWR|O_SHLOCK), the only two the helper uses.
inline constexpr int kDiskOpenReadOnly = 0;
inline constexpr int kDiskOpenReadWriteShared = 18;

class DiskDevice {
 public:
  enum class NodeType { kRawDisk, kOther };

  virtual ~DiskDevice() = default;
  // What fstat says the node is: the disk's raw node, or anything else (a
  // buffered block node, a regular file, ...). nullopt with errno set when
  // the node cannot be examined.
  virtual std::optional<NodeType> node_type() = 0;
  // The logical block size (DKIOCGETBLOCKSIZE) and the number of such blocks
  // (DKIOCGETBLOCKCOUNT); nullopt with errno set when the device cannot say.
  virtual std::optional<std::uint32_t> block_size() = 0;
  virtual std::optional<std::uint64_t> block_count() = 0;
  // pread(2) and pwrite(2): bytes transferred, or -1 with errno set.
  virtual ssize_t read_at(std::span<std::uint8_t> buffer, std::uint64_t offset) = 0;
  virtual ssize_t write_at(std::span<const std::uint8_t> buffer, std::uint64_t offset) = 0;
};

class RawDisks {
 public:
  virtual ~RawDisks() = default;
  // open(2) of a disk node with kDiskOpenReadOnly or kDiskOpenReadWriteShared.
  // nullptr with errno set when it cannot be opened. Closed when destroyed.
  virtual std::unique_ptr<DiskDevice> open(const std::string& path, int flags) = 0;
  // sync(2): everything written to disks reaches them.
  virtual void sync() = 0;
};

// The simulated device laid out under `root` ("/" inside the confined helper).
std::unique_ptr<RawDisks> make_sim_raw_disks(std::string root);
// The Linux host's block devices, paths taken as they are. What the kernel
// refuses when it is told the new partitions goes to `log` (may be null).
std::unique_ptr<RawDisks> make_linux_raw_disks(SystemLog* log);

}  // namespace platform
