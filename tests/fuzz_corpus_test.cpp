// Replays every fuzzer's committed corpus, crash reproducers included, through
// the decoder that fuzzer drives: what a fuzzer once found stays fixed, and
// each seed is read, accepted or refused as its name says.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <span>
#include <string>
#include <vector>

#include "base/plist.h"
#include "fuzz/partition_harness.h"
#include "fuzz/plist_value_source.h"
#include "fuzz/signed_manifest_harness.h"
#include "krx/codec.h"
#include "manifest/binary_plist_writer.h"
#include "manifest/manifest_store.h"
#include "tests/support/daemon.h"
#include "tests/support/stderr_capture.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::span<const std::uint8_t>;

// KRX frames: walked as a connection would, frame after frame until the
// decoder wants more or rejects one; every frame decoded encodes to its bytes.
void replay_krx_frames(const std::string& name, Bytes rest) {
  bool rejected = false;
  std::size_t frames = 0;
  while (!rest.empty()) {
    auto result = krx::decode_frame(rest);
    if (auto* decoded = std::get_if<krx::Decoded>(&result)) {
      ASSERT_GT(decoded->frame_size, 0u);
      ASSERT_LE(decoded->frame_size, rest.size());
      EXPECT_EQ(krx::encode_frame(decoded->value),
                std::vector<std::uint8_t>(
                    rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(decoded->frame_size)));
      rest = rest.subspan(decoded->frame_size);
      ++frames;
      continue;
    }
    rejected = std::holds_alternative<krx::DecodeError>(result);
    break;
  }
  if (name.starts_with("valid-")) {
    EXPECT_FALSE(rejected);
    EXPECT_TRUE(rest.empty());
    EXPECT_GE(frames, 1u);
  } else if (name.starts_with("malformed-")) {
    EXPECT_TRUE(rejected);
  }
}

// Property lists: "malformed-..." is refused, "crash-..." merely survives,
// anything else reads and round-trips through the binary form.
void replay_plist(const std::string& name, Bytes bytes) {
  const auto value = vtl::plist_from_bytes(bytes);
  if (name.starts_with("malformed-")) {
    EXPECT_FALSE(value.has_value());
  } else if (!name.starts_with("crash-")) {
    ASSERT_TRUE(value.has_value());
    EXPECT_EQ(vtl::plist_from_bytes(vtl::plist_to_binary(*value)), value);
  }
}

// The binary property-list writers: the value the input makes reads back
// exactly, written whole and as a record of the manifest store.
void replay_bplist_writer(const std::string& /*name*/, Bytes bytes) {
  plistfuzz::ValueSource source(bytes);
  const vtl::Value value = source.value();
  EXPECT_EQ(vtl::plist_from_bytes(vtl::bplist::to_binary(value)), value);
  vtl::manifest::ManifestStore store;
  store.set_value("/record", value);
  std::vector<std::uint8_t> streamed;
  vtl::bplist::ByteSink sink(&streamed);
  ASSERT_EQ(store.write_binary(sink), 0);
  EXPECT_EQ(vtl::plist_from_bytes(streamed), vtl::Value(vtl::Dictionary{{"/record", value}}));
}

// Signed manifests: "accept-..." is accepted, anything else refused with one
// reason logged last, except a bad signature, which is refused silently.
void replay_signed_manifest(const std::string& name, Bytes bytes) {
  testsupport::TempDir device;
  vtl::fuzzing::install_fixture_trust(VTL_FIXTURES_DIR, device.path());
  vtl::fuzzing::SignedManifestHarness harness(device.path());
  const bool was_accepted = harness.run(bytes);
  EXPECT_EQ(was_accepted, name.starts_with("accept-"));
  if (was_accepted) {
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

// The partition targets abort on what they find; here they must merely run.
void replay_zmra_header(const std::string& /*name*/, Bytes bytes) {
  testsupport::StderrCapture quiet;  // the library's "zmra: " lines
  vtl::fuzzing::run_zmra_header(bytes);
}

void replay_partition_map(const std::string& /*name*/, Bytes bytes) {
  testsupport::StderrCapture quiet;
  vtl::fuzzing::run_partition_map(bytes);
}

struct Corpus {
  const char* folder;  // under fuzz/corpus
  void (*replay)(const std::string& name, Bytes bytes);
  std::size_t min_files;
};

const Corpus kCorpora[] = {
    {"krx_frame", replay_krx_frames, 10},
    {"plist", replay_plist, 10},
    {"signed_manifest", replay_signed_manifest, 10},
    {"zmra_header", replay_zmra_header, 6},
    {"partition_map", replay_partition_map, 6},
    {"bplist_writer", replay_bplist_writer, 10},
};

void PrintTo(const Corpus& corpus, std::ostream* out) { *out << corpus.folder; }

class FuzzCorpusTest : public testing::TestWithParam<Corpus> {};

TEST_P(FuzzCorpusTest, EverySeedDecodesAsItsNameSays) {
  const fs::path dir = fs::path(VTL_SOURCE_DIR) / "fuzz" / "corpus" / GetParam().folder;
  ASSERT_TRUE(fs::is_directory(dir)) << dir;
  std::size_t files = 0;
  for (const fs::directory_entry& entry : fs::directory_iterator(dir)) {
    if (!entry.is_regular_file()) continue;
    ++files;
    const std::string name = entry.path().filename().string();
    SCOPED_TRACE(name);
    std::ifstream in(entry.path(), std::ios::binary);
    const std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                          std::istreambuf_iterator<char>());
    GetParam().replay(name, bytes);
  }
  EXPECT_GE(files, GetParam().min_files);
}

INSTANTIATE_TEST_SUITE_P(Corpora, FuzzCorpusTest, testing::ValuesIn(kCorpora),
                         [](const testing::TestParamInfo<Corpus>& corpus) {
                           return std::string(corpus.param.folder);
                         });

}  // namespace
