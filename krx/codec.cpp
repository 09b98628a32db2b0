#include "krx/codec.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <string_view>
#include <unordered_set>

#include "base/utf8.h"

namespace krx {
namespace {

constexpr std::uint8_t kMagic[4] = {'K', 'R', 'X', '1'};
constexpr std::size_t kMaxValueSize = kMaxFrameSize - kFrameHeaderSize;
// Below this many entries a dictionary is checked for repeated keys pairwise;
// above it a hash set is cheaper than the quadratic scan.
constexpr std::size_t kPairwiseKeyCheckLimit = 16;

// ---------------------------------------------------------------------------
// Encoding

class Encoder {
 public:
  bool frame(const Value& value) {
    // The header is laid down by assignment: a range insert into the empty
    // buffer trips a false stringop-overflow alarm of g++ 12 at -O3.
    out_.assign(kFrameHeaderSize, 0);
    std::copy(std::begin(kMagic), std::end(kMagic), out_.begin());
    if (!value_at(value, 1)) return false;
    const std::size_t length = out_.size() - kFrameHeaderSize;
    for (std::size_t i = 0; i < 4; ++i) {
      out_[sizeof kMagic + i] = static_cast<std::uint8_t>(length >> (8 * i));
    }
    return true;
  }

  std::vector<std::uint8_t>& bytes() { return out_; }

 private:
  // Checked before anything sizeable is appended, so that a value far beyond
  // the limit fails before it is copied.
  bool fits(std::size_t more) const { return more <= kMaxFrameSize - out_.size(); }

  void put_u32(std::uint32_t v) {
    for (int i = 0; i < 4; ++i) out_.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
  }
  void put_u64(std::uint64_t v) {
    for (int i = 0; i < 8; ++i) out_.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
  }
  bool put_bytes(const std::uint8_t* p, std::size_t n) {
    if (!fits(4 + n)) return false;
    put_u32(static_cast<std::uint32_t>(n));
    out_.insert(out_.end(), p, p + n);
    return true;
  }
  bool put_text(std::string_view s) {
    const auto* p = reinterpret_cast<const std::uint8_t*>(s.data());
    return vtl::is_text(p, s.size()) && put_bytes(p, s.size());
  }

  static bool keys_unique(const Dictionary& dict) {
    if (dict.size() <= kPairwiseKeyCheckLimit) {
      for (std::size_t i = 0; i < dict.size(); ++i) {
        for (std::size_t j = i + 1; j < dict.size(); ++j) {
          if (dict[i].first == dict[j].first) return false;
        }
      }
      return true;
    }
    std::unordered_set<std::string_view> seen;
    seen.reserve(dict.size());
    for (const auto& entry : dict) {
      if (!seen.insert(entry.first).second) return false;
    }
    return true;
  }

  bool value_at(const Value& value, int depth) {
    if (depth > kMaxDepth || !fits(1 + 16)) return false;
    out_.push_back(static_cast<std::uint8_t>(value.type()));
    const auto& s = value.storage();
    switch (value.type()) {
      case Type::Null:
        return true;
      case Type::Bool:
        out_.push_back(std::get<bool>(s) ? 1 : 0);
        return true;
      case Type::Int64:
        put_u64(static_cast<std::uint64_t>(std::get<std::int64_t>(s)));
        return true;
      case Type::UInt64:
        put_u64(std::get<std::uint64_t>(s));
        return true;
      case Type::Double:
        put_u64(std::bit_cast<std::uint64_t>(std::get<double>(s)));
        return true;
      case Type::Date:
        put_u64(static_cast<std::uint64_t>(std::get<Date>(s).nanoseconds_since_1970));
        return true;
      case Type::Data: {
        const auto& data = std::get<Data>(s);
        return put_bytes(data.data(), data.size());
      }
      case Type::String:
        return put_text(std::get<std::string>(s));
      case Type::Uuid: {
        const auto& uuid = std::get<Uuid>(s).bytes;
        out_.insert(out_.end(), uuid.begin(), uuid.end());
        return true;
      }
      case Type::Fd:
        put_u32(std::get<Fd>(s).index);
        return true;
      case Type::Array: {
        const auto& array = std::get<Array>(s);
        if (array.size() > kMaxValueSize) return false;
        put_u32(static_cast<std::uint32_t>(array.size()));
        for (const auto& element : array) {
          if (!value_at(element, depth + 1)) return false;
        }
        return true;
      }
      case Type::Dictionary: {
        const auto& dict = std::get<Dictionary>(s);
        if (dict.size() > kMaxValueSize || !keys_unique(dict)) return false;
        put_u32(static_cast<std::uint32_t>(dict.size()));
        for (const auto& [key, element] : dict) {
          if (!put_text(key) || !value_at(element, depth + 1)) return false;
        }
        return true;
      }
      case Type::Connection:
      case Type::Error:
        break;
    }
    return false;
  }

