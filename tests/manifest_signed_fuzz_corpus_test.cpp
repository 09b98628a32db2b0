// Replays the committed corpus of the signed-manifest fuzzer, crash
// reproducers included: what the fuzzer once found stays fixed, and each
// seed is accepted or refused as its name says ("accept-..." or anything
// else), with one reason logged for every refusal but a bad signature.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/signed_manifest_harness.h"
#include "tests/support/daemon.h"

namespace {

std::filesystem::path corpus_dir() {
  return std::filesystem::path(VTL_SOURCE_DIR) / "fuzz" / "corpus" / "signed_manifest";
}

TEST(SignedManifestFuzzCorpusTest, EverySeedIsAcceptedOrRefusedAsItsNameSays) {
  testsupport::TempDir device;
  vtl::fuzzing::install_fixture_trust(VTL_FIXTURES_DIR, device.path());
  vtl::fuzzing::SignedManifestHarness harness(device.path());

  const auto dir = corpus_dir();
  ASSERT_TRUE(std::filesystem::is_directory(dir)) << dir;
  std::size_t files = 0;
  std::size_t accepted = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    if (!entry.is_regular_file()) continue;
    ++files;
    const std::string name = entry.path().filename().string();
    SCOPED_TRACE(name);
    std::ifstream in(entry.path(), std::ios::binary);
    const std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                          std::istreambuf_iterator<char>());
    const bool expect_accept = name.starts_with("accept-");
    const bool was_accepted = harness.run(bytes);
    EXPECT_EQ(was_accepted, expect_accept);
    if (was_accepted) {
      ++accepted;
      ASSERT_FALSE(harness.log.lines.empty());
      EXPECT_EQ(harness.log.lines.back(), "Manifest passed signature check.");
    } else if (name.starts_with("refuse-bad-signature")) {
      for (const std::string& line : harness.log.lines) {
        EXPECT_EQ(line.find("ignature"), std::string::npos) << line;
      }
    } else if (!name.starts_with("crash-") && bytes.size() > 1) {
      ASSERT_FALSE(harness.log.lines.empty());
      EXPECT_EQ(harness.log.lines.back().find("Verifing"), std::string::npos)
          << "a refusal ends with its reason: " << harness.log.lines.back();
    }
  }
  EXPECT_GE(files, 10u);
  EXPECT_GE(accepted, 3u);
}

}  // namespace
