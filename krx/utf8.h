// Text as KRX carries it: UTF-8 without NUL. Shared by the codec and its
// callers that want to check a string before they put it in a message.
#pragma once

#include <cstddef>
#include <cstdint>

namespace krx {

// True when `p[0..n)` is well-formed UTF-8 (no overlong forms, no surrogates,
// nothing above U+10FFFF) and holds no NUL.
bool is_text(const std::uint8_t* p, std::size_t n);

}  // namespace krx
