// The signed-manifest reader as the fuzzer drives it, shared with the test
// that replays the committed corpus.
//
// The first input byte picks the certificate services; the rest is the file:
//   even  the real OpenSSL services on the committed test PKI's trust
//         directories, evaluated at a fixed time: envelopes, certificates
//         and chains are fuzzed;
//   odd   services that take any bytes for a certificate and any chain and
//         signature as good, so that the payload checks behind the
//         signature are reached too.
// The device is development hardware ("SigningFuse" false), so both policies
// are tried. Log lines are kept in `log` rather than written out.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/VTLLogModel.h"
#include "manifest/VTLSignedManifest.h"
#include "platform/certificate_services.h"
#include "platform/device_properties.h"
#include "platform/platform.h"
#include "platform/system_log.h"

namespace vtl::fuzzing {

class KeptLog final : public platform::SystemLog {
 public:
  void write(std::string_view message) override { lines.emplace_back(message); }
  std::vector<std::string> lines;
};

class DevelopmentHardware final : public platform::DeviceProperties {
 public:
  std::optional<Value> copy_answer(std::string_view question) override {
    if (question == platform::kSigningFuseQuestion) return Value(false);
    return std::nullopt;
  }
};

class TrustingServices final : public platform::CertificateServices {
 public:
  std::unique_ptr<Certificate> create_certificate(std::span<const std::uint8_t> der) override {
    if (der.empty()) return nullptr;
    return std::make_unique<Certificate>();
  }
  std::unique_ptr<Policy> create_production_signer_policy() override {
    return std::make_unique<Policy>();
  }
  std::unique_ptr<Policy> create_test_signer_policy() override {
    return std::make_unique<Policy>();
  }
  platform::TrustStatus create_trust(std::vector<std::unique_ptr<Certificate>> certificates,
                                     const Policy& /*policy*/,
                                     std::unique_ptr<Trust>* trust) override {
    if (certificates.empty()) return platform::kTrustParam;
    *trust = std::make_unique<Trust>();
    return platform::kTrustSuccess;
  }
  platform::TrustStatus evaluate_trust(Trust& /*trust*/, platform::TrustResult* result) override {
    *result = platform::TrustResult::kUnspecified;
    return platform::kTrustSuccess;
  }
  std::unique_ptr<PublicKey> copy_public_key(const Trust& /*trust*/) override {
    return std::make_unique<PublicKey>();
  }
  bool verify_sha1_signature(const PublicKey& /*key*/, std::span<const std::uint8_t> digest,
                             std::span<const std::uint8_t> /*signature*/) override {
    return digest.size() == 20;
  }
};

class SignedManifestHarness {
 public:
  // `device_root` holds etc/vtld/trust/{production,test}, as a device would.
  explicit SignedManifestHarness(const std::string& device_root)
      : real_(platform::make_openssl_certificate_services(device_root, [] {
          using namespace std::chrono;
          return system_clock::time_point(sys_days(year(2026) / June / 1));
        })) {
    roles_.device_properties = &device_;
    VTLLogModel::sharedInstance().setSystemLog(&log);
  }
  ~SignedManifestHarness() { VTLLogModel::sharedInstance().setSystemLog(nullptr); }
  SignedManifestHarness(const SignedManifestHarness&) = delete;
  SignedManifestHarness& operator=(const SignedManifestHarness&) = delete;

  // Whether the input was accepted as a signed manifest.
  bool run(std::span<const std::uint8_t> input) {
    log.lines.clear();
    if (input.empty()) return false;
    roles_.certificate_services = (input[0] & 1) == 0 ? real_.get() : &trusting_;
    DataInputStream stream(input.subspan(1));
    std::unique_ptr<VTLSignedManifest> manifest =
        VTLSignedManifest::signedManifestWithNSStream(stream, roles_);
    if (!manifest) return false;
    // What the attribute restore asks of an accepted manifest.
    static_cast<void>(manifest->getVersion());
    std::string key;
    for (const std::optional<bplist::Object>& part :
         {manifest->getManifest(), manifest->getAppDataList(), manifest->getGroupDataList(),
          manifest->getPlugInDataList()}) {
      if (!part) continue;
      for (std::size_t i = 0; i < part->size() && part->type() == bplist::Object::Type::kDictionary;
           ++i) {
        static_cast<void>(part->key(i).text(&key));
        static_cast<void>(bplist::to_value(part->value(i)));
      }
    }
    return true;
  }

  KeptLog log;

 private:
  std::unique_ptr<platform::CertificateServices> real_;
  TrustingServices trusting_;
  DevelopmentHardware device_;
  VTLSignedManifest::Roles roles_;
};

// Copies the committed test PKI's trust directories under `device_root`.
inline void install_fixture_trust(const std::string& fixtures_dir, const std::string& device_root) {
  namespace fs = std::filesystem;
  const fs::path trust = fs::path(device_root) / "etc/vtld/trust";
  fs::create_directories(trust);
  fs::copy(fs::path(fixtures_dir) / "pki/trust", trust,
           fs::copy_options::recursive | fs::copy_options::overwrite_existing);
}

}  // namespace vtl::fuzzing
