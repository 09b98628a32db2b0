// The Zmra chunk-map header as a damaged or hostile medium would hold it:
// validation, the check, the repair (which must leave a header the check
// accepts), the export, chunk lookup and reading it from a device.
#include <cstddef>
#include <cstdint>
#include <span>

#include "fuzz/partition_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 9 + 8192) return 0;
  vtl::fuzzing::run_zmra_header(std::span(data, size));
  return 0;
}
