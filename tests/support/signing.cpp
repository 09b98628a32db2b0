#include "tests/support/signing.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "base/plist.h"
#include "platform/platform.h"
#include "platform/sim/test_signer.h"

namespace testsupport {
namespace {

namespace fs = std::filesystem;

std::string pki_path(const std::string& file) {
  return std::string(VTL_FIXTURES_DIR) + "/pki/" + file;
}

std::string read_text(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace

std::chrono::system_clock::time_point pki_now() {
  using namespace std::chrono;
  return sys_days(year(2026) / June / 1);
}

vtl::Data pki_der(const std::string& name) {
  const std::string pem = read_text(pki_path(name + ".pem"));
  std::optional<std::vector<vtl::Data>> certs = vtl::certificates_from_pem(
      std::span(reinterpret_cast<const std::uint8_t*>(pem.data()), pem.size()));
  if (!certs || certs->size() != 1) throw std::runtime_error("not one certificate: " + name);
  return certs->front();
}

std::string pki_key(const std::string& name) { return read_text(pki_path(name + ".key")); }

vtl::ManifestSigner pki_signer(const std::string& leaf, const std::vector<std::string>& rest) {
  std::vector<vtl::Data> chain{pki_der(leaf)};
  for (const std::string& name : rest) chain.push_back(pki_der(name));
  std::optional<vtl::ManifestSigner> signer = vtl::ManifestSigner::from_parts(pki_key(leaf), chain);
  if (!signer) throw std::runtime_error("no key for " + leaf);
  return *signer;
}

const char* fuse_name(Fuse fuse) {
  switch (fuse) {
    case Fuse::kTrue:
      return "fused";
    case Fuse::kFalse:
      return "unfused";
    case Fuse::kAbsent:
      return "no_fuse";
  }
  return "?";
}

void install_fixture_trust(const std::string& root) {
  const fs::path trust = fs::path(root) / "etc/vtld/trust";
  fs::create_directories(trust);
  fs::copy(pki_path("trust"), trust, fs::copy_options::recursive);
}

void write_fuse(const std::string& root, Fuse fuse) {
  vtl::Dictionary answers;
  answers.emplace("DiskUsage", vtl::Value(vtl::Dictionary{}));
  if (fuse != Fuse::kAbsent) answers.emplace("SigningFuse", fuse == Fuse::kTrue);
  fs::create_directories(fs::path(root) / "sim");
  const std::string xml = vtl::plist_to_xml(vtl::Value(std::move(answers)));
  std::ofstream(root + "/sim/device-properties.plist", std::ios::binary | std::ios::trunc) << xml;
}

vtl::Dictionary raw_manifest(vtl::Dictionary backup, std::int64_t version) {
  vtl::Dictionary raw;
  raw.emplace("Version", vtl::Value(version));
  raw.emplace("Info", vtl::Value(vtl::Dictionary{{"Name", vtl::Value("test content")}}));
  raw.emplace("Backup", vtl::Value(std::move(backup)));
  raw.emplace("App", vtl::Value(vtl::Array{}));
  raw.emplace("AppData", vtl::Value(vtl::Dictionary{}));
  return raw;
}

vtl::Data binary_plist(const vtl::Value& value) { return vtl::plist_to_binary(value); }

vtl::ManifestSigner device_signer(const Device& device) {
  const std::string keep = device.path(std::string(platform::sim::kTestSignerDirectory)) + "/";
  std::string error;
  std::optional<vtl::ManifestSigner> signer = vtl::ManifestSigner::load(
      keep + std::string(platform::sim::kTestSignerKeyFile),
      {keep + std::string(platform::sim::kTestSignerCertificateFile)}, &error);
  if (!signer) throw std::runtime_error(error);
  return *signer;
}

void write_signed_manifest(const std::string& path, const vtl::ManifestSigner& signer,
                           const vtl::Dictionary& raw) {
  std::optional<vtl::Dictionary> envelope = signer.envelope(binary_plist(vtl::Value(raw)));
  if (!envelope) throw std::runtime_error("cannot sign");
  const vtl::Data bytes = binary_plist(vtl::Value(std::move(*envelope)));
  if (vtl::write_file_atomically(path, bytes) != 0)
    throw std::runtime_error("cannot write " + path);
}

platform::TrustClock SigningPlatform::pki_now_clock() {
  return [] { return pki_now(); };
}

SigningPlatform::SigningPlatform(const std::string& root, platform::TrustClock clock)
    : base(root),
      services_(platform::make_openssl_certificate_services(root, std::move(clock))),
      properties_(platform::make_sim_device_properties(root)) {
  base.roles.certificate_services = services_.get();
  base.roles.device_properties = properties_.get();
  base.apply();
}

}  // namespace testsupport
