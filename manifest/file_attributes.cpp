#include "manifest/file_attributes.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>

#include "base/unique_fd.h"
#include "manifest/attribute_keys.h"
#include "platform/accounts.h"
#include "platform/platform.h"
#include "platform/protection_classes.h"

namespace vtl::manifest {
namespace {

// fchmodat2 (Linux 6.6) is the one call that changes a mode by path without
// following a link; the C library of this system does not wrap it yet. Its
// number is the same on every architecture.
constexpr long kSysFchmodat2 = 452;

// Opens a regular file or directory for changing its inode flags or mode,
// never through a link, never blocking, and only when it is still the item
// that lstat saw (same device and inode). -1 and errno otherwise.
int open_item(const std::string& path, const struct stat& seen) {
  if (!S_ISREG(seen.st_mode) && !S_ISDIR(seen.st_mode)) {
    errno = EOPNOTSUPP;
    return -1;
  }
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return -1;
  struct stat opened {};
  if (::fstat(fd, &opened) != 0 || opened.st_ino != seen.st_ino || opened.st_dev != seen.st_dev) {
    ::close(fd);
    errno = ESTALE;
    return -1;
  }
  return fd;
}

int set_mode_no_follow(const platform::ItemAt& item, mode_t mode) {
  if (::syscall(kSysFchmodat2, item.directory, item.name, mode, AT_SYMLINK_NOFOLLOW) == 0) return 0;
  if (errno != ENOSYS) return errno;
  // Older kernels: through a descriptor of the item itself.
  const std::string& path = item.path;
  struct stat seen {};
  if (::lstat(path.c_str(), &seen) != 0) return errno;
  UniqueFd fd(open_item(path, seen));
  if (fd.get() < 0) return errno;
  return ::fchmod(fd.get(), mode) == 0 ? 0 : errno;
}

int set_immutable(const std::string& path, bool immutable) {
  struct stat seen {};
  if (::lstat(path.c_str(), &seen) != 0) return errno;
  UniqueFd fd(open_item(path, seen));
  if (fd.get() < 0) return errno;
  int flags = 0;
  if (::ioctl(fd.get(), FS_IOC_GETFLAGS, &flags) != 0) return errno;
  const int wanted = immutable ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
  if (wanted == flags) return 0;
  return ::ioctl(fd.get(), FS_IOC_SETFLAGS, &wanted) == 0 ? 0 : errno;
}

std::optional<bool> current_immutable(const platform::ItemAt& item) {
  struct statx stx {};
  if (::statx(item.directory, item.name, AT_SYMLINK_NOFOLLOW, STATX_TYPE, &stx) != 0) {
    return std::nullopt;
  }
  if ((stx.stx_attributes_mask & STATX_ATTR_IMMUTABLE) == 0) return std::nullopt;
  return (stx.stx_attributes & STATX_ATTR_IMMUTABLE) != 0;
}

// An id from the dictionary: the integer under `id_key`, else the account
// named under `name_key`. nullopt when neither is there; EINVAL in `error`
// for a value of the wrong type or an unknown name.
template <typename Id, typename Lookup>
std::optional<Id> account_id(const Dictionary& attributes, std::string_view id_key,
                             std::string_view name_key, Lookup lookup, int* error) {
  if (auto it = attributes.find(id_key); it != attributes.end()) {
    const std::int64_t* id = it->second.integer();
    if (id == nullptr || *id < 0 || *id > 0xFFFFFFFE) {
      *error = EINVAL;
      return std::nullopt;
    }
    return static_cast<Id>(*id);
  }
  if (auto it = attributes.find(name_key); it != attributes.end()) {
    const std::string* name = it->second.string();
    std::optional<Id> id;
    if (name != nullptr) id = lookup(*name);
    if (!id) *error = EINVAL;
    return id;
  }
  return std::nullopt;
}

}  // namespace

namespace {

void fill(const struct statx& stx, ItemAttributes* out);

}  // namespace

int read_item_attributes(const platform::ItemAt& item, ItemAttributes* out) {
  struct statx stx {};
  if (::statx(item.directory, item.name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT,
              STATX_BASIC_STATS | STATX_BTIME, &stx) != 0) {
    return errno;
  }
  fill(stx, out);
  return 0;
}

int read_item_attributes(int fd, ItemAttributes* out) {
  struct statx stx {};
  if (::statx(fd, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME, &stx) != 0) return errno;
  fill(stx, out);
  return 0;
}

namespace {

void fill(const struct statx& stx, ItemAttributes* out) {
  out->mode = stx.stx_mode;
  out->uid = stx.stx_uid;
  out->gid = stx.stx_gid;
  out->size = stx.stx_size;
  out->links = stx.stx_nlink;
  out->device = makedev(stx.stx_dev_major, stx.stx_dev_minor);
  out->inode = stx.stx_ino;
  out->modification = date_from_unix(stx.stx_mtime.tv_sec, stx.stx_mtime.tv_nsec);
  out->creation.reset();
  if ((stx.stx_mask & STATX_BTIME) != 0)
    out->creation = date_from_unix(stx.stx_btime.tv_sec, stx.stx_btime.tv_nsec);
  out->immutable.reset();
  out->append_only.reset();
  if ((stx.stx_attributes_mask & STATX_ATTR_IMMUTABLE) != 0) {
    out->immutable = (stx.stx_attributes & STATX_ATTR_IMMUTABLE) != 0;
  }
  if ((stx.stx_attributes_mask & STATX_ATTR_APPEND) != 0) {
    out->append_only = (stx.stx_attributes & STATX_ATTR_APPEND) != 0;
  }
}

}  // namespace

Known file_type_of(std::uint32_t mode) {
  switch (mode & S_IFMT) {
    case S_IFREG:
      return Known::kTypeRegular;
    case S_IFDIR:
      return Known::kTypeDirectory;
    case S_IFLNK:
      return Known::kTypeSymbolicLink;
    case S_IFCHR:
      return Known::kTypeCharacterSpecial;
    case S_IFBLK:
      return Known::kTypeBlockSpecial;
    case S_IFSOCK:
      return Known::kTypeSocket;
    case S_IFIFO:
      return Known::kTypeFIFO;
    default:
      return Known::kTypeUnknown;
  }
}

void encode_attributes(const ItemAttributes& a, RecordEncoder& e) {
  std::size_t count = 9;
  for (const bool present :
       {a.owner_name != nullptr, a.group_name != nullptr, a.protection_class.has_value(),
        a.creation.has_value(), a.immutable.has_value(), a.append_only.has_value()}) {
    if (present) ++count;
  }
  e.begin_dictionary(count);
  e.key(Known::kFileType);
  e.string(file_type_of(a.mode));
  e.key(Known::kFileSize);
  e.integer(static_cast<std::int64_t>(a.size));
  e.key(Known::kOwnerAccountID);
  e.integer(a.uid);
  e.key(Known::kGroupOwnerAccountID);
  e.integer(a.gid);
  if (a.owner_name != nullptr) {
    e.key(Known::kOwnerAccountName);
    e.string(std::string_view(*a.owner_name));
  }
  if (a.group_name != nullptr) {
    e.key(Known::kGroupOwnerAccountName);
    e.string(std::string_view(*a.group_name));
  }
  e.key(Known::kPosixPermissions);
  e.integer(a.mode & 07777);
  if (a.protection_class) {
    e.key(Known::kProtectionClass);
    e.string(std::string_view(*a.protection_class));
  }
  if (a.creation) {
    e.key(Known::kCreationDate);
    e.date(*a.creation);
  }
  e.key(Known::kModificationDate);
  e.date(a.modification);
  e.key(Known::kReferenceCount);
  e.integer(static_cast<std::int64_t>(a.links));
  e.key(Known::kSystemNumber);
  e.integer(static_cast<std::int64_t>(a.device));
  e.key(Known::kSystemFileNumber);
  e.integer(static_cast<std::int64_t>(a.inode));
  if (a.immutable) {
    e.key(Known::kImmutable);
    e.boolean(*a.immutable);
  }
  if (a.append_only) {
    e.key(Known::kAppendOnly);
    e.boolean(*a.append_only);
  }
}

const std::string* AccountNames::user(uid_t uid) {
  auto [it, added] = users_.try_emplace(uid);
  if (added && accounts_ != nullptr) it->second = accounts_->user_name(uid);
  return it->second ? &*it->second : nullptr;
}

const std::string* AccountNames::group(gid_t gid) {
  auto [it, added] = groups_.try_emplace(gid);
  if (added && accounts_ != nullptr) it->second = accounts_->group_name(gid);
  return it->second ? &*it->second : nullptr;
}

int set_attributes(const std::string& path, const Dictionary& attributes, const FileRoles& roles) {
  return set_attributes(platform::ItemAt::by_path(path), attributes, WithProtectionClass::kYes,
                        roles);
}

int set_protection_class(const platform::ItemAt& item, const Value* protection_class,
                         const platform::ProtectionClasses* classes) {
  if (protection_class == nullptr) return 0;
  const std::string* name = protection_class->string();
  if (name == nullptr) return EINVAL;
  if (classes == nullptr) return ENOTSUP;
  return classes->set_at(item, *name);
}

namespace {

// Owner, group, mode, date and (when asked) protection class, each when the
// dictionary names it; 0 or the first error.
int apply_attributes(const platform::ItemAt& item, const Dictionary& attributes,
                     WithProtectionClass with_class, const FileRoles& roles) {
  const platform::Accounts* accounts = roles.accounts;
  int error = 0;
  const std::optional<uid_t> uid = account_id<uid_t>(
      attributes, keys::kOwnerAccountID, keys::kOwnerAccountName,
      [&](const std::string& name) {
        return accounts != nullptr ? accounts->user_id(name) : std::nullopt;
      },
      &error);
  if (error != 0) return error;
  const std::optional<gid_t> gid = account_id<gid_t>(
      attributes, keys::kGroupOwnerAccountID, keys::kGroupOwnerAccountName,
      [&](const std::string& name) {
        return accounts != nullptr ? accounts->group_id(name) : std::nullopt;
      },
      &error);
  if (error != 0) return error;
  if (uid || gid) {
    if (::fchownat(item.directory, item.name, uid.value_or(static_cast<uid_t>(-1)),
                   gid.value_or(static_cast<gid_t>(-1)), AT_SYMLINK_NOFOLLOW) != 0) {
      return errno;
    }
  }

  if (auto it = attributes.find(keys::kPosixPermissions); it != attributes.end()) {
    const std::int64_t* mode = it->second.integer();
    if (mode == nullptr) return EINVAL;
    if (int e = set_mode_no_follow(item, static_cast<mode_t>(*mode & 07777)); e != 0) return e;
  }

  if (auto it = attributes.find(keys::kModificationDate); it != attributes.end()) {
    const Date* date = it->second.date();
    if (date == nullptr) return EINVAL;
    const auto ns = date->time_since_epoch().count();
    const std::int64_t seconds =
        ns >= 0 ? ns / 1'000'000'000 : -((-ns + 999'999'999) / 1'000'000'000);
    const timespec times[2] = {
        {0, UTIME_OMIT},
        {static_cast<time_t>(seconds), static_cast<long>(ns - seconds * 1'000'000'000)}};
    if (::utimensat(item.directory, item.name, times, AT_SYMLINK_NOFOLLOW) != 0) return errno;
  }

  if (with_class == WithProtectionClass::kYes) {
    const auto it = attributes.find(keys::kProtectionClass);
    if (int e = set_protection_class(item, it != attributes.end() ? &it->second : nullptr,
                                     roles.protection_classes);
        e != 0) {
      return e;
    }
  }

  return 0;
}

}  // namespace

int set_attributes(const platform::ItemAt& item, const Dictionary& attributes,
                   WithProtectionClass with_class, const FileRoles& roles) {
  const std::string& path = item.path;
  const auto recorded = attributes.find(keys::kImmutable);
  if (recorded == attributes.end()) return apply_attributes(item, attributes, with_class, roles);
  const bool* immutable = recorded->second.boolean();
  if (immutable == nullptr) return EINVAL;

  if (!*immutable) {
    // An immutable item refuses every change, the first included: its flag
    // is looked at, and cleared, only then. (A file system without inode
    // flags is never asked to change one.)
    int e = apply_attributes(item, attributes, with_class, roles);
    if (e != EPERM || !current_immutable(item).value_or(false)) return e;
    if (e = set_immutable(path, false); e != 0) return e;
    return apply_attributes(item, attributes, with_class, roles);
  }
  // Set last, once everything else is; an item already immutable keeps
  // refusing the changes, as it always has.
  const bool already = current_immutable(item).value_or(false);
  if (int e = apply_attributes(item, attributes, with_class, roles); e != 0) return e;
  return already ? 0 : set_immutable(path, true);
}

}  // namespace vtl::manifest
