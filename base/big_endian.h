// Big-endian unsigned integers of 1, 2, 4 or 8 bytes, as binary property
// lists hold their references, offsets and numbers: loaded and stored whole,
// a copy and (on a little-endian machine) a byte swap.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace vtl {
namespace big_endian_detail {

template <unsigned Width>
using Unsigned = std::conditional_t<
    Width == 1, std::uint8_t,
    std::conditional_t<Width == 2, std::uint16_t,
                       std::conditional_t<Width == 4, std::uint32_t, std::uint64_t>>>;

// Big-endian to native and back: the same swap either way.
template <typename T>
T swapped_if_little(T v) {
  if constexpr (std::endian::native == std::endian::big || sizeof v == 1) {
    return v;
  } else if constexpr (sizeof v == 2) {
    return __builtin_bswap16(v);
  } else if constexpr (sizeof v == 4) {
    return __builtin_bswap32(v);
  } else {
    return __builtin_bswap64(v);
  }
}

}  // namespace big_endian_detail

template <unsigned Width>
std::uint64_t load_big_endian(const std::uint8_t* p) {
  static_assert(Width == 1 || Width == 2 || Width == 4 || Width == 8);
  big_endian_detail::Unsigned<Width> v{};
  std::memcpy(&v, p, Width);
  return big_endian_detail::swapped_if_little(v);
}

// The low `Width` bytes of `value`.
template <unsigned Width>
void store_big_endian(std::uint8_t* p, std::uint64_t value) {
  static_assert(Width == 1 || Width == 2 || Width == 4 || Width == 8);
  const auto v =
      big_endian_detail::swapped_if_little(static_cast<big_endian_detail::Unsigned<Width>>(value));
  std::memcpy(p, &v, Width);
}

}  // namespace vtl
