#include "base/binary_plist_reader.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <vector>

#include "base/big_endian.h"
#include "base/plist.h"
#include "base/utf8.h"

namespace vtl::bplist {
namespace {

constexpr std::string_view kMagic = "bplist00";
constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kTrailerSize = 32;

// Seconds from 1970-01-01 to 2001-01-01, the epoch of property-list dates.
constexpr std::int64_t kEpochOffset = 978307200;

// Markers: the high nibble is the type, the low one a size or a length.
enum : std::uint8_t {
  kFalse = 0x08,
  kTrue = 0x09,
  kIntType = 0x1,
  kRealType = 0x2,
  kDate = 0x33,
  kDataType = 0x4,
  kAsciiType = 0x5,
  kUtf16Type = 0x6,
  kArrayType = 0xA,
  kSetType = 0xC,
  kDictType = 0xD,
};

// A big-endian unsigned integer of `n` bytes. Every reference and offset is
// read through here: the widths writers use are loaded whole, others byte by
// byte.
std::uint64_t big_endian(const std::uint8_t* p, std::size_t n) {
  switch (n) {
    case 1:
      return p[0];
    case 2:
      return load_big_endian<2>(p);
    case 4:
      return load_big_endian<4>(p);
    case 8:
      return load_big_endian<8>(p);
    default: {
      std::uint64_t v = 0;
      for (std::size_t i = 0; i < n; ++i) v = (v << 8) | p[i];
      return v;
    }
  }
}

bool is_container_marker(std::uint8_t marker) {
  const unsigned type = marker >> 4;
  return type == kArrayType || type == kSetType || type == kDictType;
}

bool is_string_marker(std::uint8_t marker) {
  const unsigned type = marker >> 4;
  return type == kAsciiType || type == kUtf16Type;
}

// UTF-16BE to UTF-8, appended to `out`. False for an unpaired surrogate or a
// NUL, which no Value string holds.
bool append_utf16(const std::uint8_t* p, std::uint64_t units, std::string* out) {
  for (std::uint64_t i = 0; i < units; ++i) {
    std::uint32_t c = (std::uint32_t{p[2 * i]} << 8) | p[2 * i + 1];
    if (c == 0) return false;
    if (c >= 0xDC00 && c <= 0xDFFF) return false;
    if (c >= 0xD800 && c <= 0xDBFF) {
      if (i + 1 == units) return false;
      const std::uint32_t low = (std::uint32_t{p[2 * i + 2]} << 8) | p[2 * i + 3];
      if (low < 0xDC00 || low > 0xDFFF) return false;
      c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
      ++i;
    }
    if (c < 0x80) {
      out->push_back(static_cast<char>(c));
    } else if (c < 0x800) {
      out->push_back(static_cast<char>(0xC0 | (c >> 6)));
      out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
      out->push_back(static_cast<char>(0xE0 | (c >> 12)));
      out->push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
      out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
      out->push_back(static_cast<char>(0xF0 | (c >> 18)));
      out->push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
      out->push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
      out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
  }
  return true;
}

// Property-list writers share leaf objects (strings, numbers) between
// references but write every array and dictionary out, so a binary list holds
// at most one node per reference, i.e. per byte. Twice that, plus room for
// tiny documents, is generous for real lists and stops expansion bombs.
std::uint64_t max_expanded_nodes(std::size_t size) { return 2 * std::uint64_t{size} + 4096; }

// The check of a whole document: every object reachable from the top one,
// each once, without recursion.
class Checker {
 public:
  Checker(const Layout& layout, std::size_t size)
      : l_(layout),
        state_(layout.count, kUnseen),
        depth_(layout.count, 0),
        nodes_(layout.count, 0),
        node_limit_(max_expanded_nodes(size)) {}

  bool check(std::uint64_t root) {
    std::uint64_t offset = 0;
    if (!offset_of(root, &offset)) return false;
    if (!is_container_marker(l_.bytes[offset])) return check_leaf(offset, false);
    std::vector<Frame> stack;
    if (!open_container(root, offset, &stack)) return false;
    while (!stack.empty()) {
      Frame& frame = stack.back();
      if (frame.next == frame.ref_count) {
        const Frame done = frame;
        stack.pop_back();
        if (done.key_count > 1 && !keys_distinct(done)) return false;
        depth_[done.object] = done.deepest_child + 1;
        nodes_[done.object] = done.nodes;
        state_[done.object] = kDone;
        if (done.nodes > node_limit_) return false;
        if (!stack.empty()) add_child(&stack.back(), done.object);
        continue;
      }
      const bool is_key = frame.next < frame.key_count;
      const std::uint64_t child =
          big_endian(l_.bytes + frame.refs + frame.next * l_.ref_size, l_.ref_size);
      ++frame.next;
      if (child >= l_.count || state_[child] == kOpen) return false;  // bad ref or cycle
      if (!offset_of(child, &offset)) return false;
      const std::uint8_t marker = l_.bytes[offset];
      if (is_key && !is_string_marker(marker)) return false;
      if (state_[child] == kDone) {
        add_child(&frame, child);
        continue;
      }
      if (is_container_marker(marker)) {
        if (!open_container(child, offset, &stack)) return false;  // `frame` is invalid now
        continue;
      }
      if (!check_leaf(offset, is_key)) return false;
      state_[child] = kDone;
      nodes_[child] = 1;
      add_child(&frame, child);
    }
    return true;
  }

 private:
  static constexpr std::uint8_t kUnseen = 0, kOpen = 1, kDone = 2;

  struct Frame {
    std::uint64_t object;
    std::uint64_t refs;       // offset of the first reference
    std::uint64_t ref_count;  // references in all (a dictionary's keys, then values)
    std::uint64_t key_count;  // the first key_count references are keys
    std::uint64_t next = 0;
    std::uint32_t deepest_child = 0;
    std::uint64_t nodes = 1;
  };

  bool offset_of(std::uint64_t object, std::uint64_t* offset) const {
    *offset = big_endian(l_.bytes + l_.table + object * l_.offset_size, l_.offset_size);
    return *offset >= kHeaderSize && *offset < l_.table;
  }

  // The length in the marker, or 0xF and an integer object after it.
  bool read_length(std::uint64_t at, std::uint64_t* length, std::uint64_t* content) const {
    *length = l_.bytes[at] & 0x0F;
    *content = at + 1;
    if (*length != 0x0F) return true;
    if (*content >= l_.table) return false;
    const std::uint8_t int_marker = l_.bytes[*content];
    if ((int_marker >> 4) != kIntType || (int_marker & 0x0F) > 3) return false;
    const std::size_t width = std::size_t{1} << (int_marker & 0x0F);
    if (l_.table - *content - 1 < width) return false;
    *length = big_endian(l_.bytes + *content + 1, width);
    *content += 1 + width;
    return true;
  }

  bool check_leaf(std::uint64_t at, bool is_key) const {
    const std::uint8_t marker = l_.bytes[at];
    const unsigned type = marker >> 4;
    const unsigned nibble = marker & 0x0F;
    const std::uint64_t room = l_.table - at - 1;
    switch (type) {
      case 0x0:
        return !is_key && (marker == kFalse || marker == kTrue);
      case kIntType: {
        if (nibble > 4 || room < (std::uint64_t{1} << nibble)) return false;
        // 16 bytes: only values a 64-bit signed integer holds as they are.
        return nibble != 4 || (big_endian(l_.bytes + at + 1, 8) == 0 && l_.bytes[at + 9] < 0x80);
      }
      case kRealType:
        return (nibble == 2 || nibble == 3) && room >= (std::uint64_t{1} << nibble);
      case 0x3: {
        if (marker != kDate || room < 8) return false;
        return date_from_plist_seconds(std::bit_cast<double>(big_endian(l_.bytes + at + 1, 8)))
            .has_value();
      }
      case kDataType: {
        std::uint64_t length = 0;
        std::uint64_t content = 0;
        return read_length(at, &length, &content) && length <= l_.table - content;
      }
      case kAsciiType: {
        std::uint64_t length = 0;
        std::uint64_t content = 0;
        return read_length(at, &length, &content) && length <= l_.table - content &&
               vtl::is_text(l_.bytes + content, length);
      }
      case kUtf16Type: {
        std::uint64_t length = 0;
        std::uint64_t content = 0;
        if (!read_length(at, &length, &content) || length > (l_.table - content) / 2) return false;
        std::string scratch;
        return append_utf16(l_.bytes + content, length, &scratch);
      }
      default:  // UID, and markers the format does not define
        return false;
    }
  }

  bool open_container(std::uint64_t object, std::uint64_t at, std::vector<Frame>* stack) {
    if (stack->size() >= kMaxPlistDepth) return false;
    std::uint64_t count = 0;
    std::uint64_t refs = 0;
    if (!read_length(at, &count, &refs)) return false;
    const bool dictionary = (l_.bytes[at] >> 4) == kDictType;
    const std::uint64_t per_entry = dictionary ? 2 : 1;
    if (count > (l_.table - refs) / l_.ref_size / per_entry) return false;
    state_[object] = kOpen;
    stack->push_back(Frame{object, refs, count * per_entry, dictionary ? count : 0});
    return true;
  }

  void add_child(Frame* parent, std::uint64_t child) const {
    parent->deepest_child = std::max(parent->deepest_child, depth_[child]);
    parent->nodes = std::min(parent->nodes + nodes_[child], node_limit_ + 1);
  }

  // Whether a dictionary's keys (all checked strings by now) differ as text.
  bool keys_distinct(const Frame& dict) {
    keys_.clear();
    utf16_keys_.clear();
    utf16_keys_.reserve(dict.key_count);  // views below point into it: no reallocation
    for (std::uint64_t i = 0; i < dict.key_count; ++i) {
      const std::uint64_t key = big_endian(l_.bytes + dict.refs + i * l_.ref_size, l_.ref_size);
      std::uint64_t at = 0;
      static_cast<void>(offset_of(key, &at));
      std::uint64_t length = 0;
      std::uint64_t content = 0;
      static_cast<void>(read_length(at, &length, &content));
      if ((l_.bytes[at] >> 4) == kAsciiType) {
        keys_.emplace_back(reinterpret_cast<const char*>(l_.bytes + content), length);
      } else {
        std::string& text = utf16_keys_.emplace_back();
        static_cast<void>(append_utf16(l_.bytes + content, length, &text));
        keys_.emplace_back(text);
      }
    }
    // Writers usually put the keys in order: then one pass shows them
    // distinct, where sorting a dictionary of many thousand records would
    // compare each key with a dozen others.
    if (std::adjacent_find(keys_.begin(), keys_.end(), std::greater_equal<>()) == keys_.end()) {
      return true;
    }
    std::sort(keys_.begin(), keys_.end());
    return std::adjacent_find(keys_.begin(), keys_.end()) == keys_.end();
  }

  const Layout& l_;
  std::vector<std::uint8_t> state_;
  std::vector<std::uint32_t> depth_;
  std::vector<std::uint64_t> nodes_;
  const std::uint64_t node_limit_;
  // Scratch for keys_distinct, reused from dictionary to dictionary.
  std::vector<std::string_view> keys_;
  std::vector<std::string> utf16_keys_;
};

}  // namespace

bool is_binary_plist(std::span<const std::uint8_t> bytes) {
  return bytes.size() >= kMagic.size() &&
         std::memcmp(bytes.data(), kMagic.data(), kMagic.size()) == 0;
}

std::optional<Date> date_from_plist_seconds(double seconds) {
  // Kept to the microsecond: a double of seconds since 2001 holds no more for
  // present-day dates. Refused when outside what a Date can hold (nanoseconds
  // since 1970 in 64 bits).
  const double micros = std::round(seconds * 1e6);
  if (!std::isfinite(micros) || std::fabs(micros) > 1e16) return std::nullopt;
  const std::int64_t since_1970 = static_cast<std::int64_t>(micros) + kEpochOffset * 1'000'000;
  constexpr std::int64_t kLimit = std::numeric_limits<std::int64_t>::max() / 1000;
  if (since_1970 > kLimit || since_1970 < -kLimit) return std::nullopt;
  return Date(std::chrono::microseconds(since_1970));
}

// --- Document ----------------------------------------------------------------

std::optional<Document> Document::open(std::span<const std::uint8_t> bytes) {
  if (!is_binary_plist(bytes) || bytes.size() < kHeaderSize + 1 + kTrailerSize) {
    return std::nullopt;
  }
  const std::uint8_t* trailer = bytes.data() + bytes.size() - kTrailerSize;
  Document d;
  d.size_ = bytes.size();
  Layout& l = d.layout_;
  l.bytes = bytes.data();
  l.offset_size = trailer[6];
  l.ref_size = trailer[7];
  const std::uint64_t count = big_endian(trailer + 8, 8);
  const std::uint64_t root = big_endian(trailer + 16, 8);
  l.table = big_endian(trailer + 24, 8);
  const std::uint64_t table_end = bytes.size() - kTrailerSize;
  if (l.offset_size < 1 || l.offset_size > 8 || l.ref_size < 1 || l.ref_size > 8) {
    return std::nullopt;
  }
  if (l.table <= kHeaderSize || l.table >= table_end) return std::nullopt;
  // Every object takes at least one byte between the header and the table.
  if (count == 0 || count > (table_end - l.table) / l.offset_size ||
      count > l.table - kHeaderSize || root >= count) {
    return std::nullopt;
  }
  l.count = count;
  if (!Checker(l, bytes.size()).check(root)) return std::nullopt;
  d.root_ = big_endian(l.bytes + l.table + root * l.offset_size, l.offset_size);
  return d;
}

std::span<const std::uint8_t> Document::bytes() const { return {layout_.bytes, size_}; }

// --- Object ------------------------------------------------------------------
// Everything below reads a checked document: lengths, offsets and references
// are known to be in range.

std::uint64_t Object::length(std::uint64_t* content) const {
  std::uint64_t n = marker() & 0x0F;
  *content = offset_ + 1;
  if (n == 0x0F) {
    const std::size_t width = std::size_t{1} << (layout_.bytes[*content] & 0x0F);
    n = big_endian(layout_.bytes + *content + 1, width);
    *content += 1 + width;
  }
  return n;
}

Object Object::referenced(std::uint64_t refs, std::uint64_t index) const {
  const Layout& l = layout_;
  const std::uint64_t object = big_endian(l.bytes + refs + index * l.ref_size, l.ref_size);
  return {layout_, big_endian(l.bytes + l.table + object * l.offset_size, l.offset_size)};
}

Object::Type Object::type() const {
  switch (marker() >> 4) {
    case 0x0:
      return Type::kBoolean;
    case kIntType:
      return Type::kInteger;
    case kRealType:
      return Type::kReal;
    case 0x3:
      return Type::kDate;
    case kDataType:
      return Type::kData;
    case kAsciiType:
    case kUtf16Type:
      return Type::kString;
    case kDictType:
      return Type::kDictionary;
    default:  // arrays and sets
      return Type::kArray;
  }
}

std::optional<bool> Object::boolean() const {
  if (type() != Type::kBoolean) return std::nullopt;
  return marker() == kTrue;
}

std::optional<std::int64_t> Object::integer() const {
  if (type() != Type::kInteger) return std::nullopt;
  const unsigned nibble = marker() & 0x0F;
  const std::uint8_t* p = layout_.bytes + offset_ + 1;
  // 16 bytes: the value is in the low half (the check made sure of it).
  if (nibble == 4) return static_cast<std::int64_t>(big_endian(p + 8, 8));
  return static_cast<std::int64_t>(big_endian(p, std::size_t{1} << nibble));
}

std::optional<double> Object::real() const {
  if (type() != Type::kReal) return std::nullopt;
  const std::uint8_t* p = layout_.bytes + offset_ + 1;
  if ((marker() & 0x0F) == 2) {
    return static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(big_endian(p, 4))));
  }
  return std::bit_cast<double>(big_endian(p, 8));
}

