// Mounted volumes of a Linux host: the mount table from mountinfo (btrfs, the
// host's online-resizable journaled file system, reported as "jrf"), and a
// partition's GPT unique GUID (the kernel's PARTUUID) as its disk's "UUID".
#include <fcntl.h>
#include <unistd.h>

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
  LinuxMountedVolumes(int proc_dir_fd, int sys_block_fd)
      : proc_fd_(proc_dir_fd), sys_block_fd_(sys_block_fd) {}

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
    return properties;
  }

 private:
  int proc_fd_;
  int sys_block_fd_;
};

}  // namespace

std::unique_ptr<MountedVolumes> make_linux_mounted_volumes(int proc_dir_fd, int sys_block_fd) {
  return std::make_unique<LinuxMountedVolumes>(proc_dir_fd, sys_block_fd);
}

}  // namespace platform
