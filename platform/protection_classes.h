// Protection classes: the data-protection class of a file-system item ("None"
// for no protection, or "A", "B", "C", "D"), kept per item.
//
// Linux has no data-protection classes, so the class is kept beside the item
// in an extended attribute of the trusted namespace,
// "trusted.com.tessal.protection-class", holding the class name:
//   - trusted.* attributes can be read and written only with CAP_SYS_ADMIN, so
//     the unprivileged client cannot forge or strip the class of its own files
//     (a user.* attribute could be set by whoever owns the file);
//   - trusted.* attributes also exist on symbolic links, where user.* do not;
//   - the name is reserved: listings of an item's extended attributes leave it
//     out (hides_attribute), so it never appears among the attributes that a
//     manifest records and restores, and is never copied as one.
// The sim and linux backends share this mechanism: the class travels with the
// item through renames and hard links, as it does on the handset.
//
// Threads: every operation may be called from any thread.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/item_at.h"

namespace platform {

class ProtectionClasses {
 public:
  virtual ~ProtectionClasses() = default;

  // The class of the item at `path`, never following a link in the final
  // component. nullopt when the item has none, when the file system cannot
  // keep one, or when what is kept there is not a class name.
  virtual std::optional<std::string> get(const std::string& path) const = 0;
  // Gives the item the class `protection_class` (one of the five names),
  // never following a link in the final component. Returns 0 or an errno
  // value: EINVAL for any other name, ENOTSUP where the file system cannot
  // keep a class.
  virtual int set_at(const ItemAt& item, std::string_view protection_class) const = 0;
  int set(const std::string& path, std::string_view protection_class) const {
    return set_at(ItemAt::by_path(path), protection_class);
  }
  // Whether `name`, as listxattr reports it, is this backend's own storage and
  // must be left out of listings of extended attributes.
  virtual bool hides_attribute(std::string_view name) const = 0;
};

// The one backend, for the simulated device and the Linux host alike.
std::unique_ptr<ProtectionClasses> make_xattr_protection_classes();

// The names a protection class can have.
inline constexpr std::string_view kProtectionNone = "None";
bool is_protection_class_name(std::string_view name);

}  // namespace platform
