#include "krx/value.h"

#include <algorithm>

namespace krx {

std::string_view type_name(Type type) {
  switch (type) {
    case Type::Null:
      return "null";
    case Type::Bool:
      return "bool";
    case Type::Int64:
      return "int64";
    case Type::UInt64:
      return "uint64";
    case Type::Double:
      return "double";
    case Type::Date:
      return "date";
    case Type::Data:
      return "data";
    case Type::String:
      return "string";
    case Type::Uuid:
      return "uuid";
    case Type::Fd:
      return "fd";
    case Type::Array:
      return "array";
    case Type::Dictionary:
      return "dictionary";
    case Type::Connection:
      return "connection";
    case Type::Error:
      return "error";
  }
  return "unknown";
}

const Value* Value::find(std::string_view key) const {
  const auto* dict = get<Dictionary>();
  if (dict == nullptr) return nullptr;
  auto it = std::find_if(dict->begin(), dict->end(),
                         [key](const auto& entry) { return entry.first == key; });
  return it == dict->end() ? nullptr : &it->second;
}

// A value that is not a dictionary becomes an empty one first: a caller that
// sets a key means to build a dictionary, and a reply must never go out half
// built as some other type.
void Value::set(std::string key, Value value) {
  auto* dict = get<Dictionary>();
  if (dict == nullptr) {
    storage_ = Dictionary{};
    dict = get<Dictionary>();
  }
  for (auto& entry : *dict) {
    if (entry.first == key) {
      entry.second = std::move(value);
      return;
    }
  }
  dict->emplace_back(std::move(key), std::move(value));
}

Value make_dictionary(std::string key, Value value) {
  Dictionary dict;
  dict.emplace_back(std::move(key), std::move(value));
  return Value(std::move(dict));
}

}  // namespace krx
