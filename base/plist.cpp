#include "base/plist.h"

#include <errno.h>
#include <fcntl.h>
#include <plist/plist.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string_view>
#include <type_traits>

#include "base/binary_plist_reader.h"
#include "base/utf8.h"

namespace vtl {
namespace {

constexpr std::size_t kBinaryHeaderSize = 8;

// Seconds from 1970-01-01 to 2001-01-01, the epoch of property-list dates.
constexpr std::int64_t kPlistEpochOffset = 978307200;

struct PlistFree {
  void operator()(void* node) const { plist_free(node); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

template <typename T>
struct MallocFree {
  void operator()(T* p) const { std::free(p); }  // NOLINT(cppcoreguidelines-no-malloc)
};
template <typename T>
using MallocPtr = std::unique_ptr<T, MallocFree<T>>;

std::uint64_t read_big_endian(const std::uint8_t* p, std::size_t n) {
  std::uint64_t v = 0;
  for (std::size_t i = 0; i < n; ++i) v = (v << 8) | p[i];
  return v;
}

// ---------------------------------------------------------------------------
// The nesting check made before libplist's XML reader sees a document: the
// reader is iterative, but the tree it builds is freed recursively, one stack
// frame per level. (Binary lists are read by our own reader, which checks
// their shape itself.)

// Upper bound of the array and dictionary nesting libplist's XML reader can
// build from `text`. It errs only on the high side: opening tags are counted
// wherever they appear (inside comments and CDATA too), and only the exact
// closing tags "</array>" and "</dict>" outside them count as closing.
bool xml_nesting_acceptable(std::string_view text) {
  std::size_t depth = 0;
  auto count_openings = [&](std::string_view region) {
    for (std::size_t i = region.find('<'); i != std::string_view::npos;
         i = region.find('<', i + 1)) {
      const std::string_view rest = region.substr(i);
      if (rest.starts_with("<array") || rest.starts_with("<dict")) {
        if (++depth > kMaxPlistDepth) return false;
      }
    }
    return true;
  };
  auto skip_region = [&](std::size_t at, std::string_view close, std::size_t& next) {
    const std::size_t end = text.find(close, at + 1);
    const std::size_t stop = end == std::string_view::npos ? text.size() : end + close.size();
    next = stop;
    return count_openings(text.substr(at + 1, stop - at - 1));
  };
  std::size_t i = text.find('<');
  while (i != std::string_view::npos) {
    const std::string_view rest = text.substr(i);
    std::size_t next = i + 1;
    if (rest.starts_with("<!--")) {
      if (!skip_region(i, "-->", next)) return false;
    } else if (rest.starts_with("<![CDATA[")) {
      if (!skip_region(i, "]]>", next)) return false;
    } else if (rest.starts_with("<?")) {
      if (!skip_region(i, "?>", next)) return false;
    } else if (rest.starts_with("<!")) {
      if (!skip_region(i, ">", next)) return false;
    } else if (rest.starts_with("</array>") || rest.starts_with("</dict>")) {
      if (depth > 0) --depth;
    } else if (rest.starts_with("<array") || rest.starts_with("<dict")) {
      const std::size_t name_end = rest.find_first_not_of("abcdefghijklmnopqrstuvwxyz", 1);
      const std::size_t close = rest.find_first_not_of(" \t\r\n", name_end);
      const bool self_closing = close != std::string_view::npos && rest.substr(close, 2) == "/>";
      if (!self_closing && ++depth > kMaxPlistDepth) return false;
    }
    i = text.find('<', next);
  }
  return true;
}

// ---------------------------------------------------------------------------
// libplist nodes to values.
//
// libplist 2.2 keeps integers as 64 unsigned bits plus a size it does not
// expose: 8 bytes for everything from INT64_MIN to INT64_MAX (negative values
// in two's complement) and 16 bytes for values above INT64_MAX. Its date
// accessor cuts a date to int32 seconds and truncates the microseconds. Both
// hidden facts are read from the binary form of the single node, which holds
// the integer's size and the date's exact double.

std::optional<std::vector<std::uint8_t>> node_binary(plist_t node) {
  char* out = nullptr;
  std::uint32_t length = 0;
  plist_to_bin(node, &out, &length);
  if (out == nullptr) return std::nullopt;
  MallocPtr<char> owned(out);
  const auto* p = reinterpret_cast<const std::uint8_t*>(out);
  return std::vector<std::uint8_t>(p, p + length);
}

std::optional<Value> integer_from(plist_t node) {
  std::uint64_t raw = 0;
  plist_get_uint_val(node, &raw);
  if (raw <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
    return Value(static_cast<std::int64_t>(raw));
  }
  // Marker 0x13: an 8-byte signed integer, i.e. negative. 0x14 (16 bytes):
  // an unsigned value above INT64_MAX, which the program's integers cannot
  // hold. Such a document is refused rather than clamped, so that no number
  // in it silently changes.
  const auto binary = node_binary(node);
  if (!binary || binary->size() <= kBinaryHeaderSize || (*binary)[kBinaryHeaderSize] != 0x13) {
    return std::nullopt;
  }
  return Value(static_cast<std::int64_t>(raw));
}

std::optional<Value> date_from(plist_t node) {
  const auto binary = node_binary(node);
  if (!binary || binary->size() < kBinaryHeaderSize + 9 || (*binary)[kBinaryHeaderSize] != 0x33) {
    return std::nullopt;
  }
  std::optional<Date> date = bplist::date_from_plist_seconds(
      std::bit_cast<double>(read_big_endian(binary->data() + kBinaryHeaderSize + 1, 8)));
  if (!date) return std::nullopt;
  return Value(*date);
}

std::optional<Value> value_from(plist_t node, std::size_t depth) {
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      std::uint8_t b = 0;
      plist_get_bool_val(node, &b);
      return Value(b != 0);
    }
    case PLIST_UINT:
      return integer_from(node);
    case PLIST_REAL: {
      double d = 0;
      plist_get_real_val(node, &d);
      return Value(d);
    }
    case PLIST_STRING: {
      std::uint64_t length = 0;
      const char* p = plist_get_string_ptr(node, &length);
      if (p == nullptr) return std::nullopt;
      std::string s(p, length);
      if (!is_text(s)) return std::nullopt;
      return Value(std::move(s));
    }
    case PLIST_DATE:
      return date_from(node);
    case PLIST_DATA: {
      std::uint64_t length = 0;
      const char* p = plist_get_data_ptr(node, &length);
      if (p == nullptr || length == 0) return Value(Data{});
      const auto* bytes = reinterpret_cast<const std::uint8_t*>(p);
      return Value(Data(bytes, bytes + length));
    }
    case PLIST_ARRAY: {
      if (depth >= kMaxPlistDepth) return std::nullopt;
      Array array;
      array.reserve(plist_array_get_size(node));
      plist_array_iter raw_iter = nullptr;
      plist_array_new_iter(node, &raw_iter);
      MallocPtr<void> iter(raw_iter);
      while (true) {
        plist_t item = nullptr;
        plist_array_next_item(node, raw_iter, &item);
        if (item == nullptr) break;
        auto v = value_from(item, depth + 1);
        if (!v) return std::nullopt;
        array.push_back(std::move(*v));
      }
      return Value(std::move(array));
    }
    case PLIST_DICT: {
      if (depth >= kMaxPlistDepth) return std::nullopt;
      Dictionary dictionary;
      plist_dict_iter raw_iter = nullptr;
      plist_dict_new_iter(node, &raw_iter);
      MallocPtr<void> iter(raw_iter);
      while (true) {
        char* raw_key = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, raw_iter, &raw_key, &item);
        MallocPtr<char> key(raw_key);
        if (item == nullptr) break;
        if (raw_key == nullptr || !is_text(raw_key)) return std::nullopt;
        auto v = value_from(item, depth + 1);
        if (!v) return std::nullopt;
        // A repeated key is refused: which of the two a reader believed would
        // otherwise depend on the reader.
        if (!dictionary.emplace(raw_key, std::move(*v)).second) return std::nullopt;
      }
      return Value(std::move(dictionary));
    }
    default:  // PLIST_KEY outside a dictionary, PLIST_UID, PLIST_NONE
      return std::nullopt;
  }
}

// ---------------------------------------------------------------------------
// Values to libplist nodes.

// libplist 2.2 takes a date as int32 seconds and int32 microseconds since
// 2001 and keeps their sum as a double. Dates are floored to the microsecond;
// dates outside that int32 range (1932-12-13 20:45:52 to 2069-01-19 03:14:07
// UTC) are clamped to its ends.
plist_t date_node(Date date) {
  using namespace std::chrono;
  const auto micros = floor<microseconds>(date).time_since_epoch() - seconds(kPlistEpochOffset);
  const std::int64_t total = micros.count();
  std::int64_t secs = total / 1'000'000;
  std::int64_t usec = total % 1'000'000;
  if (usec < 0) {
    usec += 1'000'000;
    secs -= 1;
  }
  constexpr std::int64_t kMin = std::numeric_limits<std::int32_t>::min();
  constexpr std::int64_t kMax = std::numeric_limits<std::int32_t>::max();
  if (secs < kMin) {
    secs = kMin;
    usec = 0;
  } else if (secs > kMax) {
    secs = kMax;
    usec = 0;
  }
  return plist_new_date(static_cast<std::int32_t>(secs), static_cast<std::int32_t>(usec));
}

// Strings are handed to libplist as C strings: text holds no NUL (the program
// never makes such a string, and none is read from a property list).
plist_t node_from(const Value& value) {
  return std::visit(
      [](const auto& v) -> plist_t {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, std::string>) {
          return plist_new_string(v.c_str());
        } else if constexpr (std::is_same_v<T, bool>) {
          return plist_new_bool(v ? 1 : 0);
        } else if constexpr (std::is_same_v<T, std::int64_t>) {
          // Two's complement in an 8-byte integer: libplist writes it signed.
          return plist_new_uint(static_cast<std::uint64_t>(v));
        } else if constexpr (std::is_same_v<T, double>) {
          return plist_new_real(v);
        } else if constexpr (std::is_same_v<T, Date>) {
          return date_node(v);
        } else if constexpr (std::is_same_v<T, Data>) {
          return plist_new_data(reinterpret_cast<const char*>(v.data()), v.size());
        } else if constexpr (std::is_same_v<T, Array>) {
          plist_t array = plist_new_array();
          for (const Value& item : v) plist_array_append_item(array, node_from(item));
          return array;
        } else {
          static_assert(std::is_same_v<T, Dictionary>);
          plist_t dict = plist_new_dict();
          for (const auto& [key, item] : v) plist_dict_set_item(dict, key.c_str(), node_from(item));
          return dict;
        }
      },
      value.storage());
}

