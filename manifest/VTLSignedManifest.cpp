#include "manifest/VTLSignedManifest.h"

#include <openssl/evp.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <string_view>
#include <vector>

#include "base/VTLLog.h"
#include "base/errors.h"
#include "base/plist.h"
#include "manifest/binary_plist_writer.h"
#include "platform/device_properties.h"
#include "platform/platform.h"

namespace vtl {
namespace {

using platform::CertificateServices;
using platform::TrustResult;

constexpr const char* kInitMethod = "-[VTLSignedManifest initWithNSStream:]";
constexpr const char* kVerifyMethod = "-[VTLSignedManifest verifyManifestSignature:]";
constexpr const char* kStrongMethod = "-[VTLSignedManifest createPublicKeyForStrongSigning:]";
constexpr const char* kDevelopmentStandardMethod =
    "-[VTLSignedManifest createPublicKeyForDevelopmentSigningStandard:]";
constexpr const char* kCreateKeyMethod = "-[VTLSignedManifest createPublicKey:usingPolicy:]";
constexpr const char* kVerifySignatureMethod =
    "-[VTLSignedManifest verifySignature:forData:withKey:]";

// Envelope and raw-manifest keys.
constexpr std::string_view kVersionKey = "Version";
constexpr std::string_view kCertificateKey = "Certificate";
constexpr std::string_view kSignatureKey = "Signature";
constexpr std::string_view kPayloadKey = "Payload";
constexpr std::string_view kInfoKey = "Info";
constexpr std::string_view kBackupKey = "Backup";
constexpr std::string_view kAppKey = "App";
constexpr std::string_view kAppDataKey = "AppData";
constexpr std::string_view kGroupDataKey = "GroupData";
constexpr std::string_view kExtensionDataKey = "ExtensionData";

constexpr int kEnvelopeVersion = 2;
constexpr int kOldestRawVersion = 3;
constexpr int kNewestRawVersion = 4;

// Messages.
constexpr const char* kCannotConvert = "%s: Cannot convert to property list - %@(0x%x).";
constexpr const char* kFormatNotCorrect = "%s: format not correct.";
constexpr const char* kVersionNotFound = "%s: required key (version) not found.";
constexpr const char* kEnvelopeVersionUnsupported =
    "%s: signed manifest version %d is not supported yet";
constexpr const char* kPassedSignatureCheck = "Manifest passed signature check.";
constexpr const char* kPayloadNotFound = "%s: required key (payload) not found: %@";
constexpr const char* kPayloadFormatNotCorrect = "%s: payload format not correct.";
constexpr const char* kRawVersionUnsupported = "%s: raw manifest version %@ is not supported.";
constexpr const char* kRequiredKeyNotFound =
    "%s: required key (Info, App, AppData, or Manifest) not found: %@";
constexpr const char* kCertificatesNotFound =
    "%s: cannot find certificates, or certificate format not correct.";
constexpr const char* kFailedStrongSigning = "Failed in strong signing verification.";
constexpr const char* kCertificateNotValid = "%s: Certificate not valid.";
constexpr const char* kTryingDevelopmentSigning =
    "Trying development signing on development hardware...";
constexpr const char* kManifestFormatNotCorrect = "%s: Manifest format not correct.";
constexpr const char* kCannotCreatePolicy = "%s: Cannot create policy.";
constexpr const char* kVerifingStrongSigning = "Verifing strong signing";
constexpr const char* kVerifingDevelopmentSigning = "Verifing development signing";
constexpr const char* kCannotLoadCertificate = "%s: Cannot load certificate.";
constexpr const char* kCannotCreateTrust = "%s: Cannot create secure trust object: %ld";
constexpr const char* kCannotEvaluateTrust = "%s: Cannot evaluate trust: %ld";
constexpr const char* kTrustEvaluationFailed = "%s: certificate trust evaluation failed: %ld";
constexpr const char* kCannotExtractPublicKey = "%s: Cannot extract public key.";
constexpr const char* kVerifySignatureCalled = "verifySignature is called";
constexpr const char* kFailedVerifyingSignature = "%s: Failed in verifying signature(%ld)";

// The error a property list could not be read with: what the log shows as
// its description and code.
struct ReadError {
  std::string description;
  int code;
};

// The code the platform gives a document that is not a property list.
constexpr int kPropertyListReadCorruptError = 3840;
constexpr const char* kNotPropertyList = "The data is not a property list of a supported form.";

// A property list of any supported encoding, read in place when it is
// binary. Anything else is read, then written out in binary form into
// `*converted`, which the document then reads.
std::optional<bplist::Document> parse_property_list(std::span<const std::uint8_t> bytes,
                                                    std::vector<std::uint8_t>* converted,
                                                    ReadError* error) {
  std::optional<bplist::Document> document;
  if (bplist::is_binary_plist(bytes)) {
    document = bplist::Document::open(bytes);
  } else if (std::optional<Value> value = plist_from_bytes(bytes)) {
    *converted = bplist::to_binary(*value);
    document = bplist::Document::open(*converted);
  }
  if (!document) *error = {kNotPropertyList, kPropertyListReadCorruptError};
  return document;
}

// Walks the certificate array into certificates, stopping at the first
// element that is not one. Its own name is the one its message carries.
std::optional<std::vector<std::unique_ptr<CertificateServices::Certificate>>>
certificateArrayApplier(CertificateServices* services, const bplist::Object& certificates) {
  std::vector<std::unique_ptr<CertificateServices::Certificate>> list;
  list.reserve(certificates.size());
  for (std::size_t i = 0; i < certificates.size(); ++i) {
    const std::optional<std::span<const std::uint8_t>> der = certificates.element(i).data();
    std::unique_ptr<CertificateServices::Certificate> cert;
    if (der && services != nullptr) cert = services->create_certificate(*der);
    if (!cert) {
      VTLLog(kCannotLoadCertificate, __func__);
      return std::nullopt;
    }
    list.push_back(std::move(cert));
  }
  return list;
}

// Development hardware is the one case where a test signer is good enough:
// only an explicit false says so.
bool is_development_hardware(platform::DeviceProperties* properties) {
  if (properties == nullptr) return false;
  std::optional<Value> fuse = properties->copy_answer(platform::kSigningFuseQuestion);
  const bool* fused = fuse ? fuse->boolean() : nullptr;
  return fused != nullptr && !*fused;
}

std::int32_t saturate(std::int64_t v) {
  if (v > std::numeric_limits<std::int32_t>::max()) return std::numeric_limits<std::int32_t>::max();
  if (v < std::numeric_limits<std::int32_t>::min()) return std::numeric_limits<std::int32_t>::min();
  return static_cast<std::int32_t>(v);
}

}  // namespace

std::int32_t VTLSignedManifest::int_value(const Object& value) {
  if (const std::optional<std::int64_t> i = value.integer()) return saturate(*i);
  if (const std::optional<bool> b = value.boolean()) return *b ? 1 : 0;
  if (const std::optional<double> d = value.real()) {
    if (std::isnan(*d)) return 0;
    if (*d >= 2147483647.0) return std::numeric_limits<std::int32_t>::max();
    if (*d <= -2147483648.0) return std::numeric_limits<std::int32_t>::min();
    return static_cast<std::int32_t>(*d);
  }
  if (const std::optional<std::string> s = value.text()) {
    std::string_view text = *s;
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t' || text.front() == '\n')) {
      text.remove_prefix(1);
    }
    if (!text.empty() && text.front() == '+') text.remove_prefix(1);
    std::int64_t parsed = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), parsed);
    if (ec == std::errc::result_out_of_range) {
      return text.starts_with('-') ? std::numeric_limits<std::int32_t>::min()
                                   : std::numeric_limits<std::int32_t>::max();
    }
    return ec == std::errc() ? saturate(parsed) : 0;
  }
  return 0;
}

