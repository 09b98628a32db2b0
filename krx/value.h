// KRX typed values: what travels in a KRX message. Distinct from the program's
// vtl::Value on purpose: KRX has types (unsigned integers, UUIDs, descriptors,
// null) that requests may not carry; the request converter decides what
// crosses over.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace krx {

enum class Type : std::uint8_t {
  Null = 0x00,
  Bool = 0x01,
  Int64 = 0x02,
  UInt64 = 0x03,
  Double = 0x04,
  Date = 0x05,
  Data = 0x06,
  String = 0x07,
  Uuid = 0x08,
  Fd = 0x09,
  Array = 0x0A,
  Dictionary = 0x0B,
  // Event-only types: never on the wire.
  Connection = 0x40,
  Error = 0x41,
};

// Printable name of a type, e.g. "dictionary".
std::string_view type_name(Type type);

class Value;

struct Null {
  friend bool operator==(Null, Null) { return true; }
};
struct Date {
  std::int64_t nanoseconds_since_1970 = 0;
  friend bool operator==(Date, Date) = default;
};
struct Uuid {
  std::array<std::uint8_t, 16> bytes{};
  friend bool operator==(const Uuid&, const Uuid&) = default;
};
struct Fd {
  std::uint32_t index = 0;
  friend bool operator==(Fd, Fd) = default;
};
using Data = std::vector<std::uint8_t>;
using Array = std::vector<Value>;
// Entries in the order they were added (on the wire: the order they arrived).
// Keys are unique; a decoded dictionary never repeats one.
using Dictionary = std::vector<std::pair<std::string, Value>>;

class Value {
 public:
  using Storage = std::variant<Null, bool, std::int64_t, std::uint64_t, double, Date, Data,
                               std::string, Uuid, Fd, Array, Dictionary>;

  Value() = default;  // null
  template <typename T, std::enable_if_t<std::is_constructible_v<Storage, T&&>, int> = 0>
  Value(T&& v) : storage_(std::forward<T>(v)) {}      // NOLINT(google-explicit-constructor)
  Value(const char* s) : storage_(std::string(s)) {}  // NOLINT(google-explicit-constructor)

  Type type() const { return static_cast<Type>(kTypes[storage_.index()]); }
  const Storage& storage() const { return storage_; }
  Storage& storage() { return storage_; }

  template <typename T>
  const T* get() const {
    return std::get_if<T>(&storage_);
  }
  template <typename T>
  T* get() {
    return std::get_if<T>(&storage_);
  }

  // Dictionary helpers: lookup (nullptr when absent or not a dictionary) and
  // set (replaces an existing key, else appends).
  const Value* find(std::string_view key) const;
  void set(std::string key, Value value);

  friend bool operator==(const Value& a, const Value& b) { return a.storage_ == b.storage_; }

 private:
  static constexpr std::uint8_t kTypes[] = {0x00, 0x01, 0x02, 0x03, 0x04, 0x05,
                                            0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B};
  Storage storage_;
};

// A one-entry dictionary, the form of every reply the helper sends.
Value make_dictionary(std::string key, Value value);

}  // namespace krx
