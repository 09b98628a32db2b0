// VTLLog: the one log function every part of the helper writes through.
//
// The format is printf's, plus "%@" for objects. Arguments are type-checked at
// compile time by construction of LogArg; the conversion in the format then
// decides how an argument is printed:
//   %@        the argument's description (see description.h); a string as itself
//   %s        a string as itself; any other argument as its description
//   %d %ld %lld %u %x ...   integers, with printf's flags and width
//   %f %g ... reals
// A placeholder with no argument left prints "(null)", the way the platform's
// formatter prints a missing object; some of the system's messages rely on it.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "base/value.h"

namespace vtl {

// One argument of a log message. Holds references, so it lives only for the
// duration of the VTLLog call that made it.
class LogArg {
 public:
  enum class Kind { Null, Signed, Unsigned, Real, Text, Object };

  LogArg(std::nullptr_t) : kind_(Kind::Null) {}                                     // NOLINT
  LogArg(const char* s) : kind_(s ? Kind::Text : Kind::Null), text_(s ? s : "") {}  // NOLINT
  LogArg(std::string_view s) : kind_(Kind::Text), text_(s) {}                       // NOLINT
  LogArg(const std::string& s) : kind_(Kind::Text), text_(s) {}                     // NOLINT
  LogArg(const Value& v) : kind_(Kind::Object), object_(&v) {}                      // NOLINT
  LogArg(const Value* v) : kind_(v ? Kind::Object : Kind::Null), object_(v) {}      // NOLINT
  LogArg(const std::string* s)                                                      // NOLINT
      : kind_(s ? Kind::Text : Kind::Null), text_(s ? std::string_view(*s) : std::string_view()) {}
  LogArg(bool b) : kind_(Kind::Signed), signed_(b ? 1 : 0) {}  // NOLINT
  LogArg(double d) : kind_(Kind::Real), real_(d) {}            // NOLINT
  template <typename T>
  requires(std::is_integral_v<T> && !std::is_same_v<T, bool>) LogArg(T i) {  // NOLINT
    if constexpr (std::is_signed_v<T>) {
      kind_ = Kind::Signed;
      signed_ = static_cast<std::int64_t>(i);
    } else {
      kind_ = Kind::Unsigned;
      unsigned_ = static_cast<std::uint64_t>(i);
    }
  }

  Kind kind() const { return kind_; }
  std::string_view text() const { return text_; }
  const Value* object() const { return object_; }
  std::int64_t as_signed() const;
  std::uint64_t as_unsigned() const;
  double as_real() const;
  // What "%@" prints for this argument.
  std::string describe() const;

 private:
  Kind kind_ = Kind::Null;
  std::string_view text_;
  const Value* object_ = nullptr;
  std::int64_t signed_ = 0;
  std::uint64_t unsigned_ = 0;
  double real_ = 0;
};

// Formats `format` with `args` as described above.
std::string format_message(std::string_view format, std::span<const LogArg> args);

// Hands one formatted message to the shared VTLLogModel, or to this
// thread's LogHold while one is alive.
void VTLLogv(std::string_view format, std::span<const LogArg> args);

// While alive, keeps the messages its thread logs instead of writing them:
// release() writes what is held, in order, and discard() drops it; whatever
// is held when the hold ends is dropped. For work spread over threads where
// only the outcome decides which messages stand (a restore logs the one
// failure that ended it, not every failure that raced it).
// REQUIRES: at most one hold per thread at a time.
class LogHold {
 public:
  LogHold();
  ~LogHold();
  LogHold(const LogHold&) = delete;
  LogHold& operator=(const LogHold&) = delete;

  void release();
  void discard() { held_.clear(); }

 private:
  friend void VTLLogv(std::string_view format, std::span<const LogArg> args);
  std::vector<std::string> held_;
};

template <typename... Args>
void VTLLog(std::string_view format, const Args&... args) {
  if constexpr (sizeof...(Args) == 0) {
    VTLLogv(format, {});
  } else {
    const LogArg list[] = {LogArg(args)...};
    VTLLogv(format, list);
  }
}

// Trace messages: kept in the code where the helper's developers want them,
// discarded in every build.
template <typename... Args>
void VTLTrace(std::string_view /*format*/, const Args&... /*args*/) {}

}  // namespace vtl
