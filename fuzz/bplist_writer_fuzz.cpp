// The binary property-list writer against libplist's reader: whatever value
// the input makes, both our writers (the whole-value one and the manifest
// store's streaming one) must produce a list that libplist reads back as
// exactly that value.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "fuzz/plist_value_source.h"
#include "manifest/binary_plist_writer.h"
#include "manifest/manifest_store.h"
#include "service/plist.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > (std::size_t{1} << 16)) return 0;
  plistfuzz::ValueSource source(std::span<const std::uint8_t>(data, size));
  const vtl::Value value = source.value();

  const std::optional<vtl::Value> whole = vtl::plist_from_bytes(vtl::bplist::to_binary(value));
  if (!whole || !(*whole == value)) std::abort();

  // The manifest store keeps records under paths: the value becomes one.
  vtl::manifest::ManifestStore store;
  store.set_value("/record", value);
  store.set_value("/other", vtl::Value(vtl::Dictionary{{"k", value}}));
  std::vector<std::uint8_t> bytes;
  vtl::bplist::ByteSink sink(&bytes);
  if (store.write_binary(sink) != 0) std::abort();
  const std::optional<vtl::Value> streamed = vtl::plist_from_bytes(bytes);
  if (!streamed || !(*streamed == vtl::Value(store.to_dictionary()))) std::abort();
  if (!(streamed->find("/record") != nullptr && *streamed->find("/record") == value)) std::abort();
  return 0;
}
