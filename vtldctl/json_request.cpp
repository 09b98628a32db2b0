#include "vtldctl/json_request.h"

#include <openssl/evp.h>

#include <charconv>
#include <chrono>
#include <climits>
#include <cstdint>
#include <limits>
#include <memory>
#include <unordered_set>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace vtldctl {
namespace {

// ordered_json keeps keys in the order written, and the request goes out in
// that order: what the user wrote is what the helper receives.
using Json = nlohmann::ordered_json;

// One JSON Pointer step: "~" and "/" in a key are written "~0" and "~1".
std::string pointer_token(const std::string& key) {
  std::string token;
  for (char c : key) {
    if (c == '~') {
      token += "~0";
    } else if (c == '/') {
      token += "~1";
    } else {
      token += c;
    }
  }
  return token;
}

// Raised inside the conversion, caught at its top: the first problem found
// ends it.
struct ConversionError {
  std::string message;
};

// Builds the document through nlohmann's SAX interface rather than its DOM
// parser, for three things the DOM parser hides: the text of a number that
// did not fit in 64 bits (it would silently become a double), a repeated key
// (it would silently keep the last), and the nesting depth.
class DocumentBuilder {
 public:
  // Not "= default": that would be implicitly noexcept, which the document
  // member's constructor does not promise.
  DocumentBuilder() {}  // NOLINT(modernize-use-equals-default)
  DocumentBuilder(const DocumentBuilder&) = delete;
  DocumentBuilder& operator=(const DocumentBuilder&) = delete;

  Json& document() { return root_; }
  const std::string& error() const { return error_; }

  bool null() { return add(Json(nullptr)); }
  bool boolean(bool value) { return add(Json(value)); }
  bool number_integer(Json::number_integer_t value) { return add(Json(value)); }
  bool number_unsigned(Json::number_unsigned_t value) { return add(Json(value)); }
  bool number_float(Json::number_float_t value, const Json::string_t& text) {
    if (text.find_first_of(".eE") == std::string::npos) {
      return fail(fmt::format(
          "integer {} does not fit in 64 bits (int64 from -9223372036854775808, uint64 up to "
          "18446744073709551615)",
          text));
    }
    return add(Json(value));
  }
  bool string(Json::string_t& value) { return add(Json(std::move(value))); }
  bool binary(Json::binary_t& /*value*/) { return fail("binary values have no JSON text form"); }

  bool start_object(std::size_t /*elements*/) { return open(Json::object()); }
  bool key(Json::string_t& key) {
    Frame& top = stack_.back();
    if (!top.keys.insert(key).second) {
      return fail(
          fmt::format("key \"{}\" appears twice in one object{}", key, location_suffix(pointer())));
    }
    top.key = std::move(key);
    return true;
  }
  bool end_object() {
    stack_.pop_back();
    return true;
  }
  bool start_array(std::size_t /*elements*/) { return open(Json::array()); }
  bool end_array() {
    stack_.pop_back();
    return true;
  }

  bool parse_error(std::size_t /*position*/, const std::string& /*last_token*/,
                   const nlohmann::detail::exception& e) {
    // Drop the library's "[json.exception.parse_error.101] " tag: the rest
    // ("parse error at line 1, column 5: ...") is what a user can act on.
    std::string_view what = e.what();
    if (auto end = what.find("] ");
        !what.empty() && what.front() == '[' && end != std::string_view::npos) {
      what.remove_prefix(end + 2);
    }
    return fail(std::string(what));
  }

  static std::string location_suffix(const std::string& pointer) {
    return pointer.empty() ? std::string() : " (at " + pointer + ")";
  }

 private:
  struct Frame {
    Json* container;
    std::unordered_set<std::string> keys;  // objects only
    std::string key;                       // objects only: the key being read
  };

  bool fail(std::string message) {
    if (error_.empty()) error_ = std::move(message);
    return false;
  }

  bool add(Json value) {
    place(std::move(value));
    return true;
  }

  // Places a value where the parse stands. Pointers kept on the stack stay
  // valid: a container only grows while it is the innermost open one.
  Json* place(Json value) {
    if (stack_.empty()) {
      root_ = std::move(value);
      return &root_;
    }
    Frame& top = stack_.back();
    if (top.container->is_array()) {
      top.container->push_back(std::move(value));
      return &top.container->back();
    }
    // The key is known to be new in this object, so append without the
    // ordered map's linear search for an existing one.
    auto& object = top.container->get_ref<Json::object_t&>();
    return &object.Container::emplace_back(top.key, std::move(value)).second;
  }