std::unique_ptr<VTLSignedManifest> VTLSignedManifest::signedManifestWithNSStream(
    InputStream& stream, const Roles& roles) {
  return initWithNSStream(stream, roles);
}

std::unique_ptr<VTLSignedManifest> VTLSignedManifest::initWithNSStream(InputStream& stream,
                                                                       const Roles& roles) {
  StreamContents contents = read_whole_stream(stream, kMaxSignedManifestBytes);
  ReadError error;
  std::vector<std::uint8_t> converted_envelope;
  std::optional<bplist::Document> envelope_document;
  if (contents.error != 0) {
    error = {error_description(contents.error), contents.error};
  } else {
    envelope_document = parse_property_list(contents.bytes, &converted_envelope, &error);
  }
  if (!envelope_document) {
    VTLLog(kCannotConvert, kInitMethod, error.description, error.code);
    return nullptr;
  }
  const Object envelope = envelope_document->root();
  if (envelope.type() != Object::Type::kDictionary) {
    VTLLog(kFormatNotCorrect, kInitMethod);
    return nullptr;
  }

  const std::optional<Object> version = envelope.find(kVersionKey);
  if (!version) {
    VTLLog(kVersionNotFound, kInitMethod);
    return nullptr;
  }
  if (const std::int32_t v = int_value(*version); v != kEnvelopeVersion) {
    VTLLog(kEnvelopeVersionUnsupported, kInitMethod, v);
    return nullptr;
  }

  const std::optional<Bytes> payload_bytes = verifyManifestSignature(envelope, roles);
  if (!payload_bytes) return nullptr;
  VTLLog(kPassedSignatureCheck);

  // verifyManifestSignature has already insisted on the payload; the check
  // stays so that this step never depends on how that one is written.
  if (!envelope.find(kPayloadKey)) {
    VTLLog(kPayloadNotFound, kInitMethod);
    return nullptr;
  }
  // The payload is read where it lies, inside the envelope's bytes; only a
  // payload that is not binary gets bytes of its own.
  std::vector<std::uint8_t> converted_payload;
  std::optional<bplist::Document> raw =
      parse_property_list(*payload_bytes, &converted_payload, &error);
  if (!raw) {
    VTLLog(kCannotConvert, kInitMethod, error.description, error.code);
    return nullptr;
  }
  const Object payload = raw->root();
  if (payload.type() != Object::Type::kDictionary) {
    VTLLog(kPayloadFormatNotCorrect, kInitMethod);
    return nullptr;
  }

  const std::optional<Object> raw_version = payload.find(kVersionKey);
  if (!raw_version) {
    VTLLog(kVersionNotFound, kInitMethod);
    return nullptr;
  }
  if (const std::int32_t v = int_value(*raw_version);
      v < kOldestRawVersion || v > kNewestRawVersion) {
    VTLLog(kRawVersionUnsupported, kInitMethod, bplist::to_value(*raw_version));
    return nullptr;
  }
  for (std::string_view key : {kInfoKey, kBackupKey, kAppKey, kAppDataKey}) {
    if (!payload.find(key)) {
      VTLLog(kRequiredKeyNotFound, kInitMethod);
      return nullptr;
    }
  }
  // Whichever bytes the payload lies in are kept; moving a vector keeps its
  // storage where it is, so the payload's Objects stay valid.
  std::vector<std::uint8_t> kept = !converted_payload.empty()    ? std::move(converted_payload)
                                   : !converted_envelope.empty() ? std::move(converted_envelope)
                                                                 : std::move(contents.bytes);
  return std::unique_ptr<VTLSignedManifest>(new VTLSignedManifest(std::move(kept), payload));
}

