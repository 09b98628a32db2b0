// Making signed manifests: the other side of VTLSignedManifest, for the
// tools and the tests. A signer is a private key and its certificate chain;
// it signs a payload (a serialized raw manifest) into an envelope that
// VTLSignedManifest reads:
//   "Version" 2, "Certificate" the chain as DER (leaf first),
//   "Signature" RSA PKCS#1 v1.5 with SHA-1 over the payload's bytes,
//   "Payload" the bytes themselves.
#pragma once

#include <openssl/evp.h>

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/value.h"

namespace vtl {

class ManifestSigner {
 public:
  // A signer from a PEM private key and PEM certificate files (one or more
  // certificates each), leaf first. nullopt with `*error` set when a file
  // cannot be read, holds no certificate, or the key is not the leaf's.
  static std::optional<ManifestSigner> load(const std::string& key_path,
                                            const std::vector<std::string>& chain_paths,
                                            std::string* error);
  // A signer from a key and DER certificates, taken as they are (tests sign
  // with keys that do not match their chain on purpose).
  static std::optional<ManifestSigner> from_parts(const std::string& key_pem,
                                                  std::vector<Data> chain_der);

  // The signature of `bytes`; nullopt when the key cannot sign so (not RSA).
  std::optional<Data> sign(std::span<const std::uint8_t> bytes) const;
  // The envelope for `payload`, signed; nullopt when signing fails.
  std::optional<Dictionary> envelope(const Data& payload) const;

  const std::vector<Data>& chain() const { return chain_; }

 private:
  ManifestSigner(std::shared_ptr<EVP_PKEY> key, std::vector<Data> chain)
      : key_(std::move(key)), chain_(std::move(chain)) {}

  std::shared_ptr<EVP_PKEY> key_;
  std::vector<Data> chain_;
};

// Every certificate in PEM text, as DER; nullopt when there is none or one
// is damaged.
std::optional<std::vector<Data>> certificates_from_pem(std::span<const std::uint8_t> pem);

}  // namespace vtl
