// The dispatcher in process: entitlement refusals, dispatch by name, the log
// path rule, request conversion and progress, with replies read back from the
// other end of a real socket.
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

#include <gtest/gtest.h>

#include "base/VTLLog.h"
#include "krx/client.h"
#include "krx/connection.h"
#include "service/VTLHMessageResponder.h"
#include "service/VTLProgressUpdater.h"
#include "service/krxdictConv.h"
#include "tests/support/capture.h"
#include "tests/support/daemon.h"

namespace {

using testsupport::TempDir;
using vtl::VTLHMessageResponder;

using testsupport::dict;

class DispatchTest : public ::testing::Test {
 protected:
  DispatchTest() : platform_(device_.path()) {
    int fds[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    server_ = krx::Connection::from_socket(fds[0]);
    client_.emplace(krx::Client::from_socket(fds[1]));
    platform_.signing.entitlement = vtl::Value(true);
    platform_.roles.service_manager = &manager_;
    platform_.apply();
    responder().setConnection(server_);
  }
  ~DispatchTest() override { responder().setConnection(nullptr); }

  static VTLHMessageResponder& responder() { return VTLHMessageResponder::sharedInstance(); }

  // Every message the responder sent, until nothing more arrives.
  std::vector<krx::Value> replies() {
    std::vector<krx::Value> out;
    for (;;) {
      krx::Client::Received r = client_->receive(std::chrono::milliseconds(100));
      auto* m = std::get_if<krx::Client::Message>(&r);
      if (m == nullptr) return out;
      out.push_back(m->value);
    }
  }

  // The client as the operator's lines name it: this process, from the far end.
  std::string client() const { return vtl::RequestRecord::describe(&server_->audit_token()); }

  static krx::Value response(bool ok) { return dict({{"Response", ok}}); }
  static krx::Value progress(std::int64_t p) { return dict({{"Progress", p}}); }

  // What the service manager was told.
  struct RecordingManager final : platform::ServiceManager {
    void ready(std::string_view status) override { statuses.emplace_back(status); }
    void status(std::string_view status) override { statuses.emplace_back(status); }
    std::vector<std::string> statuses;
  };

  TempDir device_;
  RecordingManager manager_;
  testsupport::TestPlatform platform_;
  std::shared_ptr<krx::Connection> server_;
  std::optional<krx::Client> client_;
};

TEST_F(DispatchTest, UnentitledClientsGetNoReplyAtAll) {
  struct Case {
    const char* name;
    std::optional<vtl::Value> entitlement;
    bool no_task;
    std::vector<std::string> log;
  };
  const std::string refusal = "The client does not have proper entitlement";
  const char* method = "-[VTLHMessageResponder hasEntitlementVantreld]";
  const Case cases[] = {
      {"false", vtl::Value(false), false, {refusal}},
      {"absent", std::nullopt, false, {std::string(method) + ": No data received.", refusal}},
      {"not a boolean",
       vtl::Value("yes"),
       false,
       {std::string(method) + ": format not correct: yes", refusal}},
      {"unidentifiable peer",
       vtl::Value(true),
       true,
       {std::string(method) + ": Cannot create SecTask from audit token", refusal}},
  };
  // Beside the system's own lines, one for the operator that names who was refused.
  const std::string named = "Request removeWorkContainer: from " + client() +
                            " refused: it does not hold com.tessal.private.vantrel.vantreld";
  for (Case c : cases) {
    SCOPED_TRACE(c.name);
    platform_.log.clear();
    platform_.signing.entitlement = c.entitlement;
    platform_.signing.no_task = c.no_task;
    responder().handleKRXMessage(dict({{"removeWorkContainer:", "/private/var/nothing-here"}}));
    EXPECT_TRUE(replies().empty());
    c.log.push_back(named);
    EXPECT_EQ(platform_.log.lines(), c.log);
    EXPECT_EQ(platform_.log.entries().back().priority, vtl::LogPriority::kWarning);
  }
}

// What the operator is told of each request: a closing line whose priority
// and result say how it ended, the request's fields on every line logged
// while it ran, and the service manager's status.
TEST_F(DispatchTest, EachRequestEndsWithALineForTheOperator) {
  struct Case {
    krx::Value request;
    vtl::LogPriority priority;
    std::string result;
  };
  const std::string gone = "/private/var/VTLWorkContainer/absent-in-dispatch-test";
  const Case cases[] = {
      {dict({{"removeWorkContainer:", gone}}), vtl::LogPriority::kInfo, "passed"},
      {dict({{"writeNvram:", "not a dictionary"}}), vtl::LogPriority::kError, "failed"},
      {dict({{"removeWorkContainer:", "/etc"}}), vtl::LogPriority::kWarning, "refused"},
      {dict({{"noSuchCommand:", true}}), vtl::LogPriority::kWarning, "unanswered"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.result);
    platform_.log.clear();
    manager_.statuses.clear();
    responder().handleKRXMessage(c.request);
    static_cast<void>(replies());
    const std::vector<testsupport::CapturedLog::Entry> entries = platform_.log.entries();
    ASSERT_GE(entries.size(), 2U);
    const testsupport::CapturedLog::Entry& first = entries.front();
    const testsupport::CapturedLog::Entry& last = entries.back();
    const std::string name = std::get<krx::Dictionary>(c.request.storage()).front().first;
    EXPECT_EQ(first.field("VTL_REQUEST"), name);
    EXPECT_EQ(first.field("VTL_CLIENT_PID"), std::to_string(::getpid()));
    EXPECT_EQ(first.field("VTL_CLIENT_UID"), std::to_string(::getuid()));
    EXPECT_TRUE(last.message.starts_with("Request " + name + " from " + client() + " " + c.result))
        << last.message;
    EXPECT_EQ(last.priority, c.priority);
    EXPECT_EQ(last.field("VTL_RESULT"), c.result);
    EXPECT_NE(last.field("VTL_DURATION_MS"), "");
    EXPECT_EQ(manager_.statuses, (std::vector<std::string>{"Serving " + name + " for " + client(),
                                                           "Waiting for requests"}));
  }
  // Lines outside a request carry no request's fields.
  platform_.log.clear();
  vtl::VTLLog("between requests");
  EXPECT_EQ(platform_.log.entries().at(0).field("VTL_REQUEST"), "");
}

TEST_F(DispatchTest, UnknownOrUnnamedCommandsStopTheMessage) {
  // Keys run in the dictionary's order (byte order of the keys): the known
  // first key answers, the unknown second stops the third.
  // A data-area path that names nothing: removing it is a true answer that
  // touches nothing.
  const std::string gone = "/private/var/VTLWorkContainer/absent-in-dispatch-test";
  responder().handleKRXMessage(dict({{"aRemove", "x"}}));
  EXPECT_TRUE(replies().empty());
  EXPECT_TRUE(platform_.log.contains("VTLHMessageResponder does not respond to aRemove."));

  platform_.log.clear();
  responder().handleKRXMessage(
      dict({{"removeWorkContainer:", gone}, {"removeWorkContainerX:", gone}, {"zzz:", gone}}));
  EXPECT_EQ(replies(), std::vector{response(true)});
  EXPECT_TRUE(
      platform_.log.contains("VTLHMessageResponder does not respond to removeWorkContainerX:."));

  platform_.log.clear();
  responder().handleKRXMessage(dict({{"", true}, {"removeWorkContainer:", gone}}));
  EXPECT_TRUE(replies().empty());
  EXPECT_TRUE(platform_.log.contains("selector is nil for "));

  platform_.log.clear();
  responder().handleKRXMessage(dict({{"reboot", true}}));
  EXPECT_TRUE(replies().empty());
  EXPECT_TRUE(platform_.log.contains("VTLHMessageResponder does not respond to reboot."));
}

TEST_F(DispatchTest, TwoCommandsTwoResponsesInKeyOrder) {
  const std::string bad = "/etc/vtl-dispatch-test";  // outside the data area: refused
  const std::string good = "/private/var/VTLWorkContainer/absent-in-dispatch-test";
  responder().handleKRXMessage(
      dict({{"removeWorkContainer:", good}, {"prepareWorkContainer:", bad}}));
  EXPECT_EQ(replies(), (std::vector{response(false), response(true)}));
  EXPECT_TRUE(
      platform_.log.contains("Entering -[VTLHMessageResponder prepareWorkContainer:] "
                             "with parameter: " +
                             bad));
}

TEST_F(DispatchTest, LogPathsOutsideTheLogRootsAreRefused) {
  // Paths the rule lets through are served by the confined helper in the
  // end-to-end tests; here only refusals, which never reach the operation.
  for (const std::string path : {"/tmp/x", "x/var/logs", "/private/var/log/x", "", "/var/log"}) {
    SCOPED_TRACE(path);
    platform_.log.clear();
    responder().handleKRXMessage(dict({{"prepareLogContainer:", path}}));
    EXPECT_EQ(platform_.log.lines(),
              (std::vector<std::string>{
                  "Entering -[VTLHMessageResponder prepareLogContainer:] with parameter: " + path,
                  "-[VTLHMessageResponder prepareLogContainer:]: creating logs under " + path +
                      " is not allowed.",
                  "Request prepareLogContainer: from " + client() +
                      " refused: creating logs under " + path + " is not allowed"}));
    EXPECT_EQ(replies(), std::vector{response(false)});
  }
}

TEST(RequestConversion, KeepsSupportedEntriesAndNamesEachDroppedOne) {
  TempDir device;
  testsupport::TestPlatform platform(device.path());
  krx::Value inner = dict({{"Path", "/private/var"},
                           {"Inclusive", true},
                           {"Blob", krx::Data{1, 2}},
                           {"Deeper", dict({{"n", std::int64_t{-5}}, {"u", std::uint64_t{5}}})}});
  krx::Value request = dict({{"createDeviceManifest:", inner},
                             {"when", krx::Date{1}},
                             {"list", krx::Array{krx::Value("a")}},
                             {"nothing", krx::Null{}},
                             {"max", std::int64_t{INT64_MIN}},
                             {"ratio", 0.5},
                             {"id", krx::Uuid{}},
                             {"fd", krx::Fd{0}}});
  std::optional<vtl::Dictionary> converted = vtl::krxdictConv::dictionaryWithKRXDictionary(request);
  ASSERT_TRUE(converted);
  vtl::Dictionary expected_inner{
      {"Path", vtl::Value("/private/var")},
      {"Inclusive", vtl::Value(true)},
      {"Deeper", vtl::Value(vtl::Dictionary{{"n", vtl::Value(std::int64_t{-5})}})}};
  vtl::Dictionary expected{{"createDeviceManifest:", vtl::Value(expected_inner)},
                           {"max", vtl::Value(std::int64_t{INT64_MIN})}};
  EXPECT_EQ(vtl::Value(*converted), vtl::Value(expected));
  for (const char* key : {"Blob", "u", "when", "list", "nothing", "ratio", "id", "fd"}) {
    EXPECT_TRUE(platform.log.contains(std::string("The value for key ") + key +
                                      " has a type that is not supported yet"))
        << key;
  }
  // Empty converts to empty, not to nothing; a non-dictionary to nothing.
  EXPECT_EQ(vtl::krxdictConv::dictionaryWithKRXDictionary(krx::Value(krx::Dictionary{})),
            vtl::Dictionary{});
  EXPECT_FALSE(vtl::krxdictConv::dictionaryWithKRXDictionary(krx::Value("x")));
  EXPECT_FALSE(vtl::krxdictConv::createKRXDictionary(expected));
}

TEST_F(DispatchTest, ProgressRisesOnlyOnWholePercentages) {
  vtl::VTLProgressUpdater& updater = vtl::VTLProgressUpdater::sharedInstance();
  struct Case {
    std::int64_t total;
    std::vector<std::int64_t> increments;
    std::vector<std::int64_t> sent;
  };
  std::vector<std::int64_t> two_hundred_ones(200, 1);
  std::vector<std::int64_t> every_percent;
  for (int p = 1; p <= 100; ++p) every_percent.push_back(p);
  const Case cases[] = {
      {200, two_hundred_ones, every_percent},
      {3, {1, 1, 1}, {33, 66, 100}},
      {100, {3, 37, -10, 5, 10}, {3, 40, 45}},  // skipped steps and falls are not sent
      {10, {5, 10}, {50, 150}},                 // overshoot is reported as it is
      {0, {1, 1}, {}},                          // nothing to measure against
  };
  for (const Case& c : cases) {
    updater.initializePercentageWithTotal(c.total);
    for (std::int64_t inc : c.increments) updater.updatePercentageWithIncrement(inc);
    std::vector<krx::Value> expected;
    for (std::int64_t p : c.sent) expected.push_back(progress(p));
    EXPECT_EQ(replies(), expected) << "total " << c.total;
  }
  // A new count starts again from zero.
  updater.initializePercentageWithTotal(3);
  updater.updatePercentageWithIncrement(1);
  EXPECT_EQ(replies(), std::vector{progress(33)});
  EXPECT_TRUE(platform_.log.contains("Initializing percent with total 3"));
  EXPECT_TRUE(platform_.log.contains("Percentage increased to 33"));
}

TEST_F(DispatchTest, RepliesToAGoneClientAreDropped) {
  responder().setConnection(nullptr);
  responder().sendPassResponse();
  responder().sendProgress(5);
  responder().setConnection(server_);
  std::vector<std::uint8_t> bytes{0, 1, 2};
  responder().sendData(bytes);
  EXPECT_EQ(replies(), std::vector{dict({{"Data", krx::Data{0, 1, 2}}})});
}

}  // namespace
