// Text as the helper carries it: UTF-8 without NUL. The KRX codec holds every
// string of a message to it; property lists and the file walk check names
// with it before they put them in a value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace vtl {

// True when `p[0..n)` is well-formed UTF-8 (no overlong forms, no surrogates,
// nothing above U+10FFFF) and holds no NUL.
bool is_text(const std::uint8_t* p, std::size_t n);
inline bool is_text(std::string_view s) {
  return is_text(reinterpret_cast<const std::uint8_t*>(s.data()), s.size());
}

}  // namespace vtl
