#include "manifest/record_builder.h"

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "base/utf8.h"
#include "platform/platform.h"
#include "platform/protection_classes.h"

namespace vtl::manifest {
namespace {

constexpr const char* kGetAttributesFailed = "Get file attributes failed for %@ with error - %@";
constexpr const char* kCannotGetAttribute = "Cannot get file attribute for %@";
constexpr const char* kCannotListXattrs = "Could not extract extended attributes from %@.";
constexpr const char* kListShrank =
    "Could not extract extended attributes from %@. File is expected to have extended attributes.";
constexpr const char* kCannotGetXattr =
    "Could not extract extended file attributes from %@, returned %d";
constexpr const char* kValueShrank =
    "Coud not extract extended file attributes from %@. File is expected to have extended "
    "attributes.";
constexpr const char* kNoAttributeKeys = "Could not get attribute keys from file %@";
constexpr const char* kNoLinkTarget =
    "Could not get destination of symbolic link %@ with error - %@";
constexpr const char* kDoesNotExist = "File does not exist at %@";
constexpr const char* kMaybeFernbox = "Maybe it's an Fernbox file (%@)?";

// Most items have no extended attributes and the rest a few short ones: one
// call into a buffer of this size answers nearly always, and the two-call
// dance (size, then contents) is the fallback when it is too small.
constexpr std::size_t kFirstTry = 4096;

// listxattr without following a link, with the messages of
// extendedAttributeKeysWithPath.
// The item's extended attributes, through its descriptor when the caller
// holds one (no path lookup), else by its name in its directory (or its path)
// without following a link.
ssize_t list_xattrs(const platform::ItemAt& item, int fd, char* buffer, std::size_t size) {
  return fd >= 0 ? ::flistxattr(fd, buffer, size) : platform::list_xattrs(item, buffer, size);
}

ssize_t get_xattr(const platform::ItemAt& item, int fd, const std::string& name, void* buffer,
                  std::size_t size) {
  return fd >= 0 ? ::fgetxattr(fd, name.c_str(), buffer, size)
                 : platform::get_xattr(item, name.c_str(), buffer, size);
}

bool list_names(const platform::ItemAt& item, int fd, LogSink& log,
                const platform::ProtectionClasses* classes, bool* hidden_seen,
                std::vector<char>& buffer, std::vector<std::string>& names) {
  const std::string& path = item.path;
  names.clear();
  if (hidden_seen != nullptr) *hidden_seen = false;
  buffer.resize(kFirstTry);
  ssize_t length = list_xattrs(item, fd, buffer.data(), buffer.size());
  if (length < 0 && errno == ERANGE) {
    const ssize_t size = list_xattrs(item, fd, nullptr, 0);
    if (size < 0) {
      log.log(kCannotListXattrs, path);
      return false;
    }
    if (size == 0) return true;
    buffer.assign(static_cast<std::size_t>(size), 0);
    length = list_xattrs(item, fd, buffer.data(), buffer.size());
    if (length < 1) {
      log.log(kListShrank, path);
      return false;
    }
  } else if (length < 0) {
    log.log(kCannotListXattrs, path);
    return false;
  }
  std::size_t offset = 0;
  while (offset < static_cast<std::size_t>(length)) {
    const char* start = buffer.data() + offset;
    const std::size_t n = ::strnlen(start, static_cast<std::size_t>(length) - offset);
    const std::string_view name(start, n);
    offset += n + 1;
    if (classes != nullptr && classes->hides_attribute(name)) {
      if (hidden_seen != nullptr) *hidden_seen = true;
      continue;
    }
    if (name.empty() || !is_text(name)) continue;
    names.emplace_back(name);
  }
  return true;
}

// getxattr without following a link, with the messages of
// valueForExtendedAttributesKey:forPath:.
std::optional<Data> read_value(const std::string& name, const platform::ItemAt& item, int fd,
                               LogSink& log, std::vector<char>& buffer) {
  const std::string& path = item.path;
  buffer.resize(kFirstTry);
  ssize_t length = get_xattr(item, fd, name, buffer.data(), buffer.size());
  if (length >= 0) {
    const auto* p = reinterpret_cast<const std::uint8_t*>(buffer.data());
    return Data(p, p + length);
  }
  if (errno != ERANGE) {
    log.log(kCannotGetXattr, path, -1);
    return std::nullopt;
  }
  const ssize_t size = get_xattr(item, fd, name, nullptr, 0);
  if (size < 0) {
    log.log(kCannotGetXattr, path, static_cast<int>(size));
    return std::nullopt;
  }
  Data value(static_cast<std::size_t>(size), 0);
  length = get_xattr(item, fd, name, value.data(), value.size());
  if (length < 0) {
    // Kept as the platform has always done it: the zero-filled buffer of the
    // size first reported.
    log.log(kValueShrank, path);
    return value;
  }
  value.resize(static_cast<std::size_t>(length));
  return value;
}

// The hash of the regular file open at `fd` (which this takes and closes),
// with fileHashWithPath's rule for a file that cannot be read.
Data hash_open_file(int fd, const std::string& path, std::uint64_t size, FileHasher& hasher,
                    LogSink& log) {
  std::optional<Data> digest = hasher.hash(fd, path, log, size);
  if (!digest) {
    log.log(kMaybeFernbox, path);
    return Data{};
  }
  return std::move(*digest);
}

}  // namespace

bool build_record(const platform::ItemAt& item, RecordContext& context, LogSink& log,
                  RecordEncoder& e, std::uint64_t* size, bool regular_hint) {
  const std::string& path = item.path;
  ItemAttributes attributes;
  // An item the walk saw as a regular file is opened first and read through
  // its descriptor: one path lookup instead of three, and none at all above
  // its directory when the walk still holds that open. Anything unexpected
  // (it cannot be opened, it is not a regular file now) takes the path route,
  // whose messages are the record's own.
  int fd = -1;
  if (regular_hint) {
    fd = FileHasher::open_at(item.directory, item.name);
    if (fd >= 0 && (read_item_attributes(fd, &attributes) != 0 || !S_ISREG(attributes.mode))) {
      ::close(fd);
      fd = -1;
    }
  }
  if (fd < 0) {
    if (int error = read_item_attributes(item, &attributes); error != 0) {
      log.log(kGetAttributesFailed, path, error_description(error));
      log.log(kCannotGetAttribute, path);
      return false;
    }
  }
  // The listing comes before the protection class only to learn whether the
  // class is there at all (most items have none); neither logs on success, so
  // the messages keep their order.
  bool hidden_seen = false;
  const bool names_ok = list_names(item, fd, log, context.roles.protection_classes, &hidden_seen,
                                   context.list_buffer, context.xattr_names);
  if (hidden_seen || !names_ok) {
    if (const platform::ProtectionClasses* classes = context.roles.protection_classes) {
      attributes.protection_class = classes->get(path);
    }
  }
  attributes.owner_name = context.names.user(attributes.uid);
  attributes.group_name = context.names.group(attributes.gid);

  context.xattrs.clear();
  if (!names_ok) {
    log.log(kNoAttributeKeys, path);
  } else {
    for (std::string& name : context.xattr_names) {
      std::optional<Data> value = read_value(name, item, fd, log, context.value_buffer);
      if (value) context.xattrs.emplace_back(std::move(name), std::move(*value));
    }
  }

  const bool is_link = S_ISLNK(attributes.mode);
  std::optional<std::string> target;
  std::optional<Data> hash;
  if (is_link) {
    target = link_target(item, log);
  } else if (fd >= 0) {
    hash = hash_open_file(fd, path, attributes.size, context.hasher, log);
  } else if (S_ISDIR(attributes.mode)) {
    hash = Data{};  // what fileHashWithPath gives a directory, without asking again
  } else {
    hash = file_hash_with_path(path, context.hasher, log);
    if (!hash) return false;
  }
  *size = attributes.size;

  const std::size_t entries = !names_ok ? 1 : (is_link && !target ? 3 : 4);
  e.begin_dictionary(entries);
  e.key(Known::kFileAttributes);
  encode_attributes(attributes, e);
  if (!names_ok) return true;
  e.key(Known::kFileExtendedAttributes);
  e.begin_dictionary(context.xattrs.size());
  for (const auto& [name, value] : context.xattrs) {
    e.key(std::string_view(name));
    e.data(value);
  }
  e.key(Known::kFileHash);
  // A link has no hash of its own: its record carries empty data.
  e.data(hash ? std::span<const std::uint8_t>(*hash) : std::span<const std::uint8_t>());
  if (is_link && !target) return true;
  e.key(Known::kSymbolicLinkTargetFile);
  if (is_link) {
    e.string(std::string_view(*target));
  } else {
    e.string(Known::kEmpty);
  }
  return true;
}

std::optional<Dictionary> file_attributes(const std::string& path, LogSink& log,
                                          const FileRoles& roles) {
  ItemAttributes attributes;
  if (int error = read_item_attributes(platform::ItemAt::by_path(path), &attributes); error != 0) {
    log.log(kGetAttributesFailed, path, error_description(error));
    return std::nullopt;
  }
  if (const platform::ProtectionClasses* classes = roles.protection_classes) {
    attributes.protection_class = classes->get(path);
  }
  AccountNames names(roles.accounts);
  attributes.owner_name = names.user(attributes.uid);
  attributes.group_name = names.group(attributes.gid);
  RecordEncoder e(nullptr);
  encode_attributes(attributes, e);
  Value decoded = decode_blob(e.take(), nullptr);
  return std::move(*decoded.dictionary());
}

std::optional<std::vector<std::string>> extended_attribute_keys(
    const std::string& path, LogSink& log, const platform::ProtectionClasses* classes,
    bool* hidden_seen, RecordContext* context) {
  std::vector<char> own_buffer;
  std::vector<std::string> names;
  if (!list_names(platform::ItemAt::by_path(path), -1, log, classes, hidden_seen,
                  context != nullptr ? context->list_buffer : own_buffer, names)) {
    return std::nullopt;
  }
  return names;
}

std::optional<Data> extended_attribute_value(const std::string& name, const std::string& path,
                                             LogSink& log) {
  std::vector<char> buffer;
  return read_value(name, platform::ItemAt::by_path(path), -1, log, buffer);
}

std::optional<Dictionary> extended_attributes(const std::string& path, LogSink& log,
                                              const platform::ProtectionClasses* classes) {
  std::optional<std::vector<std::string>> names = extended_attribute_keys(path, log, classes);
  if (!names) {
    log.log(kNoAttributeKeys, path);
    return std::nullopt;
  }
  Dictionary out;
  std::vector<char> buffer;
  for (const std::string& name : *names) {
    std::optional<Data> value = read_value(name, platform::ItemAt::by_path(path), -1, log, buffer);
    if (value) out.insert_or_assign(name, Value(std::move(*value)));
  }
  return out;
}

std::optional<std::string> link_target(const std::string& path, LogSink& log) {
  return link_target(platform::ItemAt::by_path(path), log);
}

std::optional<std::string> link_target(const platform::ItemAt& item, LogSink& log) {
  const std::string& path = item.path;
  std::string target(PATH_MAX, '\0');
  for (;;) {
    const ssize_t n = ::readlinkat(item.directory, item.name, target.data(), target.size());
    if (n < 0) {
      log.log(kNoLinkTarget, path, error_description(errno));
      return std::nullopt;
    }
    if (static_cast<std::size_t>(n) < target.size()) {
      target.resize(static_cast<std::size_t>(n));
      break;
    }
    target.resize(target.size() * 2);
  }
  if (!is_text(target)) {
    log.log(kNoLinkTarget, path, error_description(EILSEQ));
    return std::nullopt;
  }
  return target;
}

std::optional<Data> file_hash_with_path(const std::string& path, FileHasher& hasher, LogSink& log) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) {
    log.log(kDoesNotExist, path);
    return std::nullopt;
  }
  if (S_ISDIR(st.st_mode)) return Data{};
  // The platform goes through a percent-escaped file URL here; a path and the
  // URL made from it name the same file, so the path is used as it is.
  std::optional<Data> digest = hasher.fileHash(path, log);
  if (!digest) {
    log.log(kMaybeFernbox, path);
    return Data{};
  }
  return digest;
}

}  // namespace vtl::manifest
