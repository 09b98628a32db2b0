// UTF-8 to UTF-16LE for the name fields of on-disk partition records (the
// Zmra header's and the GPT's), which hold up to 36 UTF-16 code units,
// zero-padded and with no terminator when full.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace vtl {

// Encodes `utf8` as UTF-16LE into `out`, which is zero-filled first: the
// remainder of a field is always zero. Returns the number of code units
// written, or -1 when `utf8` is not well-formed UTF-8 (overlong forms,
// surrogates and code points above U+10FFFF included) or needs more than
// out.size() / 2 code units; `out` is all zero then.
int utf_encodestr2(std::string_view utf8, std::span<std::uint8_t> out);

}  // namespace vtl
