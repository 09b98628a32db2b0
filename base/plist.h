// Property lists (XML and binary) to and from Value: XML read and written
// through libplist, binary read by our own reader (binary_plist_reader.h)
// and written through libplist (large manifests: binary_plist_writer.h).
//
// Types: string, boolean, integer, real, date, data, array and dictionary map
// one to one. What a Value cannot hold faithfully is refused, not bent:
//   - integers above INT64_MAX (libplist reads them as unsigned 128-bit);
//   - strings and keys that are not UTF-8 or hold a NUL;
//   - a dictionary that repeats a key (binary form; libplist's XML reader
//     keeps only the last of them);
//   - UID and other nodes without a Value counterpart;
//   - dates that are not finite or lie outside what a Date holds (1677-09-21
//     to 2262-04-11);
//   - containers nested deeper than kMaxPlistDepth, reference cycles, and
//     binary lists whose shared objects would expand far beyond their size.
// Dates are kept to the microsecond in the binary form; the XML form (as
// libplist writes and reads it) keeps whole seconds. Writing clamps dates to
// libplist's range, 1932-12-13 20:45:52 to 2069-01-19 03:14:07 UTC.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/value.h"

namespace vtl {

// Deepest nesting of arrays and dictionaries read. Deeper documents are
// refused before they are turned into Values (which, like libplist's XML
// tree, are built and released recursively). Writing assumes values no
// deeper than this.
inline constexpr std::size_t kMaxPlistDepth = 512;

// Parses an XML or binary property list (binary when it starts with
// "bplist00"). Returns nullopt for anything that is
// not a well-formed property list of the supported types (libplist's UID and
// other exotic nodes are refused).
std::optional<Value> plist_from_bytes(std::span<const std::uint8_t> bytes);
std::string plist_to_xml(const Value& value);
std::vector<std::uint8_t> plist_to_binary(const Value& value);

// Reads a whole file and parses it; nullopt when unreadable or not a plist.
// Refuses files larger than `max_bytes` and anything but a regular file (a
// link to one is followed); a FIFO never blocks the reader.
std::optional<Value> read_plist_file(const std::string& path,
                                     std::size_t max_bytes = std::size_t{64} << 20);

// Replaces `path` whole: writes a temporary file beside it, fsyncs it, renames
// it over `path` and fsyncs the directory, so a reader sees either the old or
// the new file, never half of one. The temporary is created exclusively and
// close-on-exec (nothing already in the directory is opened, so a planted link
// is replaced, never followed), gets `mode` & 07777, and is removed again when
// a step fails. Returns 0 or an errno value.
int write_file_atomically(const std::string& path, std::span<const std::uint8_t> bytes,
                          unsigned mode = 0644);

}  // namespace vtl
