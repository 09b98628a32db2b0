// Log formats as the helper's messages might hold them, mistakes included:
// formatting must end and stay within its buffers whatever the placeholders,
// and whatever is left of the arguments.
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "base/VTLLog.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1 || size > 4096) return 0;
  static const vtl::Value kObject(vtl::Dictionary{{"Path", vtl::Value("/private/var")},
                                                  {"List", vtl::Value(vtl::Array{vtl::Value(1)})}});
  const vtl::LogArg args[] = {vtl::LogArg(-7),   vtl::LogArg("text"),  vtl::LogArg(kObject),
                              vtl::LogArg(2.5),  vtl::LogArg(nullptr), vtl::LogArg(~0ULL),
                              vtl::LogArg(true), vtl::LogArg(1e308)};
  // The first byte picks how many arguments the message gets.
  const std::size_t count = data[0] % (std::size(args) + 1);
  const std::string_view format(reinterpret_cast<const char*>(data + 1), size - 1);
  static_cast<void>(vtl::format_message(format, std::span(args, count)));
  return 0;
}
