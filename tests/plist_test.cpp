// Property lists: what round-trips, what is refused, and files written whole.
#include "base/plist.h"
#include "base/binary_plist_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "base/description.h"
#include "tests/support/daemon.h"
#include "tests/support/file_tree.h"

namespace vtl {
namespace {

namespace fs = std::filesystem;
using std::chrono::microseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using Bytes = std::vector<std::uint8_t>;

// The names in a directory, to see that nothing was left behind.
std::vector<std::string> names(const testsupport::TempDir& dir) {
  std::vector<std::string> out;
  for (const auto& e : fs::directory_iterator(dir.path())) out.push_back(e.path().filename());
  return out;
}

Bytes bytes_of(std::string_view s) { return Bytes(s.begin(), s.end()); }

std::optional<Value> parse(std::string_view text) { return plist_from_bytes(bytes_of(text)); }

std::string xml_document(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" + body + "</plist>";
}

// A binary property list assembled object by object, for documents no writer
// would produce. References are `ref_size` bytes (as the objects given use
// them), offsets four.
class BinaryBuilder {
 public:
  std::uint64_t add(Bytes object) {
    objects_.push_back(std::move(object));
    return objects_.size() - 1;
  }
  Bytes build(std::uint64_t root = 0, std::uint8_t ref_size = 1) const {
    Bytes out = bytes_of("bplist00");
    std::vector<std::size_t> offsets;
    for (const Bytes& o : objects_) {
      offsets.push_back(out.size());
      out.insert(out.end(), o.begin(), o.end());
    }
    const std::size_t table = out.size();
    for (std::size_t off : offsets) {
      for (int k = 3; k >= 0; --k) out.push_back(static_cast<std::uint8_t>(off >> (8 * k)));
    }
    Bytes trailer(32, 0);
    trailer[6] = 4;
    trailer[7] = ref_size;
    put64(trailer, 8, objects_.size());
    put64(trailer, 16, root);
    put64(trailer, 24, table);
    out.insert(out.end(), trailer.begin(), trailer.end());
    return out;
  }

