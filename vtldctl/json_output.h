// What vtldctl prints with --json: one JSON object per line on standard
// output, so that a script reads each line as it comes. Values from the
// helper are written the way `vtldctl send` reads them (json_request.h):
// types JSON has no literal for as one-key objects such as {"$data": "AAEC"}.
#pragma once

#include <cstdio>

#include <nlohmann/json.hpp>

#include "krx/value.h"

namespace vtldctl {

using Json = nlohmann::ordered_json;

// `value` in the form krx_from_json reads back as the same value.
Json json_from_krx(const krx::Value& value);

// `object` on one line of `out`; text that is not UTF-8 shows as U+FFFD.
void print_json_line(std::FILE* out, const Json& object);

}  // namespace vtldctl
