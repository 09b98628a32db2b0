#include "manifest/binary_plist_writer.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>

#include "base/big_endian.h"

namespace vtl::bplist {
namespace {

// Seconds from 1970-01-01 to 2001-01-01, the epoch of property-list dates.
constexpr std::int64_t kPlistEpoch = 978307200;

unsigned width_for(std::uint64_t max_value) {
  if (max_value <= 0xFF) return 1;
  if (max_value <= 0xFFFF) return 2;
  if (max_value <= 0xFFFFFFFF) return 4;
  return 8;
}

// Decodes one UTF-8 sequence at `s[i]`, advancing `i`; U+FFFD for a malformed
// one (overlong forms, surrogates and values above U+10FFFF included), which
// consumes one byte.
char32_t next_code_point(std::string_view s, std::size_t& i) {
  const auto b0 = static_cast<std::uint8_t>(s[i]);
  auto cont = [&](std::size_t k) -> int {
    if (i + k >= s.size()) return -1;
    const auto b = static_cast<std::uint8_t>(s[i + k]);
    return (b & 0xC0) == 0x80 ? (b & 0x3F) : -1;
  };
  constexpr char32_t kReplacement = 0xFFFD;
  if (b0 < 0x80) {
    ++i;
    return b0;
  }
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    const int c1 = cont(1);
    if (c1 < 0) {
      ++i;
      return kReplacement;
    }
    i += 2;
    return static_cast<char32_t>(((b0 & 0x1F) << 6) | c1);
  }
  if (b0 >= 0xE0 && b0 <= 0xEF) {
    const int c1 = cont(1);
    const int c2 = c1 < 0 ? -1 : cont(2);
    if (c1 < 0 || c2 < 0) {
      ++i;
      return kReplacement;
    }
    const auto cp = static_cast<char32_t>(((b0 & 0x0F) << 12) | (c1 << 6) | c2);
    if (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF)) {
      ++i;
      return kReplacement;
    }
    i += 3;
    return cp;
  }
  if (b0 >= 0xF0 && b0 <= 0xF4) {
    const int c1 = cont(1);
    const int c2 = c1 < 0 ? -1 : cont(2);
    const int c3 = c2 < 0 ? -1 : cont(3);
    if (c1 < 0 || c2 < 0 || c3 < 0) {
      ++i;
      return kReplacement;
    }
    const auto cp = static_cast<char32_t>(((b0 & 0x07) << 18) | (c1 << 12) | (c2 << 6) | c3);
    if (cp < 0x10000 || cp > 0x10FFFF) {
      ++i;
      return kReplacement;
    }
    i += 4;
    return cp;
  }
  ++i;
  return kReplacement;
}

}  // namespace

// --- ByteSink ----------------------------------------------------------------

ByteSink::ByteSink(std::vector<std::uint8_t>* memory)
    : memory_(memory), buffer_(new std::uint8_t[kBufferSize]) {}

ByteSink::ByteSink(int fd) : fd_(fd), buffer_(new std::uint8_t[kBufferSize]) {}

ByteSink::~ByteSink() = default;

void ByteSink::write(const void* bytes, std::size_t n) {
  const auto* p = static_cast<const std::uint8_t*>(bytes);
  while (n > 0) {
    if (used_ == kBufferSize) drain();
    const std::size_t take = std::min(n, kBufferSize - used_);
    std::memcpy(buffer_.get() + used_, p, take);
    used_ += take;
    p += take;
    n -= take;
  }
}

void ByteSink::drain() {
  if (memory_ != nullptr) {
    memory_->insert(memory_->end(), buffer_.get(), buffer_.get() + used_);
  } else {
    const std::uint8_t* p = buffer_.get();
    std::size_t n = used_;
    while (n > 0 && error_ == 0) {
      const ssize_t w = ::write(fd_, p, n);
      if (w < 0) {
        if (errno == EINTR) continue;
        error_ = errno;
        break;
      }
      p += w;
      n -= static_cast<std::size_t>(w);
    }
    // Writeback of what was just written starts now, while the next buffer
    // is filled, rather than all at once in the fsync that makes a written
    // file durable. Fails harmlessly where there is nothing to write back
    // (a pipe, a socket).
    if (error_ == 0 && used_ > 0) {
      ::sync_file_range(fd_, static_cast<off_t>(drained_), static_cast<off_t>(used_),
                        SYNC_FILE_RANGE_WRITE);
    }
  }
  drained_ += used_;
  used_ = 0;
}

