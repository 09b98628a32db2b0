// The log formatter: printf's placeholders plus "%@", over typed arguments.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "base/VTLLog.h"

namespace vtl {
namespace {

const Value kDictionary(Dictionary{{"Path", Value("/private/var")}});
const Value kString("text");
const std::string kStdString = "std string";

struct Case {
  const char* name;
  const char* format;
  std::vector<LogArg> args;
  std::string expected;
};

class FormatTest : public ::testing::TestWithParam<Case> {};

TEST_P(FormatTest, Formats) {
  EXPECT_EQ(format_message(GetParam().format, GetParam().args), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Objects, FormatTest,
    ::testing::Values(
        Case{"NoPlaceholders", "plain text", {}, "plain text"},
        Case{"ObjectDescription",
             "value: %@",
             {LogArg(kDictionary)},
             "value: { Path = \"/private/var\"; }"},
        Case{"StringObjectAsItself", "%@!", {LogArg(kString)}, "text!"},
        Case{"TextUnderAt", "%@", {LogArg("c string")}, "c string"},
        Case{"StdStringUnderS", "%s", {LogArg(kStdString)}, "std string"},
        Case{"ObjectUnderS", "%s", {LogArg(kDictionary)}, "{ Path = \"/private/var\"; }"},
        Case{"NullPointerArgument",
             "%s and %@",
             {LogArg(nullptr), LogArg(static_cast<const Value*>(nullptr))},
             "(null) and (null)"},
        Case{"NumberUnderAt", "%@ %@ %@", {LogArg(7), LogArg(true), LogArg(2.5)}, "7 1 2.5"},
        Case{"MissingArgument", "a %@ b %s c %d", {LogArg("x")}, "a x b (null) c (null)"},
        Case{"MissingArgumentPadded", "[%8@]", {}, "[  (null)]"},
        Case{"MethodName",
             "%s: failed for %@",
             {LogArg("-[VTLHMessageResponder createHardLink:]"), LogArg(kString)},
             "-[VTLHMessageResponder createHardLink:]: failed for text"},
        Case{"TextWidthAndPrecision",
             "[%-6s][%6s][%.2s]",
             {LogArg("ab"), LogArg("ab"), LogArg("abcdef")},
             "[ab    ][    ab][ab]"},
        Case{"SurplusArgumentsIgnored", "%d", {LogArg(1), LogArg(2)}, "1"}),
    [](const auto& case_info) { return std::string(case_info.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Numbers, FormatTest,
    ::testing::Values(
        Case{"Decimal",
             "%d %i %ld %lld %qd %jd %zd %td",
             {LogArg(1), LogArg(-2), LogArg(3L), LogArg(4LL), LogArg(5), LogArg(6), LogArg(7),
              LogArg(8)},
             "1 -2 3 4 5 6 7 8"},
        Case{"SixtyFourBitsUnderPlainD",
             "%d",
             {LogArg(std::numeric_limits<std::int64_t>::min())},
             "-9223372036854775808"},
        Case{"UnsignedUnderD", "%d", {LogArg(std::uint64_t{42})}, "42"},
        Case{"NarrowingAsInC",
             "%hhd %hd %hhu",
             {LogArg(300), LogArg(70000), LogArg(-1)},
             "44 4464 255"},
        Case{"Unsigned",
             "%u %lu",
             {LogArg(4000000000U), LogArg(std::uint64_t{1} << 63)},
             "4000000000 9223372036854775808"},
        Case{"NegativeUnderU", "%u", {LogArg(-1)}, "18446744073709551615"},
        Case{"Hex",
             "%x %X %#x %08x %o",
             {LogArg(255), LogArg(255), LogArg(255), LogArg(255), LogArg(8)},
             "ff FF 0xff 000000ff 10"},
        Case{"FlagsAndWidth",
             "[%5d][%-5d][%+d][% d][%05d]",
             {LogArg(42), LogArg(42), LogArg(42), LogArg(42), LogArg(-42)},
             "[   42][42   ][+42][ 42][-0042]"},
        Case{"YearMonthDay",
             "%@/%@-%4ld%02ld%02ld.log",
             {LogArg("/private/var/logs/vtld"), LogArg("vtld_helper"), LogArg(2026L), LogArg(11L),
              LogArg(16L)},
             "/private/var/logs/vtld/vtld_helper-20261116.log"},
        Case{"YearSpacePadded", "%4ld", {LogArg(987L)}, " 987"},
        Case{"Reals",
             "%f %.2f %e %g %G %a",
             {LogArg(1.5), LogArg(3.14159), LogArg(1234.5), LogArg(0.0001), LogArg(1e-10),
              LogArg(1.0)},
             "1.500000 3.14 1.234500e+03 0.0001 1E-10 0x1p+0"},
        Case{"LongDouble", "%Lf", {LogArg(2.0)}, "2.000000"},
        Case{"IntegerUnderF", "%.1f", {LogArg(3)}, "3.0"},
        Case{"RealUnderD", "%d %d", {LogArg(2.9), LogArg(1e300)}, "2 9223372036854775807"},
        Case{"TextUnderD",
             "%d|%5x",
             {LogArg("abc"), LogArg(kDictionary)},
             "abc|{ Path = \"/private/var\"; }"},
        Case{"Character", "%c%c%lc", {LogArg('o'), LogArg(107), LogArg(0x20AC)}, "ok\xE2\x82\xAC"},
        Case{"Pointer", "%p %p", {LogArg(std::uintptr_t{0x1234}), LogArg(0)}, "0x1234 0x0"}),
    [](const auto& case_info) { return std::string(case_info.param.name); });

INSTANTIATE_TEST_SUITE_P(
    OddFormats, FormatTest,
    ::testing::Values(
        Case{"Percent", "100%% done", {}, "100% done"},
        Case{"PercentTakesNoArgument", "%%%d", {LogArg(5)}, "%5"},
        Case{"TrailingPercent", "50%", {}, "50%"},
        Case{"CutOffPlaceholder", "a %-5", {LogArg(1)}, "a %-5"},
        Case{"UnknownConversionLiteral", "%k %d", {LogArg(1)}, "%k 1"},
        Case{"NeverWritesThroughN", "%n%d", {LogArg(1)}, "%n1"},
        Case{"StarPrintedRaw", "%*d|%d", {LogArg(7)}, "%*d|7"},
        Case{"OversizedWidthPrintedRaw", "%99999999999d|%d", {LogArg(7)}, "%99999999999d|7"},
        Case{"LengthWithoutConversion", "%ll", {LogArg(1)}, "%ll"}),
    [](const auto& case_info) { return std::string(case_info.param.name); });

// Whatever a format string holds, formatting ends and yields a string; the
// sanitizers catch any read or write it should not make.
TEST(FormatRobustness, RandomFormatsNeverFail) {
  std::mt19937 rng(12345);
  const std::string alphabet = "%%%%-+ #0123456789.*hlqjztLdiuoxXcCspfFeEgGaA@n%k";
  const LogArg args[] = {LogArg(1), LogArg("s"), LogArg(kDictionary), LogArg(2.5), LogArg(nullptr)};
  for (int round = 0; round < 20000; ++round) {
    std::string format;
    const std::size_t length = rng() % 16;
    for (std::size_t i = 0; i < length; ++i) format += alphabet[rng() % alphabet.size()];
    const std::size_t count = rng() % 6;
    const std::string out = format_message(format, std::span(args, count));
    EXPECT_LE(out.size(), 16U * 4200U) << format;
  }
}

}  // namespace
}  // namespace vtl
