// The attribute dictionary of a file-system item, in the vocabulary of
// attribute_keys.h, read from and applied to Linux items.
//
// Reading (never following a link in the final component):
//   FileType                      from the mode
//   FileSize                      st_size
//   OwnerAccountID, GroupOwnerAccountID          st_uid, st_gid
//   OwnerAccountName, GroupOwnerAccountName      the device's accounts; absent
//                                 when no account has the id
//   PosixPermissions              st_mode & 07777
//   ProtectionClass               the platform's protection classes; absent
//                                 when the item has none
//   CreationDate                  the birth time, where the file system
//                                 records one; absent elsewhere
//   ModificationDate              st_mtime, to the nanosecond
//   ReferenceCount, SystemNumber, SystemFileNumber   st_nlink, st_dev, st_ino
//   Immutable, AppendOnly         the inode flags, where the file system
//                                 reports them
// Busy, ExtensionHidden, CreatorCode and TypeCode do not exist on Linux and
// are never reported (not made up).
//
// Applying (set_attributes) takes the settable subset and, on its own, the
// protection class; see there for what Linux cannot apply.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

#include "base/value.h"
#include "manifest/file_roles.h"
#include "manifest/record_codec.h"
#include "platform/item_at.h"

namespace vtl::manifest {

struct ItemAttributes {
  std::uint32_t mode = 0;  // st_mode, type bits included
  uid_t uid = 0;
  gid_t gid = 0;
  std::uint64_t size = 0;
  std::uint64_t links = 0;
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  Date modification{};
  std::optional<Date> creation;
  std::optional<bool> immutable;
  std::optional<bool> append_only;
  // Filled by the caller, from the accounts and the protection classes.
  const std::string* owner_name = nullptr;  // not owned; null when unknown
  const std::string* group_name = nullptr;
  std::optional<std::string> protection_class;
};

// statx of the item without following a link, or of the open file `fd`.
// Returns 0 or an errno value.
int read_item_attributes(const platform::ItemAt& item, ItemAttributes* out);
int read_item_attributes(int fd, ItemAttributes* out);

// The FileType value for a mode.
Known file_type_of(std::uint32_t mode);

// Writes the attribute dictionary of `a` into `e`.
void encode_attributes(const ItemAttributes& a, RecordEncoder& e);

// User and group names by id, looked up once per id through the platform's
// accounts. One cache per walk (or per thread of one): an account edited
// while a tree is walked shows in the next walk.
class AccountNames {
 public:
  explicit AccountNames(const platform::Accounts* accounts) : accounts_(accounts) {}
  const std::string* user(uid_t uid);
  const std::string* group(gid_t gid);

 private:
  const platform::Accounts* accounts_;
  std::unordered_map<uid_t, std::optional<std::string>> users_;
  std::unordered_map<gid_t, std::optional<std::string>> groups_;
};

// The platform's set-attributes operation: applies what `attributes` holds of
// the settable keys and of ProtectionClass to the item at `path`, never
// following a link in the final component, and leaves everything else alone.
// Order: the immutable flag is cleared first when it is to be cleared (an
// immutable item refuses every other change), then owner and group, the
// permissions (after the owner: a change of owner clears set-id bits), the
// modification date, the protection class, and the immutable flag last when
// it is to be set.
//   OwnerAccountID / GroupOwnerAccountID win over the names; a name alone is
//     looked up in the device's accounts (EINVAL when unknown), so that what
//     compareWith compares (the ids) is what gets applied.
//   PosixPermissions: regular files, directories and other non-links; a link
//     has no mode of its own on Linux (EOPNOTSUPP).
//   CreationDate: Linux cannot set a birth time; skipped.
//   Busy, ExtensionHidden, CreatorCode, TypeCode: no such thing here; skipped.
//   Immutable: changed only when it differs from the item's (needs a regular
//     file or directory and a file system with inode flags).
// A value of the wrong type is EINVAL. Stops at the first failure and returns
// its errno value; 0 when everything was applied.
int set_attributes(const std::string& path, const Dictionary& attributes, const FileRoles& roles);
// The same for an item named relative to an open directory; with kNo, the
// ProtectionClass entry is left out.
enum class WithProtectionClass : bool { kNo, kYes };
int set_attributes(const platform::ItemAt& item, const Dictionary& attributes,
                   WithProtectionClass with_class, const FileRoles& roles);
// Gives the item the class named by `protection_class`: nothing for nullptr,
// EINVAL for a value that is not a string or not a class name, ENOTSUP
// without a place to keep classes. 0 or an errno value.
int set_protection_class(const platform::ItemAt& item, const Value* protection_class,
                         const platform::ProtectionClasses* classes);

}  // namespace vtl::manifest
