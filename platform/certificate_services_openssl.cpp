// Certificate services on OpenSSL: X509_STORE and X509_verify_cert for the
// path, EVP_PKEY_verify for the signature. Nothing here parses ASN.1 or
// builds chains by hand.
#include <dirent.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <climits>
#include <optional>

#include "base/path.h"
#include "base/plist.h"
#include "platform/certificate_services.h"
#include "platform/platform.h"

namespace platform {
namespace {

// Trust files are small; anything larger is not one.
constexpr std::size_t kMaxTrustFileBytes = std::size_t{1} << 20;

struct X509Free {
  void operator()(X509* x) const { X509_free(x); }
};
struct ObjectFree {
  void operator()(ASN1_OBJECT* o) const { ASN1_OBJECT_free(o); }
};
struct PkeyFree {
  void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
struct PkeyCtxFree {
  void operator()(EVP_PKEY_CTX* c) const { EVP_PKEY_CTX_free(c); }
};
struct StoreFree {
  void operator()(X509_STORE* s) const { X509_STORE_free(s); }
};
struct StoreCtxFree {
  void operator()(X509_STORE_CTX* c) const { X509_STORE_CTX_free(c); }
};
struct StackFree {
  // The stack holds borrowed certificates; only the stack itself goes.
  void operator()(STACK_OF(X509) * s) const { sk_X509_free(s); }
};
struct EkuFree {
  void operator()(EXTENDED_KEY_USAGE* e) const { EXTENDED_KEY_USAGE_free(e); }
};
struct BioFree {
  void operator()(BIO* b) const { BIO_free(b); }
};
struct DirClose {
  void operator()(DIR* d) const { ::closedir(d); }
};

using X509Ptr = std::unique_ptr<X509, X509Free>;

// OpenSSL queues an error for every failed call; the answers here are the
// return values, so the queue is emptied before it can grow or mislead a
// later caller.
struct ErrorQueueGuard {
  ~ErrorQueueGuard() { ERR_clear_error(); }
};

class OpenSslCertificate final : public CertificateServices::Certificate {
 public:
  explicit OpenSslCertificate(X509Ptr x509) : x509_(std::move(x509)) {}
  X509* get() const { return x509_.get(); }

 private:
  X509Ptr x509_;
};

struct PolicyData {
  std::vector<X509Ptr> anchors;
  std::unique_ptr<ASN1_OBJECT, ObjectFree> leaf_usage;
};

class OpenSslPolicy final : public CertificateServices::Policy {
 public:
  explicit OpenSslPolicy(std::shared_ptr<const PolicyData> data) : data_(std::move(data)) {}
  const std::shared_ptr<const PolicyData>& data() const { return data_; }

 private:
  std::shared_ptr<const PolicyData> data_;
};

class OpenSslTrust final : public CertificateServices::Trust {
 public:
  OpenSslTrust(std::vector<std::unique_ptr<CertificateServices::Certificate>> certificates,
               std::shared_ptr<const PolicyData> policy)
      : certificates_(std::move(certificates)), policy_(std::move(policy)) {}

  X509* leaf() const { return static_cast<OpenSslCertificate&>(*certificates_.front()).get(); }
  const std::vector<std::unique_ptr<CertificateServices::Certificate>>& certificates() const {
    return certificates_;
  }
  const PolicyData& policy() const { return *policy_; }
  bool trusted = false;

 private:
  std::vector<std::unique_ptr<CertificateServices::Certificate>> certificates_;
  std::shared_ptr<const PolicyData> policy_;
};

class OpenSslPublicKey final : public CertificateServices::PublicKey {
 public:
  explicit OpenSslPublicKey(EVP_PKEY* key) : key_(key) {}
  EVP_PKEY* get() const { return key_.get(); }

