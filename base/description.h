// Descriptions: how the system prints an object where a message says "%@".
//   string      as itself
//   number      decimal; a boolean as 1 or 0
//   real        shortest form that reads back the same ("0.1", "1", "1e+100",
//               "nan", "inf", "-inf")
//   data        {length = N, bytes = 0x0011...}: lower-case hex, all bytes up
//               to 24 of them; longer data shows its first 8 bytes, " ... " and
//               its last 8 bytes, so that a log line stays short whatever the
//               payload:
//                 {length = 0, bytes = 0x}
//                 {length = 40, bytes = 0x0001020304050607 ... 2021222324252627}
//   date        2026-11-16 06:32:26 +0000 (UTC, whole seconds; an instant
//               between two seconds prints the earlier one, also before 1970)
//   array, dictionary  old-style property-list text on one line:
//                 ( 1, two, "three four" )
//                 { Key = Value; Path = "/private/var"; }
//                 ( )   { }   for empty ones
//               Dictionary entries come in key order. Inside a collection a
//               string (a key as well) is written bare when it is non-empty and
//               made only of letters, digits, _ and . ; otherwise it is put
//               in double quotes, with \" \\ \n \t \r escaped and any other
//               control byte written as \Uxxxx. A date inside a collection is
//               its description in quotes (it holds blanks); numbers, data and
//               nested collections are written as they print on their own.
#pragma once

#include <string>

#include "base/value.h"

namespace vtl {

std::string description(const Value& value);
std::string date_description(Date date);

}  // namespace vtl
