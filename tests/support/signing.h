// Test support for signed manifests: the committed test PKI, a device root
// with its trust directories and "SigningFuse", and the platform wired to
// them for in-process tests.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/value.h"
#include "manifest/manifest_signer.h"
#include "platform/certificate_services.h"
#include "platform/device_properties.h"
#include "tests/support/capture.h"
#include "tests/support/daemon.h"

namespace testsupport {

// The fixed time the fixture chains are evaluated at: 2026-06-01 00:00 UTC.
std::chrono::system_clock::time_point pki_now();

// Fixture certificate tests/fixtures/pki/<name>.pem as DER.
vtl::Data pki_der(const std::string& name);
// The PEM text of tests/fixtures/pki/<name>.key.
std::string pki_key(const std::string& name);
// A signer with `leaf`'s key and the chain `leaf`, then `rest`.
vtl::ManifestSigner pki_signer(const std::string& leaf, const std::vector<std::string>& rest);

// What a device says about its signing fuse.
enum class Fuse { kTrue, kFalse, kAbsent };
const char* fuse_name(Fuse fuse);

// Copies the fixture trust directories to <root>/etc/vtld/trust and writes
// <root>/sim/device-properties.plist with `fuse`.
void install_fixture_trust(const std::string& root);
void write_fuse(const std::string& root, Fuse fuse);

// A raw manifest with every required key; "Backup" holds `backup`.
vtl::Dictionary raw_manifest(vtl::Dictionary backup = {}, std::int64_t version = 3);
// Serialized forms.
vtl::Data binary_plist(const vtl::Value& value);

// The signer a simulated device made for itself (its test signer), whose
// manifests that device's helper accepts.
vtl::ManifestSigner device_signer(const Device& device);

// Signs `raw` with `signer` and writes the envelope, as a binary property
// list, to `path`.
void write_signed_manifest(const std::string& path, const vtl::ManifestSigner& signer,
                           const vtl::Dictionary& raw);

// The test platform plus certificate services on <root>'s trust directories
// (evaluated at pki_now() unless told otherwise) and <root>'s simulated
// device properties.
class SigningPlatform {
 public:
  explicit SigningPlatform(const std::string& root, platform::TrustClock clock = pki_now_clock());
  static platform::TrustClock pki_now_clock();

  TestPlatform base;

 private:
  std::unique_ptr<platform::CertificateServices> services_;
  std::unique_ptr<platform::DeviceProperties> properties_;
};

}  // namespace testsupport
