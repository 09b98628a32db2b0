#include "manifest/record_codec.h"

#include <array>
#include <bit>
#include <cstring>
#include <stdexcept>

#include "manifest/attribute_keys.h"

namespace vtl::manifest {
namespace {

constexpr std::array<std::string_view, static_cast<std::size_t>(Known::kCount)> kKnown = {
    "",
    keys::kFileAttributes,
    keys::kFileExtendedAttributes,
    keys::kFileHash,
    keys::kSymbolicLinkTargetFile,
    keys::kFileType,
    keys::kFileSize,
    keys::kOwnerAccountID,
    keys::kGroupOwnerAccountID,
    keys::kOwnerAccountName,
    keys::kGroupOwnerAccountName,
    keys::kPosixPermissions,
    keys::kProtectionClass,
    keys::kCreationDate,
    keys::kModificationDate,
    keys::kReferenceCount,
    keys::kSystemNumber,
    keys::kSystemFileNumber,
    keys::kImmutable,
    keys::kAppendOnly,
    keys::kTypeRegular,
    keys::kTypeDirectory,
    keys::kTypeSymbolicLink,
    keys::kTypeCharacterSpecial,
    keys::kTypeBlockSpecial,
    keys::kTypeSocket,
    keys::kTypeFIFO,
    keys::kTypeUnknown,
};

using Tag = BlobReader::Tag;

constexpr std::uint64_t zigzag_encode(std::int64_t v) {
  return (static_cast<std::uint64_t>(v) << 1) ^ static_cast<std::uint64_t>(v >> 63);
}

[[noreturn]] void corrupt() { throw std::logic_error("manifest record blob is corrupt"); }

Value decode_value(BlobReader& r, const InternTable* table) {
  auto interned = [&](std::uint64_t id) -> std::string {
    if (table == nullptr) corrupt();
    return std::string(table->at(static_cast<std::uint32_t>(id)));
  };
  switch (r.tag()) {
    case Tag::kString:
      return Value(interned(r.varint()));
    case Tag::kInlineString: {
      const std::uint64_t n = r.varint();
      return Value(std::string(r.bytes(n)));
    }
    case Tag::kFalse:
      return Value(false);
    case Tag::kTrue:
      return Value(true);
    case Tag::kInteger:
      return Value(r.zigzag());
    case Tag::kReal:
      return Value(r.real());
    case Tag::kDate:
      return Value(Date(std::chrono::nanoseconds(r.zigzag())));
    case Tag::kData: {
      const std::string_view bytes = r.bytes(r.varint());
      return Value(Data(bytes.begin(), bytes.end()));
    }
    case Tag::kArray: {
      const std::uint64_t n = r.varint();
      Array array;
      array.reserve(n);
      for (std::uint64_t i = 0; i < n; ++i) array.push_back(decode_value(r, table));
      return Value(std::move(array));
    }
    case Tag::kDictionary: {
      const std::uint64_t n = r.varint();
      Dictionary dictionary;
      for (std::uint64_t i = 0; i < n; ++i) {
        std::string k = interned(r.varint());
        Value item = decode_value(r, table);
        dictionary.insert_or_assign(std::move(k), std::move(item));
      }
      return Value(std::move(dictionary));
    }
    case Tag::kInlineDictionary: {
      const std::uint64_t n = r.varint();
      Dictionary dictionary;
      for (std::uint64_t i = 0; i < n; ++i) {
        std::string k(r.bytes(r.varint()));
        Value item = decode_value(r, table);
        dictionary.insert_or_assign(std::move(k), std::move(item));
      }
      return Value(std::move(dictionary));
    }
  }
  corrupt();
}

}  // namespace

std::string_view known_string(Known k) { return kKnown.at(static_cast<std::size_t>(k)); }

// --- InternTable -------------------------------------------------------------

InternTable::InternTable() {
  index_.reserve(256);
  for (std::string_view s : kKnown) {
    strings_.emplace_back(s);
    index_.emplace(strings_.back(), static_cast<std::uint32_t>(strings_.size() - 1));
  }
}

std::uint32_t InternTable::intern(std::string_view s) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (auto it = index_.find(s); it != index_.end()) return it->second;
  strings_.emplace_back(s);
  const auto id = static_cast<std::uint32_t>(strings_.size() - 1);
  index_.emplace(strings_.back(), id);
  return id;
}

std::string_view InternTable::at(std::uint32_t id) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return strings_.at(id);
}

std::size_t InternTable::size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return strings_.size();
}

// --- RecordEncoder -----------------------------------------------------------

void RecordEncoder::put_bytes(const void* p, std::size_t n) {
  if (n == 0) return;  // empty data may come without a buffer at all
  ensure(n);
  std::memcpy(body_.data() + used_, p, n);
  used_ += n;
}

void RecordEncoder::put_string(std::uint8_t interned_tag, std::uint8_t inline_tag,
                               std::string_view s) {
  if (table_ != nullptr) {
    put_byte(static_cast<std::uint8_t>(interned_tag));
    put_varint(table_->intern(s));
  } else {
    put_byte(static_cast<std::uint8_t>(inline_tag));
    put_varint(s.size());
    put_bytes(s.data(), s.size());
  }
}

