// What vtldctl prints with --json: one JSON object per line on standard
// output, so that a script reads each line as it comes. Values from the
// helper are written the way `vtldctl send` reads them (json_request.h):
// types JSON has no literal for as one-key objects such as {"$data": "AAEC"}.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>

#include <nlohmann/json.hpp>

#include "krx/value.h"

namespace vtldctl {

using Json = nlohmann::ordered_json;

// The UTC calendar day and time of an instant, whole seconds apart from the
// nanoseconds of the second; good for every instant a date can hold.
struct UtcTime {
  std::chrono::year_month_day day;
  std::chrono::hh_mm_ss<std::chrono::seconds> time;
  std::int64_t nanoseconds = 0;
};
UtcTime utc_time(std::int64_t nanoseconds_since_1970);

// `value` in the form krx_from_json reads back as the same value.
Json json_from_krx(const krx::Value& value);

// `object` on one line of `out`; text that is not UTF-8 shows as U+FFFD.
void print_json_line(std::FILE* out, const Json& object);

}  // namespace vtldctl
