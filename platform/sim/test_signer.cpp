#include "platform/sim/test_signer.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <span>

#include "base/errors.h"
#include "base/path.h"
#include "base/plist.h"
#include "platform/certificate_services.h"

namespace platform::sim {
namespace {

struct X509Free {
  void operator()(X509* x) const { X509_free(x); }
};
struct PkeyFree {
  void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
struct BioFree {
  void operator()(BIO* b) const { BIO_free(b); }
};
struct ExtensionFree {
  void operator()(X509_EXTENSION* e) const { X509_EXTENSION_free(e); }
};
struct BignumFree {
  void operator()(BIGNUM* b) const { BN_free(b); }
};
using X509Ptr = std::unique_ptr<X509, X509Free>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyFree>;

constexpr const char* kOrganization = "Tessal Simulated Device";
constexpr const char* kRootName = "Test Manifest Signing Root (simulated device)";
constexpr const char* kSignerName = "Test Manifest Signer (simulated device)";
constexpr long kOneDay = 24L * 60 * 60;
// Long enough to outlive any simulated device; the day before creation as
// the start keeps a clock a little behind the host's from refusing it.
constexpr long kValidDays = 20L * 366;

// The signer's key must be RSA: manifests are signed with PKCS#1 v1.5. The
// root only signs the signer's certificate, and an EC key, made in a
// fraction of an RSA key's time, keeps creating a device quick.
PkeyPtr make_signer_key() { return PkeyPtr(EVP_RSA_gen(2048)); }
PkeyPtr make_root_key() { return PkeyPtr(EVP_EC_gen("P-256")); }

bool add_extension(X509* cert, X509V3_CTX* ctx, int nid, const char* value) {
  std::unique_ptr<X509_EXTENSION, ExtensionFree> ext(X509V3_EXT_conf_nid(nullptr, ctx, nid, value));
  return ext && X509_add_ext(cert, ext.get(), -1) == 1;
}

// A certificate for `key` named `name`, issued by `issuer` with
// `issuer_key` (itself when both are null), with `extensions`.
X509Ptr make_certificate(EVP_PKEY* key, const char* name, X509* issuer, EVP_PKEY* issuer_key,
                         std::span<const std::pair<int, const char*>> extensions) {
  X509Ptr cert(X509_new());
  if (!cert || X509_set_version(cert.get(), 2) != 1) return nullptr;
  unsigned char serial_bytes[16];
  if (RAND_bytes(serial_bytes, sizeof serial_bytes) != 1) return nullptr;
  serial_bytes[0] &= 0x7f;  // a positive serial
  std::unique_ptr<BIGNUM, BignumFree> serial(BN_bin2bn(serial_bytes, sizeof serial_bytes, nullptr));
  if (!serial || BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(cert.get())) == nullptr) {
    return nullptr;
  }
  if (X509_gmtime_adj(X509_getm_notBefore(cert.get()), -kOneDay) == nullptr ||
      X509_gmtime_adj(X509_getm_notAfter(cert.get()), kValidDays * kOneDay) == nullptr) {
    return nullptr;
  }
  X509_NAME* subject = X509_get_subject_name(cert.get());
  const auto* org = reinterpret_cast<const unsigned char*>(kOrganization);
  const auto* common = reinterpret_cast<const unsigned char*>(name);
  if (X509_NAME_add_entry_by_txt(subject, "O", MBSTRING_UTF8, org, -1, -1, 0) != 1 ||
      X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8, common, -1, -1, 0) != 1) {
    return nullptr;
  }
  X509* signer = issuer != nullptr ? issuer : cert.get();
  EVP_PKEY* signer_key = issuer_key != nullptr ? issuer_key : key;
  if (X509_set_issuer_name(cert.get(), X509_get_subject_name(signer)) != 1 ||
      X509_set_pubkey(cert.get(), key) != 1) {
    return nullptr;
  }
  X509V3_CTX ctx;
  X509V3_set_ctx(&ctx, signer, cert.get(), nullptr, nullptr, 0);
  for (const auto& [nid, value] : extensions) {
    if (!add_extension(cert.get(), &ctx, nid, value)) return nullptr;
  }
  if (X509_sign(cert.get(), signer_key, EVP_sha256()) <= 0) return nullptr;
  return cert;
}

std::string write_pem(const std::string& path, X509* cert, EVP_PKEY* key) {
  std::unique_ptr<BIO, BioFree> bio(BIO_new(BIO_s_mem()));
  if (!bio) return "out of memory";
  const bool written = cert != nullptr ? PEM_write_bio_X509(bio.get(), cert) == 1
                                       : PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr,
                                                                  0, nullptr, nullptr) == 1;
  if (!written) return "cannot encode " + path;
  char* bytes = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &bytes);
  const unsigned mode = cert != nullptr ? 0644 : 0600;
  if (int error = vtl::write_file_atomically(
          path,
          std::span(reinterpret_cast<const std::uint8_t*>(bytes), static_cast<std::size_t>(length)),
          mode);
      error != 0) {
    return "cannot write " + path + ": " + vtl::error_description(error);
  }
  return {};
}

