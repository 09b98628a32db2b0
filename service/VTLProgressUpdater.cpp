#include "service/VTLProgressUpdater.h"

#include "base/VTLLog.h"
#include "service/VTLHMessageResponder.h"

namespace vtl {

VTLProgressUpdater& VTLProgressUpdater::sharedInstance() {
  static VTLProgressUpdater* const instance = new VTLProgressUpdater();
  return *instance;
}

void VTLProgressUpdater::initializePercentageWithTotal(std::int64_t total) {
  VTLLog("Initializing percent with total %lld", total);
  setFinished(0);
  setTotal(total);
  setReportedPercent(0);
}

void VTLProgressUpdater::updatePercentageWithIncrement(std::int64_t increment) {
  const std::int64_t done = finished() + increment;
  setFinished(done);
  const std::int64_t all = total();
  // Nothing to measure against: a walk of nothing reports nothing.
  if (all == 0) return;
  // Products beyond 64 bits wrap, as the count's own arithmetic does; the
  // unsigned multiply keeps that wrap defined.
  const auto product = static_cast<std::int64_t>(static_cast<std::uint64_t>(done) * 100U);
  if (all == -1 && product == INT64_MIN) return;  // the one quotient that does not fit
  const auto percent = static_cast<std::int32_t>(product / all);
  if (percent <= reportedPercent()) return;
  VTLLog("Percentage increased to %d", percent);
  VTLHMessageResponder::sharedInstance().sendProgress(percent);
  setReportedPercent(percent);
}

}  // namespace vtl
