#include "manifest/VTLFileMetadata.h"

#include <sys/types.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "base/VTLLog.h"
#include "manifest/attribute_keys.h"
#include "manifest/file_attributes.h"
#include "manifest/record_builder.h"
#include "platform/item_at.h"
#include "platform/platform.h"
#include "platform/protection_classes.h"

namespace vtl {
namespace {

constexpr std::array<std::string_view, 12> kSettableKeys = {
    keys::kBusy,
    keys::kCreatorCode,
    keys::kTypeCode,
    keys::kImmutable,
    keys::kCreationDate,
    keys::kExtensionHidden,
    keys::kGroupOwnerAccountID,
    keys::kGroupOwnerAccountName,
    keys::kModificationDate,
    keys::kOwnerAccountID,
    keys::kOwnerAccountName,
    keys::kPosixPermissions,
};

// The id under `key` for lchown: -1 (leave it) when absent or not an id.
template <typename Id>
Id id_or_keep(const Dictionary* attributes, std::string_view key) {
  if (attributes != nullptr) {
    auto it = attributes->find(key);
    if (it != attributes->end()) {
      const std::int64_t* id = it->second.integer();
      if (id != nullptr && *id >= 0 && *id <= 0xFFFFFFFE) return static_cast<Id>(*id);
    }
  }
  return static_cast<Id>(-1);
}

// The protection-class rule of compareWith: a difference only when this
// record has no class and the other says "None". compareWith walks this
// record's own keys, so it always has one when it asks, and the class never
// makes a difference; the rule is kept as it stands.
bool protection_differs(const Value* mine, const Value* theirs) {
  const std::string* theirs_name = theirs == nullptr ? nullptr : theirs->string();
  return mine == nullptr && theirs_name != nullptr && *theirs_name == platform::kProtectionNone;
}

}  // namespace

// --- Class operations --------------------------------------------------------

std::optional<VTLFileMetadata> VTLFileMetadata::fileMetadatatWithPath(const std::string& path,
                                                                      const FileRoles& roles) {
  return initWithPath(path, roles);
}

VTLFileMetadata VTLFileMetadata::fileMetaDataWithMetadataDictionary(Dictionary dictionary) {
  return VTLFileMetadata(std::move(dictionary));
}

std::optional<Data> VTLFileMetadata::fileHashWithPath(const std::string& path) {
  manifest::FileHasher hasher;
  manifest::LogSink log;
  return manifest::file_hash_with_path(path, hasher, log);
}

std::optional<Dictionary> VTLFileMetadata::fileAttributesWithPath(const std::string& path,
                                                                  const FileRoles& roles) {
  manifest::LogSink log;
  return manifest::file_attributes(path, log, roles);
}

std::optional<std::vector<std::string>> VTLFileMetadata::extendedAttributeKeysWithPath(
    const std::string& path, const FileRoles& roles) {
  manifest::LogSink log;
  return manifest::extended_attribute_keys(path, log, roles.protection_classes);
}

std::optional<Data> VTLFileMetadata::valueForExtendedAttributesKey_forPath(
    const std::string& name, const std::string& path) {
  manifest::LogSink log;
  return manifest::extended_attribute_value(name, path, log);
}

std::optional<Dictionary> VTLFileMetadata::extendedAttributesWithPath(const std::string& path,
                                                                      const FileRoles& roles) {
  manifest::LogSink log;
  return manifest::extended_attributes(path, log, roles.protection_classes);
}

std::optional<std::string> VTLFileMetadata::targetFileWithPath(const std::string& path) {
  manifest::LogSink log;
  return manifest::link_target(path, log);
}

std::optional<VTLFileMetadata> VTLFileMetadata::initWithPath(const std::string& path,
                                                             const FileRoles& roles) {
  manifest::RecordContext context(roles);
  manifest::LogSink log;
  manifest::RecordEncoder encoder(nullptr);
  std::uint64_t size = 0;
  if (!manifest::build_record(platform::ItemAt::by_path(path), context, log, encoder, &size)) {
    return std::nullopt;
  }
  Value record = manifest::decode_blob(encoder.take(), nullptr);
  return VTLFileMetadata(std::move(*record.dictionary()));
}

// --- Getters -----------------------------------------------------------------

const Data* VTLFileMetadata::getHash() const {
  auto it = dict_.find(keys::kFileHash);
  return it == dict_.end() ? nullptr : it->second.data();
}

const Dictionary* VTLFileMetadata::getFileAttributes() const {
  auto it = dict_.find(keys::kFileAttributes);
  return it == dict_.end() ? nullptr : it->second.dictionary();
}

const Dictionary* VTLFileMetadata::getExtendedAttributes() const {
  auto it = dict_.find(keys::kFileExtendedAttributes);
  return it == dict_.end() ? nullptr : it->second.dictionary();
}

const std::string* VTLFileMetadata::getFileType() const {
  const Dictionary* attributes = getFileAttributes();
  if (attributes == nullptr) return nullptr;
  auto it = attributes->find(keys::kFileType);
  return it == attributes->end() ? nullptr : it->second.string();
}

const std::string* VTLFileMetadata::getTargetFile() const {
  auto it = dict_.find(keys::kSymbolicLinkTargetFile);
  return it == dict_.end() ? nullptr : it->second.string();
}

std::uint64_t VTLFileMetadata::getFileSize() const {
  const std::string* type = getFileType();
  if (type == nullptr || *type != keys::kTypeRegular) return 0;
  const Dictionary* attributes = getFileAttributes();
  auto it = attributes->find(keys::kFileSize);
  if (it == attributes->end()) return 0;
  const std::int64_t* size = it->second.integer();
  return size == nullptr ? 0 : static_cast<std::uint64_t>(*size);
}

// --- Comparison --------------------------------------------------------------

int VTLFileMetadata::compareWith(const VTLFileMetadata* other) const {
  if (other == nullptr) return 0;

  const std::string* type = getFileType();
  const std::string* other_type = other->getFileType();
  if (type == nullptr || other_type == nullptr || *type != *other_type) return 1;

  if (*type == keys::kTypeRegular) {
    const Data* hash = getHash();
    const Data* other_hash = other->getHash();
    if (hash == nullptr || other_hash == nullptr || *hash != *other_hash) return 2;
  }
  if (*type == keys::kTypeSymbolicLink) {
    const std::string* target = getTargetFile();
    const std::string* other_target = other->getTargetFile();
    if (target == nullptr || other_target == nullptr || *target != *other_target) return 3;
  }

  if (const Dictionary* attributes = getFileAttributes()) {
    const Dictionary* other_attributes = other->getFileAttributes();
    auto other_value = [&](std::string_view key) -> const Value* {
      if (other_attributes == nullptr) return nullptr;
      auto it = other_attributes->find(key);
      return it == other_attributes->end() ? nullptr : &it->second;
    };
    for (const auto& [key, value] : *attributes) {
      if (key == keys::kGroupOwnerAccountID || key == keys::kOwnerAccountID ||
          key == keys::kPosixPermissions) {
        const Value* theirs = other_value(key);
        if (theirs == nullptr || !(*theirs == value)) return 4;
      } else if (key == keys::kProtectionClass) {
        if (protection_differs(&value, other_value(key))) return 4;
      }
    }
  }

  const Dictionary* xattrs = getExtendedAttributes();
  const Dictionary* other_xattrs = other->getExtendedAttributes();
  if (xattrs == nullptr) return other_xattrs != nullptr ? 5 : 6;
  const std::size_t other_count = other_xattrs == nullptr ? 0 : other_xattrs->size();
  if (xattrs->size() != other_count) return 5;
  for (const auto& [name, value] : *xattrs) {
    auto it = other_xattrs->find(name);
    if (it == other_xattrs->end() || !(it->second == value)) return 5;
  }
  return 6;
}

// --- Restoring ---------------------------------------------------------------

Dictionary VTLFileMetadata::fileAttributesAllowSet(const Dictionary& attributes) {
  Dictionary settable;
  for (std::string_view key : kSettableKeys) {
    auto it = attributes.find(key);
    if (it != attributes.end()) settable.emplace(it->first, it->second);
  }
  return settable;
}

bool VTLFileMetadata::restoreAttribuesToPath(const std::string& path,
                                             const FileRoles& roles) const {
  return restoreAttribuesToPath(platform::ItemAt::by_path(path), roles);
}

bool VTLFileMetadata::restoreAttribuesToNoPath(std::string_view why) const {
  const std::string* no_path = nullptr;  // prints "(null)"
  const std::string* type = getFileType();
  const bool link = type != nullptr && *type == keys::kTypeSymbolicLink;
  if (!link) {
    const Dictionary* attributes = getFileAttributes();
    VTLLog("Could not set file attributs at %@ with error - %@, attributes = %@", no_path, why,
           Value(fileAttributesAllowSet(attributes != nullptr ? *attributes : Dictionary{})));
    return false;
  }
  // A link's owner and mode are set with their results ignored; its
  // extended attributes are the first thing that can fail.
  const Dictionary* xattrs = getExtendedAttributes();
  if (xattrs == nullptr || xattrs->empty()) return true;
  if (xattrs->begin()->second.data() == nullptr) {
    VTLLog("Got non-data value");
  } else {
    VTLLog("Could not set extended attributes on %@", no_path);
  }
  return false;
}

bool VTLFileMetadata::restoreAttribuesToPath(const platform::ItemAt& item,
                                             const FileRoles& roles) const {
  const std::string& path = item.path;
  const Dictionary* attributes = getFileAttributes();
  const std::string* type = getFileType();
  bool result = false;
  if (type != nullptr && *type == keys::kTypeSymbolicLink) {
    // A link that cannot be re-owned keeps its owner; the result does not
    // depend on it. (Kept in a variable: a fortified build will not let the
    // result be cast away.)
    [[maybe_unused]] const int ignored =
        ::fchownat(item.directory, item.name, id_or_keep<uid_t>(attributes, keys::kOwnerAccountID),
                   id_or_keep<gid_t>(attributes, keys::kGroupOwnerAccountID), AT_SYMLINK_NOFOLLOW);
  } else {
    // set_attributes reads nothing but the settable keys and the protection
    // class, so the recorded dictionary applied without its class is its
    // settable subset applied; the subset is made only for a message.
    const Dictionary none;
    const Dictionary& recorded = attributes != nullptr ? *attributes : none;
    if (int error =
            manifest::set_attributes(item, recorded, manifest::WithProtectionClass::kNo, roles);
        error != 0) {
      VTLLog("Could not set file attributs at %@ with error - %@, attributes = %@", path,
             error_description(error), Value(fileAttributesAllowSet(recorded)));
      return false;
    }
    const auto it = recorded.find(keys::kProtectionClass);
    const Value* recorded_class = it != recorded.end() ? &it->second : nullptr;
    if (int error = manifest::set_protection_class(item, recorded_class, roles.protection_classes);
        error != 0) {
      VTLLog("Could not set file protection key at %@ with error - %@, attributes = %@", path,
             error_description(error), recorded_class);
      return false;
    }
    result = true;
  }

  const Dictionary* xattrs = getExtendedAttributes();
  if (xattrs == nullptr) return true;
  const platform::ProtectionClasses* classes = roles.protection_classes;
  for (const auto& [name, value] : *xattrs) {
    // Keys of the program's dictionaries are always strings, so the
    // platform's "Got Non-string key" case cannot arise here.
    const Data* bytes = value.data();
    if (bytes == nullptr) {
      VTLLog("Got non-data value");
      return result;
    }
    const bool reserved = classes != nullptr && classes->hides_attribute(name);
    if (reserved || platform::set_xattr(item, name.c_str(), bytes->data(), bytes->size()) != 0) {
      VTLLog("Could not set extended attributes on %@", path);
      return result;
    }
  }
  return true;
}

}  // namespace vtl
