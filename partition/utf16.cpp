#include "partition/utf16.h"

#include <algorithm>
#include <optional>

namespace vtl {
namespace {

// Decodes one code point at `pos`, advancing it; nullopt for anything that is
// not the shortest well-formed encoding of a scalar value.
std::optional<char32_t> decode(std::string_view s, std::size_t& pos) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
  const unsigned char lead = byte(pos);
  if (lead < 0x80) {
    ++pos;
    return lead;
  }
  std::size_t length = 0;
  char32_t cp = 0;
  char32_t min = 0;
  if ((lead & 0xE0) == 0xC0) {
    length = 2;
    cp = lead & 0x1FU;
    min = 0x80;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3;
    cp = lead & 0x0FU;
    min = 0x800;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4;
    cp = lead & 0x07U;
    min = 0x10000;
  } else {
    return std::nullopt;
  }
  if (s.size() - pos < length) return std::nullopt;
  for (std::size_t i = 1; i < length; ++i) {
    const unsigned char next = byte(pos + i);
    if ((next & 0xC0) != 0x80) return std::nullopt;
    cp = (cp << 6U) | (next & 0x3FU);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return std::nullopt;
  pos += length;
  return cp;
}

}  // namespace

int utf_encodestr2(std::string_view utf8, std::span<std::uint8_t> out) {
  std::fill(out.begin(), out.end(), std::uint8_t{0});
  const std::size_t capacity = out.size() / 2;
  std::size_t units = 0;
  const auto put = [&](char32_t unit) {
    out[2 * units] = static_cast<std::uint8_t>(unit & 0xFFU);
    out[2 * units + 1] = static_cast<std::uint8_t>(unit >> 8U);
    ++units;
  };
  std::size_t pos = 0;
  while (pos < utf8.size()) {
    const std::optional<char32_t> cp = decode(utf8, pos);
    const std::size_t needed = cp && *cp >= 0x10000 ? 2 : 1;
    if (!cp || capacity - units < needed) {
      std::fill(out.begin(), out.end(), std::uint8_t{0});
      return -1;
    }
    if (needed == 2) {
      const char32_t v = *cp - 0x10000;
      put(0xD800 + (v >> 10U));
      put(0xDC00 + (v & 0x3FFU));
    } else {
      put(*cp);
    }
  }
  return static_cast<int>(units);
}

}  // namespace vtl