  bool open(Json container) {
    if (stack_.size() >= static_cast<std::size_t>(kMaxJsonDepth)) {
      return fail(fmt::format("arrays and objects nest deeper than {} levels{}", kMaxJsonDepth,
                              location_suffix(pointer())));
    }
    Json* placed = place(std::move(container));
    stack_.push_back(Frame{placed, {}, {}});
    return true;
  }

  // JSON Pointer of the innermost open container.
  std::string pointer() const {
    std::string result;
    for (std::size_t i = 0; i + 1 < stack_.size(); ++i) {
      const Frame& frame = stack_[i];
      result += '/';
      if (frame.container->is_array()) {
        result += std::to_string(frame.container->size() - 1);
      } else {
        result += pointer_token(frame.key);
      }
    }
    return result;
  }

  Json root_;
  std::vector<Frame> stack_;
  std::string error_;
};

[[noreturn]] void fail_at(const std::string& pointer, const std::string& message) {
  throw ConversionError{message + DocumentBuilder::location_suffix(pointer)};
}

void refuse_nul(const std::string& text, const std::string& pointer, const char* what) {
  if (text.find('\0') != std::string::npos) {
    fail_at(pointer, fmt::format("{} holds a NUL character, which KRX strings cannot carry", what));
  }
}

krx::Data decode_base64(const std::string& text, const std::string& pointer) {
  if (text.size() > static_cast<std::size_t>(INT_MAX / 2)) fail_at(pointer, "$data: too long");
  std::unique_ptr<EVP_ENCODE_CTX, decltype(&EVP_ENCODE_CTX_free)> ctx(EVP_ENCODE_CTX_new(),
                                                                      &EVP_ENCODE_CTX_free);
  if (!ctx) fail_at(pointer, "$data: out of memory");
  EVP_DecodeInit(ctx.get());
  krx::Data bytes((text.size() / 4 + 2) * 3);
  int length = 0;
  int final_length = 0;
  const int updated = EVP_DecodeUpdate(ctx.get(), bytes.data(), &length,
                                       reinterpret_cast<const unsigned char*>(text.data()),
                                       static_cast<int>(text.size()));
  if (updated < 0 || EVP_DecodeFinal(ctx.get(), bytes.data() + length, &final_length) < 0) {
    fail_at(pointer, "$data: not valid base64 (standard alphabet, padded with '=')");
  }
  bytes.resize(static_cast<std::size_t>(length) + static_cast<std::size_t>(final_length));
  return bytes;
}

template <typename Int>
bool parse_decimal(const std::string& text, Int* out) {
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, *out);
  return ec == std::errc() && ptr == end && !text.empty();
}

std::uint64_t to_uint64(const Json& v, const std::string& pointer) {
  std::uint64_t result = 0;
  if (v.is_number_unsigned()) return v.get<std::uint64_t>();
  if (v.is_string() && parse_decimal(v.get_ref<const std::string&>(), &result)) return result;
  fail_at(pointer, fmt::format("$uint64 takes an integer from 0 to 18446744073709551615 or its "
                               "decimal text, not {}",
                               v.dump()));
}

std::int64_t to_int64(const Json& v, const std::string& pointer) {
  std::int64_t result = 0;
  if (v.is_number_integer() && !v.is_number_unsigned()) return v.get<std::int64_t>();
  if (v.is_number_unsigned() &&
      v.get<std::uint64_t>() <=
          static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
    return static_cast<std::int64_t>(v.get<std::uint64_t>());
  }
  if (v.is_string() && parse_decimal(v.get_ref<const std::string&>(), &result)) return result;
  fail_at(pointer, fmt::format("$int64 takes an integer from -9223372036854775808 to "
                               "9223372036854775807 or its decimal text, not {}",
                               v.dump()));
}

double to_double(const Json& v, const std::string& pointer) {
  if (v.is_number_float()) return v.get<double>();
  if (v.is_number_unsigned()) return static_cast<double>(v.get<std::uint64_t>());
  if (v.is_number_integer()) return static_cast<double>(v.get<std::int64_t>());
  double result = 0;
  if (v.is_string() && parse_decimal(v.get_ref<const std::string&>(), &result)) return result;
  fail_at(pointer,
          fmt::format("$double takes a number or its text (\"inf\", \"-inf\", \"nan\" too), not {}",
                      v.dump()));
}

std::uint32_t to_fd_index(const Json& v, const std::string& pointer) {
  if (v.is_number_unsigned() &&
      v.get<std::uint64_t>() <= std::numeric_limits<std::uint32_t>::max()) {
    return static_cast<std::uint32_t>(v.get<std::uint64_t>());
  }
  fail_at(pointer,
          fmt::format("$fd takes a descriptor index from 0 to 4294967295, not {}", v.dump()));
}

