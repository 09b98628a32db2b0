// How a walk says how far it got, to whoever asked for progress: the total
// once, then each piece of work as it is done. The service supplies one that
// turns these into "Progress" messages; a walk without one reports nothing.
#pragma once

#include <cstdint>

namespace vtl {

class ProgressReporter {
 public:
  virtual ~ProgressReporter() = default;
  virtual void initializePercentageWithTotal(std::int64_t total) = 0;
  virtual void updatePercentageWithIncrement(std::int64_t increment) = 0;
};

}  // namespace vtl
