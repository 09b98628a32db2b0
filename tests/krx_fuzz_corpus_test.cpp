// Replays the committed corpus of the KRX frame fuzzer, crash reproducers
// included, through the decoder: what the fuzzer once found stays fixed, and
// the seeds keep meaning what their names say.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <string>
#include <vector>

#include "krx/codec.h"

namespace krx {
namespace {

std::filesystem::path corpus_dir() {
#ifdef KRX_FUZZ_CORPUS_DIR
  return KRX_FUZZ_CORPUS_DIR;
#else
  // The build did not say where: the corpus sits in the source tree.
  return std::filesystem::path(__FILE__).parent_path() / ".." / "fuzz" / "corpus" / "krx_frame";
#endif
}

TEST(KrxFuzzCorpusTest, EveryFileDecodesAsItsNameSays) {
  const auto dir = corpus_dir();
  ASSERT_TRUE(std::filesystem::is_directory(dir)) << dir;
  std::size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    if (!entry.is_regular_file()) continue;
    ++files;
    const std::string name = entry.path().filename().string();
    SCOPED_TRACE(name);
    std::ifstream in(entry.path(), std::ios::binary);
    const std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                          std::istreambuf_iterator<char>());
    // Walk the buffer as a connection would: frame after frame until the
    // decoder wants more or rejects one.
    std::span<const std::uint8_t> rest(bytes);
    bool rejected = false;
    std::size_t frames = 0;
    while (!rest.empty()) {
      auto result = decode_frame(rest);
      if (auto* decoded = std::get_if<Decoded>(&result)) {
        ASSERT_GT(decoded->frame_size, 0u);
        ASSERT_LE(decoded->frame_size, rest.size());
        EXPECT_EQ(
            encode_frame(decoded->value),
            std::vector<std::uint8_t>(
                rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(decoded->frame_size)));
        rest = rest.subspan(decoded->frame_size);
        ++frames;
        continue;
      }
      rejected = std::holds_alternative<DecodeError>(result);
      break;
    }
    if (name.rfind("valid-", 0) == 0) {
      EXPECT_FALSE(rejected);
      EXPECT_TRUE(rest.empty());
      EXPECT_GE(frames, 1u);
    } else if (name.rfind("malformed-", 0) == 0) {
      EXPECT_TRUE(rejected);
    }
  }
  EXPECT_GT(files, 0u);
}

}  // namespace
}  // namespace krx