 private:
  static void put64(Bytes& b, std::size_t at, std::uint64_t v) {
    for (std::size_t i = 0; i < 8; ++i) b[at + i] = static_cast<std::uint8_t>(v >> (56 - 8 * i));
  }
  std::vector<Bytes> objects_;
};

// A binary date object: marker 0x33 and a big-endian double of seconds since
// 2001.
Bytes date_object(double seconds_since_2001) {
  const auto bits = std::bit_cast<std::uint64_t>(seconds_since_2001);
  Bytes b{0x33};
  for (int i = 7; i >= 0; --i) b.push_back(static_cast<std::uint8_t>(bits >> (8 * i)));
  return b;
}

Bytes ascii(std::string_view s) {
  Bytes b(1 + s.size());
  b[0] = static_cast<std::uint8_t>(0x50 | s.size());
  std::copy(s.begin(), s.end(), b.begin() + 1);
  return b;
}

Value every_type() {
  Data all_bytes;
  for (int i = 0; i < 256; ++i) all_bytes.push_back(static_cast<std::uint8_t>(i));
  return Value(Dictionary{
      {"String", Value("Grüße ✓ 𝄞 <&>")},
      {"Empty", Value("")},
      {"True", Value(true)},
      {"False", Value(false)},
      {"Integers",
       Value(Array{Value(std::int64_t{0}), Value(std::int64_t{-1}),
                   Value(std::numeric_limits<std::int64_t>::min()),
                   Value(std::numeric_limits<std::int64_t>::max()), Value(std::int64_t{1} << 40)})},
      {"Reals", Value(Array{Value(0.1), Value(-2.5e-300), Value(1e308), Value(0.0)})},
      {"Dates", Value(Array{Value(Date(seconds(1794817946))), Value(Date(seconds(0))),
                            Value(Date(seconds(-86400 * 365)))})},
      {"Data", Value(all_bytes)},
      {"NoData", Value(Data{})},
      {"Nested", Value(Dictionary{{"A", Value(Array{Value(Array{}), Value(Dictionary{})})},
                                  {"ключ", Value("значение")}})},
  });
}

TEST(PlistRoundTrip, EveryTypeThroughBinaryAndXml) {
  const Value v = every_type();
  EXPECT_EQ(plist_from_bytes(plist_to_binary(v)), v);
  const std::string xml = plist_to_xml(v);
  EXPECT_TRUE(xml.starts_with("<?xml")) << xml;
  EXPECT_EQ(parse(xml), v) << xml;

  // NaN equals nothing, not even itself: reals that are not finite are
  // compared by their description.
  const Value reals(Array{Value(std::numeric_limits<double>::infinity()),
                          Value(-std::numeric_limits<double>::infinity()), Value(std::nan(""))});
  for (const auto& back : {plist_from_bytes(plist_to_binary(reals)), parse(plist_to_xml(reals))}) {
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(description(*back), "( inf, -inf, nan )");
  }
}

TEST(PlistRoundTrip, BinaryDatesKeepMicroseconds) {
  const struct {
    Date in;
    Date out;
  } cases[] = {
      {Date(seconds(1794817946) + microseconds(123456)),
       Date(seconds(1794817946) + microseconds(123456))},
      {Date(seconds(1794817946) + nanoseconds(123456789)),
       Date(seconds(1794817946) + microseconds(123456))},
      // Fractions just before 2001 and before 1970 (negative seconds on
      // both of libplist's and the system clock's scales).
      {Date(seconds(978307199) + microseconds(250000)),
       Date(seconds(978307199) + microseconds(250000))},
      {Date(seconds(-100) + microseconds(999999)), Date(seconds(-100) + microseconds(999999))},
      {Date(seconds(-1169176448)), Date(seconds(-1169176448))},  // libplist's earliest
      {Date(seconds(3125790847)), Date(seconds(3125790847))},    // and latest
      // Beyond them: clamped.
      {Date(seconds(4102444800)), Date(seconds(3125790847))},
      {Date(seconds(-2208988800)), Date(seconds(-1169176448))},
  };
  for (const auto& c : cases) {
    const auto back = plist_from_bytes(plist_to_binary(Value(c.in)));
    ASSERT_TRUE(back.has_value());
    ASSERT_NE(back->date(), nullptr);
    EXPECT_EQ(back->date()->time_since_epoch().count(), c.out.time_since_epoch().count())
        << date_description(c.in);
  }
}

struct Malformed {
  const char* name;
  Bytes bytes;
};

class MalformedTest : public ::testing::TestWithParam<Malformed> {};

TEST_P(MalformedTest, IsRefused) { EXPECT_EQ(plist_from_bytes(GetParam().bytes), std::nullopt); }

Bytes binary_of(std::initializer_list<Bytes> objects) {
  BinaryBuilder b;
  for (const Bytes& o : objects) b.add(o);
  return b.build();
}

Bytes nested_xml(int depth) {
  std::string body;
  for (int i = 0; i < depth; ++i) body += "<array>";
  for (int i = 0; i < depth; ++i) body += "</array>";
  return bytes_of(xml_document(body));
}

Bytes nested_binary(int depth) {
  // One-byte references reach 255 objects; deeper chains take four.
  const std::uint8_t ref_size = depth <= 255 ? 1 : 4;
  BinaryBuilder b;
  for (int i = 0; i + 1 < depth; ++i) {
    Bytes array{0xA1};
    for (int k = ref_size - 1; k >= 0; --k)
      array.push_back(static_cast<std::uint8_t>((i + 1) >> (8 * k)));
    b.add(std::move(array));
  }
  b.add({0xA0});
  return b.build(0, ref_size);
}

INSTANTIATE_TEST_SUITE_P(
    Table, MalformedTest,
    ::testing::Values(
        Malformed{"Empty", {}}, Malformed{"MagicOnly", bytes_of("bplist00")},
        Malformed{"Garbage", bytes_of("\x01\x02 not a property list \xff")},
        Malformed{"XmlWrongRoot", bytes_of(xml_document("<foo/>"))},
        Malformed{"XmlUnclosed", bytes_of(xml_document("<array><string>a</string>"))},
        Malformed{"XmlTruncated", bytes_of("<?xml version=\"1.0\"?><plist><dict><key>a</ke")},
        Malformed{"XmlNotUtf8", bytes_of(xml_document("<string>\xff\xfe</string>"))},
        Malformed{"XmlNulEntity", bytes_of(xml_document("<string>a&#0;b</string>"))},
        Malformed{"XmlTooDeep", nested_xml(513)},
        Malformed{"XmlDeepBehindComments",
                  [] {
                    std::string body;
                    for (int i = 0; i < 600; ++i) body += "<array><!-- </array> -->";
                    return bytes_of(xml_document(body));
                  }()},
        Malformed{"XmlVeryDeep", nested_xml(200000)},
        Malformed{"BinaryTooDeep", nested_binary(513)},
        Malformed{"BinaryVeryDeep", nested_binary(300000)},
        Malformed{"BinaryHugeCount",
                  binary_of({{0xAF, 0x13, 0x10, 0, 0, 0, 0, 0, 0, 0, 1}, {0x10, 0x01}})},
        Malformed{"BinaryHugeString", binary_of({{0x5F, 0x13, 0x7F, 0xFF, 0, 0, 0, 0, 0, 0, 'a'}})},
        Malformed{"BinaryRefOutOfRange", binary_of({{0xA1, 7}})},
        Malformed{"BinaryIntegerAboveInt64",
                  binary_of({{0x14, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                              0xFF, 0xFF}})},
        Malformed{"BinaryUid", binary_of({{0x80, 0x01}})},
        Malformed{"BinaryNulInKey", binary_of({{0xD1, 1, 2}, ascii(std::string_view("a\0b", 3)), {0x10, 1}})},
        Malformed{"BinaryNulInString", binary_of({ascii(std::string_view("a\0b", 3))})},
        Malformed{"BinaryNotUtf8", binary_of({{0x52, 0xC3, 0x28}})},
        Malformed{"BinaryRepeatedKey", binary_of({{0xD2, 1, 1, 2, 2}, ascii("k"), {0x10, 1}})},
        Malformed{"BinaryRepeatedKeyOutOfOrder",
                  binary_of({{0xD3, 1, 2, 1, 3, 3, 3}, ascii("b"), ascii("a"), {0x10, 1}})},
        Malformed{"BinaryNonStringKey", binary_of({{0xD1, 1, 1}, {0x10, 1}})},
        Malformed{"BinaryNaNDate", binary_of({{0x33, 0x7F, 0xF8, 0, 0, 0, 0, 0, 0}})},
        Malformed{"BinaryDateBefore1677", binary_of({date_object(-1.1e10)})},
        Malformed{"BinaryUnpairedSurrogate", binary_of({{0x61, 0xD8, 0x3D}})},
        Malformed{"BinaryLoneTrailSurrogate", binary_of({{0x62, 0, 'a', 0xDC, 0x00}})},
        Malformed{"BinaryNulInUtf16", binary_of({{0x61, 0, 0}})},
        Malformed{"BinarySixteenByteIntegerWithHighBits",
                  binary_of({{0x14, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 5}})},
        Malformed{"BinaryThirtyTwoByteInteger", binary_of({{0x15, 1}})},
        Malformed{"BinaryTwoByteReal", binary_of({{0x21, 0x3C, 0x00}})},
        Malformed{"BinaryFourByteDate", binary_of({{0x32, 0, 0, 0, 0}})},
        Malformed{"BinaryNull", binary_of({{0x00}})},
        Malformed{"BinaryFill", binary_of({{0xA1, 1}, {0x0F}})},
        Malformed{"BinaryRepeatedKeyInTwoEncodings",
                  binary_of({{0xD2, 1, 2, 3, 3}, ascii("k"), {0x61, 0, 'k'}, {0x10, 1}})},
        Malformed{"BinaryTrailerLies",
                  [] {
                    Bytes b = binary_of({{0x10, 1}});
                    b[b.size() - 1] = 0xFF;  // offset table beyond the end
                    return b;
                  }()}),
    [](const auto& case_info) { return std::string(case_info.param.name); });

TEST(PlistRead, BinaryFormsBeyondWhatOurWriterUses) {
  BinaryBuilder b;
  b.add({0xA9, 1, 2, 3, 4, 5, 6, 7, 8, 9});
  b.add({0x64, 0, 'c', 0, 0xE9, 0xD8, 0x3D, 0xDE, 0x00});         // "c", U+00E9, U+1F600 (a pair)
  b.add({0x14, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 7});  // 16 bytes: 7
  b.add({0x22, 0x3F, 0xC0, 0, 0});                                // float 1.5
  b.add({0xC2, 2, 3});                                            // a set: read as an array
  b.add({0x09});
  b.add({0x13, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFB});  // 8 bytes: -5
  b.add({0x10, 0x2A});                                            // 1 byte: 42
  // Dates beyond libplist's own int32 range of seconds, read exactly.
  b.add(date_object(-9.0e9));
  b.add(date_object(8.0e9));
  EXPECT_EQ(plist_from_bytes(b.build()),
            Value(Array{Value("c\xC3\xA9\xF0\x9F\x98\x80"), Value(7), Value(1.5),
                        Value(Array{Value(7), Value(1.5)}), Value(true), Value(-5), Value(42),
                        Value(Date(seconds(978307200 - 9'000'000'000))),
                        Value(Date(seconds(978307200 + 8'000'000'000)))}));
}

TEST(PlistRead, ObjectsAreReadInPlace) {
  // { "é": <data 01 02 03>, "n": 5 }, the first key in UTF-16.
  const Bytes document =
      binary_of({{0xD2, 1, 2, 3, 4}, {0x61, 0, 0xE9}, ascii("n"), {0x43, 1, 2, 3}, {0x10, 5}});
  const std::optional<vtl::bplist::Document> d = vtl::bplist::Document::open(document);
  ASSERT_TRUE(d);
  const vtl::bplist::Object root = d->root();
  EXPECT_EQ(root.type(), vtl::bplist::Object::Type::kDictionary);
  ASSERT_EQ(root.size(), 2U);
  EXPECT_EQ(root.key(0).text(), "\xC3\xA9");
  EXPECT_TRUE(root.key(0).equals("\xC3\xA9"));
  EXPECT_FALSE(root.key(0).equals("e"));

  const std::optional<vtl::bplist::Object> data = root.find("\xC3\xA9");
  ASSERT_TRUE(data);
  const std::span<const std::uint8_t> bytes = *data->data();
  EXPECT_EQ(Bytes(bytes.begin(), bytes.end()), (Bytes{1, 2, 3}));
  // A view into the document, not a copy.
  EXPECT_GE(bytes.data(), document.data());
  EXPECT_LT(bytes.data(), document.data() + document.size());

  EXPECT_EQ(root.find("n")->integer(), 5);
  EXPECT_EQ(root.find("n")->text(), std::nullopt);  // typed access refuses other types
  EXPECT_EQ(root.find("missing"), std::nullopt);
  EXPECT_EQ(root.value(1).find("n"), std::nullopt);  // not a dictionary
}

TEST(PlistRead, NestingUpToTheLimitIsAccepted) {
  EXPECT_TRUE(plist_from_bytes(nested_xml(512)).has_value());
  EXPECT_TRUE(plist_from_bytes(nested_binary(512)).has_value());
}

TEST(PlistFile, ReadsRegularFilesOnly) {
  testsupport::TempDir dir;
  const Bytes doc = plist_to_binary(Value(Dictionary{{"k", Value(1)}}));
  ASSERT_EQ(write_file_atomically(dir / "a.plist", doc), 0);
  EXPECT_EQ(read_plist_file(dir / "a.plist"), Value(Dictionary{{"k", Value(1)}}));
  ASSERT_EQ(::symlink((dir / "a.plist").c_str(), (dir / "link.plist").c_str()), 0);
  EXPECT_TRUE(read_plist_file(dir / "link.plist").has_value());
  EXPECT_EQ(read_plist_file(dir / "a.plist", doc.size() - 1), std::nullopt);
  EXPECT_TRUE(read_plist_file(dir / "a.plist", doc.size()).has_value());
  EXPECT_EQ(read_plist_file(dir / "missing.plist"), std::nullopt);
  EXPECT_EQ(read_plist_file(dir / "."), std::nullopt);
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0644), 0);
  EXPECT_EQ(read_plist_file(dir / "fifo"), std::nullopt);  // and returns at once
}

TEST(PlistFile, AtomicWriteReplacesWholeWithTheGivenMode) {
  testsupport::TempDir dir;
  const std::string path = dir / "out.plist";
  ASSERT_EQ(write_file_atomically(path, bytes_of("first"), 0600), 0);
  ASSERT_EQ(write_file_atomically(path, bytes_of("second"), 0640), 0);
  EXPECT_EQ(testsupport::read_file(path), "second");
  struct stat st {};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640U);
  EXPECT_EQ(names(dir), std::vector<std::string>{"out.plist"});
}

TEST(PlistFile, AtomicWriteReplacesALinkInsteadOfWritingThroughIt) {
  testsupport::TempDir dir;
  ASSERT_EQ(write_file_atomically(dir / "target", bytes_of("precious")), 0);
  ASSERT_EQ(::symlink((dir / "target").c_str(), (dir / "name").c_str()), 0);
  ASSERT_EQ(write_file_atomically(dir / "name", bytes_of("new")), 0);
  EXPECT_EQ(testsupport::read_file(dir / "target"), "precious");
  struct stat st {};
  ASSERT_EQ(::lstat((dir / "name").c_str(), &st), 0);
  EXPECT_TRUE(S_ISREG(st.st_mode));
}

TEST(PlistFile, AtomicWriteFailuresLeaveNothingBehind) {
  testsupport::TempDir dir;
  EXPECT_EQ(write_file_atomically(dir / "no/such/dir/f", bytes_of("x")), ENOENT);
  ASSERT_EQ(::mkdir((dir / "occupied").c_str(), 0755), 0);
  ASSERT_EQ(write_file_atomically(dir / "occupied/inside", bytes_of("x")), 0);
  EXPECT_NE(write_file_atomically(dir / "occupied", bytes_of("x")), 0);
  EXPECT_EQ(names(dir), std::vector<std::string>{"occupied"});
  EXPECT_EQ(testsupport::read_file(dir / "occupied/inside"), "x");
}

}  // namespace
}  // namespace vtl
