#include "base/value.h"

namespace vtl {

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