int ByteSink::flush() {
  drain();
  return error_;
}

// --- ObjectWriter ------------------------------------------------------------

ObjectWriter::ObjectWriter(ByteSink& sink, std::uint64_t object_bound)
    : sink_(sink), ref_size_(width_for(object_bound == 0 ? 0 : object_bound - 1)) {
  // Room for every offset at once: no copy as the table grows, and pages the
  // writer never reaches (the bound is generous) are never touched.
  offsets_.reserve(object_bound);
  sink_.write("bplist00", 8);
}

ObjectWriter::Ref ObjectWriter::begin_object() {
  offsets_.push_back(sink_.position());
  return offsets_.size() - 1;
}

namespace {

template <unsigned Width>
std::uint8_t* store_refs(std::uint8_t* p, std::span<const std::uint64_t> refs) {
  for (const std::uint64_t ref : refs) {
    store_big_endian<Width>(p, ref);
    p += Width;
  }
  return p;
}

}  // namespace

void ObjectWriter::put_big_endian(std::uint64_t value, unsigned width) {
  std::uint8_t* p = sink_.reserve(width);
  switch (width) {
    case 1:
      store_big_endian<1>(p, value);
      break;
    case 2:
      store_big_endian<2>(p, value);
      break;
    case 4:
      store_big_endian<4>(p, value);
      break;
    default:
      store_big_endian<8>(p, value);
      break;
  }
  sink_.commit(width);
}

// References in runs that fit the buffer.
void ObjectWriter::put_refs(std::span<const Ref> refs) {
  const std::size_t per_run = ByteSink::kBufferSize / 8;
  for (std::size_t at = 0; at < refs.size(); at += per_run) {
    const std::span<const Ref> run = refs.subspan(at, std::min(per_run, refs.size() - at));
    std::uint8_t* p = sink_.reserve(run.size() * ref_size_);
    switch (ref_size_) {
      case 1:
        store_refs<1>(p, run);
        break;
      case 2:
        store_refs<2>(p, run);
        break;
      case 4:
        store_refs<4>(p, run);
        break;
      default:
        store_refs<8>(p, run);
        break;
    }
    sink_.commit(run.size() * ref_size_);
  }
}

// A marker byte with a count in its low nibble, or 0xF and an integer object
// holding the count.
void ObjectWriter::put_marker(std::uint8_t type, std::uint64_t count) {
  if (count < 15) {
    sink_.put(static_cast<std::uint8_t>((static_cast<std::uint64_t>(type) << 4) | count));
    return;
  }
  sink_.put(static_cast<std::uint8_t>((static_cast<std::uint64_t>(type) << 4) | 0x0F));
  const unsigned width = width_for(count);
  sink_.put(static_cast<std::uint8_t>(0x10 | std::countr_zero(width)));
  put_big_endian(count, width);
}

ObjectWriter::Ref ObjectWriter::string(std::string_view utf8) {
  const Ref ref = begin_object();
  bool ascii = true;
  for (char c : utf8) {
    if (static_cast<std::uint8_t>(c) >= 0x80) {
      ascii = false;
      break;
    }
  }
  if (ascii) {
    put_marker(0x5, utf8.size());
    sink_.write(utf8.data(), utf8.size());
    return ref;
  }
  utf16_.clear();
  for (std::size_t i = 0; i < utf8.size();) {
    const char32_t cp = next_code_point(utf8, i);
    if (cp >= 0x10000) {
      const char32_t v = cp - 0x10000;
      utf16_.push_back(static_cast<char16_t>(0xD800 + (v >> 10)));
      utf16_.push_back(static_cast<char16_t>(0xDC00 + (v & 0x3FF)));
    } else {
      utf16_.push_back(static_cast<char16_t>(cp));
    }
  }
  put_marker(0x6, utf16_.size());
  for (char16_t unit : utf16_) put_big_endian(unit, 2);
  return ref;
}

ObjectWriter::Ref ObjectWriter::integer(std::int64_t value) {
  const Ref ref = begin_object();
  const unsigned width = value < 0 ? 8 : width_for(static_cast<std::uint64_t>(value));
  sink_.put(static_cast<std::uint8_t>(0x10 | std::countr_zero(width)));
  put_big_endian(static_cast<std::uint64_t>(value), width);
  return ref;
}

