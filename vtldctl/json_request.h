// Requests written as JSON, for `vtldctl send`: the JSON is turned into the
// KRX value it stands for, so any request the helper could receive can be
// typed by hand.
//
//   JSON                          KRX
//   object                        dictionary, keys in the order written
//   string                        string
//   true, false                   bool
//   integer                       int64; above 9223372036854775807: uint64
//   number with fraction/exponent double
//   null                          null
//   array                         array
//
// Types JSON has no literal for are written as an object with one key:
//
//   {"$data": "AAEC"}                      data, standard base64 with padding
//   {"$uint64": 123} or {"$uint64": "123"} uint64
//   {"$int64": -5} or {"$int64": "-5"}     int64
//   {"$double": 1.5} or {"$double": "inf"} double ("inf", "-inf", "nan" too)
//   {"$date": "2026-11-16T06:32:26Z"}      date: RFC 3339, fractional seconds
//                                          and offsets allowed; kept as
//                                          nanoseconds since 1970 (UTC)
//   {"$uuid": "01234567-89ab-cdef-0123-456789abcdef"}   uuid
//   {"$fd": 0}                             descriptor index (the helper
//                                          closes descriptors, never uses them)
//   {"$null": null}                        null
//
// An object whose only key starts with "$" must be one of these; anything
// else ("$foo") is refused rather than sent as a dictionary, so a typo never
// reaches the helper as a silently different request. Objects with more than
// one key are plain dictionaries whatever their keys.
//
// Also refused: malformed JSON, a key repeated within one object (KRX
// dictionaries cannot repeat keys), NUL characters in strings or keys (KRX
// strings cannot hold them), integers outside both int64 and uint64, and
// nesting deeper than kMaxJsonDepth.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "krx/value.h"

namespace vtldctl {

// Arrays and objects nest at most this deep, as in a KRX message.
inline constexpr int kMaxJsonDepth = 64;

// Converts one JSON text (a single value; surrounding white space allowed).
// On failure returns nullopt and sets `error` to a one-line reason that names
// where in the document it applies (a JSON Pointer such as /writeNvram:/Value).
std::optional<krx::Value> krx_from_json(std::string_view text, std::string* error);

}  // namespace vtldctl
