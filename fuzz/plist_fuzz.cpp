// Property lists as a hostile file or request would bring them, XML or
// binary. Whatever is read must write out again and read back: the value
// read from its binary form is a fixed point after one pass (dates settle to
// the microsecond and libplist's range in that pass), and its XML form reads
// too. Bytes are not compared: libplist 2.2 sometimes shares equal containers
// in its binary output, depending on where they lie in memory.
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <type_traits>
#include <variant>

#include "base/description.h"
#include "base/plist.h"

namespace {

// Value's own == treats NaN as unequal to itself; here the bits must match.
bool same(const vtl::Value& a, const vtl::Value& b) {
  if (a.storage().index() != b.storage().index()) return false;
  if (const double* x = a.real()) {
    return std::bit_cast<std::uint64_t>(*x) == std::bit_cast<std::uint64_t>(*b.real());
  }
  if (const vtl::Array* x = a.array()) {
    const vtl::Array& y = *b.array();
    if (x->size() != y.size()) return false;
    for (std::size_t i = 0; i < x->size(); ++i) {
      if (!same((*x)[i], y[i])) return false;
    }
    return true;
  }
  if (const vtl::Dictionary* x = a.dictionary()) {
    const vtl::Dictionary& y = *b.dictionary();
    if (x->size() != y.size()) return false;
    for (auto i = x->begin(), j = y.begin(); i != x->end(); ++i, ++j) {
      if (i->first != j->first || !same(i->second, j->second)) return false;
    }
    return true;
  }
  return a == b;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Entitlement files and manifests are far smaller; beyond this only the
  // run gets slower.
  if (size > (std::size_t{1} << 20)) return 0;
  const auto value = vtl::plist_from_bytes(std::span(data, size));
  if (!value) return 0;
  static_cast<void>(vtl::description(*value));

  const auto again = vtl::plist_from_bytes(vtl::plist_to_binary(*value));
  if (!again) std::abort();
  const auto third = vtl::plist_from_bytes(vtl::plist_to_binary(*again));
  if (!third || !same(*again, *third)) std::abort();

  const auto xml = vtl::plist_to_xml(*again);
  const auto* xml_bytes = reinterpret_cast<const std::uint8_t*>(xml.data());
  if (!vtl::plist_from_bytes(std::span(xml_bytes, xml.size()))) std::abort();
  return 0;
}
