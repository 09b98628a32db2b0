// VTLFileMetadata: what the helper records of one file-system item, so that
// the item can later be recognised and its ownership, permissions, protection
// class and extended attributes put back onto a staged copy.
//
// A record is one file metadata dictionary (`dict`):
//   "VTLManifestFileAttributes"          the attribute dictionary of the item
//                                        itself, a link not followed
//                                        (file_attributes.h has the keys)
//   "VTLManifestFileExtendedAttributes"  name to raw bytes; empty when none
//   "VTLManifestFileHash"                SHA-1 of a regular file's contents;
//                                        empty bytes for a directory, a link
//                                        or an unreadable file
//   "VTLManifestSymbolicLinkTargetFile"  a link's target as stored; "" for
//                                        everything else
// filled in that order and ending at the first value that could not be read:
// a record whose extended attributes could not be listed holds only the
// attributes, a link whose target could not be read has no target entry.
// Readers take such truncated records as they are; the getters report a
// missing entry as absent.
//
// A record never changes after construction. Failures are logged through
// VTLLog and reported only by an absent result (or false); nothing throws.
// Threads: records share nothing; the class operations touch only the file
// system and may run on any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/value.h"
#include "manifest/file_roles.h"
#include "platform/item_at.h"

namespace vtl {

class VTLFileMetadata {
 public:
  // --- Class operations -----------------------------------------------------
  // Those that read names or protection classes are given the roles to read
  // them with (file_roles.h).

  // A record of the item at `path` (initWithPath), or nothing.
  static std::optional<VTLFileMetadata> fileMetadatatWithPath(const std::string& path,
                                                              const FileRoles& roles);
  // A record that keeps `dictionary` as it is (initWithDictionary).
  static VTLFileMetadata fileMetaDataWithMetadataDictionary(Dictionary dictionary);
  // The SHA-1 of a regular file; empty bytes for a directory or a file whose
  // contents cannot be read ("Maybe it's an Fernbox file (%@)?"); nothing
  // when nothing is at the path ("File does not exist at %@").
  static std::optional<Data> fileHashWithPath(const std::string& path);
  // The item's attribute dictionary, a link not followed; nothing on error.
  static std::optional<Dictionary> fileAttributesWithPath(const std::string& path,
                                                          const FileRoles& roles);
  // The names of the item's extended attributes, a link not followed.
  static std::optional<std::vector<std::string>> extendedAttributeKeysWithPath(
      const std::string& path, const FileRoles& roles);
  static std::optional<Data> valueForExtendedAttributesKey_forPath(const std::string& name,
                                                                   const std::string& path);
  static std::optional<Dictionary> extendedAttributesWithPath(const std::string& path,
                                                              const FileRoles& roles);
  // A link's target exactly as stored, or nothing.
  static std::optional<std::string> targetFileWithPath(const std::string& path);

  // --- Construction ---------------------------------------------------------

  // initWithPath: nothing when the item's attributes cannot be read or the
  // item vanished while it was read (both logged).
  static std::optional<VTLFileMetadata> initWithPath(const std::string& path,
                                                     const FileRoles& roles);
  // initWithDictionary: keeps `dictionary` unchanged and unchecked.
  explicit VTLFileMetadata(Dictionary dictionary) : dict_(std::move(dictionary)) {}

  const Dictionary& dict() const { return dict_; }

  // --- Getters: the entry when it has the right type, else nullptr ---------

  const Data* getHash() const;
  const Dictionary* getFileAttributes() const;
  const Dictionary* getExtendedAttributes() const;
  const std::string* getFileType() const;
  const std::string* getTargetFile() const;
  // The size of a regular file; 0 for every other type and when unknown.
  std::uint64_t getFileSize() const;

  // The first difference from `other`, in this order:
  //   0 `other` is absent        1 the file types differ
  //   2 a regular file's hash differs          3 a link's target differs
  //   4 owner id, group id or permissions differ
  //   5 the extended attributes differ         6 no difference
  // Dates, sizes, names, identifiers and the protection class never count.
  int compareWith(const VTLFileMetadata* other) const;

  // `attributes` reduced to the keys that can be written back: Busy,
  // CreatorCode, TypeCode, Immutable, CreationDate, ExtensionHidden,
  // GroupOwnerAccountID, GroupOwnerAccountName, ModificationDate,
  // OwnerAccountID, OwnerAccountName, PosixPermissions.
  static Dictionary fileAttributesAllowSet(const Dictionary& attributes);

  // Puts the recorded ownership, permissions, protection class and extended
  // attributes onto the item at `path`, never following a link there.
  //   A link record: owner and group only (lchown, results ignored). Linux
  //     has no lchmod and gives every link the mode 0777, which the kernel
  //     never consults, so a link's recorded permissions are not applied; no
  //     dates, no protection class.
  //   Any other record: the settable attributes (set_attributes in
  //     file_attributes.h: what Linux cannot set, a creation date for one, is
  //     skipped), then the protection class on its own; either failing is
  //     logged and gives false.
  //   Then the extended attributes, in name order, until one cannot be set
  //     (the platform's hidden protection-class name counts as one that
  //     cannot).
  // Result: true when everything was applied. When an extended attribute
  // stops the restore it is false for a link and still true for any other
  // item, whose attributes and class were applied: a partial restore of
  // extended attributes is not reported as a failure.
  bool restoreAttribuesToPath(const std::string& path, const FileRoles& roles) const;
  // The same for an item named relative to an open directory.
  bool restoreAttribuesToPath(const platform::ItemAt& item, const FileRoles& roles) const;
  // The same with no path at all (a restore given no staging root names no
  // item): nothing can be set, so each step fails as the platform's calls do
  // for a path that names nothing, logged as above with the path "(null)"
  // and `why` as the error. A link is still true when it records no
  // extended attributes, since nothing of a link is checked but those.
  bool restoreAttribuesToNoPath(std::string_view why) const;

 private:
  Dictionary dict_;
};

}  // namespace vtl
