// `vtldctl signed-manifest create | show | verify` as a user runs them: a
// simulated device's test signer signs what its helper accepts, show tells
// the chain and the payload, and verify gives the helper's own verdict and
// reason.
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/plist.h"
#include "platform/sim/device.h"
#include "tests/support/daemon.h"
#include "tests/support/file_tree.h"
#include "tests/support/signing.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

struct ToolRun {
  int status;
  std::string output;  // standard output and error
};

ToolRun vtldctl(std::vector<std::string> args) {
  args.insert(args.begin(), testsupport::program_path("vtldctl"));
  ToolRun result{};
  result.status = testsupport::run(args, &result.output);
  return result;
}

class SignedManifestTool : public ::testing::Test {
 protected:
  SignedManifestTool() : root_(dir_ / "device"), tree_(dir_ / "tree") {
    EXPECT_EQ(platform::sim::create_device(root_, {}), "");
    fs::create_directories(tree_ + "/Library/Preferences");
    std::ofstream(tree_ + "/Library/Preferences/a.plist") << "a";
    std::ofstream(tree_ + "/b.txt") << "b";
  }

  testsupport::TempDir dir_;
  std::string root_;
  std::string tree_;
};

TEST_F(SignedManifestTool, WhatTheDevicesSignerSignsItsHelperAccepts) {
  const std::string out = dir_ / "content.signedmanifest";
  ToolRun created =
      vtldctl({"--root", root_, "signed-manifest", "create", out, "--backup", tree_, "--app-data",
               "com.example.app=" + tree_, "--group-data", "group.example=" + tree_ + "/Library"});
  ASSERT_EQ(created.status, 0) << created.output;
  EXPECT_THAT(created.output, HasSubstr("wrote " + out));

  ToolRun shown = vtldctl({"signed-manifest", "show", out});
  EXPECT_EQ(shown.status, 0) << shown.output;
  EXPECT_THAT(shown.output, HasSubstr("binary property list"));
  EXPECT_THAT(shown.output, HasSubstr("Certificates (1, signer first):"));
  EXPECT_THAT(shown.output, HasSubstr("CN = Test Manifest Signer (simulated device)"));
  EXPECT_THAT(shown.output, HasSubstr("(test manifest signer)"));
  EXPECT_THAT(shown.output, HasSubstr("valid   "));
  EXPECT_THAT(shown.output, HasSubstr("key     RSA 2048 bits"));
  // The tree, its two directories and its two files.
  EXPECT_THAT(shown.output, HasSubstr("Backup        5 records"));
  EXPECT_THAT(shown.output, HasSubstr("com.example.app: 5 records"));
  EXPECT_THAT(shown.output, HasSubstr("group.example: 3 records"));
  EXPECT_THAT(shown.output, HasSubstr("ExtensionData (none)"));

  ToolRun verified = vtldctl({"signed-manifest", "verify", out, "--root", root_});
  EXPECT_EQ(verified.status, 0) << verified.output;
  EXPECT_THAT(verified.output, HasSubstr(out + ": accepted by the device at " + root_));
  EXPECT_THAT(verified.output, HasSubstr("  Verifing development signing\n"
                                         "  Manifest passed signature check.\n"));
}

