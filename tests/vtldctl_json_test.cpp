// Requests written as JSON for `vtldctl send`: every JSON form and every
// typed one-key object (and --json's printing of each, read back), and the
// input that must be refused before anything reaches the helper.
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "krx/value.h"
#include "vtldctl/json_output.h"
#include "vtldctl/json_request.h"

namespace {

using ::testing::HasSubstr;
using vtldctl::krx_from_json;

krx::Value convert(const std::string& json) {
  std::string error;
  auto value = krx_from_json(json, &error);
  EXPECT_TRUE(value.has_value()) << json << ": " << error;
  return value.value_or(krx::Value());
}

std::string refusal(const std::string& json) {
  std::string error;
  auto value = krx_from_json(json, &error);
  EXPECT_FALSE(value.has_value()) << json << " was accepted";
  return error;
}

krx::Date date(std::int64_t nanoseconds) { return krx::Date{nanoseconds}; }

struct Accepted {
  const char* json;
  krx::Value expected;
};

class JsonAccepted : public ::testing::TestWithParam<Accepted> {};

// And back: what --json prints of a value reads as the same value.
TEST_P(JsonAccepted, BecomesTheKrxValueAndPrintsBackAsIt) {
  EXPECT_EQ(convert(GetParam().json), GetParam().expected) << GetParam().json;
  EXPECT_EQ(convert(vtldctl::json_from_krx(GetParam().expected).dump()), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    PlainJson, JsonAccepted,
    ::testing::Values(
        Accepted{R"("text")", "text"}, Accepted{"true", true}, Accepted{"false", false},
        Accepted{"null", krx::Null{}}, Accepted{"0", std::int64_t{0}},
        Accepted{"-42", std::int64_t{-42}},
        Accepted{"9223372036854775807", std::numeric_limits<std::int64_t>::max()},
        Accepted{"-9223372036854775808", std::numeric_limits<std::int64_t>::min()},
        // Only integers beyond int64 become unsigned.
        Accepted{"9223372036854775808", std::uint64_t{9223372036854775808ULL}},
        Accepted{"18446744073709551615", std::numeric_limits<std::uint64_t>::max()},
        Accepted{"1.5", 1.5}, Accepted{"1e3", 1000.0}, Accepted{"-0.25", -0.25},
        Accepted{R"([1, "two", [false]])", krx::Array{std::int64_t{1}, "two", krx::Array{false}}},
        Accepted{"[]", krx::Array{}}, Accepted{"{}", krx::Dictionary{}},
        // Keys go out in the order written.
        Accepted{R"({"removeWorkContainer:": "/a", "prepareWorkContainer:": "/a"})",
                 krx::Dictionary{{"removeWorkContainer:", "/a"}, {"prepareWorkContainer:", "/a"}}},
        Accepted{R"({"createDeviceManifest:": {"Path": "/private/var", "Inclusive": true}})",
                 krx::Dictionary{{"createDeviceManifest:",
                                  krx::Dictionary{{"Path", "/private/var"}, {"Inclusive", true}}}}},
        Accepted{" \n\t{\"a\": 1}\n ", krx::Dictionary{{"a", std::int64_t{1}}}}));

INSTANTIATE_TEST_SUITE_P(
    TypedValues, JsonAccepted,
    ::testing::Values(
        Accepted{R"({"$data": "AAEC"})", krx::Data{0, 1, 2}},
        Accepted{R"({"$data": "AA=="})", krx::Data{0}}, Accepted{R"({"$data": ""})", krx::Data{}},
        Accepted{R"({"$uint64": 123})", std::uint64_t{123}},
        Accepted{R"({"$uint64": "18446744073709551615"})",
                 std::numeric_limits<std::uint64_t>::max()},
        Accepted{R"({"$int64": 5})", std::int64_t{5}},
        Accepted{R"({"$int64": "-9223372036854775808"})", std::numeric_limits<std::int64_t>::min()},
        Accepted{R"({"$double": 2})", 2.0}, Accepted{R"({"$double": 1.5})", 1.5},
        Accepted{R"({"$double": "-inf"})", -std::numeric_limits<double>::infinity()},
        Accepted{R"({"$date": "1970-01-01T00:00:00Z"})", date(0)},
        Accepted{R"({"$date": "2026-11-16T06:32:26Z"})", date(1794810746'000000000)},
        Accepted{R"({"$date": "2026-11-16t06:32:26.123456789z"})", date(1794810746'123456789)},
        Accepted{R"({"$date": "2026-11-16T07:32:26.5+01:00"})", date(1794810746'500000000)},
        Accepted{R"({"$date": "2026-11-16T01:02:26-05:30"})", date(1794810746'000000000)},
        // Digits beyond nanoseconds are dropped, not rounded.
        Accepted{R"({"$date": "1970-01-01T00:00:00.0000000019Z"})", date(1)},
        Accepted{R"({"$date": "1969-12-31T23:59:59.5Z"})", date(-500000000)},
        // The first and last instants a date can hold.
        Accepted{R"({"$date": "2262-04-11T23:47:16.854775807Z"})",
                 date(std::numeric_limits<std::int64_t>::max())},
        Accepted{R"({"$date": "1677-09-21T00:12:43.145224192Z"})",
                 date(std::numeric_limits<std::int64_t>::min())},
        Accepted{R"({"$uuid": "01234567-89AB-cdef-0123-456789abcdef"})",
                 krx::Uuid{{0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef, 0x01, 0x23, 0x45, 0x67,
                            0x89, 0xab, 0xcd, 0xef}}},
        Accepted{R"({"$fd": 0})", krx::Fd{0}},
        Accepted{R"({"$fd": 4294967295})", krx::Fd{4294967295U}},
        Accepted{R"({"$null": null})", krx::Null{}},
        // Typed values anywhere in the tree.
        Accepted{R"({"writeNvram:": {"Name": "boot-args", "Value": {"$data": "AAE="}}})",
                 krx::Dictionary{{"writeNvram:", krx::Dictionary{{"Name", "boot-args"},
                                                                 {"Value", krx::Data{0, 1}}}}}},
        Accepted{R"([{"$uint64": 1}, {"$null": null}])", krx::Array{std::uint64_t{1}, krx::Null{}}},
        // With more than one key, "$" keys are ordinary keys.
        Accepted{R"({"$data": "AA==", "x": 1})",
                 krx::Dictionary{{"$data", "AA=="}, {"x", std::int64_t{1}}}}));

TEST(JsonTypedValues, NanIsADouble) {
  const krx::Value value = convert(R"({"$double": "nan"})");
  ASSERT_NE(value.get<double>(), nullptr);
  EXPECT_TRUE(std::isnan(*value.get<double>()));
}

TEST(JsonNesting, SixtyFourLevelsPassAndSixtyFiveAreRefused) {
  const int limit = vtldctl::kMaxJsonDepth;
  const std::string deepest = std::string(limit, '[') + std::string(limit, ']');
  convert(deepest);
  const std::string too_deep = std::string(limit + 1, '[') + std::string(limit + 1, ']');
  EXPECT_THAT(refusal(too_deep), HasSubstr("deeper than 64"));
}

struct Refused {
  const char* json;
  const char* reason;  // part of the message
};

class JsonRefused : public ::testing::TestWithParam<Refused> {};

TEST_P(JsonRefused, WithAReason) {
  EXPECT_THAT(refusal(GetParam().json), HasSubstr(GetParam().reason)) << GetParam().json;
}

INSTANTIATE_TEST_SUITE_P(MalformedJson, JsonRefused,
                         ::testing::Values(Refused{"", "parse error"},
                                           Refused{R"({"a":)", "parse error at line 1"},
                                           Refused{"{} {}", "expected end of input"},
                                           Refused{"{'a': 1}", "parse error"},
                                           Refused{"[1,]", "parse error"},
                                           Refused{"{\"a\": 1} // note", "parse error"}));

INSTANTIATE_TEST_SUITE_P(
    WhatKrxCannotCarry, JsonRefused,
    ::testing::Values(Refused{R"({"a": 1, "a": 2})", "key \"a\" appears twice"},
                      Refused{R"({"x": {"a": 1, "b": 2, "a": 3}})", "(at /x)"},
                      Refused{R"({"a": "x\u0000y"})", "NUL"}, Refused{R"({"a\u0000": 1})", "NUL"},
                      Refused{"18446744073709551616", "does not fit in 64 bits"},
                      Refused{"-9223372036854775809", "does not fit in 64 bits"}));

INSTANTIATE_TEST_SUITE_P(
    BadTypedValues, JsonRefused,
    ::testing::Values(
        Refused{R"({"$foo": 1})", "unknown typed value $foo"},
        Refused{R"({"$Data": "AA=="})", "unknown typed value $Data"},
        Refused{R"({"writeNvram:": {"Value": {"$bytes": "AA=="}}})", "(at /writeNvram:/Value)"},
        Refused{R"({"a/b": [0, {"$x": 1}]})", "(at /a~1b/1)"},
        Refused{R"({"$data": "AAE"})", "not valid base64"},
        Refused{R"({"$data": "AA=A"})", "not valid base64"},
        Refused{R"({"$data": "AA-_"})", "not valid base64"},
        Refused{R"({"$data": 5})", "$data takes a base64 string"},
        Refused{R"({"$uint64": -1})", "$uint64 takes an integer"},
        Refused{R"({"$uint64": 1.5})", "$uint64 takes an integer"},
        Refused{R"({"$uint64": "12x"})", "$uint64 takes an integer"},
        Refused{R"({"$uint64": "+1"})", "$uint64 takes an integer"},
        Refused{R"({"$int64": 9223372036854775808})", "$int64 takes an integer"},
        Refused{R"({"$int64": "abc"})", "$int64 takes an integer"},
        Refused{R"({"$double": "x"})", "$double takes a number"},
        Refused{R"({"$double": null})", "$double takes a number"},
        Refused{R"({"$date": 0})", "$date takes an RFC 3339"},
        Refused{R"({"$date": "2026-11-16T06:32:26"})", "offset"},
        Refused{R"({"$date": "2026-11-16"})", "$date takes an RFC 3339"},
        Refused{R"({"$date": "2026-11-16T06:32:26.Z"})", "$date takes an RFC 3339"},
        Refused{R"({"$date": "2026-11-16T06:32:26Z "})", "$date takes an RFC 3339"},
        Refused{R"({"$date": "2026-02-30T00:00:00Z"})", "no such date"},
        Refused{R"({"$date": "2026-11-16T24:00:00Z"})", "no such date"},
        Refused{R"({"$date": "2026-11-16T23:59:60Z"})", "leap second"},
        Refused{R"({"$date": "2262-04-11T23:47:16.854775808Z"})", "outside what a date holds"},
        Refused{R"({"$date": "1677-09-21T00:12:43.145224191Z"})", "outside what a date holds"},
        Refused{R"({"$uuid": "0123"})", "$uuid takes the form"},
        Refused{R"({"$uuid": "01234567-89ab-cdef-0123-456789abcdeg"})", "$uuid takes the form"},
        Refused{R"({"$uuid": "0123456789ab-cdef-0123-456789abcdef-"})", "$uuid takes the form"},
        Refused{R"({"$fd": -1})", "$fd takes a descriptor index"},
        Refused{R"({"$fd": 4294967296})", "$fd takes a descriptor index"},
        Refused{R"({"$null": 0})", "$null takes null"}));

}  // namespace
