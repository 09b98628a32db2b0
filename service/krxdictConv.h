// Request conversion: KRX dictionaries into the program's dictionaries.
//
// Only the types requests use cross over: booleans, strings, 64-bit signed
// integers and dictionaries (to any depth). Anything else is logged by key and
// dropped, and the command then sees that key as absent. The reverse
// direction exists in name only: replies are built in KRX form directly.
#pragma once

#include <optional>

#include "base/value.h"
#include "krx/value.h"

namespace vtl::krxdictConv {

// A new dictionary converted from `krx_dictionary`; nullopt when it is not a
// KRX dictionary.
std::optional<Dictionary> dictionaryWithKRXDictionary(const krx::Value& krx_dictionary);
std::optional<Dictionary> initWithKRXDictionary(const krx::Value& krx_dictionary);
// Declared for the reverse conversion, which nothing needs: always nothing.
std::optional<krx::Value> createKRXDictionary(const Dictionary& dictionary);

}  // namespace vtl::krxdictConv
