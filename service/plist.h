// Property lists (XML and binary) to and from Value, through libplist.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "service/value.h"

namespace vtl {

// Parses an XML or binary property list. Returns nullopt for anything that is
// not a well-formed property list of the supported types (libplist's UID and
// other exotic nodes are refused).
std::optional<Value> plist_from_bytes(std::span<const std::uint8_t> bytes);
std::string plist_to_xml(const Value& value);
std::vector<std::uint8_t> plist_to_binary(const Value& value);

// Reads a whole file and parses it; nullopt when unreadable or not a plist.
// Refuses files larger than `max_bytes`.
std::optional<Value> read_plist_file(const std::string& path,
                                     std::size_t max_bytes = std::size_t{64} << 20);

// Replaces `path` whole: writes a temporary file beside it, fsyncs it, renames
// it over `path` and fsyncs the directory, so a reader sees either the old or
// the new file, never half of one. Returns 0 or an errno value.
int write_file_atomically(const std::string& path, std::span<const std::uint8_t> bytes,
                          unsigned mode = 0644);

}  // namespace vtl