std::optional<bplist::Object> VTLSignedManifest::lookup(std::string_view key) const {
  return payload_.find(key);
}

std::int32_t VTLSignedManifest::getVersion() const {
  const std::optional<Object> version = lookup(kVersionKey);
  return version ? int_value(*version) : 0;
}
std::optional<bplist::Object> VTLSignedManifest::getInfo() const { return lookup(kInfoKey); }
std::optional<bplist::Object> VTLSignedManifest::getAppList() const { return lookup(kAppKey); }
std::optional<bplist::Object> VTLSignedManifest::getAppDataList() const {
  return lookup(kAppDataKey);
}
std::optional<bplist::Object> VTLSignedManifest::getGroupDataList() const {
  return lookup(kGroupDataKey);
}
std::optional<bplist::Object> VTLSignedManifest::getPlugInDataList() const {
  return lookup(kExtensionDataKey);
}
std::optional<bplist::Object> VTLSignedManifest::getManifest() const { return lookup(kBackupKey); }

std::optional<VTLSignedManifest::Bytes> VTLSignedManifest::verifyManifestSignature(
    const Object& envelope, const Roles& roles) {
  const std::optional<Object> chain = envelope.find(kCertificateKey);
  if (!chain || chain->type() != Object::Type::kArray) {
    VTLLog(kCertificatesNotFound, kVerifyMethod);
    return std::nullopt;
  }

  std::unique_ptr<PublicKey> key = createPublicKeyForStrongSigning(*chain, roles);
  if (!key) {
    VTLTrace(kFailedStrongSigning);
    // Production-fused hardware takes only the production signer.
    if (!is_development_hardware(roles.device_properties)) {
      VTLLog(kCertificateNotValid, kVerifyMethod);
      return std::nullopt;
    }
    VTLTrace(kTryingDevelopmentSigning);
    key = createPublicKeyForDevelopmentSigning(*chain, roles);
    if (!key) {
      VTLLog(kCertificateNotValid, kVerifyMethod);
      return std::nullopt;
    }
  }

  const std::optional<Object> payload = envelope.find(kPayloadKey);
  const std::optional<Bytes> payload_bytes = payload ? payload->data() : std::nullopt;
  if (!payload_bytes) {
    VTLLog(kManifestFormatNotCorrect, kVerifyMethod);
    return std::nullopt;
  }
  if (!verifySignature_forData_withKey(envelope.find(kSignatureKey), *payload_bytes, *key, roles)) {
    return std::nullopt;
  }
  return payload_bytes;
}