ObjectWriter::Ref ObjectWriter::real(double value) {
  const Ref ref = begin_object();
  sink_.put(0x23);
  put_big_endian(std::bit_cast<std::uint64_t>(value), 8);
  return ref;
}

ObjectWriter::Ref ObjectWriter::date(Date value) {
  const Ref ref = begin_object();
  // Whole seconds and the fraction apart, so that the subtraction of the
  // epoch loses nothing before the one rounding into a double.
  const std::int64_t ns = value.time_since_epoch().count();
  std::int64_t seconds = ns / 1'000'000'000;
  std::int64_t fraction = ns % 1'000'000'000;
  if (fraction < 0) {
    fraction += 1'000'000'000;
    --seconds;
  }
  const double since_2001 =
      static_cast<double>(seconds - kPlistEpoch) + static_cast<double>(fraction) / 1e9;
  sink_.put(0x33);
  put_big_endian(std::bit_cast<std::uint64_t>(since_2001), 8);
  return ref;
}

ObjectWriter::Ref ObjectWriter::boolean(bool value) {
  const Ref ref = begin_object();
  sink_.put(value ? 0x09 : 0x08);
  return ref;
}

ObjectWriter::Ref ObjectWriter::data(std::span<const std::uint8_t> bytes) {
  const Ref ref = begin_object();
  put_marker(0x4, bytes.size());
  sink_.write(bytes.data(), bytes.size());
  return ref;
}

ObjectWriter::Ref ObjectWriter::array(std::span<const Ref> items) {
  const Ref ref = begin_object();
  put_marker(0xA, items.size());
  put_refs(items);
  return ref;
}

ObjectWriter::Ref ObjectWriter::dictionary(std::span<const Ref> keys, std::span<const Ref> values) {
  const Ref ref = begin_object();
  put_marker(0xD, keys.size());
  put_refs(keys);
  put_refs(values);
  return ref;
}

int ObjectWriter::finish(Ref top) {
  const std::uint64_t table = sink_.position();
  const unsigned offset_size = width_for(table);
  for (std::uint64_t offset : offsets_) put_big_endian(offset, offset_size);
  for (int i = 0; i < 6; ++i) sink_.put(0);  // unused, then the sort version
  sink_.put(static_cast<std::uint8_t>(offset_size));
  sink_.put(static_cast<std::uint8_t>(ref_size_));
  put_big_endian(offsets_.size(), 8);
  put_big_endian(top, 8);
  put_big_endian(table, 8);
  return sink_.flush();
}

// --- Whole values ------------------------------------------------------------

namespace {

std::uint64_t count_objects(const Value& value) {
  std::uint64_t n = 1;
  if (const Array* a = value.array()) {
    for (const Value& item : *a) n += count_objects(item);
  } else if (const Dictionary* d = value.dictionary()) {
    for (const auto& [key, item] : *d) n += 1 + count_objects(item);
  }
  return n;
}

class ValueWriter {
 public:
  ValueWriter(ByteSink& sink, const Value& root) : writer_(sink, count_objects(root)) {}

  int write(const Value& root) { return writer_.finish(emit(root)); }

 private:
  using Ref = ObjectWriter::Ref;

  Ref string(std::string_view s) {
    auto [it, added] = strings_.try_emplace(s, 0);
    if (added) it->second = writer_.string(s);
    return it->second;
  }

  Ref emit(const Value& value) {
    struct Visitor {
      ValueWriter& w;
      Ref operator()(const std::string& s) const { return w.string(s); }
      Ref operator()(bool b) const {
        Ref& cached = b ? w.true_ : w.false_;
        if (cached == kNone) cached = w.writer_.boolean(b);
        return cached;
      }
      Ref operator()(std::int64_t i) const {
        auto [it, added] = w.integers_.try_emplace(i, 0);
        if (added) it->second = w.writer_.integer(i);
        return it->second;
      }
      Ref operator()(double d) const { return w.writer_.real(d); }
      Ref operator()(const Date& d) const { return w.writer_.date(d); }
      Ref operator()(const Data& d) const { return w.writer_.data(d); }
      Ref operator()(const Array& a) const {
        std::vector<Ref> items;
        items.reserve(a.size());
        for (const Value& item : a) items.push_back(w.emit(item));
        return w.writer_.array(items);
      }
      Ref operator()(const Dictionary& d) const {
        std::vector<Ref> keys;
        std::vector<Ref> values;
        keys.reserve(d.size());
        values.reserve(d.size());
        for (const auto& [key, item] : d) {
          keys.push_back(w.string(key));
          values.push_back(w.emit(item));
        }
        return w.writer_.dictionary(keys, values);
      }
    };
    return std::visit(Visitor{*this}, value.storage());
  }

