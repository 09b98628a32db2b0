// How the facility ends: SIGTERM turns into termination-imminent for every
// live connection and then the listener, held back while a keep-alive
// transaction is open, and a handler may end the process from the queue.
// Also where the listener comes from when the service launcher hands one over.
//
// Each case runs in a child process of its own (a death test re-executing
// this binary), because it blocks SIGTERM, signals itself, sets up socket
// activation in its environment and ends with exit() from the queue thread:
// none of that may touch the test runner. The child makes and removes its own
// temporary directory.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "krx/client.h"
#include "krx/connection.h"

namespace krx {
namespace {

using namespace std::chrono_literals;

constexpr const char* kService = "com.tessal.test.termination";
constexpr unsigned kChildDeadlineSeconds = 30;  // a hung child dies of SIGALRM

// What the child's handlers saw, in order.
struct Log {
  std::mutex mutex;
  std::vector<std::string> lines;
  std::atomic<int> resumed{0};

  void add(std::string line) {
    std::lock_guard lock(mutex);
    lines.push_back(std::move(line));
  }
  std::vector<std::string> snapshot() {
    std::lock_guard lock(mutex);
    return lines;
  }
  std::string joined() {
    std::string all;
    for (const auto& l : snapshot()) all += "[" + l + "]";
    return all;
  }
};

std::string make_temp_dir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "krx-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) std::_Exit(90);
  return pattern;
}

// Ends the child: removes its directory, says why on failure, exits.
[[noreturn]] void finish(const std::string& dir, bool ok, const std::string& why) {
  std::error_code ec;
  std::filesystem::remove_all(dir, ec);
  if (!ok) (void)std::fprintf(stderr, "child failed: %s\n", why.c_str());
  std::exit(ok ? 0 : 1);
}

bool eventually(const std::function<bool()>& pred) {
  for (auto waited = 0ms; waited < 10s; waited += 5ms) {
    if (pred()) return true;
    std::this_thread::sleep_for(5ms);
  }
  return pred();
}

// A listener whose accepted connections log their error events under
// "connN ...", N counting accepts. `on_message` runs for every message.
std::shared_ptr<Connection> serve(
    const std::shared_ptr<Log>& log, const std::string& dir,
    const std::function<void(const std::string& who, const Event&)>& on_message,
    const std::function<void()>& on_listener_termination) {
  set_run_directory(dir);
  auto listener = Connection::create_mach_service(kService, kConnectionListener);
  if (!listener) finish(dir, false, "no listener");
  auto accepted = std::make_shared<std::atomic<int>>(0);
  listener->set_event_handler([=](const Event& e) {
    if (e.type() == Type::Connection) {
      const auto& c = e.new_connection();
      const std::string who = "conn" + std::to_string((*accepted)++);
      c->set_event_handler([=](const Event& ev) {
        if (ev.is_error(ErrorKind::TerminationImminent)) {
          log->add(who + " term");
        } else if (ev.is_error(ErrorKind::ConnectionInvalid)) {
          log->add(who + " invalid");
        } else {
          on_message(who, ev);
        }
      });
      c->resume();
      ++log->resumed;
    } else if (e.is_error(ErrorKind::TerminationImminent)) {
      log->add("listener term");
      on_listener_termination();
    }
  });
  listener->resume();
  return listener;
}

// Hands the main thread to the facility for good; `clients` stay connected
// until the process ends.
template <typename... Clients>
[[noreturn]] void park(const Clients&... clients) {
  (..., (void)clients.fd());
  run_main_loop();
}

Client connect_or_die(const std::string& dir) {
  std::string error;
  auto client = Client::connect_service(dir, kService, &error);
  if (!client) finish(dir, false, error);
  return std::move(*client);
}

void termination_reaches_every_live_connection_then_the_listener(int signal) {
  alarm(kChildDeadlineSeconds);
  const std::string dir = make_temp_dir();
  auto log = std::make_shared<Log>();
  // Not kept: the facility holds a listener alive while it has a handler.
  serve(
      log, dir, [](const std::string&, const Event&) {},
      [log, dir] {
        // Still on the queue thread: exit() from here must end the process
        // cleanly, facility and all.
        const std::vector<std::string> expected = {"conn2 invalid", "conn0 term", "conn1 term",
                                                   "listener term"};
        finish(dir, log->snapshot() == expected, log->joined());
      });
  Client first = connect_or_die(dir);
  if (!eventually([&] { return log->resumed == 1; })) finish(dir, false, "first not resumed");
  Client second = connect_or_die(dir);
  if (!eventually([&] { return log->resumed == 2; })) finish(dir, false, "second not resumed");
  {
    // A connection that is gone by then is not told.
    Client gone = connect_or_die(dir);
    if (!eventually([&] { return log->resumed == 3; })) finish(dir, false, "third not resumed");
  }
  if (!eventually([&] { return log->snapshot().size() == 1; })) finish(dir, false, log->joined());
  kill(getpid(), signal);
  park(first, second);
}

// A service manager ends the process with SIGTERM, a terminal with SIGINT or,
// when it goes away, SIGHUP: each ends it the same way.
TEST(KrxTerminationTest, TerminationSignalsReachEveryLiveConnectionThenTheListener) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    SCOPED_TRACE(strsignal(signal));
    EXPECT_EXIT(termination_reaches_every_live_connection_then_the_listener(signal),
                ::testing::ExitedWithCode(0), "");
  }
}

