// KRX frames as a hostile peer would send them. Whatever decodes must encode
// again to the very same bytes and decode to the same value: the codec has
// one way to write each value, so anything else is a bug in one direction.
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <variant>

#include "krx/codec.h"

namespace {

// Value's own == treats NaN as unequal to itself; here the bits must match.
bool same(const krx::Value& a, const krx::Value& b) {
  if (a.type() != b.type()) return false;
  if (const auto* x = a.get<double>()) {
    return std::bit_cast<std::uint64_t>(*x) == std::bit_cast<std::uint64_t>(*b.get<double>());
  }
  if (const auto* x = a.get<krx::Array>()) {
    const auto& y = *b.get<krx::Array>();
    if (x->size() != y.size()) return false;
    for (std::size_t i = 0; i < x->size(); ++i) {
      if (!same((*x)[i], y[i])) return false;
    }
    return true;
  }
  if (const auto* x = a.get<krx::Dictionary>()) {
    const auto& y = *b.get<krx::Dictionary>();
    if (x->size() != y.size()) return false;
    for (std::size_t i = 0; i < x->size(); ++i) {
      if ((*x)[i].first != y[i].first || !same((*x)[i].second, y[i].second)) return false;
    }
    return true;
  }
  return a == b;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // A frame is at most 16 MiB; beyond a few of them nothing new is reached.
  if (size > (std::size_t{1} << 20)) return 0;
  const std::span<const std::uint8_t> input(data, size);
  auto result = krx::decode_frame(input);
  if (const auto* more = std::get_if<krx::NeedMore>(&result)) {
    if (more->bytes_wanted == 0) std::abort();
    return 0;
  }
  const auto* decoded = std::get_if<krx::Decoded>(&result);
  if (decoded == nullptr) return 0;
  if (decoded->frame_size < krx::kFrameHeaderSize || decoded->frame_size > size) std::abort();

  const auto again = krx::encode_frame(decoded->value);
  if (again.size() != decoded->frame_size) std::abort();
  if (!std::equal(again.begin(), again.end(), input.begin())) std::abort();
  auto second = krx::decode_frame(std::span(again));
  const auto* redecoded = std::get_if<krx::Decoded>(&second);
  if (redecoded == nullptr || !same(redecoded->value, decoded->value)) std::abort();
  return 0;
}
