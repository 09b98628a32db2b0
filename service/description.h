// Descriptions: how the system prints an object where a message says "%@".
//   string      as itself
//   number      decimal; a boolean as 1 or 0
//   real        shortest form that reads back the same
//   data        {length = N, bytes = 0x0011...}
//   date        2026-11-16 06:32:26 +0000 (UTC, whole seconds)
//   array, dictionary  old-style property-list text: { Path = "/private/var"; }
#pragma once

#include <string>

#include "service/value.h"

namespace vtl {

std::string description(const Value& value);
std::string date_description(Date date);

}  // namespace vtl
