#include "vtldctl/describe.h"

#include <chrono>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <variant>

#include <fmt/format.h>

#include "base/description.h"
#include "base/value.h"

namespace vtldctl {
namespace {

vtl::Value to_program_value(const krx::Value& value) {
  return std::visit(
      [](const auto& v) -> vtl::Value {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, krx::Null>) {
          return "(null)";
        } else if constexpr (std::is_same_v<T, bool> || std::is_same_v<T, std::int64_t> ||
                             std::is_same_v<T, double> || std::is_same_v<T, std::string> ||
                             std::is_same_v<T, krx::Data>) {
          return vtl::Value(v);
        } else if constexpr (std::is_same_v<T, std::uint64_t>) {
          if (v <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            return static_cast<std::int64_t>(v);
          }
          return std::to_string(v);
        } else if constexpr (std::is_same_v<T, krx::Date>) {
          return vtl::Date(std::chrono::nanoseconds(v.nanoseconds_since_1970));
        } else if constexpr (std::is_same_v<T, krx::Uuid>) {
          const auto& b = v.bytes;
          return fmt::format(
              "{:02X}{:02X}{:02X}{:02X}-{:02X}{:02X}-{:02X}{:02X}-{:02X}{:02X}-"
              "{:02X}{:02X}{:02X}{:02X}{:02X}{:02X}",
              b[0], b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12],
              b[13], b[14], b[15]);
        } else if constexpr (std::is_same_v<T, krx::Fd>) {
          return fmt::format("<fd {}>", v.index);
        } else if constexpr (std::is_same_v<T, krx::Array>) {
          vtl::Array array;
          array.reserve(v.size());
          for (const krx::Value& element : v) array.push_back(to_program_value(element));
          return array;
        } else {
          static_assert(std::is_same_v<T, krx::Dictionary>);
          vtl::Dictionary dictionary;
          for (const auto& [key, element] : v) dictionary.emplace(key, to_program_value(element));
          return dictionary;
        }
      },
      value.storage());
}

}  // namespace

std::string describe(const krx::Value& value) { return vtl::description(to_program_value(value)); }

}  // namespace vtldctl