 private:
  std::unique_ptr<EVP_PKEY, PkeyFree> key_;
};

// Every certificate in a PEM file; nullopt when the file cannot be read,
// holds no certificate or a damaged one (a broken anchor file must not pass
// for an empty one). Blocks of other kinds are passed over.
std::optional<std::vector<X509Ptr>> read_pem_certificates(const std::string& path) {
  std::unique_ptr<BIO, BioFree> bio(BIO_new_file(path.c_str(), "r"));
  if (!bio) return std::nullopt;
  std::vector<X509Ptr> out;
  for (;;) {
    X509Ptr cert(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    if (cert) {
      out.push_back(std::move(cert));
      continue;
    }
    // The end of the file reads as "no start line"; anything else is damage.
    const unsigned long error = ERR_peek_last_error();
    const bool at_end = ERR_GET_LIB(error) == ERR_LIB_PEM &&
                        ERR_GET_REASON(error) == PEM_R_NO_START_LINE && BIO_eof(bio.get()) != 0;
    if (!at_end) return std::nullopt;
    break;
  }
  if (out.empty()) return std::nullopt;
  return out;
}

std::unique_ptr<PolicyData> load_policy(const std::string& directory) {
  ErrorQueueGuard clear_errors;
  std::optional<vtl::Value> file =
      vtl::read_plist_file(vtl::join(directory, kSignerPolicyFile), kMaxTrustFileBytes);
  const vtl::Dictionary* requirements = file ? file->dictionary() : nullptr;
  if (requirements == nullptr) return nullptr;
  const std::string* usage = nullptr;
  for (const auto& [key, value] : *requirements) {
    if (key != kLeafExtendedKeyUsageKey) return nullptr;
    usage = value.string();
  }
  if (usage == nullptr) return nullptr;

  auto policy = std::make_unique<PolicyData>();
  // Numerical form only: a name OpenSSL happens to know is not an OID.
  policy->leaf_usage.reset(OBJ_txt2obj(usage->c_str(), 1));
  if (!policy->leaf_usage) return nullptr;

  std::unique_ptr<DIR, DirClose> dir(::opendir(directory.c_str()));
  if (!dir) return nullptr;
  std::vector<std::string> names;
  while (const dirent* entry = ::readdir(dir.get())) {
    const std::string_view name = entry->d_name;
    if (name.size() > 4 && name.ends_with(".pem")) names.emplace_back(name);
  }
  // Directory order is the file system's; anchors are read in name order so
  // that a policy means the same on every device.
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    std::string path = directory;
    path += '/';
    path += name;
    std::optional<std::vector<X509Ptr>> certs = read_pem_certificates(path);
    if (!certs) return nullptr;
    for (X509Ptr& cert : *certs) policy->anchors.push_back(std::move(cert));
  }
  return policy;
}

// The conclusion for an OpenSSL verification error.
TrustResult result_for(int verify_error) {
  switch (verify_error) {
    case X509_V_OK:
      return TrustResult::kUnspecified;
    case X509_V_ERR_CERT_NOT_YET_VALID:
    case X509_V_ERR_CERT_HAS_EXPIRED:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_CERT_CHAIN_TOO_LONG:
    case X509_V_ERR_INVALID_PURPOSE:
    case X509_V_ERR_CERT_UNTRUSTED:
    case X509_V_ERR_CERT_REJECTED:
      return TrustResult::kRecoverableTrustFailure;
    default:
      return TrustResult::kFatalTrustFailure;
  }
}

// Whether the leaf may sign manifests under `policy`: digital signatures
// allowed where a key usage is given, and the policy's extended key usage
// listed.
bool leaf_meets(X509* leaf, const PolicyData& policy) {
  const std::uint32_t key_usage = X509_get_key_usage(leaf);
  if (key_usage != UINT32_MAX && (key_usage & KU_DIGITAL_SIGNATURE) == 0) return false;
  std::unique_ptr<EXTENDED_KEY_USAGE, EkuFree> usages(static_cast<EXTENDED_KEY_USAGE*>(
      X509_get_ext_d2i(leaf, NID_ext_key_usage, nullptr, nullptr)));
  if (!usages) return false;
  for (int i = 0; i < sk_ASN1_OBJECT_num(usages.get()); ++i) {
    if (OBJ_cmp(sk_ASN1_OBJECT_value(usages.get(), i), policy.leaf_usage.get()) == 0) return true;
  }
  return false;
}

class OpenSslCertificateServices final : public CertificateServices {
 public:
  OpenSslCertificateServices(std::string root, TrustClock clock)
      : root_(std::move(root)), clock_(std::move(clock)) {}

