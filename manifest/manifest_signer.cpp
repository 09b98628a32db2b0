#include "manifest/manifest_signer.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <climits>
#include <fstream>
#include <iterator>

namespace vtl {
namespace {

struct BioFree {
  void operator()(BIO* b) const { BIO_free(b); }
};
struct X509Free {
  void operator()(X509* x) const { X509_free(x); }
};
struct MdCtxFree {
  void operator()(EVP_MD_CTX* c) const { EVP_MD_CTX_free(c); }
};
struct PkeyCtxFree {
  void operator()(EVP_PKEY_CTX* c) const { EVP_PKEY_CTX_free(c); }
};

constexpr std::size_t kMaxPemFile = std::size_t{1} << 20;

std::optional<std::string> read_small_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::string text;
  text.resize(kMaxPemFile + 1);
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  if (in.bad()) return std::nullopt;
  text.resize(static_cast<std::size_t>(in.gcount()));
  if (text.size() > kMaxPemFile) return std::nullopt;
  return text;
}

std::unique_ptr<BIO, BioFree> memory_bio(std::span<const std::uint8_t> bytes) {
  return std::unique_ptr<BIO, BioFree>(BIO_new_mem_buf(
      bytes.data(), static_cast<int>(std::min(bytes.size(), std::size_t{INT_MAX}))));
}

std::span<const std::uint8_t> as_bytes(const std::string& text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::shared_ptr<EVP_PKEY> read_key(const std::string& pem) {
  auto bio = memory_bio(as_bytes(pem));
  EVP_PKEY* key = bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr;
  ERR_clear_error();
  if (key == nullptr) return nullptr;
  return {key, [](EVP_PKEY* k) { EVP_PKEY_free(k); }};
}

}  // namespace

std::optional<std::vector<Data>> certificates_from_pem(std::span<const std::uint8_t> pem) {
  auto bio = memory_bio(pem);
  if (!bio) return std::nullopt;
  std::vector<Data> out;
  for (;;) {
    std::unique_ptr<X509, X509Free> cert(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    if (!cert) break;
    unsigned char* der = nullptr;
    const int length = i2d_X509(cert.get(), &der);
    if (length <= 0) break;
    out.emplace_back(der, der + length);
    OPENSSL_free(der);
  }
  const unsigned long error = ERR_peek_last_error();
  const bool clean_end =
      ERR_GET_LIB(error) == ERR_LIB_PEM && ERR_GET_REASON(error) == PEM_R_NO_START_LINE;
  ERR_clear_error();
  if (!clean_end || out.empty()) return std::nullopt;
  return out;
}

std::optional<ManifestSigner> ManifestSigner::load(const std::string& key_path,
                                                   const std::vector<std::string>& chain_paths,
                                                   std::string* error) {
  std::optional<std::string> key_text = read_small_file(key_path);
  if (!key_text) {
    *error = "cannot read the key " + key_path;
    return std::nullopt;
  }
  std::shared_ptr<EVP_PKEY> key = read_key(*key_text);
  if (!key) {
    *error = key_path + " holds no private key";
    return std::nullopt;
  }
  std::vector<Data> chain;
  for (const std::string& path : chain_paths) {
    std::optional<std::string> text = read_small_file(path);
    if (!text) {
      *error = "cannot read the certificates " + path;
      return std::nullopt;
    }
    std::optional<std::vector<Data>> certs = certificates_from_pem(as_bytes(*text));
    if (!certs) {
      *error = path + " holds no certificate, or a damaged one";
      return std::nullopt;
    }
    for (Data& der : *certs) chain.push_back(std::move(der));
  }
  if (chain.empty()) {
    *error = "no certificates: the signer's chain begins with its own certificate";
    return std::nullopt;
  }
  const unsigned char* p = chain.front().data();
  std::unique_ptr<X509, X509Free> leaf(d2i_X509(nullptr, &p, static_cast<long>(chain[0].size())));
  const bool matches = leaf && X509_check_private_key(leaf.get(), key.get()) == 1;
  ERR_clear_error();
  if (!matches) {
    *error = key_path + " is not the key of the first certificate";
    return std::nullopt;
  }
  return ManifestSigner(std::move(key), std::move(chain));
}

std::optional<ManifestSigner> ManifestSigner::from_parts(const std::string& key_pem,
                                                         std::vector<Data> chain_der) {
  std::shared_ptr<EVP_PKEY> key = read_key(key_pem);
  if (!key) return std::nullopt;
  return ManifestSigner(std::move(key), std::move(chain_der));
}

std::optional<Data> ManifestSigner::sign(std::span<const std::uint8_t> bytes) const {
  std::unique_ptr<EVP_MD_CTX, MdCtxFree> context(EVP_MD_CTX_new());
  EVP_PKEY_CTX* key_context = nullptr;  // owned by `context`
  std::size_t length = 0;
  Data signature;
  const bool ok =
      context && EVP_PKEY_get_base_id(key_.get()) == EVP_PKEY_RSA &&
      EVP_DigestSignInit(context.get(), &key_context, EVP_sha1(), nullptr, key_.get()) == 1 &&
      EVP_PKEY_CTX_set_rsa_padding(key_context, RSA_PKCS1_PADDING) == 1 &&
      EVP_DigestSign(context.get(), nullptr, &length, bytes.data(), bytes.size()) == 1 &&
      (signature.resize(length), true) &&
      EVP_DigestSign(context.get(), signature.data(), &length, bytes.data(), bytes.size()) == 1;
  ERR_clear_error();
  if (!ok) return std::nullopt;
  signature.resize(length);
  return signature;
}

std::optional<Dictionary> ManifestSigner::envelope(const Data& payload) const {
  std::optional<Data> signature = sign(payload);
  if (!signature) return std::nullopt;
  Array certificates;
  for (const Data& der : chain_) certificates.emplace_back(der);
  Dictionary envelope;
  envelope.emplace("Version", Value(std::int64_t{2}));
  envelope.emplace("Certificate", Value(std::move(certificates)));
  envelope.emplace("Signature", Value(std::move(*signature)));
  envelope.emplace("Payload", Value(payload));
  return envelope;
}

}  // namespace vtl
