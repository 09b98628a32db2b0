// The compact form a manifest keeps its records in.
//
// A device manifest holds hundreds of thousands of records of some twenty
// entries each. As a tree of Values a record costs about 2.5 KiB (one map node
// and one or two heap strings per entry); in this form it costs about 100
// bytes: every dictionary key and every string value is interned once per
// manifest and referred to by a small number, integers and dates are varints,
// and the record is one contiguous byte string ("blob").
//
// Blob layout: varint object bound (see below), then one encoded value:
//   0x00 string     varint id in the manifest's InternTable
//   0x01 false      0x02 true
//   0x03 integer    zig-zag varint
//   0x04 real       8 bytes, little-endian IEEE 754
//   0x05 date       zig-zag varint, nanoseconds since 1970-01-01 UTC
//   0x06 data       varint length, bytes
//   0x07 array      varint count, count values
//   0x08 dictionary varint count, count times (varint key id, value)
//   0x09 string     varint length, UTF-8 bytes (inline: records kept on their
//                   own, outside a manifest, have no intern table)
//   0x0A dictionary varint count, count times (varint length, key bytes, value)
//                   (inline keys, likewise)
// The object bound counts one for every value and one for every dictionary
// key: never fewer than the objects the record becomes in a binary property
// list, so that the writer can size its object references before it starts.
//
// Blobs are made only by RecordEncoder and read only here; they never come
// from outside the process.
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>

#include "base/value.h"

namespace vtl::manifest {

// Strings every manifest holds, with fixed ids, so that records can name them
// without a look-up.
enum class Known : std::uint32_t {
  kEmpty,
  // record keys
  kFileAttributes,
  kFileExtendedAttributes,
  kFileHash,
  kSymbolicLinkTargetFile,
  // attribute keys
  kFileType,
  kFileSize,
  kOwnerAccountID,
  kGroupOwnerAccountID,
  kOwnerAccountName,
  kGroupOwnerAccountName,
  kPosixPermissions,
  kProtectionClass,
  kCreationDate,
  kModificationDate,
  kReferenceCount,
  kSystemNumber,
  kSystemFileNumber,
  kImmutable,
  kAppendOnly,
  // file types
  kTypeRegular,
  kTypeDirectory,
  kTypeSymbolicLink,
  kTypeCharacterSpecial,
  kTypeBlockSpecial,
  kTypeSocket,
  kTypeFIFO,
  kTypeUnknown,
  kCount,
};

std::string_view known_string(Known k);

// Strings to small numbers, one table per manifest. Ids are dense, from 0, in
// the order strings were first seen; the Known strings come first.
// Threads: intern() and at() may be called from any thread.
class InternTable {
 public:
  InternTable();
  InternTable(const InternTable&) = delete;
  InternTable& operator=(const InternTable&) = delete;

  std::uint32_t intern(std::string_view s);
  std::string_view at(std::uint32_t id) const;
  std::size_t size() const;

 private:
  mutable std::mutex mutex_;
  std::deque<std::string> strings_;  // a deque never moves its elements: index_ views stay valid
  std::unordered_map<std::string_view, std::uint32_t> index_;
};

// Builds one blob. With an InternTable strings are interned; without one they
// are written inline. Containers are announced with their entry count.
class RecordEncoder {
 public:
  explicit RecordEncoder(InternTable* table) : table_(table) {}

  void begin_dictionary(std::size_t count);
  void begin_array(std::size_t count);
  void key(Known k);
  void key(std::string_view k);
  void string(Known k);
  void string(std::string_view s);
  void integer(std::int64_t i);
  void real(double d);
  void date(Date d);
  void boolean(bool b);
  void data(std::span<const std::uint8_t> bytes);
  // Any Value, recursively.
  void value(const Value& v);

  // The finished blob; the encoder is empty again afterwards.
  std::string take();
  // The same into `blob`, whose room is reused.
  void take(std::string& blob);

 private:
  // Room for `n` more bytes at body_end().
  void ensure(std::size_t n) {
    if (body_.size() - used_ < n) body_.resize(std::max(body_.size() * 2, used_ + n + 256));
  }
  void put_byte(std::uint8_t b) {
    ensure(1);
    body_[used_++] = static_cast<char>(b);
  }
  void put_varint(std::uint64_t v) {
    ensure(10);
    while (v >= 0x80) {
      body_[used_++] = static_cast<char>((v & 0x7F) | 0x80);
      v >>= 7;
    }
    body_[used_++] = static_cast<char>(v);
  }
  void put_bytes(const void* p, std::size_t n);
  void put_string(std::uint8_t interned_tag, std::uint8_t inline_tag, std::string_view s);

  InternTable* table_;
  std::string body_;      // grown, never shrunk: reused from blob to blob
  std::size_t used_ = 0;  // bytes of body_ in use
  std::uint64_t objects_ = 0;
};

// Reading blobs back.
std::uint64_t blob_object_bound(std::string_view blob);
// The record as a Value. `table` may be null only for blobs written without one.
Value decode_blob(std::string_view blob, const InternTable* table);

// Cursor over the encoded value of a blob, for readers that walk it without
// building Values (the property-list writer).
class BlobReader {
 public:
  enum class Tag : std::uint8_t {
    kString = 0x00,
    kFalse = 0x01,
    kTrue = 0x02,
    kInteger = 0x03,
    kReal = 0x04,
    kDate = 0x05,
    kData = 0x06,
    kArray = 0x07,
    kDictionary = 0x08,
    kInlineString = 0x09,
    kInlineDictionary = 0x0A,
  };

  // Positioned at the value, after the object bound.
  explicit BlobReader(std::string_view blob)
      : p_(reinterpret_cast<const std::uint8_t*>(blob.data())), end_(p_ + blob.size()) {
    static_cast<void>(varint());  // the object bound
  }

  Tag tag() {
    if (p_ >= end_ || *p_ > static_cast<std::uint8_t>(Tag::kInlineDictionary)) corrupt();
    return static_cast<Tag>(*p_++);
  }
  std::uint64_t varint() {
    std::uint64_t v = 0;
    for (int shift = 0; shift < 64; shift += 7) {
      if (p_ >= end_) corrupt();
      const std::uint8_t b = *p_++;
      v |= static_cast<std::uint64_t>(b & 0x7F) << shift;
      if ((b & 0x80) == 0) return v;
    }
    corrupt();
  }
  std::int64_t zigzag() {
    const std::uint64_t v = varint();
    return static_cast<std::int64_t>(v >> 1) ^ -static_cast<std::int64_t>(v & 1);
  }
  double real();
  std::string_view bytes(std::uint64_t length) {
    if (static_cast<std::uint64_t>(end_ - p_) < length) corrupt();
    const std::string_view out(reinterpret_cast<const char*>(p_), length);
    p_ += length;
    return out;
  }

 private:
  // Blobs are made in this process by RecordEncoder; a blob that does not
  // parse is a programming error, never input.
  [[noreturn]] static void corrupt();

  const std::uint8_t* p_;
  const std::uint8_t* end_;
};

}  // namespace vtl::manifest
