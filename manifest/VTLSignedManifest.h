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
// Memory: the manifest is read in place (service/binary_plist_reader.h): an
// object holds the file's bytes and nothing per file record, so that a
// restore over tens of thousands of files decodes one record at a time. An
// XML envelope or payload is turned into the binary form once, when read.
//
// Threads: no shared state; an object is used by one request at a time, and
// the Objects its getters return may be read on any thread while it lives.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "base/binary_plist_reader.h"
#include "base/value.h"
#include "manifest/input_stream.h"
#include "platform/certificate_services.h"
#include "platform/device_properties.h"

namespace vtl {

// The largest signed manifest read, envelope and all.
inline constexpr std::size_t kMaxSignedManifestBytes = std::size_t{256} << 20;

class VTLSignedManifest {
 public:
  using PublicKey = platform::CertificateServices::PublicKey;
  using Policy = platform::CertificateServices::Policy;
  using Object = bplist::Object;
  using Bytes = std::span<const std::uint8_t>;

  // What the check asks of the platform, handed down by its caller: the
  // certificate services that evaluate chains and signatures, and the device
  // properties that say whether the device is development hardware. A role
  // left out fails the check.
  struct Roles {
    platform::CertificateServices* certificate_services = nullptr;
    platform::DeviceProperties* device_properties = nullptr;
  };

  // The manifest read from `stream` (open, at its start) when it is well
  // formed and its signature is good; nullptr otherwise, the reason logged.
  static std::unique_ptr<VTLSignedManifest> signedManifestWithNSStream(InputStream& stream,
                                                                       const Roles& roles);
  static std::unique_ptr<VTLSignedManifest> initWithNSStream(InputStream& stream,
                                                             const Roles& roles);

  // The raw manifest's entries; nullopt for an absent optional key. They
  // read the manifest in place and live as long as this object.
  std::int32_t getVersion() const;
  std::optional<Object> getInfo() const;
  std::optional<Object> getAppList() const;
  std::optional<Object> getAppDataList() const;
  std::optional<Object> getGroupDataList() const;
  std::optional<Object> getPlugInDataList() const;
  std::optional<Object> getManifest() const;
  // The raw manifest dictionary.
  const Object& payload() const { return payload_; }

  // The steps of the check, each usable on its own.

  // The bytes of the envelope's "Payload" when its chain is trusted and its
  // signature good; nullopt otherwise.
  static std::optional<Bytes> verifyManifestSignature(const Object& envelope, const Roles& roles);
  // The signer's public key when the array `certificates` is trusted under
  // the production policy, the test policy, or the test policy by its own
  // name; nullptr otherwise.
  static std::unique_ptr<PublicKey> createPublicKeyForStrongSigning(const Object& certificates,
                                                                    const Roles& roles);
  static std::unique_ptr<PublicKey> createPublicKeyForDevelopmentSigning(const Object& certificates,
                                                                         const Roles& roles);
  static std::unique_ptr<PublicKey> createPublicKeyForDevelopmentSigningStandard(
      const Object& certificates, const Roles& roles);
  // Takes `policy` and releases it before returning, whatever the outcome.
  static std::unique_ptr<PublicKey> createPublicKey_usingPolicy(const Object& certificates,
                                                                std::unique_ptr<Policy> policy,
                                                                const Roles& roles);
  // Whether `signature` signs the SHA-1 of `data` under `key`. A missing
  // signature, or one that is not data, is a bad one.
  static bool verifySignature_forData_withKey(const std::optional<Object>& signature, Bytes data,
                                              const PublicKey& key, const Roles& roles);

  // A number's int value as described above.
  static std::int32_t int_value(const Object& value);

 private:
  VTLSignedManifest(std::vector<std::uint8_t> bytes, const Object& payload)
      : bytes_(std::move(bytes)), payload_(payload) {}
  std::optional<Object> lookup(std::string_view key) const;

  // What payload_ reads: the file as read, or the payload in binary form.
  std::vector<std::uint8_t> bytes_;
  Object payload_;
};

}  // namespace vtl