int write_all(int fd, const std::uint8_t* p, std::size_t n) {
  while (n > 0) {
    const ssize_t written = ::write(fd, p, n);
    if (written < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    p += written;
    n -= static_cast<std::size_t>(written);
  }
  return 0;
}

}  // namespace

std::optional<Value> plist_from_bytes(std::span<const std::uint8_t> bytes) {
  if (bytes.empty() || bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
    return std::nullopt;
  }
  const auto* chars = reinterpret_cast<const char*>(bytes.data());
  const auto length = static_cast<std::uint32_t>(bytes.size());
  plist_t root = nullptr;
  if (bplist::is_binary_plist(bytes)) {
    std::optional<bplist::Document> document = bplist::Document::open(bytes);
    if (!document) return std::nullopt;
    return bplist::to_value(document->root());
  }
  if (!xml_nesting_acceptable(std::string_view(chars, bytes.size()))) return std::nullopt;
  plist_from_xml(chars, length, &root);
  if (root == nullptr) return std::nullopt;
  PlistPtr owned(root);
  return value_from(root, 0);
}

std::string plist_to_xml(const Value& value) {
  PlistPtr root(node_from(value));
  char* out = nullptr;
  std::uint32_t length = 0;
  ::plist_to_xml(root.get(), &out, &length);
  MallocPtr<char> owned(out);
  return out == nullptr ? std::string() : std::string(out, length);
}