  static constexpr Ref kNone = ~Ref{0};
  ObjectWriter writer_;
  std::unordered_map<std::string_view, Ref> strings_;
  std::unordered_map<std::int64_t, Ref> integers_;
  Ref true_ = kNone;
  Ref false_ = kNone;
};

}  // namespace

std::vector<std::uint8_t> to_binary(const Value& value) {
  std::vector<std::uint8_t> out;
  ByteSink sink(&out);
  ValueWriter(sink, value).write(value);
  return out;
}

int write_binary(const Value& value, int fd) {
  ByteSink sink(fd);
  return ValueWriter(sink, value).write(value);
}

// --- Replacing a file whole --------------------------------------------------

namespace {

constexpr std::size_t kSuffixDigits = 16;

// Whether `entry` is a temporary of a write of `name`: "." name "." and
// sixteen hex digits.
bool is_temporary_of(std::string_view entry, std::string_view name) {
  if (entry.size() != name.size() + 2 + kSuffixDigits || entry[0] != '.' ||
      entry.substr(1, name.size()) != name || entry[name.size() + 1] != '.') {
    return false;
  }
  return std::all_of(entry.end() - kSuffixDigits, entry.end(),
                     [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

// Removes the temporaries of `name` in `directory` whose writers are gone:
// a live writer holds the lock on its own until it renames it.
void remove_abandoned_temporaries(int directory, std::string_view name) {
  const int listing = ::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (listing < 0) return;
  DIR* entries = ::fdopendir(listing);
  if (entries == nullptr) {
    ::close(listing);
    return;
  }
  while (const dirent* entry = ::readdir(entries)) {
    if (!is_temporary_of(entry->d_name, name)) continue;
    const int fd = ::openat(directory, entry->d_name,
                            O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) continue;
    if (::flock(fd, LOCK_EX | LOCK_NB) == 0) ::unlinkat(directory, entry->d_name, 0);
    ::close(fd);
  }
  ::closedir(entries);
}

}  // namespace

int replace_file_with(const std::string& path, unsigned mode, int (*produce)(int fd, void* context),
                      void* context) {
  const std::size_t slash = path.rfind('/');
  const std::string directory_path =
      slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  const int directory = ::open(directory_path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (directory < 0) return errno;
  remove_abandoned_temporaries(directory, name);

  std::random_device random;
  const std::string prefix = '.' + name + '.';
  std::string temporary;
  int fd = -1;
  for (int attempt = 0; attempt < 16 && fd < 0; ++attempt) {
    char suffix[kSuffixDigits + 1];
    static_cast<void>(std::snprintf(suffix, sizeof suffix, "%08x%08x", random(), random()));
    temporary = prefix;
    temporary.append(suffix, kSuffixDigits);
    fd =
        ::openat(directory, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                 static_cast<mode_t>(mode & 07777));
    if (fd < 0 && errno != EEXIST) {
      const int error = errno;
      ::close(directory);
      return error;
    }
  }
  if (fd < 0) {
    ::close(directory);
    return EEXIST;
  }

  // Held until the descriptor is closed, after the rename.
  int error = ::flock(fd, LOCK_EX) == 0 ? 0 : errno;
  // The temporary's mode does not depend on the process's mask.
  if (error == 0 && ::fchmod(fd, static_cast<mode_t>(mode & 07777)) != 0) error = errno;
  if (error == 0) error = produce(fd, context);
  if (error == 0 && ::fsync(fd) != 0) error = errno;
  if (error == 0 && ::renameat(directory, temporary.c_str(), directory, name.c_str()) != 0) {
    error = errno;
  }
  if (::close(fd) != 0 && error == 0) error = errno;
  if (error != 0) {
    ::unlinkat(directory, temporary.c_str(), 0);
  } else {
    ::fsync(directory);
  }
  ::close(directory);
  return error;
}

}  // namespace vtl::bplist
