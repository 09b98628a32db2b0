#include "base/value.h"

#include <algorithm>
#include <limits>

namespace vtl {

Date date_from_unix(std::int64_t seconds, std::int64_t nanoseconds) {
  constexpr std::int64_t kLimit = std::numeric_limits<std::int64_t>::max() / 1'000'000'000 - 1;
  return Date(std::chrono::seconds(std::clamp(seconds, -kLimit, kLimit)) +
              std::chrono::nanoseconds(nanoseconds));
}

const Value* Value::find(std::string_view key) const {
  const Dictionary* dict = dictionary();
  if (dict == nullptr) return nullptr;
  auto it = dict->find(key);
  return it == dict->end() ? nullptr : &it->second;
}

const std::string* Value::find_string(std::string_view key) const {
  const Value* v = find(key);
  return v == nullptr ? nullptr : v->string();
}

}  // namespace vtl