// Reads `count` digits at `pos`; false when they are not all digits.
bool read_digits(std::string_view text, std::size_t pos, std::size_t count, int* out) {
  if (pos + count > text.size()) return false;
  int value = 0;
  for (std::size_t i = pos; i < pos + count; ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
    value = value * 10 + (text[i] - '0');
  }
  *out = value;
  return true;
}

// RFC 3339: YYYY-MM-DDTHH:MM:SS[.fraction](Z|+HH:MM|-HH:MM). "t", "z" and a
// space for the "T" are accepted as RFC 3339 allows. Digits of a fraction
// beyond nanoseconds are dropped (a date carries nanoseconds).
krx::Date parse_date(const Json& v, const std::string& pointer) {
  const std::string usage =
      "$date takes an RFC 3339 date and time such as \"2026-11-16T06:32:26Z\" or "
      "\"2026-11-16T07:32:26.5+01:00\"";
  if (!v.is_string()) fail_at(pointer, usage + ", not " + v.dump());
  const std::string_view text = v.get_ref<const std::string&>();
  const std::string bad = usage + ", not \"" + std::string(text) + "\"";

  int year = 0;
  int month = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
  if (!read_digits(text, 0, 4, &year) || text.size() < 19 || text[4] != '-' ||
      !read_digits(text, 5, 2, &month) || text[7] != '-' || !read_digits(text, 8, 2, &day) ||
      (text[10] != 'T' && text[10] != 't' && text[10] != ' ') || !read_digits(text, 11, 2, &hour) ||
      text[13] != ':' || !read_digits(text, 14, 2, &minute) || text[16] != ':' ||
      !read_digits(text, 17, 2, &second)) {
    fail_at(pointer, bad);
  }
  std::size_t pos = 19;
  std::int64_t fraction_ns = 0;
  if (pos < text.size() && text[pos] == '.') {
    ++pos;
    const std::size_t digits_start = pos;
    std::int64_t scale = 100'000'000;
    while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
      fraction_ns += (text[pos] - '0') * scale;
      scale /= 10;
      ++pos;
    }
    if (pos == digits_start) fail_at(pointer, bad);
  }
  int offset_seconds = 0;
  if (pos < text.size() && (text[pos] == 'Z' || text[pos] == 'z')) {
    ++pos;
  } else if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) {
    int offset_hour = 0;
    int offset_minute = 0;
    if (!read_digits(text, pos + 1, 2, &offset_hour) || pos + 3 >= text.size() ||
        text[pos + 3] != ':' || !read_digits(text, pos + 4, 2, &offset_minute) ||
        offset_hour > 23 || offset_minute > 59) {
      fail_at(pointer, bad);
    }
    offset_seconds = (offset_hour * 3600 + offset_minute * 60) * (text[pos] == '-' ? -1 : 1);
    pos += 6;
  } else {
    fail_at(pointer, bad + " (the offset, Z or +HH:MM, is required)");
  }
  if (pos != text.size()) fail_at(pointer, bad);

  const std::chrono::year_month_day ymd{std::chrono::year(year),
                                        std::chrono::month(static_cast<unsigned>(month)),
                                        std::chrono::day(static_cast<unsigned>(day))};
  if (!ymd.ok() || hour > 23 || minute > 59) fail_at(pointer, bad + " (no such date or time)");
  if (second > 59) {
    fail_at(pointer, bad +
                         " (a leap second cannot be held: dates count seconds since 1970 "
                         "without them)");
  }
  const std::int64_t days = std::chrono::sys_days(ymd).time_since_epoch().count();
  const std::int64_t seconds =
      days * 86400 + hour * 3600 + minute * 60 + second - std::int64_t{offset_seconds};
  std::int64_t whole_seconds = seconds;
  if (whole_seconds < 0 && fraction_ns > 0) {
    // Borrow a second so that the earliest representable instant does not
    // overflow on its way to a sum that fits.
    whole_seconds += 1;
    fraction_ns -= 1'000'000'000;
  }
  std::int64_t nanoseconds = 0;
  if (__builtin_mul_overflow(whole_seconds, std::int64_t{1'000'000'000}, &nanoseconds) ||
      __builtin_add_overflow(nanoseconds, fraction_ns, &nanoseconds)) {
    fail_at(pointer, "$date: " + std::string(text) +
                         " is outside what a date holds (1677-09-21 to 2262-04-11 UTC)");
  }
  return krx::Date{nanoseconds};
}

krx::Uuid parse_uuid(const Json& v, const std::string& pointer) {
  const std::string usage =
      "$uuid takes the form \"01234567-89ab-cdef-0123-456789abcdef\" (hex digits in "
      "8-4-4-4-12 groups)";
  if (!v.is_string()) fail_at(pointer, usage + ", not " + v.dump());
  const std::string& text = v.get_ref<const std::string&>();
  krx::Uuid uuid;
  std::size_t byte = 0;
  bool ok = text.size() == 36;
  for (std::size_t i = 0; ok && i < text.size();) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      ok = text[i] == '-';
      ++i;
      continue;
    }
    std::uint8_t value = 0;
    auto [ptr, ec] = std::from_chars(text.data() + i, text.data() + i + 2, value, 16);
    ok = ec == std::errc() && ptr == text.data() + i + 2 && byte < uuid.bytes.size();
    if (ok) uuid.bytes[byte++] = value;
    i += 2;
  }
  if (!ok) fail_at(pointer, usage + ", not \"" + text + "\"");
  return uuid;
}

