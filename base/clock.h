// Where the helper reads the time. The logger's dates, the daily file name and
// the expiry of old logs all come from here, so that tests can set the clock to
// the second.
#pragma once

#include <ctime>

#include "base/value.h"

namespace vtl {

class Clock {
 public:
  virtual ~Clock() = default;
  virtual Date now() const = 0;
  // Calendar fields of `date` in the local time zone (the daily file name).
  virtual std::tm local_calendar(Date date) const;

  // The system clock; the default everywhere outside tests.
  static const Clock& system();
};

}  // namespace vtl
