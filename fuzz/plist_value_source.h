// Turns arbitrary bytes into a Value that a property list can hold exactly:
// strings are UTF-8 without NUL (code points from the whole Unicode range,
// astral planes included, so that UTF-16 surrogate pairs are written), dates
// are whole microseconds within about 125 years of 2001, reals are not NaN,
// nesting stays shallow. Shared by the writer's fuzz target and the test that
// replays its corpus, so that both build the same value from the same bytes.
#pragma once

#include <bit>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "base/value.h"

namespace plistfuzz {

class ValueSource {
 public:
  explicit ValueSource(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  vtl::Value value(int depth = 0) {
    const unsigned tag = byte() % (depth >= kMaxDepth ? 7U : 9U);
    switch (tag) {
      case 0:
        return vtl::Value(text(std::size_t{byte()} % 24));
      case 1:
        return vtl::Value((byte() & 1) != 0);
      case 2:
        return vtl::Value(static_cast<std::int64_t>(word()));
      case 3: {
        const double d = std::bit_cast<double>(word());
        return vtl::Value(std::isnan(d) ? 0.0 : d);
      }
      case 4: {
        // Whole microseconds, about 125 years either side of 2001: a date is
        // a double of seconds since 2001, and beyond 2^32 seconds its step
        // nears a microsecond, so that whole microseconds no longer survive.
        constexpr std::int64_t kSpan = std::int64_t{4'000'000'000} * 1'000'000;
        const auto micros = static_cast<std::int64_t>(word() % (2 * kSpan)) - kSpan;
        return vtl::Value(
            vtl::Date(std::chrono::seconds(978307200) + std::chrono::microseconds(micros)));
      }
      case 5: {
        vtl::Data d(std::size_t{byte()} % 40 + (byte() % 8 == 0 ? 300U : 0U));
        for (auto& b : d) b = byte();
        return vtl::Value(std::move(d));
      }
      case 6:
        return vtl::Value(text(20U + std::size_t{byte()} % 300));
      case 7: {
        vtl::Array a;
        const std::size_t n = std::size_t{byte()} % 20;
        for (std::size_t i = 0; i < n && !empty(); ++i) a.push_back(value(depth + 1));
        return vtl::Value(std::move(a));
      }
      default: {
        vtl::Dictionary d;
        const std::size_t n = std::size_t{byte()} % 20;
        for (std::size_t i = 0; i < n && !empty(); ++i) {
          std::string key = text(std::size_t{byte()} % 12);
          d.insert_or_assign(std::move(key), value(depth + 1));
        }
        return vtl::Value(std::move(d));
      }
    }
  }

  bool empty() const { return at_ >= bytes_.size(); }

 private:
  static constexpr int kMaxDepth = 12;

  std::uint8_t byte() { return at_ < bytes_.size() ? bytes_[at_++] : 0; }

  std::uint64_t word() {
    std::uint64_t w = 0;
    for (int i = 0; i < 8; ++i) w = (w << 8) | byte();
    return w;
  }

  // `n` characters: mostly ASCII, some from anywhere in Unicode.
  std::string text(std::size_t n) {
    std::string s;
    for (std::size_t i = 0; i < n; ++i) {
      const std::uint8_t b = byte();
      if (b < 0xC0) {
        s.push_back(static_cast<char>(b % 0x7F == 0 ? 'x' : b % 0x7F));
        continue;
      }
      char32_t cp = static_cast<char32_t>(
          ((std::uint32_t{b} << 16) | (std::uint32_t{byte()} << 8) | byte()) % 0x110000);
      if (cp == 0 || (cp >= 0xD800 && cp <= 0xDFFF)) cp = 0xFFFD;
      append_utf8(s, cp);
    }
    return s;
  }

  static void append_utf8(std::string& s, char32_t cp) {
    if (cp < 0x80) {
      s.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
      s.push_back(static_cast<char>(0xC0 | (cp >> 6)));
      s.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
      s.push_back(static_cast<char>(0xE0 | (cp >> 12)));
      s.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      s.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
      s.push_back(static_cast<char>(0xF0 | (cp >> 18)));
      s.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
      s.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      s.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
  }

  std::span<const std::uint8_t> bytes_;
  std::size_t at_ = 0;
};

}  // namespace plistfuzz
