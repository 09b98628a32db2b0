// How vtldctl prints a message from the helper that is neither an answer nor
// progress: as the system prints any object for "%@" (see
// service/description.h), so it reads like the helper's own log.
#pragma once

#include <string>

#include "krx/value.h"

namespace vtldctl {

// Types the program's values do not have print as text: null as "(null)", a
// uuid in upper-case 8-4-4-4-12 form, a descriptor as "<fd N>", an unsigned
// integer in decimal. Dictionary keys print in byte order.
std::string describe(const krx::Value& value);

}  // namespace vtldctl
