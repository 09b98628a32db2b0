#include "manifest/VTLSignedManifest.h"

#include <openssl/evp.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <string_view>
#include <vector>

#include "platform/device_properties.h"
#include "platform/platform.h"
#include "service/VTLLog.h"
#include "service/plist.h"

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

std::string errno_description(int error) {
  char buffer[256];
  return ::strerror_r(error, buffer, sizeof buffer);
}

// Parses `bytes` as a property list of any supported encoding.
std::optional<Value> parse_property_list(std::span<const std::uint8_t> bytes, ReadError* error) {
  std::optional<Value> value = plist_from_bytes(bytes);
  if (!value) *error = {kNotPropertyList, kPropertyListReadCorruptError};
  return value;
}

// Walks the certificate array into certificates, stopping at the first
// element that is not one. Its own name is the one its message carries.
std::optional<std::vector<std::unique_ptr<CertificateServices::Certificate>>>
certificateArrayApplier(CertificateServices* services, const Array& certificates) {
  std::vector<std::unique_ptr<CertificateServices::Certificate>> list;
  list.reserve(certificates.size());
  for (const Value& element : certificates) {
    const Data* der = element.data();
    std::unique_ptr<CertificateServices::Certificate> cert;
    if (der != nullptr && services != nullptr) cert = services->create_certificate(*der);
    if (!cert) {
      VTLLog(kCannotLoadCertificate, __func__);
      return std::nullopt;
    }
    list.push_back(std::move(cert));
  }
  return list;
}

CertificateServices* certificate_services() { return platform::current().certificate_services; }

