// The streaming binary property-list writer, read back by libplist: every
// type and size class of the format, reference and offset widths, text that
// needs UTF-16, malformed UTF-8 and the manifest store's writer. The fuzz
// corpus is replayed by fuzz_corpus_test.cpp.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/plist.h"
#include "manifest/binary_plist_writer.h"
#include "manifest/manifest_store.h"
#include "tests/support/daemon.h"

namespace {

using vtl::Array;
using vtl::Data;
using vtl::Date;
using vtl::Dictionary;
using vtl::Value;

std::optional<Value> round_trip(const Value& v) {
  return vtl::plist_from_bytes(vtl::bplist::to_binary(v));
}

Date micros_since_1970(std::int64_t us) { return Date(std::chrono::microseconds(us)); }

TEST(BinaryPlistWriter, EveryTypeAndSizeClassReadsBack) {
  const std::int64_t ints[] = {0,          1,           254,       255, 256,  65535,    65536,
                               0xFFFFFFFF, 0x100000000, INT64_MAX, -1,  -256, INT64_MIN};
  Array numbers;
  for (std::int64_t i : ints) numbers.emplace_back(i);
  Array strings;
  for (const char* s : {"", "a", "fourteen chars", "fifteen chars!!", "caf\xc3\xa9",
                        "\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e", "\xf0\x9f\x98\x80 grin",
                        "mixed \xf0\x90\x8d\x88 and \xe2\x82\xac"}) {
    strings.emplace_back(s);
  }
  strings.emplace_back(std::string(300, 'L'));
  strings.emplace_back(std::string(70000, 'M'));
  Array datas;
  for (std::size_t n : {0U, 1U, 14U, 15U, 16U, 255U, 256U, 70000U}) {
    datas.emplace_back(Data(n, static_cast<std::uint8_t>(n)));
  }
  const Value value(Dictionary{
      {"numbers", Value(numbers)},
      {"strings", Value(strings)},
      {"data", Value(datas)},
      {"reals", Value(Array{Value(0.0), Value(-1.5), Value(1e300), Value(0.1),
                            Value(std::numeric_limits<double>::infinity())})},
      {"bools", Value(Array{Value(true), Value(false), Value(true)})},
      {"dates", Value(Array{Value(micros_since_1970(978307200000000)),   // the epoch of the format
                            Value(micros_since_1970(0)),                 // before it
                            Value(micros_since_1970(1763779946123456)),  // with microseconds
                            Value(micros_since_1970(-1000000000000000))})},  // 1938
      {"empty array", Value(Array{})},
      {"empty dictionary", Value(Dictionary{})},
      {"nested", Value(Array{Value(Array{Value(Array{Value(Dictionary{{"deep", Value(1)}})})})})},
  });
  const std::optional<Value> read = round_trip(value);
  ASSERT_TRUE(read);
  EXPECT_EQ(*read, value);
  // And libplist reads its own writer's version of it the same way.
  EXPECT_EQ(vtl::plist_from_bytes(vtl::plist_to_binary(value)), read);
}

TEST(BinaryPlistWriter, ManyObjectsWidenTheReferences) {
  for (std::size_t n : {std::size_t{250}, std::size_t{300}, std::size_t{70000}}) {
    Array items;
    for (std::size_t i = 0; i < n; ++i) {
      items.emplace_back(
          Dictionary{{"i" + std::to_string(i), Value(static_cast<std::int64_t>(i) * 100003)}});
    }
    const Value v(items);
    const auto bytes = vtl::bplist::to_binary(v);
    const std::uint8_t ref_size = bytes[bytes.size() - 32 + 7];
    EXPECT_EQ(ref_size, n < 80 ? 1 : (n < 20000 ? 2 : 4)) << n;
    EXPECT_EQ(vtl::plist_from_bytes(bytes), v) << n;
  }
}

TEST(BinaryPlistWriter, RepeatedLeavesAreWrittenOnce) {
  Array same;
  for (int i = 0; i < 1000; ++i) same.emplace_back("a string that repeats and repeats");
  const Value v(same);
  const auto bytes = vtl::bplist::to_binary(v);
  EXPECT_LT(bytes.size(), 2000u + 2 * 1000);  // one string, a thousand references
  EXPECT_EQ(vtl::plist_from_bytes(bytes), v);
}

TEST(BinaryPlistWriter, MalformedUtf8BecomesReplacementCharacters) {
  const Value v(Array{Value(std::string("a\xff"
                                        "b")),
                      Value(std::string("\xe2\x82")), Value(std::string("\xed\xa0\x80")),
                      Value(std::string("\xc0\xaf"))});
  const std::optional<Value> read = round_trip(v);
  ASSERT_TRUE(read);
  const std::string fffd = "\xef\xbf\xbd";
  EXPECT_EQ(*read, Value(Array{Value("a" + fffd + "b"), Value(fffd + fffd),
                               Value(fffd + fffd + fffd), Value(fffd + fffd)}));
}

TEST(BinaryPlistWriter, WritesToADescriptor) {
  testsupport::TempDir dir;
  const std::string path = dir / "out.plist";
  const Value v(Dictionary{{"big", Value(Data(3 << 20, 7))}, {"small", Value(1)}});
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(vtl::bplist::write_binary(v, fd), 0);
  ::close(fd);
  EXPECT_EQ(vtl::read_plist_file(path), v);
  // A descriptor that cannot be written is reported.
  const int read_only = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(vtl::bplist::write_binary(v, read_only), EBADF);
  ::close(read_only);
}

TEST(ManifestStoreWriter, StreamsWhatTheDictionaryHolds) {
  vtl::manifest::ManifestStore store;
  Dictionary expected;
  for (int i = 0; i < 3000; ++i) {
    const std::string path = "/dir" + std::to_string(i % 17) + "/file" + std::to_string(i);
    Dictionary attributes = {{"FileType", Value("Regular")},
                             {"FileSize", Value(static_cast<std::int64_t>(i) * 4099)},
                             {"OwnerAccountID", Value(501)},
                             {"OwnerAccountName", Value("mobile")},
                             {"PosixPermissions", Value(0644)},
                             {"Immutable", Value(false)},
                             {"ModificationDate", Value(micros_since_1970(1700000000000000 + i))}};
    Dictionary record = {
        {"VTLManifestFileAttributes", Value(attributes)},
        {"VTLManifestFileExtendedAttributes",
         Value(i % 5 == 0 ? Dictionary{{"user.x", Value(Data{1, 2})}} : Dictionary{})},
        {"VTLManifestFileHash", Value(Data(i % 3 == 0 ? 0 : 20, 0xAB))},
        {"VTLManifestSymbolicLinkTargetFile", Value("")}};
    store.set_dictionary(path, record);
    expected.insert_or_assign(path, Value(record));
  }
  // A replaced record is written once, as its last version.
  store.set_value("/dir0/file0", Value("replaced"));
  expected.insert_or_assign("/dir0/file0", Value("replaced"));
  EXPECT_EQ(store.to_dictionary(), expected);

  std::vector<std::uint8_t> bytes;
  vtl::bplist::ByteSink sink(&bytes);
  ASSERT_EQ(store.write_binary(sink), 0);
  EXPECT_EQ(vtl::plist_from_bytes(bytes), Value(expected));
  EXPECT_EQ(store.get("/dir3/file3"), expected.at("/dir3/file3"));
  EXPECT_FALSE(store.get("/none"));
  EXPECT_TRUE(store.holds_dictionary("/dir3/file3"));
  EXPECT_FALSE(store.holds_dictionary("/dir0/file0"));
}

// The fuzz target's check, for every committed input.
TEST(ReplaceFile, RemovesTheTemporariesOfWritersThatAreGoneAndNoOtherFile) {
  testsupport::TempDir dir;
  const std::string target = dir / "DeviceManifest.plist";
  // What a killed write leaves, what a live writer holds (its lock), and
  // names that only look alike.
  const std::string abandoned = dir / ".DeviceManifest.plist.0123456789abcdef";
  const std::string live = dir / ".DeviceManifest.plist.fedcba9876543210";
  const std::vector<std::string> others = {dir / ".DeviceManifest.plist.0123",
                                           dir / ".Other.plist.0123456789abcdef",
                                           dir / "DeviceManifest.plist.0123456789abcdef"};
  for (const std::string& path : others) std::ofstream(path) << "x";
  std::ofstream(abandoned) << "half";
  std::ofstream(live) << "busy";
  const int held = ::open(live.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(held, 0);
  ASSERT_EQ(::flock(held, LOCK_EX), 0);

  EXPECT_EQ(vtl::bplist::replace_file(
                target, 0644, [](int fd) { return vtl::bplist::write_binary(Value(1), fd); }),
            0);
  ::close(held);
  EXPECT_FALSE(std::filesystem::exists(abandoned));
  EXPECT_TRUE(std::filesystem::exists(live));
  for (const std::string& path : others) EXPECT_TRUE(std::filesystem::exists(path)) << path;
  EXPECT_EQ(vtl::read_plist_file(target, 1024), Value(1));
}

}  // namespace