std::optional<Date> Object::date() const {
  if (type() != Type::kDate) return std::nullopt;
  return date_from_plist_seconds(std::bit_cast<double>(big_endian(layout_.bytes + offset_ + 1, 8)));
}

std::optional<std::span<const std::uint8_t>> Object::data() const {
  if (type() != Type::kData) return std::nullopt;
  std::uint64_t content = 0;
  const std::uint64_t n = length(&content);
  return std::span<const std::uint8_t>(layout_.bytes + content, n);
}

bool Object::text(std::string* out) const {
  if (type() != Type::kString) return false;
  std::uint64_t content = 0;
  const std::uint64_t n = length(&content);
  const std::uint8_t* p = layout_.bytes + content;
  if ((marker() >> 4) == kAsciiType) {
    out->assign(reinterpret_cast<const char*>(p), n);
    return true;
  }
  out->clear();
  return append_utf16(p, n, out);
}

std::optional<std::string> Object::text() const {
  std::string s;
  if (!text(&s)) return std::nullopt;
  return s;
}

bool Object::equals(std::string_view utf8) const {
  if (type() != Type::kString) return false;
  std::uint64_t content = 0;
  const std::uint64_t n = length(&content);
  if ((marker() >> 4) == kAsciiType) {
    return n == utf8.size() && std::memcmp(layout_.bytes + content, utf8.data(), n) == 0;
  }
  // Each UTF-16 unit makes one to three bytes of UTF-8.
  if (n > utf8.size() || utf8.size() > 3 * n) return false;
  std::string s;
  return text(&s) && s == utf8;
}

