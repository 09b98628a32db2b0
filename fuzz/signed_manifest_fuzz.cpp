// Signed manifest files as a hostile client would name them: the envelope,
// its certificates and chain, and (through services that trust anything) the
// payload behind the signature. See signed_manifest_harness.h.
#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <system_error>

#include "fuzz/signed_manifest_harness.h"

namespace {

// A device root of the fuzzer's own, removed when the process ends. Never
// destroyed: the exit handler that removes it runs after static destructors
// of objects made before it was registered.
const std::string& device_root() {
  static const std::string* const root = [] {
    char pattern[] = "/tmp/signed-manifest-fuzz-XXXXXX";
    const char* made = ::mkdtemp(pattern);
    if (made == nullptr) std::abort();
    vtl::fuzzing::install_fixture_trust(VTL_FIXTURES_DIR, made);
    return new std::string(made);
  }();
  static const bool cleanup_registered = [] {
    return std::atexit([] {
             std::error_code ec;
             std::filesystem::remove_all(*root, ec);
           }) == 0;
  }();
  static_cast<void>(cleanup_registered);
  return *root;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Beyond a few megabytes nothing new is reached, only time spent.
  if (size > (std::size_t{4} << 20)) return 0;
  static vtl::fuzzing::SignedManifestHarness harness(device_root());
  harness.run(std::span(data, size));
  return 0;
}
