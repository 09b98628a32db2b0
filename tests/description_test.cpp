// How objects print where a message says "%@".
#include "base/description.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

namespace vtl {
namespace {

using std::chrono::seconds;

Date at(std::int64_t unix_seconds, std::int64_t nanos = 0) {
  return Date(seconds(unix_seconds)) + std::chrono::nanoseconds(nanos);
}

Data bytes_from(int first, int count) {
  Data d;
  for (int i = 0; i < count; ++i) d.push_back(static_cast<std::uint8_t>(first + i));
  return d;
}

struct Case {
  const char* name;
  Value value;
  std::string expected;
};

class DescriptionTest : public ::testing::TestWithParam<Case> {};

TEST_P(DescriptionTest, PrintsTheSystemsForm) {
  EXPECT_EQ(description(GetParam().value), GetParam().expected);
}

// 1794817946 is 2026-11-16 08:32:26 UTC.
INSTANTIATE_TEST_SUITE_P(
    Scalars, DescriptionTest,
    ::testing::Values(
        Case{"StringAsItself", Value("/private/var/a b\"c"), "/private/var/a b\"c"},
        Case{"EmptyString", Value(""), ""}, Case{"Integer", Value(std::int64_t{-42}), "-42"},
        Case{"IntegerMin", Value(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808"},
        Case{"True", Value(true), "1"}, Case{"False", Value(false), "0"},
        Case{"RealShortest", Value(0.1), "0.1"}, Case{"RealWhole", Value(2.0), "2"},
        Case{"RealLarge", Value(1e100), "1e+100"}, Case{"RealNegativeZero", Value(-0.0), "-0"},
        Case{"RealNaN", Value(std::nan("")), "nan"},
        Case{"RealInfinity", Value(-std::numeric_limits<double>::infinity()), "-inf"},
        Case{"EmptyData", Value(Data{}), "{length = 0, bytes = 0x}"},
        Case{"ShortData", Value(Data{0x00, 0x11, 0xab, 0xff}), "{length = 4, bytes = 0x0011abff}"},
        Case{"DataOf24InFull", Value(bytes_from(0, 24)),
             "{length = 24, bytes = 0x000102030405060708090a0b0c0d0e0f1011121314151617}"},
        Case{"LongDataHeadAndTail", Value(bytes_from(0, 40)),
             "{length = 40, bytes = 0x0001020304050607 ... 2021222324252627}"},
        Case{"Date", Value(at(1794817946)), "2026-11-16 08:32:26 +0000"},
        Case{"DateDropsFraction", Value(at(1794817946, 999'999'999)), "2026-11-16 08:32:26 +0000"},
        Case{"DateBefore1970Floors", Value(at(-1, 500'000'000)), "1969-12-31 23:59:59 +0000"},
        Case{"DateEpoch", Value(at(0)), "1970-01-01 00:00:00 +0000"}),
    [](const auto& case_info) { return std::string(case_info.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Collections, DescriptionTest,
    ::testing::Values(
        Case{"EmptyArray", Value(Array{}), "( )"},
        Case{"EmptyDictionary", Value(Dictionary{}), "{ }"},
        Case{"PathDictionary", Value(Dictionary{{"Path", Value("/private/var")}}),
             "{ Path = \"/private/var\"; }"},
        Case{"LettersDigitsUnderscoreAndDotStayBare", Value(Array{Value("a_.Z9")}), "( a_.Z9 )"},
        Case{"PathsAndOtherPunctuationAreQuoted",
             Value(Array{Value("/private/var"), Value("key:"), Value("a-b"), Value("$x")}),
             "( \"/private/var\", \"key:\", \"a-b\", \"$x\" )"},
        Case{"QuotedStrings",
             Value(Array{Value("two words"), Value(""), Value("q\"b\\n\nt\tr\r"),
                         Value(std::string("\x01", 1))}),
             "( \"two words\", \"\", \"q\\\"b\\\\n\\nt\\tr\\r\", \"\\U0001\" )"},
        Case{"KeysQuotedLikeStrings", Value(Dictionary{{"a key", Value(1)}, {"b", Value(true)}}),
             "{ \"a key\" = 1; b = 1; }"},
        Case{"KeysInByteOrder",
             Value(Dictionary{{"b", Value(2)}, {"B", Value(1)}, {"a", Value(3)}}),
             "{ B = 1; a = 3; b = 2; }"},
        Case{"MixedArray",
             Value(Array{Value(1), Value(2.5), Value(false), Value(Data{0x0f}),
                         Value(at(1794817946))}),
             "( 1, 2.5, 0, {length = 1, bytes = 0x0f}, \"2026-11-16 08:32:26 +0000\" )"},
        Case{"Nested",
             Value(Dictionary{{"A", Value(Array{Value(1), Value(Array{})})},
                              {"B", Value(Dictionary{{"C", Value("d e")}})}}),
             "{ A = ( 1, ( ) ); B = { C = \"d e\"; }; }"}),
    [](const auto& case_info) { return std::string(case_info.param.name); });

TEST(DateDescription, MatchesDescriptionOfADateValue) {
  const Date d = at(1794817946, 5);
  EXPECT_EQ(date_description(d), description(Value(d)));
  EXPECT_EQ(date_description(at(4102444799)), "2099-12-31 23:59:59 +0000");
}

}  // namespace
}  // namespace vtl