void transaction_holds_termination_back() {
  alarm(kChildDeadlineSeconds);
  const std::string dir = make_temp_dir();
  auto log = std::make_shared<Log>();
  // Not kept: the facility holds a listener alive while it has a handler.
  serve(
      log, dir, [](const std::string&, const Event&) {},
      [log, dir] {
        const std::vector<std::string> expected = {"main ends transaction", "conn0 term",
                                                   "listener term"};
        finish(dir, log->snapshot() == expected, log->joined());
      });
  Client client = connect_or_die(dir);
  if (!eventually([&] { return log->resumed == 1; })) finish(dir, false, "not resumed");
  {
    Transaction outer;
    transaction_begin();  // nested: both must close
    kill(getpid(), SIGTERM);
    std::this_thread::sleep_for(300ms);
    if (!log->snapshot().empty()) finish(dir, false, "delivered while open: " + log->joined());
    transaction_end();
    std::this_thread::sleep_for(300ms);
    if (!log->snapshot().empty()) finish(dir, false, "delivered while open: " + log->joined());
    log->add("main ends transaction");
  }
  park(client);
}

TEST(KrxTerminationTest, OpenTransactionHoldsTerminationBack) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(transaction_holds_termination_back(), ::testing::ExitedWithCode(0), "");
}

void transaction_ended_inside_a_handler() {
  alarm(kChildDeadlineSeconds);
  const std::string dir = make_temp_dir();
  auto log = std::make_shared<Log>();
  // Not kept: the facility holds a listener alive while it has a handler.
  serve(
      log, dir,
      [log](const std::string& who, const Event&) {
        // The last transaction closes in the middle of a request; the
        // request still runs to completion before termination is delivered.
        log->add(who + " request starts");
        transaction_end();
        std::this_thread::sleep_for(100ms);
        log->add(who + " request ends");
      },
      [log, dir] {
        const std::vector<std::string> expected = {"conn0 request starts", "conn0 request ends",
                                                   "conn0 term", "listener term"};
        finish(dir, log->snapshot() == expected, log->joined());
      });
  Client client = connect_or_die(dir);
  if (!eventually([&] { return log->resumed == 1; })) finish(dir, false, "not resumed");
  transaction_begin();
  kill(getpid(), SIGTERM);
  std::this_thread::sleep_for(300ms);
  if (!log->snapshot().empty()) finish(dir, false, "delivered while open: " + log->joined());
  if (!client.send(make_dictionary("Request", "finish up"))) finish(dir, false, "send failed");
  park(client);
}

TEST(KrxTerminationTest, TransactionEndedInsideAHandlerDeliversAfterItReturns) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(transaction_ended_inside_a_handler(), ::testing::ExitedWithCode(0), "");
}

// The service launcher hands over a listening socket as descriptor 3 and up
// (LISTEN_FDS), optionally named (LISTEN_FDNAMES). The listener must serve on
// it and bind nothing of its own.
void handed_over_socket_is_used(bool named) {
  alarm(kChildDeadlineSeconds);
  const std::string dir = make_temp_dir();
  const std::string path = dir + "/handed-over";
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  (void)std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
  if (fd < 3 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      ::listen(fd, 8) != 0) {
    finish(dir, false, "cannot make the socket to hand over");
  }
  // Descriptors 3..fd all count as handed over; only fd is a listening
  // socket, and the others get names of their own.
  const int count = fd - 3 + 1;
  std::string names;
  for (int i = 0; i + 1 < count; ++i) names += "other:";
  names += kService;
  setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
  setenv("LISTEN_FDS", std::to_string(count).c_str(), 1);
  if (named) {
    setenv("LISTEN_FDNAMES", names.c_str(), 1);
  } else {
    unsetenv("LISTEN_FDNAMES");
  }
  auto log = std::make_shared<Log>();
  // Not kept: the facility holds a listener alive while it has a handler.
  serve(
      log, dir,
      [log](const std::string& who, const Event& e) {
        log->add(who + " " + *e.message().get<std::string>());
      },
      [] {});
  struct stat st {};
  if (lstat((dir + "/" + kService).c_str(), &st) == 0) finish(dir, false, "bound its own socket");

  std::string error;
  auto client = Client::connect_path(path, &error);
  if (!client) finish(dir, false, error);
  client->send(Value("hello"));
  const bool ok = eventually([&] { return log->joined() == "[conn0 hello]"; });
  finish(dir, ok, log->joined());
}

TEST(KrxTerminationTest, HandedOverSocketIsUsedByName) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(handed_over_socket_is_used(true), ::testing::ExitedWithCode(0), "");
}

TEST(KrxTerminationTest, HandedOverSocketWithoutNamesIsUsed) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(handed_over_socket_is_used(false), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace krx
