// What vtldctl shows of the helper's messages, and the exit status it ends
// with, against a scripted helper at the other end of a socket pair: progress
// (as a bar, as lines or as JSON), answers in order, data, stray messages, and
// every way an exchange can end early; and what it says of a mistyped command
// or number.
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fmt/format.h>

#include "krx/client.h"
#include "krx/codec.h"
#include "krx/value.h"
#include "tests/support/output_file.h"
#include "vtldctl/command_line.h"
#include "vtldctl/exchange.h"
#include "vtldctl/reply_printer.h"

namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using namespace std::chrono_literals;

using Capture = testsupport::OutputFile;

TEST(ProgressBar, FillsInTwentiethsWithinZeroToAHundred) {
  EXPECT_EQ(vtldctl::progress_bar(0), "[                    ]   0%");
  EXPECT_EQ(vtldctl::progress_bar(7), "[#                   ]   7%");
  EXPECT_EQ(vtldctl::progress_bar(50), "[##########          ]  50%");
  EXPECT_EQ(vtldctl::progress_bar(100), "[####################] 100%");
  // A count that overshoots its total is not capped by the helper.
  EXPECT_EQ(vtldctl::progress_bar(150), "[####################] 100%");
  EXPECT_EQ(vtldctl::progress_bar(-5), "[                    ]   0%");
}

TEST(ReplyPrinter, RedrawsOneLineOnATerminalAndEndsItBeforeTheAnswer) {
  Capture out;
  Capture err;
  {
    vtldctl::ReplyPrinter printer(out.file(), err.file(), {.draw_bar = true});
    printer.progress(10);
    printer.progress(60);
    printer.line("Response: true");
    printer.progress(100);
  }
  EXPECT_EQ(err.text(),
            "\r\033[K[##                  ]  10%\r\033[K[############        ]  60%\n"
            "\r\033[K[####################] 100%\n");
  EXPECT_EQ(out.text(), "Response: true\n");
}

// Progress as lines (or JSON): one every ten points or once a second, the end
// once, never past 100, on a clock the test moves.
TEST(ReplyPrinter, ThrottlesProgressLinesByPointsAndTime) {
  struct Step {
    int at_ms;
    std::int64_t percent;
  };
  const std::vector<Step> steps = {{0, 1},     {10, 5},    {20, 11},   {30, 20},    {1030, 21},
                                   {1040, 22}, {2040, 22}, {2050, 95}, {2060, 244}, {2070, 2303}};
  auto now = std::chrono::steady_clock::time_point{};
  for (const bool json : {false, true}) {
    Capture out;
    Capture err;
    {
      vtldctl::ReplyPrinter printer(out.file(), err.file(),
                                    {.json = json, .clock = [&now] { return now; }});
      for (const Step& step : steps) {
        now = std::chrono::steady_clock::time_point{} + std::chrono::milliseconds(step.at_ms);
        printer.progress(step.percent);
      }
    }
    std::string expected;
    for (const int percent : {1, 11, 21, 22, 95, 100}) {
      expected += json ? fmt::format("{{\"Progress\":{}}}\n", percent)
                       : fmt::format("Progress: {}%\n", percent);
    }
    EXPECT_EQ((json ? out : err).text(), expected);
  }
}

// With --json every message is one object per line, as the helper sent it.
TEST(ReplyPrinter, WritesOneJsonObjectPerMessage) {
  Capture out;
  Capture err;
  {
    vtldctl::ReplyPrinter printer(out.file(), err.file(), {.json = true});
    printer.response(true);
    printer.message(krx::make_dictionary("Data", krx::Data{1, 2}));
    printer.message(krx::Value("not a dictionary"));
    printer.ended_by_command();
  }
  EXPECT_EQ(out.text(),
            "{\"Response\":true}\n{\"Data\":{\"$data\":\"AQI=\"}}\n"
            "{\"Message\":\"not a dictionary\"}\n{\"Closed\":true}\n");
  EXPECT_THAT(err.text(), IsEmpty());
}

