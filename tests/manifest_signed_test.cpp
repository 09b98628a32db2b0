// VTLSignedManifest against the committed test PKI: which chains are trusted
// under which policy and fuse state, what is logged for each refusal, and
// that hostile envelopes and payloads are refused without a crash.
#include <filesystem>
#include <fstream>
#include <functional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/plist.h"
#include "manifest/VTLSignedManifest.h"
#include "platform/platform.h"
#include "tests/support/daemon.h"
#include "tests/support/signing.h"

namespace {

using testsupport::Fuse;
using testsupport::pki_der;
using testsupport::pki_signer;
using vtl::Data;
using vtl::Dictionary;
using vtl::Value;
using vtl::VTLSignedManifest;
namespace fs = std::filesystem;

constexpr const char* kStrong = "Verifing strong signing";
constexpr const char* kDevelopment = "Verifing development signing";
constexpr const char* kPassed = "Manifest passed signature check.";
constexpr const char* kNotValid =
    "-[VTLSignedManifest verifyManifestSignature:]: Certificate not valid.";
constexpr const char* kRecoverable =
    "-[VTLSignedManifest createPublicKey:usingPolicy:]: certificate trust evaluation failed: 5";
constexpr const char* kFatal =
    "-[VTLSignedManifest createPublicKey:usingPolicy:]: certificate trust evaluation failed: 6";
constexpr const char* kNoTrustObject =
    "-[VTLSignedManifest createPublicKey:usingPolicy:]: Cannot create secure trust object: -50";
constexpr const char* kCannotLoad = "certificateArrayApplier: Cannot load certificate.";
constexpr const char* kNoStrongPolicy =
    "-[VTLSignedManifest createPublicKeyForStrongSigning:]: Cannot create policy.";
const std::string kInit = "-[VTLSignedManifest initWithNSStream:]: ";
const std::string kNotPlist = kInit +
                              "Cannot convert to property list - The data is not a property list "
                              "of a supported form.(0xf00).";

class SignedManifestTest : public ::testing::Test {
 protected:
  SignedManifestTest() { testsupport::install_fixture_trust(dir_.path()); }

  // The platform is made per case so that the fuse and the clock can vary.
  void use_device(Fuse fuse,
                  platform::TrustClock clock = testsupport::SigningPlatform::pki_now_clock()) {
    testsupport::write_fuse(dir_.path(), fuse);
    platform_.reset();
    platform_ = std::make_unique<testsupport::SigningPlatform>(dir_.path(), std::move(clock));
  }

  std::unique_ptr<VTLSignedManifest> read(vtl::InputStream& stream) {
    platform_->base.log.clear();
    return VTLSignedManifest::signedManifestWithNSStream(stream, platform_->base.signing_roles());
  }
  std::unique_ptr<VTLSignedManifest> read(const Data& bytes) {
    vtl::DataInputStream stream(bytes);
    return read(stream);
  }
  std::unique_ptr<VTLSignedManifest> read(const Dictionary& envelope) {
    return read(testsupport::binary_plist(Value(envelope)));
  }
  std::vector<std::string> log() const { return platform_->base.log.lines(); }

  static Dictionary signed_envelope(const vtl::ManifestSigner& signer, const Data& payload) {
    std::optional<Dictionary> envelope = signer.envelope(payload);
    EXPECT_TRUE(envelope.has_value());
    return envelope.value_or(Dictionary{});
  }
  // The test manifest, signed by the production and by the test hierarchy.
  Dictionary good_envelope() const {
    return signed_envelope(pki_signer("production-leaf", {"production-intermediate"}), payload_);
  }
  Dictionary test_envelope() const {
    return signed_envelope(pki_signer("test-leaf", {"test-intermediate"}), payload_);
  }