  std::vector<std::uint8_t> out_;
};

// ---------------------------------------------------------------------------
// Decoding

std::uint32_t load_u32(const std::uint8_t* p) {
  return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
         static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

std::uint64_t load_u64(const std::uint8_t* p) {
  return static_cast<std::uint64_t>(load_u32(p)) | static_cast<std::uint64_t>(load_u32(p + 4))
                                                       << 32;
}

std::string hex_byte(std::uint8_t b) {
  static constexpr char kDigits[] = "0123456789abcdef";
  return {'0', 'x', kDigits[b >> 4], kDigits[b & 0xf]};
}

// Parses one value out of the body of a frame that has fully arrived. Every
// length and count is checked against the bytes that remain before anything is
// reserved for it, so a hostile count cannot make us allocate beyond what the
// frame could hold. Offsets in reasons count from the start of the frame.
class Decoder {
 public:
  Decoder(const std::uint8_t* body, std::size_t size) : begin_(body), p_(body), end_(body + size) {}

  bool value(Value* out, int depth) {
    if (depth > kMaxDepth) {
      return fail("values nest deeper than " + std::to_string(kMaxDepth) + " at offset " +
                  offset());
    }
    if (p_ == end_) return fail("value runs past the frame at offset " + offset());
    const std::uint8_t tag = *p_;
    const std::string at = offset();
    ++p_;
    switch (static_cast<Type>(tag)) {
      case Type::Null:
        *out = Null{};
        return true;
      case Type::Bool: {
        if (!need(1, "bool", at)) return false;
        const std::uint8_t b = *p_++;
        if (b > 1) return fail("bool at offset " + at + " is " + hex_byte(b) + ", not 0 or 1");
        *out = b == 1;
        return true;
      }
      case Type::Int64:
      case Type::UInt64:
      case Type::Double:
      case Type::Date: {
        if (!need(8, type_name(static_cast<Type>(tag)), at)) return false;
        const std::uint64_t v = load_u64(p_);
        p_ += 8;
        if (tag == static_cast<std::uint8_t>(Type::Int64)) {
          *out = static_cast<std::int64_t>(v);
        } else if (tag == static_cast<std::uint8_t>(Type::UInt64)) {
          *out = v;
        } else if (tag == static_cast<std::uint8_t>(Type::Double)) {
          *out = std::bit_cast<double>(v);
        } else {
          *out = Date{static_cast<std::int64_t>(v)};
        }
        return true;
      }
      case Type::Data: {
        std::size_t n = 0;
        if (!length(&n, "data", at)) return false;
        *out = Data(p_, p_ + n);
        p_ += n;
        return true;
      }
      case Type::String: {
        std::string_view s;
        if (!text(&s, "string", at)) return false;
        *out = std::string(s);
        return true;
      }
      case Type::Uuid: {
        if (!need(16, "uuid", at)) return false;
        Uuid uuid;
        std::memcpy(uuid.bytes.data(), p_, uuid.bytes.size());
        p_ += 16;
        *out = uuid;
        return true;
      }
      case Type::Fd:
        if (!need(4, "fd", at)) return false;
        *out = Fd{load_u32(p_)};
        p_ += 4;
        return true;
      case Type::Array:
        return array(out, depth, at);
      case Type::Dictionary:
        return dictionary(out, depth, at);
      case Type::Connection:
      case Type::Error:
        break;
    }
    return fail("unknown tag " + hex_byte(tag) + " at offset " + at);
  }

  std::size_t remaining() const { return static_cast<std::size_t>(end_ - p_); }
  std::string offset() const {
    return std::to_string(kFrameHeaderSize + static_cast<std::size_t>(p_ - begin_));
  }
  std::string& error() { return error_; }

 private:
  bool fail(std::string reason) {
    error_ = std::move(reason);
    return false;
  }

  bool need(std::size_t n, std::string_view what, const std::string& at) {
    if (remaining() >= n) return true;
    return fail(std::string(what) + " at offset " + at + " runs past the frame");
  }

  // A u32 length followed by that many bytes, all inside the frame.
  bool length(std::size_t* n, std::string_view what, const std::string& at) {
    if (!need(4, what, at)) return false;
    *n = load_u32(p_);
    p_ += 4;
    if (*n > remaining()) {
      return fail(std::string(what) + " of " + std::to_string(*n) + " bytes at offset " + at +
                  " runs past the frame");
    }
    return true;
  }

  bool text(std::string_view* s, std::string_view what, const std::string& at) {
    std::size_t n = 0;
    if (!length(&n, what, at)) return false;
    if (!vtl::is_text(p_, n)) {
      return fail(std::string(what) + " at offset " + at +
                  (std::memchr(p_, 0, n) != nullptr ? " holds a NUL" : " is not UTF-8"));
    }
    *s = std::string_view(reinterpret_cast<const char*>(p_), n);
    p_ += n;
    return true;
  }

  // A count of elements that need at least `min_size` bytes each.
  bool count(std::size_t* n, std::size_t min_size, std::string_view what, const std::string& at) {
    if (!need(4, what, at)) return false;
    *n = load_u32(p_);
    p_ += 4;
    if (*n > remaining() / min_size) {
      return fail(std::string(what) + " of " + std::to_string(*n) + " entries at offset " + at +
                  " runs past the frame");
    }
    return true;
  }

  bool array(Value* out, int depth, const std::string& at) {
    std::size_t n = 0;
    if (!count(&n, 1, "array", at)) return false;
    Array array;
    array.reserve(n);
    for (std::size_t i = 0; i < n; ++i) {
      array.emplace_back();
      if (!value(&array.back(), depth + 1)) return false;
    }
    *out = std::move(array);
    return true;
  }

  bool dictionary(Value* out, int depth, const std::string& at) {
    std::size_t n = 0;
    // Each entry is at least a key length and a tag.
    if (!count(&n, 5, "dictionary", at)) return false;
    Dictionary dict;
    dict.reserve(n);
    // Keys are compared as views into the frame, which outlives this call.
    std::unordered_set<std::string_view> seen;
    if (n > kPairwiseKeyCheckLimit) seen.reserve(n);
    for (std::size_t i = 0; i < n; ++i) {
      const std::string key_at = offset();
      std::string_view key;
      if (!text(&key, "key", key_at)) return false;
      bool repeated = false;
      if (n > kPairwiseKeyCheckLimit) {
        repeated = !seen.insert(key).second;
      } else {
        for (const auto& entry : dict) repeated = repeated || entry.first == key;
      }
      if (repeated)
        return fail("dictionary repeats key \"" + std::string(key) + "\" at offset " + key_at);
      dict.emplace_back(std::string(key), Value());
      if (!value(&dict.back().second, depth + 1)) return false;
    }
    *out = std::move(dict);
    return true;
  }

  const std::uint8_t* begin_;
  const std::uint8_t* p_;
  const std::uint8_t* end_;
  std::string error_;
};

}  // namespace

std::vector<std::uint8_t> encode_frame(const Value& value) {
  Encoder encoder;
  if (!encoder.frame(value)) return {};
  return std::move(encoder.bytes());
}

DecodeResult decode_frame(std::span<const std::uint8_t> buffer) {
  const std::size_t seen = std::min(buffer.size(), sizeof kMagic);
  if (seen != 0 && std::memcmp(buffer.data(), kMagic, seen) != 0) return DecodeError{"bad magic"};
  if (buffer.size() < kFrameHeaderSize) return NeedMore{kFrameHeaderSize - buffer.size()};

  const std::size_t length = load_u32(buffer.data() + 4);
  if (length > kMaxValueSize) {
    return DecodeError{"frame of " + std::to_string(kFrameHeaderSize + length) +
                       " bytes exceeds the limit of " + std::to_string(kMaxFrameSize)};
  }
  const std::size_t frame_size = kFrameHeaderSize + length;
  if (buffer.size() < frame_size) return NeedMore{frame_size - buffer.size()};

  Decoder decoder(buffer.data() + kFrameHeaderSize, length);
  Decoded decoded{Value(), frame_size};
  if (!decoder.value(&decoded.value, 1)) return DecodeError{std::move(decoder.error())};
  if (decoder.remaining() != 0) {
    return DecodeError{std::to_string(decoder.remaining()) + " bytes left over at offset " +
                       decoder.offset()};
  }
  return decoded;
}

}  // namespace krx