std::vector<std::uint8_t> plist_to_binary(const Value& value) {
  PlistPtr root(node_from(value));
  char* out = nullptr;
  std::uint32_t length = 0;
  plist_to_bin(root.get(), &out, &length);
  MallocPtr<char> owned(out);
  if (out == nullptr) return {};
  const auto* p = reinterpret_cast<const std::uint8_t*>(out);
  return std::vector<std::uint8_t>(p, p + length);
}

std::optional<Value> read_plist_file(const std::string& path, std::size_t max_bytes) {
  // O_NONBLOCK so that a FIFO put in a file's place cannot stall the reader;
  // anything but a regular file is refused before a byte is read.
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) return std::nullopt;
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size < 0 ||
      static_cast<std::uint64_t>(st.st_size) > max_bytes) {
    ::close(fd);
    return std::nullopt;
  }
  // Read until end of file, not just st_size bytes: the file may change under
  // us. One byte beyond the cap tells a file that grew too large.
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(st.st_size) + 1);
  std::size_t filled = 0;
  while (true) {
    if (filled == bytes.size()) {
      if (bytes.size() > max_bytes) break;
      bytes.resize(std::min(max_bytes + 1, bytes.size() * 2));
    }
    const ssize_t n = ::read(fd, bytes.data() + filled, bytes.size() - filled);
    if (n < 0) {
      if (errno == EINTR) continue;
      ::close(fd);
      return std::nullopt;
    }
    if (n == 0) break;
    filled += static_cast<std::size_t>(n);
  }
  ::close(fd);
  if (filled > max_bytes) return std::nullopt;
  bytes.resize(filled);
  return plist_from_bytes(bytes);
}

int write_file_atomically(const std::string& path, std::span<const std::uint8_t> bytes,
                          unsigned mode) {
  const std::size_t slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "."
                          : slash == 0               ? "/"
                                                     : path.substr(0, slash);
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  if (name.empty()) return EISDIR;

  // A new name beside the target, created exclusively (mkostemp uses O_EXCL),
  // so nothing already there, a link least of all, is ever opened.
  std::string temp = dir + "/." + name + ".XXXXXX";
  const int fd = ::mkostemp(temp.data(), O_CLOEXEC);
  if (fd < 0) return errno;
  int error = 0;
  if (::fchmod(fd, static_cast<mode_t>(mode & 07777)) != 0) error = errno;
  if (error == 0) error = write_all(fd, bytes.data(), bytes.size());
  if (error == 0 && ::fsync(fd) != 0) error = errno;
  if (::close(fd) != 0 && error == 0) error = errno;
  if (error == 0 && ::rename(temp.c_str(), path.c_str()) != 0) error = errno;
  if (error != 0) {
    static_cast<void>(::unlink(temp.c_str()));
    return error;
  }
  // The rename is durable only once the directory is on disk too.
  const int dir_fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir_fd < 0) return errno;
  if (::fsync(dir_fd) != 0) error = errno;
  ::close(dir_fd);
  return error;
}

}  // namespace vtl
