// The binary property-list writer against the readers: whatever value the
// input makes, both our writers (the whole-value one and the manifest store's
// streaming one) must produce a list that our reader reads back as exactly
// that value, and that libplist's reader reads too (as other clients will).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include <plist/plist.h>

#include "base/plist.h"
#include "fuzz/plist_value_source.h"
#include "manifest/binary_plist_writer.h"
#include "manifest/manifest_store.h"

namespace {

void require_libplist_reads(const std::vector<std::uint8_t>& bytes) {
  plist_t root = nullptr;
  plist_from_bin(reinterpret_cast<const char*>(bytes.data()),
                 static_cast<std::uint32_t>(bytes.size()), &root);
  if (root == nullptr) std::abort();
  plist_free(root);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > (std::size_t{1} << 16)) return 0;
  plistfuzz::ValueSource source(std::span<const std::uint8_t>(data, size));
  const vtl::Value value = source.value();

  const std::vector<std::uint8_t> binary = vtl::bplist::to_binary(value);
  require_libplist_reads(binary);
  const std::optional<vtl::Value> whole = vtl::plist_from_bytes(binary);
  if (!whole || !(*whole == value)) std::abort();

  // The manifest store keeps records under paths: the value becomes one.
  vtl::manifest::ManifestStore store;
  store.set_value("/record", value);
  store.set_value("/other", vtl::Value(vtl::Dictionary{{"k", value}}));
  std::vector<std::uint8_t> bytes;
  vtl::bplist::ByteSink sink(&bytes);
  if (store.write_binary(sink) != 0) std::abort();
  require_libplist_reads(bytes);
  const std::optional<vtl::Value> streamed = vtl::plist_from_bytes(bytes);
  if (!streamed || !(*streamed == vtl::Value(store.to_dictionary()))) std::abort();
  if (!(streamed->find("/record") != nullptr && *streamed->find("/record") == value)) std::abort();
  return 0;
}
