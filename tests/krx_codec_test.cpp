// The KRX wire codec: what goes out comes back, the exact bytes of a frame,
// every way a frame can be malformed, and frames that arrive in pieces.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "krx/codec.h"
#include "krx/value.h"

namespace krx {
namespace {

using Bytes = std::vector<std::uint8_t>;

// Little builders for hand-made frames.
void put_u32(Bytes& b, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) b.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}
void put_text(Bytes& b, std::string_view s) {
  put_u32(b, static_cast<std::uint32_t>(s.size()));
  b.insert(b.end(), s.begin(), s.end());
}
Bytes frame_of(const Bytes& body) {
  Bytes f = {'K', 'R', 'X', '1'};
  put_u32(f, static_cast<std::uint32_t>(body.size()));
  f.insert(f.end(), body.begin(), body.end());
  return f;
}
Bytes string_body(std::string_view s) {
  Bytes b = {0x07};
  put_text(b, s);
  return b;
}
Bytes key_body(std::string_view key) {
  Bytes b = {0x0B};
  put_u32(b, 1);
  put_text(b, key);
  b.push_back(0x00);
  return b;
}
// `depth` arrays nested in one another, the innermost empty.
Bytes nested_arrays_body(int depth) {
  Bytes b;
  for (int i = 0; i < depth; ++i) {
    b.push_back(0x0A);
    put_u32(b, i + 1 == depth ? 0 : 1);
  }
  return b;
}
Value nested_arrays(int depth) {
  Value v = Array{};
  for (int i = 1; i < depth; ++i) v = Array{std::move(v)};
  return v;
}

DecodeResult decode(const Bytes& b) { return decode_frame(std::span(b)); }

Value round_trip(const Value& v) {
  const Bytes frame = encode_frame(v);
  EXPECT_FALSE(frame.empty()) << "cannot frame a " << type_name(v.type());
  auto result = decode(frame);
  auto* decoded = std::get_if<Decoded>(&result);
  if (decoded == nullptr) {
    ADD_FAILURE() << "frame did not decode: "
                  << (std::holds_alternative<DecodeError>(result)
                          ? std::get<DecodeError>(result).reason
                          : "needs more");
    return {};
  }
  EXPECT_EQ(decoded->frame_size, frame.size());
  return decoded->value;
}

struct RoundTripCase {
  const char* name;
  Value value;
};

TEST(KrxCodecTest, EveryTypeRoundTrips) {
  Uuid uuid;
  for (std::size_t i = 0; i < uuid.bytes.size(); ++i)
    uuid.bytes[i] = static_cast<std::uint8_t>(i * 17);
  const Dictionary ordered = {{"zeta", std::int64_t{1}}, {"alpha", "two"}, {"", Null{}}};
  const RoundTripCase cases[] = {
      {"null", Null{}},
      {"true", true},
      {"false", false},
      {"int64 min", std::numeric_limits<std::int64_t>::min()},
      {"int64 -1", std::int64_t{-1}},
      {"int64 max", std::numeric_limits<std::int64_t>::max()},
      {"uint64 max", std::numeric_limits<std::uint64_t>::max()},
      {"double", 3.141592653589793},
      {"double -0", -0.0},
      {"double inf", std::numeric_limits<double>::infinity()},
      {"double -inf", -std::numeric_limits<double>::infinity()},
      {"double NaN", std::numeric_limits<double>::quiet_NaN()},
      {"double denormal", std::numeric_limits<double>::denorm_min()},
      {"date before 1970", Date{-1'234'567'890'123'456'789}},
      {"date", Date{1'795'334'346'000'000'000}},
      {"data empty", Data{}},
      {"data binary", Data{0x00, 0xFF, 0x80, 0x7F, 0x00}},
      {"string empty", ""},
      {"string ascii", "/private/var/mobile"},
      {"string two- three- four-byte", "\u00e9\u20ac\U0001F600\U0010FFFF"},
      {"uuid", uuid},
      {"fd", Fd{0xFFFFFFFFu}},
      {"array empty", Array{}},
      {"array mixed", Array{Value(true), Value("x"), Value(Array{Value(std::uint64_t{7})})}},
      {"dictionary empty", Dictionary{}},
      {"dictionary keeps order", ordered},
      {"dictionary nested",
       make_dictionary("Request", make_dictionary("Path", Array{Value("/a"), Value("/b")}))},
  };
  const auto check = [](const char* name, const Value& value) {
    SCOPED_TRACE(name);
    const Value back = round_trip(value);
    EXPECT_EQ(back.type(), value.type());
    // NaN equals nothing, and -0 equals 0: doubles compare by their bits.
    const double* d = value.get<double>();
    if (d != nullptr && back.get<double>() != nullptr) {
      EXPECT_EQ(std::bit_cast<std::uint64_t>(*back.get<double>()),
                std::bit_cast<std::uint64_t>(*d));
    } else {
      EXPECT_EQ(back, value);
    }
  };
  for (const auto& c : cases) check(c.name, c.value);
  // Text at the edges of each encoding length, as a string and as a key.
  for (const char* s : {"\x01", "\x7F", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF",
                        "\xEE\x80\x80", "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF",
                        "plain ascii longer than a word \xC3\xA9 then more ascii"}) {
    check(s, s);
    check(s, make_dictionary(s, Null{}));
  }
}

TEST(KrxCodecTest, FrameLayoutIsLittleEndianTaggedValues) {
  Dictionary d;
  d.emplace_back("a", std::int64_t{-2});
  d.emplace_back("b", Array{Value(true), Value(Fd{3})});
  const Bytes expected = {
      'K',  'R',  'X',  '1',  36,   0,    0,    0,           // magic, value length
      0x0B, 2,    0,    0,    0,                             // dictionary of 2
      1,    0,    0,    0,    'a',                           // key "a"
      0x02, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,  // int64 -2
      1,    0,    0,    0,    'b',                           // key "b"
      0x0A, 2,    0,    0,    0,                             // array of 2
      0x01, 1,                                               // true
      0x09, 3,    0,    0,    0,                             // fd index 3
  };
  EXPECT_EQ(encode_frame(Value(d)), expected);
}

struct MalformedCase {
  const char* rule;
  Bytes frame;
  const char* reason;  // a part of the reason given
};

Bytes with_prefix(Bytes head, const Bytes& tail) {
  head.insert(head.end(), tail.begin(), tail.end());
  return head;
}

std::vector<MalformedCase> malformed_cases() {
  Bytes repeated_small = {0x0B};
  put_u32(repeated_small, 2);
  for (int i = 0; i < 2; ++i) {
    put_text(repeated_small, "Path");
    repeated_small.push_back(0x00);
  }
  Bytes repeated_large = {0x0B};
  put_u32(repeated_large, 40);
  for (int i = 0; i < 40; ++i) {
    put_text(repeated_large, "k" + std::to_string(i == 39 ? 7 : i));
    repeated_large.push_back(0x00);
  }
  Bytes over_limit = {'K', 'R', 'X', '1'};
  put_u32(over_limit, static_cast<std::uint32_t>(kMaxFrameSize - kFrameHeaderSize + 1));
  Bytes huge_count = {0x0A};
  put_u32(huge_count, 0xFFFFFFFFu);
  Bytes huge_dict = {0x0B};
  put_u32(huge_dict, 0x10000000u);
  Bytes data_past = {0x06};
  put_u32(data_past, 10);
  data_past.insert(data_past.end(), {1, 2, 3});

  return {
      {"bad magic", with_prefix({'K', 'R', 'X', '2', 1, 0, 0, 0}, {0x00}), "bad magic"},
      // Header faults show before the body arrives: nothing waits for it.
      {"magic of another protocol", {'G', 'E', 'T', ' '}, "bad magic"},
      {"magic cut short and wrong", {'K', 'X'}, "bad magic"},
      {"empty frame has no value", frame_of({}), "runs past the frame"},
      {"data length past the frame", frame_of(data_past), "runs past the frame"},
      {"string length past the frame", frame_of({0x07, 5, 0, 0, 0, 'a'}), "runs past the frame"},
      {"int64 cut short", frame_of({0x02, 1, 2, 3}), "runs past the frame"},
      {"uuid cut short", frame_of({0x08, 1, 2, 3, 4}), "runs past the frame"},
      {"array count past the frame", frame_of(huge_count), "runs past the frame"},
      {"dictionary count past the frame", frame_of(huge_dict), "runs past the frame"},
      {"array element missing", frame_of({0x0A, 2, 0, 0, 0, 0x00}), "runs past the frame"},
      {"unknown tag", frame_of({0x0C}), "unknown tag 0x0c at offset 8"},
      {"event-only tag", frame_of({0x40}), "unknown tag 0x40"},
      {"unknown tag inside array", frame_of({0x0A, 1, 0, 0, 0, 0xFF}),
       "unknown tag 0xff at offset 13"},
      {"bool 2", frame_of({0x01, 2}), "not 0 or 1"},
      {"bool 0xff", frame_of({0x01, 0xFF}), "not 0 or 1"},
      {"string lone continuation byte", frame_of(string_body("a\x80")), "not UTF-8"},
      {"string overlong two-byte NUL", frame_of(string_body("\xC0\x80")), "not UTF-8"},
      {"string overlong three-byte", frame_of(string_body("\xE0\x80\xAF")), "not UTF-8"},
      {"string overlong four-byte", frame_of(string_body("\xF0\x8F\xBF\xBF")), "not UTF-8"},
      {"string surrogate", frame_of(string_body("\xED\xA0\x80")), "not UTF-8"},
      {"string above U+10FFFF", frame_of(string_body("\xF4\x90\x80\x80")), "not UTF-8"},
      {"string F5 lead byte", frame_of(string_body("\xF5\x80\x80\x80")), "not UTF-8"},
      {"string sequence cut short", frame_of(string_body("ab\xE2\x82")), "not UTF-8"},
      {"string holds NUL", frame_of(string_body(std::string_view("a\0b", 3))), "holds a NUL"},
      {"key not UTF-8", frame_of(key_body("\xFF")), "key at offset 13 is not UTF-8"},
      {"key holds NUL", frame_of(key_body(std::string_view("Pa\0th", 5))), "holds a NUL"},
      {"repeated key", frame_of(repeated_small), "repeats key \"Path\""},
      {"repeated key in a large dictionary", frame_of(repeated_large), "repeats key \"k7\""},
      {"bytes left over", frame_of({0x00, 0x00}), "1 bytes left over at offset 9"},
      {"frame over 16 MiB", over_limit, "exceeds the limit"},
      {"nesting 65 deep", frame_of(nested_arrays_body(kMaxDepth + 1)), "nest deeper than 64"},
  };
}

TEST(KrxCodecTest, MalformedFramesAreRejectedWithAReason) {
  for (const auto& c : malformed_cases()) {
    SCOPED_TRACE(c.rule);
    auto result = decode(c.frame);
    ASSERT_TRUE(std::holds_alternative<DecodeError>(result));
    EXPECT_NE(std::get<DecodeError>(result).reason.find(c.reason), std::string::npos)
        << "reason: " << std::get<DecodeError>(result).reason;
  }
}

TEST(KrxCodecTest, NestingLimitIsInclusive) {
  auto result = decode(frame_of(nested_arrays_body(kMaxDepth)));
  ASSERT_TRUE(std::holds_alternative<Decoded>(result));
  EXPECT_EQ(std::get<Decoded>(result).value, nested_arrays(kMaxDepth));

  // The same limit on the way out, with dictionaries counting like arrays.
  EXPECT_FALSE(encode_frame(nested_arrays(kMaxDepth)).empty());
  EXPECT_TRUE(encode_frame(nested_arrays(kMaxDepth + 1)).empty());
  Value dicts = Null{};
  for (int i = 1; i < kMaxDepth; ++i) dicts = make_dictionary("d", std::move(dicts));
  EXPECT_FALSE(encode_frame(dicts).empty());
  EXPECT_TRUE(encode_frame(make_dictionary("d", std::move(dicts))).empty());
}

TEST(KrxCodecTest, SizeLimitCountsTheHeader) {
  // data = tag + u32 length + bytes; this one fills the frame to the byte.
  const std::size_t fill = kMaxFrameSize - kFrameHeaderSize - 5;
  const Bytes largest = encode_frame(Value(Data(fill, 0xAB)));
  ASSERT_EQ(largest.size(), kMaxFrameSize);
  auto result = decode(largest);
  ASSERT_TRUE(std::holds_alternative<Decoded>(result));
  EXPECT_EQ(std::get<Decoded>(result).value.get<Data>()->size(), fill);

  EXPECT_TRUE(encode_frame(Value(Data(fill + 1, 0xAB))).empty());
  EXPECT_TRUE(encode_frame(Value(std::string(fill + 1, 'a'))).empty());
}

TEST(KrxCodecTest, UnframeableValuesEncodeToNothing) {
  Dictionary repeated;
  repeated.emplace_back("Path", "/a");
  repeated.emplace_back("Path", "/b");
  Dictionary many_repeated;
  for (int i = 0; i < 40; ++i) many_repeated.emplace_back(std::to_string(i % 39), Null{});
  const struct {
    const char* name;
    Value value;
  } cases[] = {
      {"string with NUL", std::string("a\0b", 3)},
      {"string not UTF-8", std::string("\xC3\x28")},
      {"surrogate in string", std::string("\xED\xBF\xBF")},
      {"key not UTF-8", make_dictionary("\xFF", Null{})},
      {"key with NUL", make_dictionary(std::string("\0", 1), Null{})},
      {"repeated key", repeated},
      {"repeated key among many", many_repeated},
      {"bad string deep inside", Array{Value(Array{Value(std::string("\x80"))})}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_TRUE(encode_frame(c.value).empty());
  }
}

TEST(KrxCodecTest, FrameFedOneByteAtATime) {
  Dictionary d;
  d.emplace_back("Operation", "CreateHardLink");
  d.emplace_back("Blob", Data(300, 0x5A));
  d.emplace_back("List", Array{Value(std::int64_t{1}), Value(Date{5}), Value(Uuid{})});
  const Bytes one = encode_frame(Value(d));
  const Bytes two = encode_frame(Value(std::uint64_t{42}));
  Bytes stream = one;
  stream.insert(stream.end(), two.begin(), two.end());

  // Every proper prefix asks for more, and never for more than the frame has.
  Bytes buffer;
  for (std::size_t i = 0; i < one.size(); ++i) {
    auto result = decode(buffer);
    ASSERT_TRUE(std::holds_alternative<NeedMore>(result)) << "at " << i;
    const std::size_t wanted = std::get<NeedMore>(result).bytes_wanted;
    EXPECT_GE(wanted, 1u);
    EXPECT_LE(buffer.size() + wanted, one.size());
    buffer.push_back(stream[i]);
  }
  auto first = decode_frame(std::span(stream));
  ASSERT_TRUE(std::holds_alternative<Decoded>(first));
  EXPECT_EQ(std::get<Decoded>(first).value, Value(d));
  ASSERT_EQ(std::get<Decoded>(first).frame_size, one.size());

  auto second = decode_frame(std::span(stream).subspan(one.size()));
  ASSERT_TRUE(std::holds_alternative<Decoded>(second));
  EXPECT_EQ(std::get<Decoded>(second).value, Value(std::uint64_t{42}));
}

}  // namespace
}  // namespace krx