std::size_t Object::size() const {
  const Type t = type();
  if (t != Type::kArray && t != Type::kDictionary) return 0;
  std::uint64_t content = 0;
  return static_cast<std::size_t>(length(&content));
}

Object Object::element(std::size_t i) const {
  std::uint64_t refs = 0;
  static_cast<void>(length(&refs));
  return referenced(refs, i);
}

Object Object::key(std::size_t i) const {
  std::uint64_t refs = 0;
  static_cast<void>(length(&refs));
  return referenced(refs, i);
}

Object Object::value(std::size_t i) const {
  std::uint64_t refs = 0;
  const std::uint64_t n = length(&refs);
  return referenced(refs, n + i);
}

std::optional<Object> Object::find(std::string_view wanted) const {
  if (type() != Type::kDictionary) return std::nullopt;
  std::uint64_t refs = 0;
  const std::uint64_t n = length(&refs);
  for (std::uint64_t i = 0; i < n; ++i) {
    if (referenced(refs, i).equals(wanted)) return referenced(refs, n + i);
  }
  return std::nullopt;
}

Value to_value(const Object& object) {
  switch (object.type()) {
    case Object::Type::kBoolean:
      return Value(*object.boolean());
    case Object::Type::kInteger:
      return Value(*object.integer());
    case Object::Type::kReal:
      return Value(*object.real());
    case Object::Type::kDate:
      return Value(*object.date());
    case Object::Type::kData: {
      const std::span<const std::uint8_t> bytes = *object.data();
      return Value(Data(bytes.begin(), bytes.end()));
    }
    case Object::Type::kString:
      return Value(*object.text());
    case Object::Type::kArray: {
      Array array;
      array.reserve(object.size());
      for (std::size_t i = 0; i < object.size(); ++i) array.push_back(to_value(object.element(i)));
      return Value(std::move(array));
    }
    case Object::Type::kDictionary: {
      Dictionary dictionary;
      // Keys usually come in order: each is then placed after the last
      // with a single comparison.
      const std::size_t size = object.size();
      for (std::size_t i = 0; i < size; ++i) {
        dictionary.emplace_hint(dictionary.end(), *object.key(i).text(), to_value(object.value(i)));
      }
      return Value(std::move(dictionary));
    }
  }
  return Value();
}

}  // namespace vtl::bplist
