// A reader of binary property lists ("bplist00") that reads in place.
//
// Why our own: a signed manifest's payload holds the file records of a whole
// container, tens of thousands of them. Read through libplist into a node
// tree and then into Values it took some 9 KiB of memory per file record and
// most of a restore's time; read in place, a restore holds the payload's bytes
// and one record at a time. Everything else that reads a binary property list
// (plist_from_bytes) goes through this reader too, so that one set of rules
// decides what a binary list is.
//
// Document::open checks the whole document once, so that every Object handed
// out afterwards reads without further checks. A document is refused when
//   - its trailer, offset table, an object's offset, a length or a reference
//     is out of range, or an object has a marker this format does not define;
//   - an object has no Value counterpart: null, fill, UID;
//   - an integer does not fit in 64 signed bits (1, 2 and 4-byte integers are
//     unsigned, 8-byte ones two's complement, 16-byte ones only when their
//     value is from 0 to INT64_MAX);
//   - a real is not 4 or 8 bytes; a date is not an 8-byte double, or lies
//     outside what a Date holds (1677-09-21 to 2262-04-11);
//   - a string is not well-formed UTF-8 (single-byte strings) or UTF-16
//     (unpaired surrogates), or holds a NUL;
//   - a dictionary key is not a string, or a dictionary repeats a key;
//   - containers nest deeper than kMaxPlistDepth, refer to themselves, or
//     would expand into more nodes than a document of its size can honestly
//     hold (an object shared by many containers counts once per reference).
// Sets are read as arrays. Dates are kept to the microsecond.
//
// Memory: checking takes 13 bytes per object for the duration of open(); a
// Document and its Objects afterwards are small views of the bytes, which
// must outlive them.
//
// Threads: Documents and Objects are immutable; any thread may read them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "base/value.h"

namespace vtl::bplist {

// Where a document's parts are; shared by the Objects read from it.
struct Layout {
  const std::uint8_t* bytes = nullptr;
  std::uint64_t table = 0;  // offset of the offset table (objects end there)
  std::uint64_t count = 0;  // objects in the offset table
  std::uint8_t offset_size = 0;
  std::uint8_t ref_size = 0;
};

// One object of a checked document.
class Object {
 public:
  enum class Type : std::uint8_t {
    kBoolean,
    kInteger,
    kReal,
    kDate,
    kData,
    kString,
    kArray,
    kDictionary
  };

  Type type() const;

  // Typed access: the value when the object has that type, else nullopt.
  std::optional<bool> boolean() const;
  std::optional<std::int64_t> integer() const;
  std::optional<double> real() const;
  std::optional<Date> date() const;
  // A view into the document's bytes.
  std::optional<std::span<const std::uint8_t>> data() const;
  // A string's text in UTF-8, written over `*out`; false when not a string.
  bool text(std::string* out) const;
  std::optional<std::string> text() const;
  // Whether this is a string whose text is `utf8`.
  bool equals(std::string_view utf8) const;

  // Arrays and dictionaries: their entries (0 for anything else).
  std::size_t size() const;
  // The array's element `i` (i < size()).
  Object element(std::size_t i) const;
  // The dictionary's key and value `i` (i < size()).
  Object key(std::size_t i) const;
  Object value(std::size_t i) const;
  // The value under `key` in a dictionary; nullopt when absent or when this is
  // not a dictionary.
  std::optional<Object> find(std::string_view key) const;

 private:
  friend class Document;
  Object(const Layout& layout, std::uint64_t offset) : layout_(layout), offset_(offset) {}

  std::uint8_t marker() const { return layout_.bytes[offset_]; }
  // The length in the marker (or the integer after it) and where the content
  // starts.
  std::uint64_t length(std::uint64_t* content) const;
  Object referenced(std::uint64_t refs, std::uint64_t index) const;

  Layout layout_;
  std::uint64_t offset_;  // of the object's marker
};

class Document {
 public:
  // The checked document in `bytes`, or nullopt when they are not a binary
  // property list this reader accepts (see above).
  static std::optional<Document> open(std::span<const std::uint8_t> bytes);

  // Objects stay valid as long as the bytes do.
  Object root() const { return Object(layout_, root_); }
  std::span<const std::uint8_t> bytes() const;

 private:
  Document() = default;
  Layout layout_;
  std::uint64_t root_ = 0;  // offset of the top object
  std::size_t size_ = 0;
};

// The whole object as a Value.
Value to_value(const Object& object);

// Whether `bytes` start like a binary property list.
bool is_binary_plist(std::span<const std::uint8_t> bytes);

// A property-list date (seconds since 2001-01-01 UTC) as a Date, to the
// microsecond; nullopt when not finite or outside what a Date holds.
std::optional<Date> date_from_plist_seconds(double seconds);

}  // namespace vtl::bplist