// The helper's side of a connection, scripted: frames written before the
// exchange starts wait in the socket for vtldctl to read them.
class ScriptedHelper {
 public:
  ScriptedHelper() {
    int fds[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    client_ = std::make_unique<krx::Client>(krx::Client::from_socket(fds[0]));
    peer_ = fds[1];
  }
  ~ScriptedHelper() { ::close(peer_); }
  ScriptedHelper(const ScriptedHelper&) = delete;
  ScriptedHelper& operator=(const ScriptedHelper&) = delete;

  krx::Client& client() { return *client_; }
  void say(const krx::Value& message) { write_all(krx::encode_frame(message)); }
  void write_all(const std::vector<std::uint8_t>& bytes) {
    ASSERT_EQ(::write(peer_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  // Ends the helper's side of the stream after what it said; vtldctl's
  // request can still be written, as to a helper that read it and then quit.
  void hang_up() { ::shutdown(peer_, SHUT_WR); }
  // The request vtldctl sent, as the helper would decode it.
  krx::Value request() {
    std::vector<std::uint8_t> buffer(1 << 16);
    const ssize_t n = ::recv(peer_, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (n <= 0) return krx::Value("nothing was sent");
    buffer.resize(static_cast<std::size_t>(n));
    auto decoded = krx::decode_frame(buffer);
    auto* frame = std::get_if<krx::Decoded>(&decoded);
    return frame != nullptr ? frame->value : krx::Value("not one frame");
  }

 private:
  std::unique_ptr<krx::Client> client_;
  int peer_ = -1;
};

krx::Value reply(const char* key, krx::Value value) {
  return krx::make_dictionary(key, std::move(value));
}

struct Script {
  const char* name;
  krx::Value request;
  std::vector<krx::Value> messages;  // what the helper sends
  bool hang_up;                      // then it ends the connection (else: silence)
  bool ends_helper;
  int exit_status;
  const char* out;           // exactly
  const char* progress;      // standard error, exactly (progress lines)
  const char* failure_part;  // part of the failure message, or "" when none is due
};

void PrintTo(const Script& script, std::ostream* out) { *out << script.name; }

const krx::Value kOneCommand = reply("prepareWorkContainer:", "/private/var/w");
const krx::Value kTwoCommands = krx::Dictionary{{"prepareWorkContainer:", "/private/var/w"},
                                                {"removeWorkContainer:", "/private/var/w"}};

class Exchange : public ::testing::TestWithParam<Script> {};

TEST_P(Exchange, ShowsEveryMessageAndEndsWithItsStatus) {
  const Script& script = GetParam();
  ScriptedHelper helper;
  for (const krx::Value& message : script.messages) helper.say(message);
  if (script.hang_up) helper.hang_up();
  Capture out;
  Capture err;
  vtldctl::ExchangeOptions options{script.hang_up ? 10s : 100ms, script.ends_helper};
  vtldctl::ExchangeResult result;
  {
    vtldctl::ReplyPrinter printer(out.file(), err.file(), {});
    result = vtldctl::exchange(helper.client(), script.request, options, printer);
  }
  EXPECT_EQ(vtldctl::exit_status(result), script.exit_status);
  EXPECT_EQ(out.text(), script.out);
  EXPECT_EQ(err.text(), script.progress);
  const std::string failure = vtldctl::failure_message(result, options.idle);
  if (*script.failure_part == '\0') {
    EXPECT_THAT(failure, IsEmpty());
  } else {
    EXPECT_THAT(failure, HasSubstr(script.failure_part));
  }
  EXPECT_EQ(helper.request(), script.request);
}

const krx::Value kTrue = reply("Response", true);
const krx::Value kFalse = reply("Response", false);

INSTANTIATE_TEST_SUITE_P(
    Scripts, Exchange,
    ::testing::Values(
        Script{"ProgressThenTrue",
               kOneCommand,
               {reply("Progress", std::int64_t{33}), reply("Progress", std::int64_t{100}), kTrue},
               false,
               false,
               0,
               "Response: true\n",
               "Progress: 33%\nProgress: 100%\n",
               ""},
        Script{"AnswersInOrderOneFalse",
               kTwoCommands,
               {kTrue, kFalse},
               false,
               false,
               1,
               "Response: true\nResponse: false\n",
               "",
               ""},
        Script{"DataAndStrayMessagesAreShown",
               kOneCommand,
               {reply("Data", krx::Data{1, 2}), reply("Other", std::int64_t{7}),
                krx::Value("not a dictionary"), kTrue},
               false,
               false,
               0,
               "Data: {length = 2, bytes = 0x0102}\nMessage: { Other = 7; }\n"
               "Message: not a dictionary\nResponse: true\n",
               "",
               ""},
        Script{"AnswerThatIsNotABooleanCountsAsFalse",
               kOneCommand,
               {reply("Response", std::int64_t{1})},
               false,
               false,
               1,
               "Response: 1 (not a boolean: taken as false)\n",
               "",
               ""},
        Script{"SilenceIsATimeOut",
               kOneCommand,
               {},
               false,
               false,
               3,
               "",
               "",
               "no reply from the helper within 0.1 s; the helper sends none to a client without "
               "the entitlement"},
        Script{"SilenceAfterSomeAnswersSaysHowMany",
               kTwoCommands,
               {kTrue},
               false,
               false,
               3,
               "Response: true\n",
               "",
               "(1 of 2 answers arrived)"},
        Script{"HangingUpBeforeEveryAnswer",
               kTwoCommands,
               {kTrue},
               true,
               false,
               3,
               "Response: true\n",
               "",
               "the helper ended the connection before replying (1 of 2 answers arrived)"},
        Script{"HangingUpIsHowACommandThatEndsTheHelperSucceeds",
               reply("quitHelper:", true),
               {},
               true,
               true,
               0,
               "The helper ended the connection, as this command makes it do.\n",
               "",
               ""},
        Script{"EmptyRequestWantsNoAnswer", krx::Dictionary{}, {}, false, false, 0, "", "", ""}),
    [](const ::testing::TestParamInfo<Script>& param) { return std::string(param.param.name); });

TEST(ExchangeEndsEarly, MalformedFrameFromTheHelper) {
  ScriptedHelper helper;
  helper.write_all({'X', 'X', 'X', 'X', 1, 0, 0, 0, 0});
  Capture out;
  Capture err;
  vtldctl::ReplyPrinter printer(out.file(), err.file(), {});
  const auto result = vtldctl::exchange(helper.client(), kOneCommand, {10s, false}, printer);
  EXPECT_EQ(vtldctl::exit_status(result), 3);
  EXPECT_THAT(vtldctl::failure_message(result, 10s),
              HasSubstr("the helper sent a malformed message: "));
}

TEST(ExchangeEndsEarly, RequestTooDeepForOneMessageIsNotSent) {
  krx::Value request = true;
  for (int i = 0; i < krx::kMaxDepth + 1; ++i) request = reply("a:", std::move(request));
  ScriptedHelper helper;
  Capture out;
  Capture err;
  vtldctl::ReplyPrinter printer(out.file(), err.file(), {});
  const auto result = vtldctl::exchange(helper.client(), request, {10s, false}, printer);
  EXPECT_EQ(vtldctl::exit_status(result), 2);
  EXPECT_THAT(vtldctl::failure_message(result, 10s),
              HasSubstr("cannot be sent as one KRX message"));
  EXPECT_EQ(helper.request(), krx::Value("nothing was sent"));
}

// What vtldctl says of a word or number it does not take.
TEST(CommandLine, SuggestsTheNearestCommandAndSaysWhatANumberMustBe) {
  const std::vector<std::string> commands = {"prepare-log-container", "prepare-work-container",
                                             "send", "sim", "demo"};
  const std::pair<const char*, const char*> words[] = {
      {"snd", "'snd' is not a command; did you mean 'send'?"},
      {"dmeo", "'dmeo' is not a command; did you mean 'demo'?"},
      {"prepare",
       "'prepare' is not a command; did you mean 'prepare-log-container' or "
       "'prepare-work-container'?"},
      {"lsit", "'lsit' is not a command"},
  };
  for (const auto& [word, message] : words) {
    EXPECT_EQ(vtldctl::unknown_word_message(word, "a command", commands), message);
  }
  std::string error;
  EXPECT_EQ(vtldctl::parse_seconds("2.5", &error), 2.5);
  for (const char* bad : {"abc", "0", "1e400", "nan", "2s", "", "86401"}) {
    EXPECT_EQ(vtldctl::parse_seconds(bad, &error), std::nullopt) << bad;
    EXPECT_EQ(error, fmt::format("'{}' is not a number of seconds (0.1 to 86400)", bad));
  }
  EXPECT_EQ(vtldctl::socket_path_problem(std::string(107, 'a')), "");
  EXPECT_THAT(vtldctl::socket_path_problem(std::string(108, 'a')),
              HasSubstr("is 108 bytes, longer than the 107 a socket's address holds"));
}

}  // namespace