// Development hardware is the one case where a test signer is good enough:
// only an explicit false says so.
bool is_development_hardware() {
  platform::DeviceProperties* properties = platform::current().device_properties;
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

std::int32_t VTLSignedManifest::int_value(const Value& value) {
  if (const std::int64_t* i = value.integer()) return saturate(*i);
  if (const bool* b = value.boolean()) return *b ? 1 : 0;
  if (const double* d = value.real()) {
    if (std::isnan(*d)) return 0;
    if (*d >= 2147483647.0) return std::numeric_limits<std::int32_t>::max();
    if (*d <= -2147483648.0) return std::numeric_limits<std::int32_t>::min();
    return static_cast<std::int32_t>(*d);
  }
  if (const std::string* s = value.string()) {
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
    InputStream& stream) {
  return initWithNSStream(stream);
}

std::unique_ptr<VTLSignedManifest> VTLSignedManifest::initWithNSStream(InputStream& stream) {
  StreamContents contents = read_whole_stream(stream, kMaxSignedManifestBytes);
  ReadError error;
  std::optional<Value> envelope_value;
  if (contents.error != 0) {
    error = {errno_description(contents.error), contents.error};
  } else {
    envelope_value = parse_property_list(contents.bytes, &error);
  }
  // The file's bytes are no longer needed: the payload lives on in the
  // envelope, and a large manifest should not be held twice.
  contents.bytes = {};
  if (!envelope_value) {
    VTLLog(kCannotConvert, kInitMethod, error.description, error.code);
    return nullptr;
  }
  const Dictionary* envelope = envelope_value->dictionary();
  if (envelope == nullptr) {
    VTLLog(kFormatNotCorrect, kInitMethod);
    return nullptr;
  }

  const auto version = envelope->find(kVersionKey);
  if (version == envelope->end()) {
    VTLLog(kVersionNotFound, kInitMethod);
    return nullptr;
  }
  if (const std::int32_t v = int_value(version->second); v != kEnvelopeVersion) {
    VTLLog(kEnvelopeVersionUnsupported, kInitMethod, v);
    return nullptr;
  }

  const Data* payload_bytes = verifyManifestSignature(*envelope);
  if (payload_bytes == nullptr) return nullptr;
  VTLLog(kPassedSignatureCheck);

  // verifyManifestSignature has already insisted on the payload; the check
  // stays so that this step never depends on how that one is written.
  if (envelope->find(kPayloadKey) == envelope->end()) {
    VTLLog(kPayloadNotFound, kInitMethod);
    return nullptr;
  }
  std::optional<Value> raw = parse_property_list(*payload_bytes, &error);
  envelope_value.reset();
  if (!raw) {
    VTLLog(kCannotConvert, kInitMethod, error.description, error.code);
    return nullptr;
  }
  Dictionary* payload = raw->dictionary();
  if (payload == nullptr) {
    VTLLog(kPayloadFormatNotCorrect, kInitMethod);
    return nullptr;
  }

  const auto raw_version = payload->find(kVersionKey);
  if (raw_version == payload->end()) {
    VTLLog(kVersionNotFound, kInitMethod);
    return nullptr;
  }
  if (const std::int32_t v = int_value(raw_version->second);
      v < kOldestRawVersion || v > kNewestRawVersion) {
    VTLLog(kRawVersionUnsupported, kInitMethod, raw_version->second);
    return nullptr;
  }
  for (std::string_view key : {kInfoKey, kBackupKey, kAppKey, kAppDataKey}) {
    if (payload->find(key) == payload->end()) {
      VTLLog(kRequiredKeyNotFound, kInitMethod);
      return nullptr;
    }
  }
  return std::unique_ptr<VTLSignedManifest>(new VTLSignedManifest(std::move(*payload)));
}

const Value* VTLSignedManifest::lookup(std::string_view key) const {
  const auto it = payload_.find(key);
  return it == payload_.end() ? nullptr : &it->second;
}

std::int32_t VTLSignedManifest::getVersion() const {
  const Value* version = lookup(kVersionKey);
  return version == nullptr ? 0 : int_value(*version);
}
const Value* VTLSignedManifest::getInfo() const { return lookup(kInfoKey); }
const Value* VTLSignedManifest::getAppList() const { return lookup(kAppKey); }
const Value* VTLSignedManifest::getAppDataList() const { return lookup(kAppDataKey); }
const Value* VTLSignedManifest::getGroupDataList() const { return lookup(kGroupDataKey); }
const Value* VTLSignedManifest::getPlugInDataList() const { return lookup(kExtensionDataKey); }
const Value* VTLSignedManifest::getManifest() const { return lookup(kBackupKey); }

const Data* VTLSignedManifest::verifyManifestSignature(const Dictionary& envelope) {
  const auto certificates = envelope.find(kCertificateKey);
  const Array* chain = certificates == envelope.end() ? nullptr : certificates->second.array();
  if (chain == nullptr) {
    VTLLog(kCertificatesNotFound, kVerifyMethod);
    return nullptr;
  }

  std::unique_ptr<PublicKey> key = createPublicKeyForStrongSigning(*chain);
  if (!key) {
    VTLTrace(kFailedStrongSigning);
    // Production-fused hardware takes only the production signer.
    if (!is_development_hardware()) {
      VTLLog(kCertificateNotValid, kVerifyMethod);
      return nullptr;
    }
    VTLTrace(kTryingDevelopmentSigning);
    key = createPublicKeyForDevelopmentSigning(*chain);
    if (!key) {
      VTLLog(kCertificateNotValid, kVerifyMethod);
      return nullptr;
    }
  }

  const auto payload = envelope.find(kPayloadKey);
  const Data* payload_bytes = payload == envelope.end() ? nullptr : payload->second.data();
  if (payload_bytes == nullptr) {
    VTLLog(kManifestFormatNotCorrect, kVerifyMethod);
    return nullptr;
  }
  const auto signature = envelope.find(kSignatureKey);
  const Data* signature_bytes = signature == envelope.end() ? nullptr : signature->second.data();
  if (!verifySignature_forData_withKey(signature_bytes, *payload_bytes, *key)) return nullptr;
  return payload_bytes;
}

std::unique_ptr<VTLSignedManifest::PublicKey> VTLSignedManifest::createPublicKeyForStrongSigning(
    const Array& certificates) {
  CertificateServices* services = certificate_services();
  std::unique_ptr<Policy> policy =
      services != nullptr ? services->create_production_signer_policy() : nullptr;
  if (!policy) {
    VTLLog(kCannotCreatePolicy, kStrongMethod);
    return nullptr;
  }
  VTLLog(kVerifingStrongSigning);
  return createPublicKey_usingPolicy(certificates, std::move(policy));
}

std::unique_ptr<VTLSignedManifest::PublicKey>
VTLSignedManifest::createPublicKeyForDevelopmentSigning(const Array& certificates) {
  VTLLog(kVerifingDevelopmentSigning);
  return createPublicKeyForDevelopmentSigningStandard(certificates);
}

std::unique_ptr<VTLSignedManifest::PublicKey>
VTLSignedManifest::createPublicKeyForDevelopmentSigningStandard(const Array& certificates) {
  CertificateServices* services = certificate_services();
  std::unique_ptr<Policy> policy =
      services != nullptr ? services->create_test_signer_policy() : nullptr;
  if (!policy) {
    VTLLog(kCannotCreatePolicy, kDevelopmentStandardMethod);
    return nullptr;
  }
  return createPublicKey_usingPolicy(certificates, std::move(policy));
}

std::unique_ptr<VTLSignedManifest::PublicKey> VTLSignedManifest::createPublicKey_usingPolicy(
    const Array& certificates, std::unique_ptr<Policy> policy) {
  CertificateServices* services = certificate_services();
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

bool VTLSignedManifest::verifySignature_forData_withKey(const Data* signature, const Data& data,
                                                        const PublicKey& key) {
  VTLTrace(kVerifySignatureCalled);
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digest_length = 0;
  // The bytes exactly as stored in the envelope: a signature covers them,
  // not any re-serialisation of what they say.
  const bool hashed =
      EVP_Digest(data.data(), data.size(), digest, &digest_length, EVP_sha1(), nullptr) == 1;
  CertificateServices* services = certificate_services();
  const bool good =
      hashed && signature != nullptr && services != nullptr &&
      services->verify_sha1_signature(key, std::span(digest, digest_length), *signature);
  if (!good) {
    VTLTrace(kFailedVerifyingSignature, kVerifySignatureMethod, -1L);
    return false;
  }
  return true;
}

}  // namespace vtl