std::string write_policy(const std::string& directory, std::string_view usage) {
  std::error_code ec;
  std::filesystem::create_directories(directory, ec);
  if (ec) return "cannot create " + directory + ": " + ec.message();
  vtl::Dictionary policy;
  policy.emplace(std::string(kLeafExtendedKeyUsageKey), vtl::Value(usage));
  const std::string xml = vtl::plist_to_xml(vtl::Value(std::move(policy)));
  const std::string path = vtl::join(directory, kSignerPolicyFile);
  if (int error = vtl::write_file_atomically(
          path, std::span(reinterpret_cast<const std::uint8_t*>(xml.data()), xml.size()));
      error != 0) {
    return "cannot write " + path + ": " + vtl::error_description(error);
  }
  return {};
}

}  // namespace

std::string install_test_signer(const std::string& dir) {
  const std::string production = dir + std::string(kProductionSignerPolicyDirectory);
  const std::string test = dir + std::string(kTestSignerPolicyDirectory);
  const std::string keep = dir + std::string(kTestSignerDirectory);
  if (std::string err = write_policy(production, kProductionSignerUsage); !err.empty()) return err;
  if (std::string err = write_policy(test, kTestSignerUsage); !err.empty()) return err;
  std::error_code ec;
  std::filesystem::create_directories(keep, ec);
  if (ec) return "cannot create " + keep + ": " + ec.message();
  ::chmod(keep.c_str(), 0700);

  PkeyPtr root_key = make_root_key();
  PkeyPtr signer_key = make_signer_key();
  if (!root_key || !signer_key) {
    ERR_clear_error();
    return "cannot make the test signer's keys";
  }
  const std::pair<int, const char*> root_extensions[] = {
      {NID_basic_constraints, "critical,CA:TRUE"},
      {NID_key_usage, "critical,keyCertSign,cRLSign"},
      {NID_subject_key_identifier, "hash"},
  };
  X509Ptr root = make_certificate(root_key.get(), kRootName, nullptr, nullptr, root_extensions);
  const std::string usage(kTestSignerUsage);
  const std::pair<int, const char*> leaf_extensions[] = {
      {NID_basic_constraints, "critical,CA:FALSE"}, {NID_key_usage, "critical,digitalSignature"},
      {NID_ext_key_usage, usage.c_str()},           {NID_subject_key_identifier, "hash"},
      {NID_authority_key_identifier, "keyid"},
  };
  X509Ptr signer = root ? make_certificate(signer_key.get(), kSignerName, root.get(),
                                           root_key.get(), leaf_extensions)
                        : nullptr;
  if (!root || !signer) {
    ERR_clear_error();
    return "cannot make the test signer's certificates";
  }
  const std::string anchor = vtl::join(test, kTestSignerAnchorFile);
  struct Output {
    std::string path;
    X509* cert;
    EVP_PKEY* key;
  };
  const Output outputs[] = {
      {vtl::join(test, kTestSignerAnchorFile), root.get(), nullptr},
      {vtl::join(keep, kTestSignerRootFile), root.get(), nullptr},
      {vtl::join(keep, kTestSignerCertificateFile), signer.get(), nullptr},
      {vtl::join(keep, kTestSignerKeyFile), nullptr, signer_key.get()},
  };
  for (const Output& out : outputs) {
    if (std::string err = write_pem(out.path, out.cert, out.key); !err.empty()) return err;
  }
  return {};
}

}  // namespace platform::sim
