#include "service/krxdictConv.h"

#include "base/VTLLog.h"

namespace vtl::krxdictConv {
namespace {

struct Converter {
  Dictionary& into;

  void operator()(const std::string& key, const krx::Value& value) const {
    // Every entry is visited, supported or not: an unsupported one costs only
    // itself.
    const krx::Value::Storage& v = value.storage();
    if (const bool* b = std::get_if<bool>(&v)) {
      into.insert_or_assign(key, Value(*b));
    } else if (const std::string* s = std::get_if<std::string>(&v)) {
      into.insert_or_assign(key, Value(*s));
    } else if (const std::int64_t* i = std::get_if<std::int64_t>(&v)) {
      into.insert_or_assign(key, Value(*i));
    } else if (std::get_if<krx::Dictionary>(&v) != nullptr) {
      std::optional<Dictionary> nested = initWithKRXDictionary(value);
      into.insert_or_assign(key, Value(std::move(*nested)));
    } else {
      VTLLog("The value for key %@ has a type that is not supported yet", key);
    }
  }
};

}  // namespace

std::optional<Dictionary> initWithKRXDictionary(const krx::Value& krx_dictionary) {
  const krx::Dictionary* entries = krx_dictionary.get<krx::Dictionary>();
  if (entries == nullptr) return std::nullopt;
  Dictionary accumulator;
  Converter convert{accumulator};
  for (const auto& [key, value] : *entries) convert(key, value);
  VTLTrace("%@", accumulator);
  return accumulator;
}

std::optional<Dictionary> dictionaryWithKRXDictionary(const krx::Value& krx_dictionary) {
  return initWithKRXDictionary(krx_dictionary);
}

std::optional<krx::Value> createKRXDictionary(const Dictionary& /*dictionary*/) {
  return std::nullopt;
}

}  // namespace vtl::krxdictConv
