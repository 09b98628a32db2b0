// Replays the committed corpus of the property-list fuzzer, crash reproducers
// included: what the fuzzer once found stays fixed, and each seed reads as its
// name says ("malformed-..." is refused, "crash-..." merely survives, anything
// else reads and round-trips through the binary form).
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "base/plist.h"

namespace vtl {
namespace {

std::filesystem::path corpus_dir() {
#ifdef VTL_SOURCE_DIR
  return std::filesystem::path(VTL_SOURCE_DIR) / "fuzz" / "corpus" / "plist";
#else
  return std::filesystem::path(__FILE__).parent_path() / ".." / "fuzz" / "corpus" / "plist";
#endif
}

TEST(PlistFuzzCorpusTest, EverySeedReadsAsItsNameSays) {
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
    const auto value = plist_from_bytes(bytes);
    if (name.starts_with("malformed-")) {
      EXPECT_FALSE(value.has_value());
    } else if (!name.starts_with("crash-")) {
      ASSERT_TRUE(value.has_value());
      EXPECT_EQ(plist_from_bytes(plist_to_binary(*value)), value);
    }
  }
  EXPECT_GT(files, 0U);
}

}  // namespace
}  // namespace vtl
