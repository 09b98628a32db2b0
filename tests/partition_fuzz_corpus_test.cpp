// Replays the committed corpora of the partition fuzz targets (the Zmra
// header and the partition map reader) through the same harness, so that
// whatever the fuzzers once found stays fixed.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fuzz/partition_harness.h"
#include "tests/support/stderr_capture.h"

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> corpus(const char* name) {
  const fs::path dir = fs::path(__FILE__).parent_path().parent_path() / "fuzz" / "corpus" / name;
  std::vector<fs::path> files;
  for (const fs::directory_entry& e : fs::directory_iterator(dir)) files.push_back(e.path());
  return files;
}

std::vector<std::uint8_t> bytes_of(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST(PartitionFuzzCorpus, ZmraHeaderInputsRunCleanly) {
  const std::vector<fs::path> files = corpus("zmra_header");
  EXPECT_GE(files.size(), 6U);
  testsupport::StderrCapture quiet;  // the library's "zmra: " lines
  for (const fs::path& file : files) {
    SCOPED_TRACE(file.string());
    vtl::fuzzing::run_zmra_header(bytes_of(file));
  }
}

TEST(PartitionFuzzCorpus, PartitionMapInputsRunCleanly) {
  const std::vector<fs::path> files = corpus("partition_map");
  EXPECT_GE(files.size(), 6U);
  testsupport::StderrCapture quiet;
  for (const fs::path& file : files) {
    SCOPED_TRACE(file.string());
    vtl::fuzzing::run_partition_map(bytes_of(file));
  }
}

}  // namespace