void RecordEncoder::begin_dictionary(std::size_t count) {
  ++objects_;
  put_byte(
      static_cast<std::uint8_t>(table_ != nullptr ? Tag::kDictionary : Tag::kInlineDictionary));
  put_varint(count);
}

void RecordEncoder::begin_array(std::size_t count) {
  ++objects_;
  put_byte(static_cast<std::uint8_t>(Tag::kArray));
  put_varint(count);
}

void RecordEncoder::key(Known k) {
  ++objects_;
  if (table_ != nullptr) {
    put_varint(static_cast<std::uint32_t>(k));
  } else {
    const std::string_view s = known_string(k);
    put_varint(s.size());
    put_bytes(s.data(), s.size());
  }
}

void RecordEncoder::key(std::string_view k) {
  ++objects_;
  if (table_ != nullptr) {
    put_varint(table_->intern(k));
  } else {
    put_varint(k.size());
    put_bytes(k.data(), k.size());
  }
}

void RecordEncoder::string(Known k) {
  ++objects_;
  if (table_ != nullptr) {
    put_byte(static_cast<std::uint8_t>(Tag::kString));
    put_varint(static_cast<std::uint32_t>(k));
  } else {
    const std::string_view s = known_string(k);
    put_byte(static_cast<std::uint8_t>(Tag::kInlineString));
    put_varint(s.size());
    put_bytes(s.data(), s.size());
  }
}

void RecordEncoder::string(std::string_view s) {
  ++objects_;
  put_string(static_cast<std::uint8_t>(Tag::kString), static_cast<std::uint8_t>(Tag::kInlineString),
             s);
}

void RecordEncoder::integer(std::int64_t i) {
  ++objects_;
  put_byte(static_cast<std::uint8_t>(Tag::kInteger));
  put_varint(zigzag_encode(i));
}

void RecordEncoder::real(double d) {
  ++objects_;
  put_byte(static_cast<std::uint8_t>(Tag::kReal));
  const auto bits = std::bit_cast<std::uint64_t>(d);
  for (int i = 0; i < 8; ++i) put_byte(static_cast<std::uint8_t>((bits >> (8 * i)) & 0xFF));
}

void RecordEncoder::date(Date d) {
  ++objects_;
  put_byte(static_cast<std::uint8_t>(Tag::kDate));
  put_varint(zigzag_encode(d.time_since_epoch().count()));
}

void RecordEncoder::boolean(bool b) {
  ++objects_;
  put_byte(static_cast<std::uint8_t>(b ? Tag::kTrue : Tag::kFalse));
}

void RecordEncoder::data(std::span<const std::uint8_t> bytes) {
  ++objects_;
  put_byte(static_cast<std::uint8_t>(Tag::kData));
  put_varint(bytes.size());
  put_bytes(bytes.data(), bytes.size());
}

void RecordEncoder::value(const Value& v) {
  struct Visitor {
    RecordEncoder& e;
    void operator()(const std::string& s) const { e.string(std::string_view(s)); }
    void operator()(bool b) const { e.boolean(b); }
    void operator()(std::int64_t i) const { e.integer(i); }
    void operator()(double d) const { e.real(d); }
    void operator()(const Date& d) const { e.date(d); }
    void operator()(const Data& d) const { e.data(d); }
    void operator()(const Array& a) const {
      e.begin_array(a.size());
      for (const Value& item : a) e.value(item);
    }
    void operator()(const Dictionary& d) const {
      e.begin_dictionary(d.size());
      for (const auto& [k, item] : d) {
        e.key(std::string_view(k));
        e.value(item);
      }
    }
  };
  std::visit(Visitor{*this}, v.storage());
}

std::string RecordEncoder::take() {
  std::string blob;
  take(blob);
  return blob;
}

void RecordEncoder::take(std::string& blob) {
  char bound[10];
  std::size_t n = 0;
  std::uint64_t v = objects_;
  while (v >= 0x80) {
    bound[n++] = static_cast<char>((v & 0x7F) | 0x80);
    v >>= 7;
  }
  bound[n++] = static_cast<char>(v);
  blob.clear();
  blob.reserve(n + used_);
  blob.append(bound, n);
  blob.append(body_.data(), used_);
  used_ = 0;
  objects_ = 0;
}

// --- Reading -----------------------------------------------------------------

void BlobReader::corrupt() { ::vtl::manifest::corrupt(); }

double BlobReader::real() {
  if (end_ - p_ < 8) corrupt();
  std::uint64_t bits = 0;
  for (int i = 0; i < 8; ++i) bits |= static_cast<std::uint64_t>(p_[i]) << (8 * i);
  p_ += 8;
  return std::bit_cast<double>(bits);
}

std::uint64_t blob_object_bound(std::string_view blob) {
  std::uint64_t v = 0;
  int shift = 0;
  for (char c : blob) {
    const auto b = static_cast<std::uint8_t>(c);
    v |= static_cast<std::uint64_t>(b & 0x7F) << shift;
    if ((b & 0x80) == 0) return v;
    shift += 7;
  }
  corrupt();
}

Value decode_blob(std::string_view blob, const InternTable* table) {
  BlobReader r(blob);
  return decode_value(r, table);
}

}  // namespace vtl::manifest