  std::unique_ptr<Certificate> create_certificate(std::span<const std::uint8_t> der) override {
    ErrorQueueGuard clear_errors;
    if (der.empty() || der.size() > static_cast<std::size_t>(LONG_MAX)) return nullptr;
    const unsigned char* p = der.data();
    X509Ptr cert(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
    if (!cert || p != der.data() + der.size()) return nullptr;
    return std::make_unique<OpenSslCertificate>(std::move(cert));
  }

  std::unique_ptr<Policy> create_production_signer_policy() override {
    return make_policy(kProductionSignerPolicyDirectory);
  }
  std::unique_ptr<Policy> create_test_signer_policy() override {
    return make_policy(kTestSignerPolicyDirectory);
  }

  TrustStatus create_trust(std::vector<std::unique_ptr<Certificate>> certificates,
                           const Policy& policy, std::unique_ptr<Trust>* trust) override {
    const auto* ours = dynamic_cast<const OpenSslPolicy*>(&policy);
    if (certificates.empty() || ours == nullptr) return kTrustParam;
    for (const std::unique_ptr<Certificate>& cert : certificates) {
      if (dynamic_cast<const OpenSslCertificate*>(cert.get()) == nullptr) return kTrustParam;
    }
    *trust = std::make_unique<OpenSslTrust>(std::move(certificates), ours->data());
    return kTrustSuccess;
  }

  TrustStatus evaluate_trust(Trust& trust, TrustResult* result) override {
    ErrorQueueGuard clear_errors;
    auto* ours = dynamic_cast<OpenSslTrust*>(&trust);
    if (ours == nullptr) return kTrustParam;
    ours->trusted = false;

    std::unique_ptr<X509_STORE, StoreFree> store(X509_STORE_new());
    std::unique_ptr<STACK_OF(X509), StackFree> intermediates(sk_X509_new_null());
    std::unique_ptr<X509_STORE_CTX, StoreCtxFree> context(X509_STORE_CTX_new());
    if (!store || !intermediates || !context) return kTrustAllocate;
    for (const X509Ptr& anchor : ours->policy().anchors) {
      if (X509_STORE_add_cert(store.get(), anchor.get()) != 1) return kTrustAllocate;
    }
    const auto& certs = ours->certificates();
    for (std::size_t i = 1; i < certs.size(); ++i) {
      X509* cert = static_cast<const OpenSslCertificate&>(*certs[i]).get();
      if (sk_X509_push(intermediates.get(), cert) <= 0) return kTrustAllocate;
    }
    if (X509_STORE_CTX_init(context.get(), store.get(), ours->leaf(), intermediates.get()) != 1) {
      return kTrustAllocate;
    }
    X509_VERIFY_PARAM* param = X509_STORE_CTX_get0_param(context.get());
    // Anchors need not be self-signed: a policy may pin an intermediate.
    X509_VERIFY_PARAM_set_flags(param, X509_V_FLAG_PARTIAL_CHAIN);
    if (clock_) {
      X509_VERIFY_PARAM_set_time(param, std::chrono::system_clock::to_time_t(clock_()));
    }

    const int verified = X509_verify_cert(context.get());
    if (verified < 0) return kTrustInternalComponent;
    if (verified == 0) {
      *result = result_for(X509_STORE_CTX_get_error(context.get()));
      return kTrustSuccess;
    }
    if (!leaf_meets(ours->leaf(), ours->policy())) {
      *result = TrustResult::kRecoverableTrustFailure;
      return kTrustSuccess;
    }
    ours->trusted = true;
    *result = TrustResult::kUnspecified;
    return kTrustSuccess;
  }

  std::unique_ptr<PublicKey> copy_public_key(const Trust& trust) override {
    ErrorQueueGuard clear_errors;
    const auto* ours = dynamic_cast<const OpenSslTrust*>(&trust);
    if (ours == nullptr || !ours->trusted) return nullptr;
    EVP_PKEY* key = X509_get_pubkey(ours->leaf());
    if (key == nullptr) return nullptr;
    return std::make_unique<OpenSslPublicKey>(key);
  }

  bool verify_sha1_signature(const PublicKey& key, std::span<const std::uint8_t> digest,
                             std::span<const std::uint8_t> signature) override {
    ErrorQueueGuard clear_errors;
    const auto* ours = dynamic_cast<const OpenSslPublicKey*>(&key);
    if (ours == nullptr || digest.size() != 20 || signature.empty()) return false;
    if (EVP_PKEY_get_base_id(ours->get()) != EVP_PKEY_RSA) return false;
    std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree> context(EVP_PKEY_CTX_new(ours->get(), nullptr));
    if (!context || EVP_PKEY_verify_init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_CTX_set_signature_md(context.get(), EVP_sha1()) != 1) {
      return false;
    }
    return EVP_PKEY_verify(context.get(), signature.data(), signature.size(), digest.data(),
                           digest.size()) == 1;
  }

 private:
  std::unique_ptr<Policy> make_policy(std::string_view directory) {
    std::unique_ptr<PolicyData> data = load_policy(under_root(root_, directory));
    if (!data) return nullptr;
    return std::make_unique<OpenSslPolicy>(std::shared_ptr<const PolicyData>(std::move(data)));
  }

  std::string root_;
  TrustClock clock_;
};

}  // namespace

std::unique_ptr<CertificateServices> make_openssl_certificate_services(std::string root,
                                                                       TrustClock clock) {
  return std::make_unique<OpenSslCertificateServices>(std::move(root), std::move(clock));
}

}  // namespace platform
