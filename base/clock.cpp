#include "base/clock.h"

#include <time.h>

#include <mutex>

namespace vtl {
namespace {

class SystemClock final : public Clock {
 public:
  Date now() const override {
    return std::chrono::time_point_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now());
  }
};

}  // namespace

std::tm Clock::local_calendar(Date date) const {
  // localtime_r need not read TZ by itself; read it once for the process.
  static std::once_flag tz_loaded;
  std::call_once(tz_loaded, [] { ::tzset(); });
  const auto seconds = std::chrono::floor<std::chrono::seconds>(date);
  const std::time_t t = static_cast<std::time_t>(seconds.time_since_epoch().count());
  std::tm fields{};
  if (::localtime_r(&t, &fields) == nullptr) {
    // Only a year beyond int's range fails; keep a valid, recognisable date.
    fields = std::tm{};
    fields.tm_year = 70;
    fields.tm_mday = 1;
  }
  return fields;
}

const Clock& Clock::system() {
  // Never destroyed: a thread that logs while the process exits must still
  // find it.
  static const Clock* const clock = new SystemClock();
  return *clock;
}

}  // namespace vtl