TEST_F(SignedManifestTool, VerifyGivesTheHelpersReasonForARefusal) {
  const std::string out = dir_ / "content.signedmanifest";
  ASSERT_EQ(vtldctl({"--root", root_, "signed-manifest", "create", out, "--backup", tree_}).status,
            0);

  // A fused device takes only the production signer.
  testsupport::write_fuse(root_, testsupport::Fuse::kTrue);
  ToolRun fused = vtldctl({"--root", root_, "signed-manifest", "verify", out});
  EXPECT_EQ(fused.status, 1) << fused.output;
  EXPECT_THAT(fused.output,
              HasSubstr("reason: -[VTLSignedManifest verifyManifestSignature:]: Certificate not "
                        "valid.\n"));
  testsupport::write_fuse(root_, testsupport::Fuse::kFalse);

  // One byte of the payload changed.
  std::optional<vtl::Value> envelope = vtl::read_plist_file(out);
  ASSERT_TRUE(envelope);
  vtl::Data& payload = *std::get_if<vtl::Data>(&(*envelope->dictionary())["Payload"].storage());
  payload.back() ^= 1;
  ASSERT_EQ(vtl::write_file_atomically(out, vtl::plist_to_binary(*envelope)), 0);
  ToolRun tampered = vtldctl({"--root", root_, "signed-manifest", "verify", out});
  EXPECT_EQ(tampered.status, 1);
  EXPECT_THAT(tampered.output, HasSubstr("reason: the signature does not match the payload"));
}

TEST_F(SignedManifestTool, APayloadFileIsSignedByteForByteWithAGivenSigner) {
  const std::string pki = std::string(VTL_FIXTURES_DIR) + "/pki/";
  const std::string payload = dir_ / "raw.plist";
  const std::string xml = vtl::plist_to_xml(vtl::Value(testsupport::raw_manifest({}, 4)));
  std::ofstream(payload) << xml;
  const std::string out = dir_ / "xml.signedmanifest";
  ToolRun created = vtldctl({"signed-manifest", "create", out, "--payload", payload, "--key",
                             pki + "production-leaf.key", "--chain", pki + "production-leaf.pem",
                             "--chain", pki + "production-intermediate.pem", "--xml"});
  ASSERT_EQ(created.status, 0) << created.output;
  std::optional<vtl::Value> envelope = vtl::read_plist_file(out);
  ASSERT_TRUE(envelope);
  EXPECT_EQ(*envelope->find("Payload"), vtl::Value(vtl::Data(xml.begin(), xml.end())));
  ToolRun shown = vtldctl({"signed-manifest", "show", out});
  EXPECT_THAT(shown.output, HasSubstr("XML property list"));
  EXPECT_THAT(shown.output, HasSubstr("Certificates (2, signer first):"));
  EXPECT_THAT(shown.output,
              HasSubstr("valid   2024-01-01 00:00:00 UTC to 2040-01-01 00:00:00 UTC"));
  EXPECT_THAT(shown.output, HasSubstr("(production manifest signer)"));
  EXPECT_THAT(shown.output, HasSubstr("Version       4"));
}

TEST_F(SignedManifestTool, BadArgumentsAreRefusedBeforeAnythingIsWritten) {
  const std::string out = dir_ / "never";
  const std::string pki = std::string(VTL_FIXTURES_DIR) + "/pki/";
  struct {
    std::vector<std::string> args;
    int status;
    const char* says;
  } const cases[] = {
      {{"signed-manifest", "create", out, "--backup", tree_}, 2, "no signer"},
      {{"--root", root_, "signed-manifest", "create", out, "--app-data", tree_}, 2, "ID=DIR, not"},
      {{"--root", root_, "signed-manifest", "create", out, "--backup", dir_ / "none"},
       4,
       "is not a directory"},
      {{"signed-manifest", "create", out, "--payload", pki + "README.md", "--key",
        pki + "test-leaf.key", "--chain", pki + "test-leaf.pem"},
       2,
       "is not a property list"},
      {{"signed-manifest", "create", out, "--backup", tree_, "--key", pki + "test-leaf.key",
        "--chain", pki + "production-leaf.pem"},
       2,
       "is not the key of the first certificate"},
      {{"signed-manifest", "show", dir_ / "none"}, 2, "cannot open"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.says);
    ToolRun r = vtldctl(c.args);
    EXPECT_EQ(r.status, c.status) << r.output;
    EXPECT_THAT(r.output, HasSubstr(c.says));
    EXPECT_FALSE(fs::exists(out));
  }
}

}  // namespace