  const Data payload_ = testsupport::binary_plist(Value(testsupport::raw_manifest()));
  testsupport::TempDir dir_;
  std::unique_ptr<testsupport::SigningPlatform> platform_;
};

// `d` with `key` set to `value`, or without it.
Dictionary with(const Dictionary& d, const std::string& key, std::optional<Value> value) {
  Dictionary out = d;
  if (value) {
    out[key] = *value;
  } else {
    out.erase(key);
  }
  return out;
}

// --- Chains, policies and fuse states ----------------------------------------

struct ChainCase {
  const char* name;
  std::vector<std::string> chain;  // leaf first; the leaf's key signs
  Fuse fuse;
  bool accepted;
  std::vector<std::string> log;
};

std::vector<std::string> lines(std::initializer_list<const char*> l) {
  return {l.begin(), l.end()};
}

// A chain the production policy trusts, accepted in every state.
std::vector<ChainCase> production_cases(const char* name, std::vector<std::string> chain) {
  return {
      {name, chain, Fuse::kTrue, true, lines({kStrong, kPassed})},
      {name, chain, Fuse::kAbsent, true, lines({kStrong, kPassed})},
      {name, chain, Fuse::kFalse, true, lines({kStrong, kPassed})},
  };
}
// A chain that only the test policy trusts, refused or accepted by fuse.
std::vector<ChainCase> test_only_cases(const char* name, std::vector<std::string> chain) {
  return {
      {name, chain, Fuse::kTrue, false, lines({kStrong, kRecoverable, kNotValid})},
      {name, chain, Fuse::kAbsent, false, lines({kStrong, kRecoverable, kNotValid})},
      {name, chain, Fuse::kFalse, true, lines({kStrong, kRecoverable, kDevelopment, kPassed})},
  };
}
// A chain that no policy trusts: refused in every state, after both policies
// where the fuse allows the second.
std::vector<ChainCase> untrusted_cases(const char* name, std::vector<std::string> chain,
                                       const char* strong_reason = kRecoverable,
                                       const char* development_reason = kRecoverable) {
  return {
      {name, chain, Fuse::kTrue, false, lines({kStrong, strong_reason, kNotValid})},
      {name, chain, Fuse::kAbsent, false, lines({kStrong, strong_reason, kNotValid})},
      {name, chain, Fuse::kFalse, false,
       lines({kStrong, strong_reason, kDevelopment, development_reason, kNotValid})},
  };
}

std::vector<ChainCase> chain_cases() {
  std::vector<ChainCase> out;
  auto add = [&out](std::vector<ChainCase> more) {
    out.insert(out.end(), more.begin(), more.end());
  };
  add(production_cases("production", {"production-leaf", "production-intermediate"}));
  // The root shipped along changes nothing: it is an anchor only where the
  // policy says so.
  add(production_cases("production_with_root",
                       {"production-leaf", "production-intermediate", "production-root"}));
  add(test_only_cases("test", {"test-leaf", "test-intermediate"}));
  add(test_only_cases("test_with_root", {"test-leaf", "test-intermediate", "test-root"}));
  for (const char* h : {"production", "test"}) {
    for (const char* bad : {"expired", "not-yet-valid", "wrong-usage", "key-encipherment"}) {
      const std::string leaf = std::string(h) + "-leaf-" + bad;
      add(untrusted_cases(bad, {leaf, std::string(h) + "-intermediate"}));
    }
  }
  add(untrusted_cases("unknown_root", {"unknown-leaf", "unknown-intermediate", "unknown-root"}));
  add(untrusted_cases("unknown_without_root", {"unknown-leaf", "unknown-intermediate"}));
  // A production leaf whose intermediate is missing cannot reach the anchor.
  add(untrusted_cases("missing_intermediate", {"production-leaf"}));
  // An intermediate of the other hierarchy does not link the leaf either.
  add(untrusted_cases("crossed_intermediate", {"test-leaf", "production-intermediate"}));
  return out;
}

TEST_F(SignedManifestTest, EachFixtureChainUnderEachFuseState) {
  for (const ChainCase& c : chain_cases()) {
    SCOPED_TRACE(std::string(c.name) + " (" + c.chain.front() + ") " + fuse_name(c.fuse));
    use_device(c.fuse);
    const Dictionary envelope = signed_envelope(
        pki_signer(c.chain.front(), {c.chain.begin() + 1, c.chain.end()}), payload_);
    std::unique_ptr<VTLSignedManifest> manifest = read(envelope);
    EXPECT_EQ(manifest != nullptr, c.accepted);
    EXPECT_EQ(log(), c.log);
  }
}

TEST_F(SignedManifestTest, ALeafWithABrokenSignatureIsAFatalFailure) {
  Data leaf = pki_der("production-leaf");
  leaf[leaf.size() - 8] ^= 0x01;  // inside the issuer's signature
  std::optional<vtl::ManifestSigner> signer = vtl::ManifestSigner::from_parts(
      testsupport::pki_key("production-leaf"), {leaf, pki_der("production-intermediate")});
  ASSERT_TRUE(signer);
  use_device(Fuse::kTrue);
  EXPECT_EQ(read(signed_envelope(*signer, payload_)), nullptr);
  EXPECT_EQ(log(), lines({kStrong, kFatal, kNotValid}));
}

TEST_F(SignedManifestTest, TheClockDecidesValidity) {
  using namespace std::chrono;
  const Dictionary envelope = good_envelope();
  struct {
    sys_days when;
    bool accepted;
  } const cases[] = {
      {year(2023) / December / 31, false},  // before the leaf
      {year(2024) / January / 2, true},
      {year(2039) / December / 31, true},
      {year(2040) / January / 2, false},  // after it
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(static_cast<int>(year_month_day(c.when).year()));
    use_device(Fuse::kTrue, [when = c.when] { return system_clock::time_point(when); });
    EXPECT_EQ(read(envelope) != nullptr, c.accepted);
    if (!c.accepted) {
      EXPECT_EQ(log(), lines({kStrong, kRecoverable, kNotValid}));
    }
  }
}

// --- The signature covers the payload's exact bytes ---------------------------

TEST_F(SignedManifestTest, APayloadChangedByOneByteIsRefusedWithoutNamingTheSignature) {
  for (Fuse fuse : {Fuse::kTrue, Fuse::kFalse}) {
    use_device(fuse);
    const Dictionary envelope = fuse == Fuse::kTrue ? good_envelope() : test_envelope();
    ASSERT_NE(read(envelope), nullptr);
    for (std::size_t at : {std::size_t{0}, payload_.size() / 2, payload_.size() - 1}) {
      for (std::uint8_t flip : {std::uint8_t{0x01}, std::uint8_t{0x80}}) {
        SCOPED_TRACE(testing::Message() << fuse_name(fuse) << " byte " << at << " ^ " << +flip);
        Dictionary changed = envelope;
        (*std::get_if<Data>(&changed["Payload"].storage()))[at] ^= flip;
        EXPECT_EQ(read(changed), nullptr);
        EXPECT_THAT(log(),
                    testing::Each(testing::Not(testing::ContainsRegex("[Ss]ignature|SIGNATURE"))));
        EXPECT_THAT(log(), testing::Not(testing::Contains(kPassed)));
      }
    }
  }
}

TEST_F(SignedManifestTest, ABadOrMissingSignatureLeavesNoLogLine) {
  use_device(Fuse::kTrue);
  const Dictionary envelope = good_envelope();
  const Data signature = *envelope.at("Signature").data();
  Data flipped = signature;
  flipped[flipped.size() / 2] ^= 0x10;
  Data short_signature(signature.begin(), signature.end() - 1);
  // Signed with the right certificate but another key.
  std::optional<vtl::ManifestSigner> impostor = vtl::ManifestSigner::from_parts(
      testsupport::pki_key("unknown-leaf"),
      {pki_der("production-leaf"), pki_der("production-intermediate")});
  ASSERT_TRUE(impostor);

  const std::optional<Value> replacements[] = {
      Value(flipped),    Value(short_signature),           Value(Data{}),
      Value("not data"), Value(*impostor->sign(payload_)), std::nullopt};
  for (const std::optional<Value>& replacement : replacements) {
    EXPECT_EQ(read(with(envelope, "Signature", replacement)), nullptr);
    EXPECT_EQ(log(), lines({kStrong}));
  }
}

// --- Malformed envelopes -------------------------------------------------------

struct EnvelopeCase {
  const char* name;
  Data bytes;
  std::vector<std::string> log;
};

Data bytes_of(const Value& v) { return testsupport::binary_plist(v); }

// Deeper than any writer would go: built as text, so that nothing here
// recurses per level.
Data deep_xml(std::size_t depth) {
  std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\">";
  for (std::size_t i = 0; i < depth; ++i) text += "<array>";
  for (std::size_t i = 0; i < depth; ++i) text += "</array>";
  text += "</plist>";
  return Data(text.begin(), text.end());
}

TEST_F(SignedManifestTest, MalformedEnvelopesAreRefusedWithTheirMessages) {
  use_device(Fuse::kFalse);
  const Dictionary good = good_envelope();
  const std::string verify = "-[VTLSignedManifest verifyManifestSignature:]: ";
  const std::string no_certificates =
      verify + "cannot find certificates, or certificate format not correct.";
  const Data garbage_der = {0x30, 0x82, 0x01, 0x00, 0xde, 0xad};
  Data trailing = pki_der("production-leaf");
  trailing.push_back(0);

  Data truncated = bytes_of(Value(good));
  truncated.resize(truncated.size() / 2);
  auto good_with = [&](const char* key, std::optional<Value> value) {
    return bytes_of(Value(with(good, key, std::move(value))));
  };
  const std::vector<EnvelopeCase> cases = {
      {"empty", Data{}, {kNotPlist}},
      {"truncated", truncated, {kNotPlist}},
      {"deeply_nested", deep_xml(100000), {kNotPlist}},
      {"nested_past_the_limit", deep_xml(vtl::kMaxPlistDepth + 1), {kNotPlist}},
      {"array", bytes_of(Value(vtl::Array{})), {kInit + "format not correct."}},
      {"no_version", good_with("Version", {}), {kInit + "required key (version) not found."}},
      {"version_3",
       good_with("Version", 3),
       {kInit + "signed manifest version 3 is not supported yet"}},
      {"version_2_beyond_32_bits",
       good_with("Version", Value(std::int64_t{0x100000002})),
       {kInit + "signed manifest version 2147483647 is not supported yet"}},
      {"version_data",
       good_with("Version", Value(Data{2})),
       {kInit + "signed manifest version 0 is not supported yet"}},
      {"version_2.9", good_with("Version", Value(2.9)), {kStrong, kPassed}},
      {"version_string", good_with("Version", Value(" 2")), {kStrong, kPassed}},
      {"no_certificate", good_with("Certificate", {}), {no_certificates}},
      {"certificate_data",
       good_with("Certificate", Value(pki_der("production-leaf"))),
       {no_certificates}},
      {"certificate_empty",
       good_with("Certificate", Value(vtl::Array{})),
       {kStrong, kNoTrustObject, kDevelopment, kNoTrustObject, kNotValid}},
      {"certificate_garbage",
       good_with("Certificate", Value(vtl::Array{Value(garbage_der)})),
       {kStrong, kCannotLoad, kDevelopment, kCannotLoad, kNotValid}},
      {"certificate_trailing_byte",
       good_with("Certificate", Value(vtl::Array{Value(trailing)})),
       {kStrong, kCannotLoad, kDevelopment, kCannotLoad, kNotValid}},
      // The certificate is checked before the payload's presence.
      {"no_payload_untrusted",
       bytes_of(Value(with(with(good, "Payload", {}), "Certificate",
                           Value(vtl::Array{Value(pki_der("unknown-leaf"))})))),
       {kStrong, kRecoverable, kDevelopment, kRecoverable, kNotValid}},
      {"no_payload", good_with("Payload", {}), {kStrong, verify + "Manifest format not correct."}},
  };
  for (const EnvelopeCase& c : cases) {
    SCOPED_TRACE(c.name);
    const bool accepted = c.log.size() == 2 && c.log.back() == kPassed;
    EXPECT_EQ(read(c.bytes) != nullptr, accepted);
    EXPECT_EQ(log(), c.log);
  }
}

TEST_F(SignedManifestTest, StreamsThatCannotBeReadWholeAreRefusedWithTheirError) {
  use_device(Fuse::kTrue);
  const std::string path = dir_ / "huge.plist";
  std::ofstream(path, std::ios::binary) << vtl::plist_to_xml(Value(good_envelope()));
  // Sparse: the size is what counts, and it is refused before any read.
  fs::resize_file(path, vtl::kMaxSignedManifestBytes + 1);
  int error = 0;
  auto huge = vtl::FileInputStream::inputStreamWithFileAtPath(path, &error);
  ASSERT_NE(huge, nullptr);
  struct FailingStream final : vtl::InputStream {
    int reads = 0;
    long read(std::span<std::uint8_t> buffer, int* error) override {
      if (reads++ == 0) {
        buffer[0] = 'b';
        return 1;
      }
      *error = EIO;
      return -1;
    }
  } failing;
  const std::pair<vtl::InputStream*, std::string> cases[] = {
      {huge.get(), "File too large(0x1b)."}, {&failing, "Input/output error(0x5)."}};
  const std::string cannot_convert = kInit + "Cannot convert to property list - ";
  for (const auto& [stream, reason] : cases) {
    SCOPED_TRACE(reason);
    EXPECT_EQ(read(*stream), nullptr);
    EXPECT_EQ(log(), std::vector<std::string>{cannot_convert + reason});
  }
}

// --- Malformed payloads ------------------------------------------------------

TEST_F(SignedManifestTest, MalformedPayloadsAreRefusedWithTheirMessages) {
  use_device(Fuse::kTrue);
  const std::string missing =
      kInit + "required key (Info, App, AppData, or Manifest) not found: (null)";
  const Dictionary raw = testsupport::raw_manifest();
  Data truncated = bytes_of(Value(raw));
  truncated.resize(truncated.size() - 3);
  auto raw_with = [&](const char* key, std::optional<Value> value) {
    return bytes_of(Value(with(raw, key, std::move(value))));
  };

  struct PayloadCase {
    const char* name;
    Data payload;
    std::vector<std::string> log;
  };
  const std::vector<PayloadCase> cases = {
      {"not_a_plist", Data{'{', '{'}, {kNotPlist}},
      {"empty", Data{}, {kNotPlist}},
      {"truncated", truncated, {kNotPlist}},
      {"deeply_nested", deep_xml(5000), {kNotPlist}},
      {"array", bytes_of(Value(vtl::Array{Value(raw)})), {kInit + "payload format not correct."}},
      {"no_version", raw_with("Version", {}), {kInit + "required key (version) not found."}},
      {"version_2", raw_with("Version", 2), {kInit + "raw manifest version 2 is not supported."}},
      {"version_5", raw_with("Version", 5), {kInit + "raw manifest version 5 is not supported."}},
      {"version_text_5",
       raw_with("Version", Value("5")),
       {kInit + "raw manifest version 5 is not supported."}},
      {"version_dictionary",
       raw_with("Version", Value(Dictionary{{"Major", Value(3)}})),
       {kInit + "raw manifest version { Major = 3; } is not supported."}},
      {"no_info", raw_with("Info", {}), {missing}},
      {"no_backup", raw_with("Backup", {}), {missing}},
      {"no_app", raw_with("App", {}), {missing}},
      {"no_app_data", raw_with("AppData", {}), {missing}},
  };
  const vtl::ManifestSigner signer = pki_signer("production-leaf", {"production-intermediate"});
  for (const PayloadCase& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(read(signed_envelope(signer, c.payload)), nullptr);
    std::vector<std::string> expected = {kStrong, kPassed};
    expected.insert(expected.end(), c.log.begin(), c.log.end());
    EXPECT_EQ(log(), expected);
  }
}

// --- Trust directories --------------------------------------------------------

TEST_F(SignedManifestTest, APolicyThatCannotBeMadeIsReported) {
  const fs::path trust = fs::path(dir_.path()) / "etc/vtld/trust";
  const std::string test_policy =
      "-[VTLSignedManifest createPublicKeyForDevelopmentSigningStandard:]: Cannot create policy.";
  const Dictionary test_signed = test_envelope();
  auto policy_file = [](const fs::path& dir, const std::string& text) {
    std::ofstream(dir / "policy.plist", std::ios::trunc) << text;
  };
  const std::string plist_head =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>";

  struct {
    const char* name;
    std::function<void()> damage;
    std::vector<std::string> log;
  } const cases[] = {
      {"no_production_directory",
       [&] { fs::remove_all(trust / "production"); },
       {kNoStrongPolicy, kDevelopment, kPassed}},
      {"production_policy_not_a_dictionary",
       [&] { policy_file(trust / "production", "<plist><array/></plist>"); },
       {kNoStrongPolicy, kDevelopment, kPassed}},
      {"production_policy_unknown_key",
       [&] {
         policy_file(trust / "production",
                     plist_head +
                         "<key>LeafExtendedKeyUsage</key><string>1.2.3</string>"
                         "<key>RequireTimestamp</key><true/></dict></plist>");
       },
       {kNoStrongPolicy, kDevelopment, kPassed}},
      {"production_anchor_damaged",
       [&] {
         std::ofstream(trust / "production/production-root.pem", std::ios::app)
             << "-----BEGIN CERTIFICATE-----\nMIIBroken\n-----END CERTIFICATE-----\n";
       },
       {kNoStrongPolicy, kDevelopment, kPassed}},
      // No anchors at all is a policy that trusts nothing, not a broken one.
      {"production_without_anchors",
       [&] { fs::remove(trust / "production/production-root.pem"); },
       {kStrong, kRecoverable, kDevelopment, kPassed}},
      {"no_test_directory",
       [&] { fs::remove_all(trust / "test"); },
       {kStrong, kRecoverable, kDevelopment, test_policy, kNotValid}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(trust);
    testsupport::install_fixture_trust(dir_.path());
    c.damage();
    use_device(Fuse::kFalse);
    EXPECT_EQ(read(test_signed) != nullptr, c.log.back() == kPassed);
    EXPECT_EQ(log(), c.log);
  }
  // With the test policy gone, production signing still works.
  use_device(Fuse::kFalse);
  EXPECT_NE(read(good_envelope()), nullptr);
}

TEST_F(SignedManifestTest, AnAnchorNeedNotBeARoot) {
  const fs::path production = fs::path(dir_.path()) / "etc/vtld/trust/production";
  fs::remove(production / "production-root.pem");
  fs::copy(std::string(VTL_FIXTURES_DIR) + "/pki/production-intermediate.pem", production);
  use_device(Fuse::kTrue);
  EXPECT_NE(read(good_envelope()), nullptr);
  EXPECT_NE(read(signed_envelope(pki_signer("production-leaf", {}), payload_)), nullptr);
}

TEST_F(SignedManifestTest, NoCertificateServicesMeansNoPolicy) {
  use_device(Fuse::kTrue);
  platform_->base.roles.certificate_services = nullptr;
  EXPECT_EQ(read(good_envelope()), nullptr);
  EXPECT_EQ(log(), lines({kNoStrongPolicy, kNotValid}));
}

TEST_F(SignedManifestTest, AFuseAnswerThatIsNotFalseCountsAsFused) {
  use_device(Fuse::kFalse);
  const Dictionary test_signed = test_envelope();
  for (const Value& answer : {Value(0), Value("false"), Value(Data{0})}) {
    std::ofstream(dir_ / "sim/device-properties.plist", std::ios::trunc)
        << vtl::plist_to_xml(Value(Dictionary{{"SigningFuse", answer}}));
    EXPECT_EQ(read(test_signed), nullptr);
    EXPECT_EQ(log(), lines({kStrong, kRecoverable, kNotValid}));
  }
  platform_->base.roles.device_properties = nullptr;
  EXPECT_EQ(read(test_signed), nullptr);
  EXPECT_EQ(log(), lines({kStrong, kRecoverable, kNotValid}));
}

}  // namespace
