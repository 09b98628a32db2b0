// VTLSignedManifest: the signed manifest that describes content to install,
// read from a stream, its signature checked against a certificate chain
// trusted under a manifest-signer policy, and its payload offered to the
// attribute restore.
//
// The file is a property list (XML or binary) whose top level, the envelope,
// is a dictionary:
//   "Version"      number, 2
//   "Certificate"  array of data: DER X.509 certificates, the signer first,
//                  then the intermediates that link it to an anchor
//   "Signature"    data: RSA PKCS#1 v1.5 with a SHA-1 DigestInfo over the
//                  exact bytes of "Payload"
//   "Payload"      data: the raw manifest, itself a serialized property list
// The raw manifest is a dictionary with "Version" (3 or 4), "Info", "Backup"
// (the backup's file records), "App", "AppData" and optionally "GroupData"
// and "ExtensionData".
//
// The chain must be trusted under the production signer policy; only where
// the device property "SigningFuse" is false (development hardware) does a
// chain trusted under the test signer policy do instead. A missing answer,
// or any answer but false, counts as fused. The policies live in the
// device's trust directories (platform/certificate_services.h).
//
// Every refusal is logged through VTLLog with the helper's established
// messages, except a bad signature, which leaves no log line: a forger
// learns nothing from the log. The envelope is refused before any
// certificate work when it is larger than kMaxSignedManifestBytes, is not a
// property list, nests deeper than the property-list reader allows, or is
// not version 2.
//
// Numbers: "Version" values are read as the platform reads a number's int
// value: integers (saturated to 32 bits), booleans (0 or 1) and reals
// (truncated) as numbers, a string by its leading decimal digits, anything
// else as 0.
//
// Threads: no shared state; an object is used by one request at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "manifest/input_stream.h"
#include "platform/certificate_services.h"
#include "service/value.h"

namespace vtl {

// The largest signed manifest read, envelope and all.
inline constexpr std::size_t kMaxSignedManifestBytes = std::size_t{256} << 20;

class VTLSignedManifest {
 public:
  using PublicKey = platform::CertificateServices::PublicKey;
  using Policy = platform::CertificateServices::Policy;

  // The manifest read from `stream` (open, at its start) when it is well
  // formed and its signature is good; nullptr otherwise, the reason logged.
  static std::unique_ptr<VTLSignedManifest> signedManifestWithNSStream(InputStream& stream);
  static std::unique_ptr<VTLSignedManifest> initWithNSStream(InputStream& stream);

  // The raw manifest's entries; nullptr for an absent optional key.
  std::int32_t getVersion() const;
  const Value* getInfo() const;
  const Value* getAppList() const;
  const Value* getAppDataList() const;
  const Value* getGroupDataList() const;
  const Value* getPlugInDataList() const;
  const Value* getManifest() const;
  const Dictionary& payload() const { return payload_; }

  // The steps of the check, each usable on its own.

  // The envelope's "Payload" (inside `envelope`) when its chain is trusted
  // and its signature good; nullptr otherwise.
  static const Data* verifyManifestSignature(const Dictionary& envelope);
  // The signer's public key when `certificates` is trusted under the
  // production policy, the test policy, or the test policy by its own
  // name; nullptr otherwise.
  static std::unique_ptr<PublicKey> createPublicKeyForStrongSigning(const Array& certificates);
  static std::unique_ptr<PublicKey> createPublicKeyForDevelopmentSigning(const Array& certificates);
  static std::unique_ptr<PublicKey> createPublicKeyForDevelopmentSigningStandard(
      const Array& certificates);
  // Takes `policy` and releases it before returning, whatever the outcome.
  static std::unique_ptr<PublicKey> createPublicKey_usingPolicy(const Array& certificates,
                                                                std::unique_ptr<Policy> policy);
  // Whether `signature` signs the SHA-1 of `data` under `key`. A missing
  // signature is a bad one.
  static bool verifySignature_forData_withKey(const Data* signature, const Data& data,
                                              const PublicKey& key);

  // A number's int value as described above.
  static std::int32_t int_value(const Value& value);

 private:
  explicit VTLSignedManifest(Dictionary payload) : payload_(std::move(payload)) {}
  const Value* lookup(std::string_view key) const;

  Dictionary payload_;
};

}  // namespace vtl
