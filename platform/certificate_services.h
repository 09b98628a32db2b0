// Certificate services: what the signed-manifest check needs of the
// platform's certificate trust. Six operations: a certificate from DER bytes;
// the production and the test manifest-signer policies; a trust object from
// a certificate array (leaf first) and a policy; its evaluation; the
// evaluated leaf's public key; and RSA PKCS#1 v1.5 verification of a SHA-1
// digest.
//
// Signer policies. Each policy is a directory under the device root:
//
//   /etc/vtld/trust/production/   the production manifest signer
//   /etc/vtld/trust/test/         the test manifest signer
//
// holding
//
//   policy.plist   a property list (XML or binary), a dictionary of what the
//                  policy requires of a leaf:
//                    "LeafExtendedKeyUsage"  string, required: the dotted OID
//                        that the leaf's extended key usage must list
//                        (anyExtendedKeyUsage does not stand in for it).
//                  A key this program does not know makes the policy
//                  unusable: a policy that asks for more than is understood
//                  is never applied more loosely than written.
//   *.pem          the policy's trust anchors, one or more PEM certificates
//                  per file. Any certificate here anchors a chain, a
//                  self-signed root or an intermediate (a chain may end at
//                  an anchor that is not self-signed). No anchors: the
//                  policy trusts nothing.
//
// Files are read when a policy is made, so a changed directory takes effect
// at the next check. A policy cannot be made when its directory or its
// policy.plist is missing or unreadable, when policy.plist holds an unknown
// key or an OID that does not parse, or when a *.pem file holds no
// certificate or a damaged one.
//
// Evaluation. Path validation with OpenSSL (X509_verify_cert): the first
// certificate is the leaf, the others are untrusted intermediates (they can
// only link the leaf to an anchor; a root shipped among them is never
// trusted). Every certificate on the path must be valid at the evaluation
// time (the host's clock unless the services were made with another one),
// issuers must be CAs, and signatures must check. A leaf that has a key
// usage extension must allow digital signatures, and its extended key usage
// must list the policy's OID. A trusted chain gives kUnspecified: the anchor
// is trusted by configuration, not by a user's explicit decision (kProceed).
//
// Threads: objects are used by one thread at a time; the services object
// itself keeps no state between calls.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

inline constexpr std::string_view kProductionSignerPolicyDirectory = "/etc/vtld/trust/production";
inline constexpr std::string_view kTestSignerPolicyDirectory = "/etc/vtld/trust/test";
inline constexpr std::string_view kSignerPolicyFile = "policy.plist";
inline constexpr std::string_view kLeafExtendedKeyUsageKey = "LeafExtendedKeyUsage";
// The extended key usages the manifest-signer policies name (UUID-based
// OIDs under 2.25, which need no registration): a production signer's leaf
// lists the first, a test signer's the second.
inline constexpr std::string_view kProductionSignerUsage =
    "2.25.312641544414514005181211342653838270498";
inline constexpr std::string_view kTestSignerUsage = "2.25.120338431923233683036930261215945437778";

// Statuses of the trust operations, numbered as the platform numbers them
// (0 is success). Callers log them as signed long integers.
using TrustStatus = long;
inline constexpr TrustStatus kTrustSuccess = 0;
// A parameter is not valid: no certificates, or a policy of other services.
inline constexpr TrustStatus kTrustParam = -50;
// Memory could not be allocated.
inline constexpr TrustStatus kTrustAllocate = -108;
// The evaluation could not be run to an answer.
inline constexpr TrustStatus kTrustInternalComponent = -2070;

// What an evaluation concluded, numbered as in the platform's list. Only
// kProceed and kUnspecified mean trusted.
enum class TrustResult : int {
  kInvalid = 0,
  kProceed = 1,
  kConfirm = 2,
  kDeny = 3,
  kUnspecified = 4,
  // The chain failed in a way a configuration change could mend: expired
  // or not yet valid, no path to an anchor, a leaf without the required
  // usage.
  kRecoverableTrustFailure = 5,
  // The chain is broken: a signature that does not check, an issuer that is
  // not a CA, a certificate that cannot be decoded.
  kFatalTrustFailure = 6,
  kOtherError = 7,
};

class CertificateServices {
 public:
  class Certificate {
   public:
    virtual ~Certificate() = default;
  };
  class Policy {
   public:
    virtual ~Policy() = default;
  };
  class Trust {
   public:
    virtual ~Trust() = default;
  };
  class PublicKey {
   public:
    virtual ~PublicKey() = default;
  };

  virtual ~CertificateServices() = default;

  // A certificate from exactly one DER-encoded X.509 certificate; nullptr
  // when the bytes are not one (trailing bytes included).
  virtual std::unique_ptr<Certificate> create_certificate(std::span<const std::uint8_t> der) = 0;
  // The manifest-signer policies; nullptr when the policy cannot be made.
  virtual std::unique_ptr<Policy> create_production_signer_policy() = 0;
  virtual std::unique_ptr<Policy> create_test_signer_policy() = 0;
  // A trust object for `certificates` (leaf first) under `policy`, which it
  // keeps what it needs of. kTrustParam when `certificates` is empty or an
  // object comes from other services.
  virtual TrustStatus create_trust(std::vector<std::unique_ptr<Certificate>> certificates,
                                   const Policy& policy, std::unique_ptr<Trust>* trust) = 0;
  // Evaluates `trust`. A non-zero status means there is no answer;
  // otherwise `result` says what the evaluation concluded.
  virtual TrustStatus evaluate_trust(Trust& trust, TrustResult* result) = 0;
  // The leaf's public key once `trust` has been evaluated as trusted;
  // nullptr otherwise.
  virtual std::unique_ptr<PublicKey> copy_public_key(const Trust& trust) = 0;
  // Whether `signature` is the RSA PKCS#1 v1.5 signature, with a SHA-1
  // DigestInfo, of the 20-byte `digest` under `key`. False for a key that
  // is not RSA.
  virtual bool verify_sha1_signature(const PublicKey& key, std::span<const std::uint8_t> digest,
                                     std::span<const std::uint8_t> signature) = 0;
};

// The time certificates are checked against.
using TrustClock = std::function<std::chrono::system_clock::time_point()>;

// Certificate services on OpenSSL, reading the signer policies under `root`
// ("/" in the helper, which runs confined to its device; a device directory
// for tools that look at one from outside). Without `clock`, the host's
// clock at each evaluation.
std::unique_ptr<CertificateServices> make_openssl_certificate_services(std::string root,
                                                                       TrustClock clock = {});

}  // namespace platform
