#include "base/description.h"

#include <array>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <variant>

namespace vtl {
namespace {

// Data longer than this prints only its head and tail: log lines stay short
// even when a whole hash list or manifest blob is passed to "%@".
constexpr std::size_t kDataShownInFull = 24;
constexpr std::size_t kDataHeadTail = 8;

void append_hex(std::string& out, const std::uint8_t* bytes, std::size_t count) {
  static constexpr char kDigits[] = "0123456789abcdef";
  for (std::size_t i = 0; i < count; ++i) {
    out += kDigits[bytes[i] >> 4];
    out += kDigits[bytes[i] & 0x0f];
  }
}

std::string data_description(const Data& data) {
  std::string out = "{length = ";
  out += std::to_string(data.size());
  out += ", bytes = 0x";
  if (data.size() <= kDataShownInFull) {
    append_hex(out, data.data(), data.size());
  } else {
    append_hex(out, data.data(), kDataHeadTail);
    out += " ... ";
    append_hex(out, data.data() + data.size() - kDataHeadTail, kDataHeadTail);
  }
  out += '}';
  return out;
}

std::string real_description(double value) {
  // Shortest text that reads back as the same double.
  std::array<char, 64> buffer{};
  auto [end, ec] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
  if (ec != std::errc()) return "nan";  // cannot happen with 64 bytes; keeps the line printable
  return std::string(buffer.data(), end);
}

bool is_bare_word(std::string_view s) {
  if (s.empty()) return false;
  for (char c : s) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '_' || c == '.';
    if (!ok) return false;
  }
  return true;
}

void append_quoted(std::string& out, std::string_view s) {
  if (is_bare_word(s)) {
    out += s;
    return;
  }
  out += '"';
  for (char c : s) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
          std::array<char, 8> escaped{};
          static_cast<void>(std::snprintf(escaped.data(), escaped.size(), "\\U%04x",
                                          static_cast<unsigned>(static_cast<unsigned char>(c))));
          out += escaped.data();
        } else {
          out += c;
        }
    }
  }
  out += '"';
}

void append_description(std::string& out, const Value& value, bool nested);

void append_array(std::string& out, const Array& array) {
  if (array.empty()) {
    out += "( )";
    return;
  }
  out += "( ";
  bool first = true;
  for (const Value& item : array) {
    if (!first) out += ", ";
    first = false;
    append_description(out, item, true);
  }
  out += " )";
}

void append_dictionary(std::string& out, const Dictionary& dictionary) {
  out += '{';
  for (const auto& [key, item] : dictionary) {
    out += ' ';
    append_quoted(out, key);
    out += " = ";
    append_description(out, item, true);
    out += ';';
  }
  out += " }";
}

void append_description(std::string& out, const Value& value, bool nested) {
  std::visit(
      [&](const auto& v) {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, std::string>) {
          if (nested) {
            append_quoted(out, v);
          } else {
            out += v;
          }
        } else if constexpr (std::is_same_v<T, bool>) {
          out += v ? '1' : '0';
        } else if constexpr (std::is_same_v<T, std::int64_t>) {
          out += std::to_string(v);
        } else if constexpr (std::is_same_v<T, double>) {
          out += real_description(v);
        } else if constexpr (std::is_same_v<T, Date>) {
          if (nested) {
            append_quoted(out, date_description(v));
          } else {
            out += date_description(v);
          }
        } else if constexpr (std::is_same_v<T, Data>) {
          out += data_description(v);
        } else if constexpr (std::is_same_v<T, Array>) {
          append_array(out, v);
        } else {
          static_assert(std::is_same_v<T, Dictionary>);
          append_dictionary(out, v);
        }
      },
      value.storage());
}

}  // namespace

std::string description(const Value& value) {
  std::string out;
  append_description(out, value, false);
  return out;
}

std::string date_description(Date date) {
  using namespace std::chrono;
  // floor, not truncation: half a second before 1970 is still 23:59:59 of the
  // day before.
  const sys_seconds seconds = floor<std::chrono::seconds>(date);
  const sys_days day = floor<days>(seconds);
  const year_month_day ymd(day);
  const hh_mm_ss<std::chrono::seconds> time(seconds - day);
  std::array<char, 48> buffer{};
  static_cast<void>(std::snprintf(
      buffer.data(), buffer.size(), "%04d-%02u-%02u %02d:%02d:%02d +0000",
      static_cast<int>(ymd.year()), static_cast<unsigned>(ymd.month()),
      static_cast<unsigned>(ymd.day()), static_cast<int>(time.hours().count()),
      static_cast<int>(time.minutes().count()), static_cast<int>(time.seconds().count())));
  return buffer.data();
}

}  // namespace vtl
