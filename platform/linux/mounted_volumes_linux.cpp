// Mounted volumes of a Linux host: the mount table from mountinfo (btrfs, the
// host's online-resizable journaled file system, reported as "jrf"), and a
// partition's GPT unique GUID (the kernel's PARTUUID) as its disk's "UUID".
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include <cerrno>
#include <sstream>
#include <string>

#include "platform/mounted_volumes.h"

namespace platform {
namespace {

constexpr std::size_t kMaxFileSize = std::size_t{4} << 20;

// Reads a whole file relative to `dir_fd` (or absolute when dir_fd is -1).
std::optional<std::string> read_file(int dir_fd, const std::string& path) {
  const int fd = dir_fd >= 0 ? ::openat(dir_fd, path.c_str(), O_RDONLY | O_CLOEXEC)
                             : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string content;
  char buffer[8192];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0 || content.size() > kMaxFileSize) break;
    content.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return content;
}

// mountinfo escapes space, tab, newline and backslash as \ooo.
std::string unescape(const std::string& s) {
  std::string out;
  for (std::size_t i = 0; i < s.size(); ++i) {
    const auto octal = [&](std::size_t k) { return s[k] >= '0' && s[k] <= '7'; };
    if (s[i] == '\\' && i + 3 < s.size() && s[i + 1] <= '3' && octal(i + 1) && octal(i + 2) &&
        octal(i + 3)) {
      out +=
          static_cast<char>(((s[i + 1] - '0') << 6) | ((s[i + 2] - '0') << 3) | (s[i + 3] - '0'));
      i += 3;
    } else {
      out += s[i];
    }
  }
  return out;
}

class LinuxMountedVolumes final : public MountedVolumes {
 public:
  LinuxMountedVolumes(int proc_dir_fd, int sys_block_fd, int dev_dir_fd)
      : proc_fd_(proc_dir_fd), sys_block_fd_(sys_block_fd), dev_fd_(dev_dir_fd) {}

  int file_systems(std::vector<MountedFileSystem>& records, int capacity) override {
    records.clear();
    const std::optional<std::string> table = proc_fd_ >= 0 ? read_file(proc_fd_, "self/mountinfo")
                                                           : read_file(-1, "/proc/self/mountinfo");
    if (!table) return -1;
    std::istringstream lines(*table);
    std::string line;
    while (static_cast<int>(records.size()) < capacity && std::getline(lines, line)) {
      // id parent major:minor root mount-point options [optional...] - type source super-options
      std::istringstream fields(line);
      std::string id, parent, device, root, mount_point, options, field;
      fields >> id >> parent >> device >> root >> mount_point >> options;
      while (fields >> field && field != "-") {
      }
      std::string type, source;
      if (!(fields >> type >> source)) continue;
      records.push_back({type == "btrfs" ? std::string(kJrfTypeName) : type, unescape(source),
                         unescape(mount_point)});
    }
    return static_cast<int>(records.size());
  }

  std::optional<vtl::Dictionary> disk_properties(std::string_view bsd_name) override {
    if (bsd_name.empty() || bsd_name == "." || bsd_name == ".." ||
        bsd_name.find('/') != std::string_view::npos) {
      return std::nullopt;
    }
    const std::string uevent = std::string(bsd_name) + "/uevent";
    const std::optional<std::string> text = sys_block_fd_ >= 0
                                                ? read_file(sys_block_fd_, uevent)
                                                : read_file(-1, "/sys/class/block/" + uevent);
    if (!text) return std::nullopt;
    vtl::Dictionary properties;
    std::istringstream lines(*text);
    std::string line;
    while (std::getline(lines, line)) {
      if (line.rfind("PARTUUID=", 0) == 0) {
        properties.emplace(std::string(kDiskUUIDProperty), line.substr(9));
      }
    }
    // Partitions the kernel learnt of through BLKPG (or a kernel that keeps
    // no partition metadata) have no PARTUUID: read it from the GPT.
    if (properties.empty()) {
      if (std::optional<std::string> uuid = gpt_partition_guid(std::string(bsd_name))) {
        properties.emplace(std::string(kDiskUUIDProperty), std::move(*uuid));
      }
    }
    return properties;
  }

 private:
  // The unique GUID of GPT entry N-1 of the disk that holds partition N.
  std::optional<std::string> gpt_partition_guid(const std::string& name) {
    const std::optional<std::string> number = read_file(sys_block_fd_, name + "/partition");
    char target[PATH_MAX];
    const ssize_t n = ::readlinkat(sys_block_fd_, name.c_str(), target, sizeof target - 1);
    if (!number || n <= 0 || sys_block_fd_ < 0 || dev_fd_ < 0) return std::nullopt;
    target[n] = '\0';
    // .../block/<disk>/<partition>: the disk is the second last component.
    std::string path(target);
    const std::size_t last = path.rfind('/');
    if (last == std::string::npos || last == 0) return std::nullopt;
    const std::size_t before = path.rfind('/', last - 1);
    const std::string disk = path.substr(before == std::string::npos ? 0 : before + 1,
                                         last - (before == std::string::npos ? 0 : before + 1));
    const long index = std::strtol(number->c_str(), nullptr, 10) - 1;
    if (disk.empty() || disk == ".." || index < 0) return std::nullopt;

    const int fd = ::openat(dev_fd_, disk.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    int block = 0;
    std::uint8_t header[92];
    std::optional<std::string> uuid;
    if (::ioctl(fd, BLKSSZGET, &block) == 0 && block > 0 &&
        ::pread(fd, header, sizeof header, block) == static_cast<ssize_t>(sizeof header) &&
        std::memcmp(header, "EFI PART", 8) == 0) {
      const auto u32 = [&](std::size_t o) {
        return std::uint32_t{header[o]} | std::uint32_t{header[o + 1]} << 8U |
               std::uint32_t{header[o + 2]} << 16U | std::uint32_t{header[o + 3]} << 24U;
      };
      std::uint64_t entries_lba = 0;
      for (int i = 7; i >= 0; --i) entries_lba = (entries_lba << 8U) | header[72 + i];
      const std::uint32_t count = u32(80);
      const std::uint32_t entry_size = u32(84);
      std::uint8_t g[16];
      if (static_cast<std::uint64_t>(index) < count && entry_size >= 32 &&
          ::pread(fd, g, sizeof g,
                  static_cast<off_t>(entries_lba * static_cast<std::uint64_t>(block) +
                                     static_cast<std::uint64_t>(index) * entry_size + 16)) ==
              static_cast<ssize_t>(sizeof g)) {
        const std::uint8_t rfc[16] = {g[3], g[2], g[1],  g[0],  g[5],  g[4],  g[7],  g[6],
                                      g[8], g[9], g[10], g[11], g[12], g[13], g[14], g[15]};
        char text[37];
        uuid_unparse_lower(rfc, text);
        uuid = text;
      }
    }
    ::close(fd);
    return uuid;
  }

  int proc_fd_;
  int sys_block_fd_;
  int dev_fd_;
};

}  // namespace

std::unique_ptr<MountedVolumes> make_linux_mounted_volumes(int proc_dir_fd, int sys_block_fd,
                                                           int dev_dir_fd) {
  return std::make_unique<LinuxMountedVolumes>(proc_dir_fd, sys_block_fd, dev_dir_fd);
}

}  // namespace platform
