// Building the file metadata record of one item: the work behind
// VTLFileMetadata's initWithPath and its class operations, shared by single
// records and by the manifest walk, which builds records on several threads.
//
// Every message goes through a LogSink, so that a walk can log each record's
// messages in walk order.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/value.h"
#include "manifest/file_attributes.h"
#include "manifest/file_hash.h"
#include "manifest/log_sink.h"
#include "manifest/record_codec.h"
#include "platform/item_at.h"

namespace vtl::manifest {

// What one thread keeps between records: its hasher, its account names and
// scratch space, so that building a record allocates next to nothing.
struct RecordContext {
  explicit RecordContext(const FileRoles& file_roles)
      : roles(file_roles), names(file_roles.accounts) {}

  FileRoles roles;
  FileHasher hasher;
  AccountNames names;
  // Scratch, reused from record to record.
  std::vector<char> list_buffer;
  std::vector<char> value_buffer;
  std::vector<std::string> xattr_names;
  std::vector<std::pair<std::string, Data>> xattrs;
};

// initWithPath: writes the record of `item` into `e` (the attribute
// dictionary, then the extended attributes, the hash and the link target,
// stopping at the first that is missing) and its size into `size`. False,
// with the reason logged, when there is no record (the item cannot be read,
// or vanished); `e` is then to be discarded. `regular_hint`: a walk saw a
// regular file here, so it is opened first (through `item`'s directory when
// it names one) and read through its descriptor; the record is the same
// either way.
bool build_record(const platform::ItemAt& item, RecordContext& context, LogSink& log,
                  RecordEncoder& e, std::uint64_t* size, bool regular_hint = false);

// The class operations of VTLFileMetadata, with their messages.

// fileAttributesWithPath: the attribute dictionary, or nothing.
std::optional<Dictionary> file_attributes(const std::string& path, LogSink& log,
                                          const FileRoles& roles);
// extendedAttributeKeysWithPath: the names, in the order listxattr gives
// them, without the platform's hidden names and without names that are not
// UTF-8 (a manifest cannot hold them, so they could never be restored).
// `hidden_seen`, when given, tells whether a hidden name was listed.
std::optional<std::vector<std::string>> extended_attribute_keys(
    const std::string& path, LogSink& log, const platform::ProtectionClasses* classes,
    bool* hidden_seen = nullptr, RecordContext* context = nullptr);
// valueForExtendedAttributesKey:forPath:
std::optional<Data> extended_attribute_value(const std::string& name, const std::string& path,
                                             LogSink& log);
// extendedAttributesWithPath: name to value; a name whose value cannot be read
// at all is left out.
std::optional<Dictionary> extended_attributes(const std::string& path, LogSink& log,
                                              const platform::ProtectionClasses* classes);
// targetFileWithPath: the link's target exactly as stored (a target that is
// not UTF-8 counts as unreadable).
std::optional<std::string> link_target(const std::string& path, LogSink& log);
// The same for an item in its directory.
std::optional<std::string> link_target(const platform::ItemAt& item, LogSink& log);
// fileHashWithPath: the digest, empty bytes for a directory or an unreadable
// file, nothing when nothing is at the path.
std::optional<Data> file_hash_with_path(const std::string& path, FileHasher& hasher, LogSink& log);

}  // namespace vtl::manifest