std::unique_ptr<VTLSignedManifest::PublicKey> VTLSignedManifest::createPublicKeyForStrongSigning(
    const Object& certificates, const Roles& roles) {
  CertificateServices* services = roles.certificate_services;
  std::unique_ptr<Policy> policy =
      services != nullptr ? services->create_production_signer_policy() : nullptr;
  if (!policy) {
    VTLLog(kCannotCreatePolicy, kStrongMethod);
    return nullptr;
  }
  VTLLog(kVerifingStrongSigning);
  return createPublicKey_usingPolicy(certificates, std::move(policy), roles);
}

std::unique_ptr<VTLSignedManifest::PublicKey>
VTLSignedManifest::createPublicKeyForDevelopmentSigning(const Object& certificates,
                                                        const Roles& roles) {
  VTLLog(kVerifingDevelopmentSigning);
  return createPublicKeyForDevelopmentSigningStandard(certificates, roles);
}

std::unique_ptr<VTLSignedManifest::PublicKey>
VTLSignedManifest::createPublicKeyForDevelopmentSigningStandard(const Object& certificates,
                                                                const Roles& roles) {
  CertificateServices* services = roles.certificate_services;
  std::unique_ptr<Policy> policy =
      services != nullptr ? services->create_test_signer_policy() : nullptr;
  if (!policy) {
    VTLLog(kCannotCreatePolicy, kDevelopmentStandardMethod);
    return nullptr;
  }
  return createPublicKey_usingPolicy(certificates, std::move(policy), roles);
}

std::unique_ptr<VTLSignedManifest::PublicKey> VTLSignedManifest::createPublicKey_usingPolicy(
    const Object& certificates, std::unique_ptr<Policy> policy, const Roles& roles) {
  CertificateServices* services = roles.certificate_services;
  auto list = certificateArrayApplier(services, certificates);
  if (!list) return nullptr;  // the policy goes with this scope

  std::unique_ptr<platform::CertificateServices::Trust> trust;
  std::unique_ptr<PublicKey> key;
  if (const platform::TrustStatus status =
          services->create_trust(std::move(*list), *policy, &trust);
      status != platform::kTrustSuccess) {
    VTLLog(kCannotCreateTrust, kCreateKeyMethod, status);
  } else {
    TrustResult result = TrustResult::kInvalid;
    if (const platform::TrustStatus evaluated = services->evaluate_trust(*trust, &result);
        evaluated != platform::kTrustSuccess) {
      VTLLog(kCannotEvaluateTrust, kCreateKeyMethod, evaluated);
    } else if (result != TrustResult::kProceed && result != TrustResult::kUnspecified) {
      VTLLog(kTrustEvaluationFailed, kCreateKeyMethod, static_cast<long>(result));
    } else {
      key = services->copy_public_key(*trust);
      if (!key) VTLLog(kCannotExtractPublicKey, kCreateKeyMethod);
    }
  }
  policy.reset();
  trust.reset();
  return key;
}

bool VTLSignedManifest::verifySignature_forData_withKey(const std::optional<Object>& signature,
                                                        Bytes data, const PublicKey& key,
                                                        const Roles& roles) {
  VTLTrace(kVerifySignatureCalled);
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digest_length = 0;
  // The bytes exactly as stored in the envelope: a signature covers them,
  // not any re-serialisation of what they say.
  const bool hashed =
      EVP_Digest(data.data(), data.size(), digest, &digest_length, EVP_sha1(), nullptr) == 1;
  CertificateServices* services = roles.certificate_services;
  const std::optional<Bytes> signature_bytes = signature ? signature->data() : std::nullopt;
  const bool good =
      hashed && signature_bytes && services != nullptr &&
      services->verify_sha1_signature(key, std::span(digest, digest_length), *signature_bytes);
  if (!good) {
    VTLTrace(kFailedVerifyingSignature, kVerifySignatureMethod, -1L);
    return false;
  }
  return true;
}

}  // namespace vtl