krx::Value convert(const Json& json, std::string& pointer);

krx::Value convert_typed(const std::string& type, const Json& v, const std::string& pointer) {
  if (type == "$data") {
    if (!v.is_string()) fail_at(pointer, "$data takes a base64 string, not " + v.dump());
    return decode_base64(v.get_ref<const std::string&>(), pointer);
  }
  if (type == "$uint64") return to_uint64(v, pointer);
  if (type == "$int64") return to_int64(v, pointer);
  if (type == "$double") return to_double(v, pointer);
  if (type == "$date") return parse_date(v, pointer);
  if (type == "$uuid") return parse_uuid(v, pointer);
  if (type == "$fd") return krx::Fd{to_fd_index(v, pointer)};
  if (type == "$null") {
    if (!v.is_null()) fail_at(pointer, "$null takes null, not " + v.dump());
    return krx::Null{};
  }
  fail_at(pointer, fmt::format("unknown typed value {} (known: $data, $uint64, $int64, $double, "
                               "$date, $uuid, $fd, $null)",
                               type));
}

krx::Value convert(const Json& json, std::string& pointer) {
  switch (json.type()) {
    case Json::value_t::null:
      return krx::Null{};
    case Json::value_t::boolean:
      return json.get<bool>();
    case Json::value_t::number_integer:
      return json.get<std::int64_t>();
    case Json::value_t::number_unsigned: {
      // Every integer that fits is an int64, the type requests use; only
      // larger ones need the unsigned type.
      const auto value = json.get<std::uint64_t>();
      if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        return static_cast<std::int64_t>(value);
      }
      return value;
    }
    case Json::value_t::number_float:
      return json.get<double>();
    case Json::value_t::string:
      refuse_nul(json.get_ref<const std::string&>(), pointer, "a string");
      return json.get<std::string>();
    case Json::value_t::array: {
      krx::Array array;
      array.reserve(json.size());
      for (std::size_t i = 0; i < json.size(); ++i) {
        const std::size_t length = pointer.size();
        pointer += "/" + std::to_string(i);
        array.push_back(convert(json[i], pointer));
        pointer.resize(length);
      }
      return array;
    }
    case Json::value_t::object: {
      if (json.size() == 1 && json.begin().key().starts_with('$')) {
        return convert_typed(json.begin().key(), json.begin().value(), pointer);
      }
      krx::Dictionary dictionary;
      dictionary.reserve(json.size());
      for (const auto& [key, value] : json.items()) {
        refuse_nul(key, pointer, "a key");
        const std::size_t length = pointer.size();
        pointer += "/" + pointer_token(key);
        dictionary.emplace_back(key, convert(value, pointer));
        pointer.resize(length);
      }
      return dictionary;
    }
    case Json::value_t::binary:
    case Json::value_t::discarded:
      break;
  }
  fail_at(pointer, "a value of no JSON type");
}

}  // namespace

std::optional<krx::Value> krx_from_json(std::string_view text, std::string* error) {
  DocumentBuilder builder;
  if (!Json::sax_parse(text, &builder, nlohmann::detail::input_format_t::json, true, false)) {
    *error = builder.error().empty() ? "malformed JSON" : builder.error();
    return std::nullopt;
  }
  try {
    std::string pointer;
    return convert(builder.document(), pointer);
  } catch (const ConversionError& e) {
    *error = e.message;
    return std::nullopt;
  }
}

}  // namespace vtldctl
