// Little-endian fields in on-disk records (the Zmra header, the GPT). Every
// access is checked against the span it is given: an offset outside the
// record is a programming error and aborts, it never reads or writes past
// the buffer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

namespace vtl::le {

template <typename T>
T load(std::span<const std::uint8_t> bytes, std::size_t offset) {
  if (offset > bytes.size() || bytes.size() - offset < sizeof(T)) std::abort();
  const std::span<const std::uint8_t> field = bytes.subspan(offset, sizeof(T));
  T value = 0;
  for (std::size_t i = sizeof(T); i-- > 0;) {
    value = static_cast<T>((value << 8U) | field[i]);
  }
  return value;
}

template <typename T>
void store(std::span<std::uint8_t> bytes, std::size_t offset, T value) {
  if (offset > bytes.size() || bytes.size() - offset < sizeof(T)) std::abort();
  const std::span<std::uint8_t> field = bytes.subspan(offset, sizeof(T));
  for (std::size_t i = 0; i < sizeof(T); ++i) {
    field[i] = static_cast<std::uint8_t>(value >> (8U * i));
  }
}

inline std::uint16_t load16(std::span<const std::uint8_t> b, std::size_t o) {
  return load<std::uint16_t>(b, o);
}
inline std::uint32_t load32(std::span<const std::uint8_t> b, std::size_t o) {
  return load<std::uint32_t>(b, o);
}
inline std::uint64_t load64(std::span<const std::uint8_t> b, std::size_t o) {
  return load<std::uint64_t>(b, o);
}

}  // namespace vtl::le
