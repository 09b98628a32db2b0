#include "base/utf8.h"

#include <cstring>

namespace vtl {
namespace {

constexpr std::uint64_t kLowBits = 0x0101010101010101ULL;
constexpr std::uint64_t kHighBits = 0x8080808080808080ULL;

// Eight ASCII bytes, none of them NUL: the common case of keys and paths.
bool plain_ascii_word(const std::uint8_t* p) {
  std::uint64_t w;
  std::memcpy(&w, p, sizeof w);
  const bool has_zero = ((w - kLowBits) & ~w & kHighBits) != 0;
  return (w & kHighBits) == 0 && !has_zero;
}

bool continuation(std::uint8_t b) { return (b & 0xC0) == 0x80; }

}  // namespace

bool is_text(const std::uint8_t* p, std::size_t n) {
  std::size_t i = 0;
  while (i < n) {
    if (n - i >= 8 && plain_ascii_word(p + i)) {
      i += 8;
      continue;
    }
    const std::uint8_t c = p[i];
    if (c < 0x80) {
      if (c == 0) return false;
      ++i;
      continue;
    }
    // C0 and C1 would only start overlong two-byte forms; F5..FF lie above
    // U+10FFFF.
    if (c < 0xC2 || c > 0xF4) return false;
    const std::size_t extra = c < 0xE0 ? 1 : c < 0xF0 ? 2 : 3;
    if (n - i <= extra) return false;
    const std::uint8_t c1 = p[i + 1];
    // The second byte's range rules out overlong three- and four-byte forms
    // (E0, F0), surrogates (ED) and code points above U+10FFFF (F4).
    std::uint8_t lo = 0x80;
    std::uint8_t hi = 0xBF;
    if (c == 0xE0) lo = 0xA0;
    if (c == 0xED) hi = 0x9F;
    if (c == 0xF0) lo = 0x90;
    if (c == 0xF4) hi = 0x8F;
    if (c1 < lo || c1 > hi) return false;
    for (std::size_t k = 2; k <= extra; ++k) {
      if (!continuation(p[i + k])) return false;
    }
    i += extra + 1;
  }
  return true;
}

}  // namespace vtl
