#include "base/VTLLog.h"

#include <cmath>
#include <cstdio>
#include <limits>

#include "base/VTLLogModel.h"
#include "base/description.h"

namespace vtl {
namespace {

// A width or precision beyond this is not a message anyone meant to write; the
// placeholder is then printed as it stands instead of allocating megabytes.
constexpr unsigned kMaxFieldWidth = 4096;

constexpr std::string_view kMissingArgument = "(null)";

// One parsed placeholder: "%" flags width .precision length conversion.
struct Placeholder {
  std::string flags;
  unsigned width = 0;
  bool has_width = false;
  unsigned precision = 0;
  bool has_precision = false;
  std::string_view length;  // "", "hh", "h", "l", "ll", "q", "j", "z", "t", "L"
  char conversion = 0;
};

bool is_flag(char c) { return c == '-' || c == '+' || c == ' ' || c == '#' || c == '0'; }

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Reads a decimal number at `pos`; false when it exceeds kMaxFieldWidth.
bool parse_number(std::string_view format, std::size_t& pos, unsigned& value) {
  value = 0;
  while (pos < format.size() && is_digit(format[pos])) {
    value = value * 10 + static_cast<unsigned>(format[pos] - '0');
    if (value > kMaxFieldWidth) return false;
    ++pos;
  }
  return true;
}

// Parses the placeholder that starts with the '%' at format[start]. On success
// `end` is one past its conversion character. Returns false for a placeholder
// that is cut off, uses '*' or has an oversized field; the caller prints such
// text unchanged.
bool parse_placeholder(std::string_view format, std::size_t start, Placeholder& p,
                       std::size_t& end) {
  std::size_t pos = start + 1;
  while (pos < format.size() && is_flag(format[pos])) {
    if (p.flags.find(format[pos]) == std::string::npos) p.flags += format[pos];
    ++pos;
  }
  if (pos < format.size() && is_digit(format[pos])) {
    p.has_width = true;
    if (!parse_number(format, pos, p.width)) return false;
  }
  if (pos < format.size() && format[pos] == '.') {
    ++pos;
    p.has_precision = true;
    if (!parse_number(format, pos, p.precision)) return false;
  }
  if (pos >= format.size() || format[pos] == '*') return false;
  static constexpr std::string_view kLengths[] = {"hh", "ll", "h", "l", "q", "j", "z", "t", "L"};
  for (std::string_view length : kLengths) {
    if (format.substr(pos, length.size()) == length) {
      p.length = length;
      pos += length.size();
      break;
    }
  }
  if (pos >= format.size()) return false;
  p.conversion = format[pos];
  end = pos + 1;
  return true;
}

std::string pad(std::string text, const Placeholder& p) {
  if (p.has_width && text.size() < p.width) {
    const std::size_t fill = p.width - text.size();
    if (p.flags.find('-') != std::string::npos) {
      text.append(fill, ' ');
    } else {
      text.insert(0, fill, ' ');
    }
  }
  return text;
}

// Text conversions (%@, %s, and any conversion whose argument is not a number):
// precision limits the bytes taken, width pads with blanks.
std::string format_text(std::string_view text, const Placeholder& p) {
  if (p.has_precision && text.size() > p.precision) text = text.substr(0, p.precision);
  return pad(std::string(text), p);
}

// Runs snprintf with a format rebuilt from the parsed placeholder. Only the
// characters checked by parse_placeholder reach it, and every conversion is
// given an argument of the type it reads, so a hostile message format cannot
// make it read or write anything else.
template <typename T>
std::string c_format(const Placeholder& p, std::string_view length, char conversion, T value) {
  std::string spec = "%" + p.flags;
  if (p.has_width) spec += std::to_string(p.width);
  if (p.has_precision) spec += "." + std::to_string(p.precision);
  spec += length;
  spec += conversion;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  const int size = std::snprintf(nullptr, 0, spec.c_str(), value);
  if (size < 0) return spec;
  std::string out(static_cast<std::size_t>(size) + 1, '\0');
  static_cast<void>(std::snprintf(out.data(), out.size(), spec.c_str(), value));
#pragma GCC diagnostic pop
  out.resize(static_cast<std::size_t>(size));
  return out;
}

bool is_number(const LogArg& arg) {
  return arg.kind() == LogArg::Kind::Signed || arg.kind() == LogArg::Kind::Unsigned ||
         arg.kind() == LogArg::Kind::Real;
}

// %hhd and %hd narrow the way C does, since the writer asked for it; every
// other length is taken as the argument's own 64 bits, so a value is never cut
// short because a message says %d for a 64-bit quantity.
long long narrow_signed(std::int64_t v, std::string_view length) {
  if (length == "hh") return static_cast<signed char>(v);
  if (length == "h") return static_cast<short>(v);
  return v;
}

unsigned long long narrow_unsigned(std::uint64_t v, std::string_view length) {
  if (length == "hh") return static_cast<unsigned char>(v);
  if (length == "h") return static_cast<unsigned short>(v);
  return v;
}

void append_utf8(std::string& out, std::uint64_t code_point) {
  if (code_point > 0x10FFFF || (code_point >= 0xD800 && code_point <= 0xDFFF)) {
    code_point = 0xFFFD;
  }
  const auto cp = static_cast<std::uint32_t>(code_point);
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

// Formats one placeholder with its argument (nullptr: none left).
std::string format_one(const Placeholder& p, const LogArg* arg) {
  if (arg == nullptr) return pad(std::string(kMissingArgument), p);
  const bool numeric = is_number(*arg);
  switch (p.conversion) {
    case 'd':
    case 'i':
      if (!numeric) break;
      return c_format(p, "ll", 'd', narrow_signed(arg->as_signed(), p.length));
    case 'u':
    case 'o':
    case 'x':
    case 'X':
      if (!numeric) break;
      return c_format(p, "ll", p.conversion, narrow_unsigned(arg->as_unsigned(), p.length));
    case 'c':
    case 'C': {
      if (!numeric) break;
      std::string ch;
      if (p.conversion == 'C' || p.length == "l") {
        append_utf8(ch, arg->as_unsigned());
      } else {
        ch += static_cast<char>(static_cast<unsigned char>(arg->as_unsigned()));
      }
      return pad(ch, p);
    }
    case 'p': {
      if (!numeric) break;
      return pad(c_format(Placeholder{}, "ll", 'x', narrow_unsigned(arg->as_unsigned(), ""))
                     .insert(0, "0x"),
                 p);
    }
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
      if (!numeric) break;
      return c_format(p, "", p.conversion, arg->as_real());
    default:  // '@', 's', 'S' and text under a numeric conversion
      break;
  }
  return format_text(arg->describe(), p);
}

}  // namespace

std::int64_t LogArg::as_signed() const {
  switch (kind_) {
    case Kind::Signed:
      return signed_;
    case Kind::Unsigned:
      return static_cast<std::int64_t>(unsigned_);
    case Kind::Real: {
      // A C cast, made total: NaN is 0 and out-of-range values saturate.
      if (std::isnan(real_)) return 0;
      if (real_ >= 0x1p63) return std::numeric_limits<std::int64_t>::max();
      if (real_ < -0x1p63) return std::numeric_limits<std::int64_t>::min();
      return static_cast<std::int64_t>(real_);
    }
    default:
      return 0;
  }
}

std::uint64_t LogArg::as_unsigned() const {
  switch (kind_) {
    case Kind::Unsigned:
      return unsigned_;
    case Kind::Real:
      if (real_ >= 0x1p63 && real_ < 0x1p64) return static_cast<std::uint64_t>(real_);
      if (real_ >= 0x1p64) return std::numeric_limits<std::uint64_t>::max();
      return static_cast<std::uint64_t>(as_signed());
    default:
      return static_cast<std::uint64_t>(as_signed());
  }
}

double LogArg::as_real() const {
  switch (kind_) {
    case Kind::Real:
      return real_;
    case Kind::Signed:
      return static_cast<double>(signed_);
    case Kind::Unsigned:
      return static_cast<double>(unsigned_);
    default:
      return 0.0;
  }
}

std::string LogArg::describe() const {
  switch (kind_) {
    case Kind::Null:
      return std::string(kMissingArgument);
    case Kind::Signed:
      return std::to_string(signed_);
    case Kind::Unsigned:
      return std::to_string(unsigned_);
    case Kind::Real:
      return description(Value(real_));
    case Kind::Text:
      return std::string(text_);
    case Kind::Object:
      return description(*object_);
  }
  return std::string(kMissingArgument);
}

std::string format_message(std::string_view format, std::span<const LogArg> args) {
  std::string out;
  out.reserve(format.size() + 32);
  std::size_t next_arg = 0;
  std::size_t pos = 0;
  while (pos < format.size()) {
    const std::size_t percent = format.find('%', pos);
    if (percent == std::string_view::npos) {
      out += format.substr(pos);
      break;
    }
    out += format.substr(pos, percent - pos);
    Placeholder p;
    std::size_t end = 0;
    if (!parse_placeholder(format, percent, p, end)) {
      // Cut off, '*' or an absurd width: the text is printed as written and no
      // argument is taken, so the rest of the message still lines up.
      const std::size_t stop = std::min(format.size(), format.find('%', percent + 1));
      out += format.substr(percent, stop - percent);
      pos = stop;
      continue;
    }
    pos = end;
    switch (p.conversion) {
      case '%':
        out += '%';
        continue;
      case '@':
      case 's':
      case 'S':
      case 'd':
      case 'i':
      case 'u':
      case 'o':
      case 'x':
      case 'X':
      case 'c':
      case 'C':
      case 'p':
      case 'f':
      case 'F':
      case 'e':
      case 'E':
      case 'g':
      case 'G':
      case 'a':
      case 'A': {
        const LogArg* arg = next_arg < args.size() ? &args[next_arg] : nullptr;
        ++next_arg;
        out += format_one(p, arg);
        continue;
      }
      default:
        // Unknown conversions (and %n, which would write through a pointer)
        // are printed literally and take no argument.
        out += format.substr(percent, end - percent);
        continue;
    }
  }
  return out;
}

namespace {
thread_local LogHold* t_hold = nullptr;
}  // namespace

void VTLLogv(std::string_view format, std::span<const LogArg> args) {
  if (t_hold != nullptr) {
    t_hold->held_.push_back(format_message(format, args));
    return;
  }
  VTLLogModel::sharedInstance().logWithFormat_andArgs(format, args);
}

LogHold::LogHold() { t_hold = this; }

LogHold::~LogHold() { t_hold = nullptr; }

void LogHold::release() {
  for (const std::string& message : held_) VTLLogModel::sharedInstance().logMessage(message);
  held_.clear();
}

}  // namespace vtl
