#include "service/confinement.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

#include "operations/file_layer.h"

namespace vtl::confinement {
namespace {

// The process's own root directory, in place of a descriptor of the device's.
constexpr int kProcessRoot = AT_FDCWD;

constexpr std::string_view kDataArea = "/private/var";
constexpr std::string_view kLogRoot = "/private/var/logs";
constexpr std::string_view kHelperLogs = "/private/var/logs/vtld";
constexpr std::string_view kRootHome = "/private/var/root";
constexpr std::string_view kFinalPlace = "/private/var/backup";

// Folders of the device's own layout: the client works inside them, never on
// them.
constexpr std::array<std::string_view, 8> kFixedFolders = {
    "/private/var",
    "/private/var/logs",
    "/private/var/mobile",
    "/private/var/mobile/Library",
    "/private/var/mobile/Library/Preferences",
    "/private/var/mobile/Containers",
    "/private/var/mobile/Applications",
    "/private/var/root",
};

// Whether `path` is `folder` or lies inside it.
bool within(std::string_view path, std::string_view folder) {
  return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

bool is_fixed_folder(std::string_view path) {
  for (std::string_view folder : kFixedFolders) {
    if (path == folder) return true;
  }
  return false;
}

// Why `path` (in lexical form) is outside `region`, or nullopt.
std::optional<std::string> outside(std::string_view path, Region region) {
  if (region == Region::kDataArea) {
    if (path == "/private" || within(path, kDataArea)) return std::nullopt;
    return "it is outside the data area";
  }
  if (region == Region::kLogs) {
    // The log rule's own prefix test, made on the lexical form: what passes
    // it stays in the data area, "/private/var/logsX" included.
    if (!path.starts_with(kLogRoot)) return "it is outside the log folders";
    if (within(path, kHelperLogs)) return "it is the helper's own log folder";
    return std::nullopt;
  }
  if (!within(path, kDataArea)) return "it is outside the data area";
  if (within(path, kRootHome)) return "it is in root's home";
  if (within(path, kHelperLogs)) return "it is in the helper's own log folder";
  if (region == Region::kClientData) return std::nullopt;
  if (is_fixed_folder(path)) return "it is one of the device's own folders";
  if (region == Region::kStagingTree && within(path, kFinalPlace)) {
    return "it is the final place itself";
  }
  return std::nullopt;
}

// Whether `path` (in lexical form) certainly passes through no symbolic link
// beneath `root`: resolved in one call that follows none, which meets the
// components in order, as the look below does. A link on the way fails it;
// a component missing or not a folder ends it, as it ends that look; a link
// as the last component is opened itself and seen. False too when the kernel
// cannot tell (no openat2, or a filter refuses it). `root` kProcessRoot is the
// process's own root: the path is resolved from it as it stands, and cannot
// climb out of it, having no ".." and passing no link.
bool passes_no_link(std::string_view path, int root) {
  open_how how{};
  how.flags = O_PATH | O_NOFOLLOW | O_CLOEXEC;
  how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  std::string name(path);
  if (root != kProcessRoot) {
    how.resolve |= RESOLVE_BENEATH;
    name = path.size() > 1 ? name.substr(1) : ".";
  }
  const int fd = static_cast<int>(::syscall(SYS_openat2, root, name.c_str(), &how, sizeof how));
  if (fd < 0) return errno == ENOENT || errno == ENOTDIR;
  struct stat st {};
  const bool plain = ::fstat(fd, &st) == 0 && !S_ISLNK(st.st_mode);
  ::close(fd);
  return plain;
}

// The first component of `path` (in lexical form) that is a symbolic link,
// looked at beneath `root` without following any; nullopt when none is. The
// look stops where the path stops existing.
std::optional<std::string> first_link(std::string_view path, int root) {
  if (passes_no_link(path, root)) return std::nullopt;
  int directory = root == kProcessRoot ? ::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC)
                                       : ::openat(root, ".", O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (directory < 0) return std::nullopt;
  std::optional<std::string> link;
  std::string component;
  for (std::size_t start = 1; start < path.size();) {
    std::size_t end = path.find('/', start);
    if (end == std::string_view::npos) end = path.size();
    component.assign(path.substr(start, end - start));
    struct stat st {};
    if (::fstatat(directory, component.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) break;
    if (S_ISLNK(st.st_mode)) {
      link = std::string(path.substr(0, end));
      break;
    }
    if (end == path.size() || !S_ISDIR(st.st_mode)) break;
    const int next =
        ::openat(directory, component.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (next < 0) break;
    ::close(directory);
    directory = next;
    start = end + 1;
  }
  ::close(directory);
  return link;
}

}  // namespace

std::optional<std::string> lexical_form(std::string_view path) {
  if (!path.starts_with('/')) return std::nullopt;
  std::string form;
  for (std::size_t start = 0; start < path.size();) {
    std::size_t end = path.find('/', start);
    if (end == std::string_view::npos) end = path.size();
    const std::string_view component = path.substr(start, end - start);
    start = end + 1;
    if (component.empty() || component == ".") continue;
    if (component == "..") return std::nullopt;
    form += '/';
    form += component;
  }
  if (form.empty()) return "/";
  return files::data_area_path(std::move(form));
}

std::optional<std::string> refusal(std::string_view path, Region region, int root) {
  if (!path.starts_with('/')) return "it is not an absolute path";
  const std::optional<std::string> form = lexical_form(path);
  if (!form) return "it climbs with \"..\"";
  if (std::optional<std::string> why = outside(*form, region)) return why;
  if (std::optional<std::string> link = first_link(*form, root)) {
    return "it passes through the symbolic link " + *link;
  }
  return std::nullopt;
}

std::optional<std::string> refusal(std::string_view path, Region region) {
  return refusal(path, region, kProcessRoot);
}

std::optional<Region> region_of(std::string_view command, std::string_view parameter) {
  for (const Rule& rule : kRules) {
    if (rule.command == command && rule.parameter == parameter) return rule.region;
  }
  return std::nullopt;
}

}  // namespace vtl::confinement
