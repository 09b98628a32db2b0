// VTLProgressUpdater: turns a running count of work into whole percentages and
// sends a "Progress" message each time the percentage rises.
#pragma once

#include <atomic>
#include <cstdint>

#include "manifest/progress_reporter.h"

namespace vtl {

class VTLProgressUpdater final : public ProgressReporter {
 public:
  static VTLProgressUpdater& sharedInstance();

  void initializePercentageWithTotal(std::int64_t total) override;
  void updatePercentageWithIncrement(std::int64_t increment) override;

  std::int64_t total() const { return total_.load(); }
  void setTotal(std::int64_t t) { total_.store(t); }
  std::int64_t finished() const { return finished_.load(); }
  void setFinished(std::int64_t f) { finished_.store(f); }
  std::int32_t reportedPercent() const { return reportedPercent_; }
  void setReportedPercent(std::int32_t p) { reportedPercent_ = p; }

 private:
  VTLProgressUpdater() = default;

  std::atomic<std::int64_t> total_{0};
  std::atomic<std::int64_t> finished_{0};
  std::int32_t reportedPercent_ = 0;
};

}  // namespace vtl
