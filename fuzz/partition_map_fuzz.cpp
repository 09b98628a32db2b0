// The disk the partition map is read from, as a hostile or broken device
// would present it: the MBR signature, the GPT header and entries, the names,
// and every adjustment of the map read.
#include <cstddef>
#include <cstdint>
#include <span>

#include "fuzz/partition_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Three blocks of the largest size hold everything the reader looks at.
  if (size > 2 + 3 * 16384) return 0;
  vtl::fuzzing::run_partition_map(std::span(data, size));
  return 0;
}
