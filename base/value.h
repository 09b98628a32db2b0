// The program's one value type: what requests are converted into, what
// manifests and file records are made of, and what property lists read and
// write. Value semantics throughout; copying a Value copies the whole tree.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace vtl {

class Value;

// An instant, to the nanosecond, on the system clock (UTC).
using Date = std::chrono::sys_time<std::chrono::nanoseconds>;
// A file system's time (seconds and nanoseconds since 1970) as a Date. Times
// beyond what a Date holds (before 1678 or after 2262, which file systems
// allow) are kept at the nearest one it holds.
Date date_from_unix(std::int64_t seconds, std::int64_t nanoseconds);
using Data = std::vector<std::uint8_t>;
using Array = std::vector<Value>;
// Keys are kept exactly as received (no trimming, no case change). A sorted map
// gives the dictionary a stable enumeration order: byte order of the keys.
using Dictionary = std::map<std::string, Value, std::less<>>;

class Value {
 public:
  using Storage =
      std::variant<std::string, bool, std::int64_t, double, Date, Data, Array, Dictionary>;

  Value() : storage_(Dictionary{}) {}
  Value(std::string s) : storage_(std::move(s)) {}         // NOLINT(google-explicit-constructor)
  Value(std::string_view s) : storage_(std::string(s)) {}  // NOLINT(google-explicit-constructor)
  Value(const char* s) : storage_(std::string(s)) {}       // NOLINT(google-explicit-constructor)
  Value(bool b) : storage_(b) {}                           // NOLINT(google-explicit-constructor)
  Value(std::int64_t i) : storage_(i) {}                   // NOLINT(google-explicit-constructor)
  Value(int i) : storage_(std::int64_t{i}) {}              // NOLINT(google-explicit-constructor)
  Value(double d) : storage_(d) {}                         // NOLINT(google-explicit-constructor)
  Value(Date d) : storage_(d) {}                           // NOLINT(google-explicit-constructor)
  Value(Data d) : storage_(std::move(d)) {}                // NOLINT(google-explicit-constructor)
  Value(Array a) : storage_(std::move(a)) {}               // NOLINT(google-explicit-constructor)
  Value(Dictionary d) : storage_(std::move(d)) {}          // NOLINT(google-explicit-constructor)

  const Storage& storage() const { return storage_; }
  Storage& storage() { return storage_; }

  // Typed access: a pointer to the held value when it has that type, else nullptr.
  const std::string* string() const { return std::get_if<std::string>(&storage_); }
  const bool* boolean() const { return std::get_if<bool>(&storage_); }
  const std::int64_t* integer() const { return std::get_if<std::int64_t>(&storage_); }
  const double* real() const { return std::get_if<double>(&storage_); }
  const Date* date() const { return std::get_if<Date>(&storage_); }
  const Data* data() const { return std::get_if<Data>(&storage_); }
  const Array* array() const { return std::get_if<Array>(&storage_); }
  const Dictionary* dictionary() const { return std::get_if<Dictionary>(&storage_); }
  Dictionary* dictionary() { return std::get_if<Dictionary>(&storage_); }
  Array* array() { return std::get_if<Array>(&storage_); }

  // Dictionary lookup: the value under `key`, or nullptr when this is not a
  // dictionary or has no such key.
  const Value* find(std::string_view key) const;
  // The string under `key`, or nullptr when absent or not a string.
  const std::string* find_string(std::string_view key) const;

  friend bool operator==(const Value& a, const Value& b) { return a.storage_ == b.storage_; }

 private:
  Storage storage_;
};

}  // namespace vtl
