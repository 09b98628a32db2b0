// The KRX facility end to end over real Unix sockets: a listener in a
// temporary run directory, clients connecting to it, events on the one serial
// queue, failures that end one connection and leave the rest serving.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "krx/client.h"
#include "krx/codec.h"
#include "krx/connection.h"
#include "tests/support/daemon.h"
#include "tests/support/file_tree.h"

namespace krx {
namespace {

using namespace std::chrono_literals;

constexpr auto kPatience = 10s;  // how long a test waits for what must happen

using testsupport::TempDir;

struct Record {
  std::string who;  // "listener" or "conn<N>"
  Type type;
  Value message;
  bool invalid;  // a connection-invalid error
  std::string description;
  std::thread::id thread;
};

// The server side of a test: what every handler saw, in order, and the
// connections the listener accepted. Handlers hold it by shared_ptr, so it
// outlives any handler still running when a test ends.
class Server : public std::enable_shared_from_this<Server> {
 public:
  // What a connection's handler does with a message, after recording it.
  // Default: reply {"Reply": message}.
  std::function<void(const std::shared_ptr<Connection>&, const Event&)> on_message =
      [](const std::shared_ptr<Connection>& c, const Event& e) {
        c->send_message(make_dictionary("Reply", e.message()));
      };
  bool accept_resumes = true;  // whether accepted connections get a handler at once

  std::shared_ptr<Connection> listen(const std::string& name) {
    listener_ = Connection::create_mach_service(name, kConnectionListener);
    if (!listener_) return nullptr;
    listener_->set_event_handler(handler("listener", {}));
    listener_->resume();
    return listener_;
  }

  // Sets the recording handler of `c` and resumes it.
  void adopt(const std::shared_ptr<Connection>& c) {
    c->set_event_handler(handler(keep(c), c));
    c->resume();
  }

  // Waits until `pred(records)` holds; false after kPatience.
  bool wait(const std::function<bool(const std::vector<Record>&)>& pred) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return pred(records_); });
  }
  // Waits until some record satisfies `pred`; false after kPatience.
  bool wait_any(const std::function<bool(const Record&)>& pred) {
    return wait([&](const auto& r) { return std::any_of(r.begin(), r.end(), pred); });
  }
  bool wait_count(const std::string& who, std::size_t n) {
    return wait([&](const auto& r) { return count(r, who) >= n; });
  }
  std::vector<Record> records() {
    std::lock_guard lock(mutex_);
    return records_;
  }
  std::shared_ptr<Connection> accepted(std::size_t i) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kPatience, [&] { return accepted_.size() > i; });
    return i < accepted_.size() ? accepted_[i] : nullptr;
  }
  void cancel_all() {
    std::vector<std::shared_ptr<Connection>> all;
    {
      std::lock_guard lock(mutex_);
      all = accepted_;
    }
    for (auto& c : all) c->cancel();
    if (listener_) listener_->cancel();
  }

  static std::size_t count(const std::vector<Record>& r, const std::string& who) {
    return static_cast<std::size_t>(
        std::count_if(r.begin(), r.end(), [&](const Record& x) { return x.who == who; }));
  }

 private:
  EventHandler handler(std::string who, const std::weak_ptr<Connection>& self) {
    return [server = shared_from_this(), who = std::move(who), self](const Event& e) {
      server->record(who, e);
      if (who == "listener" && e.type() == Type::Connection) {
        if (server->accept_resumes) {
          server->adopt(e.new_connection());
        } else {
          server->keep(e.new_connection());
        }
      } else if (e.type() != Type::Error && e.type() != Type::Connection) {
        if (auto c = self.lock()) server->on_message(c, e);
      }
    };
  }

  // Counts `c` among the accepted; returns the name its records go by.
  std::string keep(const std::shared_ptr<Connection>& c) {
    std::lock_guard lock(mutex_);
    accepted_.push_back(c);
    changed_.notify_all();
    return "conn" + std::to_string(accepted_.size() - 1);
  }

  void record(const std::string& who, const Event& e) {
    std::lock_guard lock(mutex_);
    records_.push_back(Record{who, e.type(), e.message(), e.is_error(ErrorKind::ConnectionInvalid),
                              e.error_description(), std::this_thread::get_id()});
    changed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Record> records_;
  std::vector<std::shared_ptr<Connection>> accepted_;
  std::shared_ptr<Connection> listener_;
};

class KrxConnectionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    set_run_directory(dir_.path());
    name_ = std::string("com.tessal.test.") +
            ::testing::UnitTest::GetInstance()->current_test_info()->name();
    server_ = std::make_shared<Server>();
  }
  void TearDown() override { server_->cancel_all(); }

  std::string socket_path() const { return dir_.path() + "/" + name_; }

  Client connect() {
    std::string error;
    auto client = Client::connect_service(dir_.path(), name_, &error);
    EXPECT_TRUE(client.has_value()) << error;
    if (!client) std::abort();
    return std::move(*client);
  }

  static Value expect_message(Client& client) {
    auto r = client.receive(kPatience);
    auto* m = std::get_if<Client::Message>(&r);
    EXPECT_NE(m, nullptr) << "index " << r.index();
    return m != nullptr ? m->value : Value();
  }

  TempDir dir_;
  std::string name_;
  std::shared_ptr<Server> server_;
};

// The same with the listener serving from the start.
class KrxServedConnectionTest : public KrxConnectionTest {
 protected:
  void SetUp() override {
    KrxConnectionTest::SetUp();
    ASSERT_NE(server_->listen(name_), nullptr);
  }
};

TEST_F(KrxServedConnectionTest, RequestsArriveAndRepliesGoBack) {
  Client client = connect();
  const Value request = make_dictionary("Path", "/private/var/mobile");
  ASSERT_TRUE(client.send(request));
  EXPECT_EQ(expect_message(client), make_dictionary("Reply", request));

  // A well-formed frame that is not a dictionary arrives as what it is.
  ASSERT_TRUE(client.send(Value(std::int64_t{7})));
  EXPECT_EQ(expect_message(client), make_dictionary("Reply", std::int64_t{7}));
  const auto records = server_->records();
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[0].type, Type::Connection);
  EXPECT_EQ(records[1].type, Type::Dictionary);
  EXPECT_EQ(records[1].message, request);
  EXPECT_EQ(records[2].type, Type::Int64);
}

TEST_F(KrxServedConnectionTest, ListenerSocketIsOpenToEveryLocalUser) {
  struct stat st {};
  ASSERT_EQ(lstat(socket_path().c_str(), &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0666u);
  // The socket is made under another name and moved into place; nothing of
  // that is left behind.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_.path()), {}), 1);
}

TEST_F(KrxConnectionTest, ListenerCannotBeCreated) {
  // No listener, and nothing disturbed, when the place to bind is unusable;
  // the reason names the path and, where a call failed, its error.
  struct Case {
    std::string run_directory;
    std::string name;
    std::string why;
  };
  testsupport::write_file(socket_path(), "not a socket");
  const std::string missing = dir_.path() + "/missing";
  const Case cases[] = {
      {missing, name_, "cannot bind " + missing + "/." + name_},
      {dir_.path(), std::string(200, 'x'), "the socket path " + dir_.path() + "/xxx"},
      {dir_.path(), "../escape", "the service name ../escape is not one path component"},
      {dir_.path(), name_, socket_path() + " exists and is not a socket"},
  };
  for (const Case& c : cases) {
    set_run_directory(c.run_directory);
    std::string why;
    EXPECT_EQ(Connection::create_mach_service(c.name, kConnectionListener, &why), nullptr);
    EXPECT_TRUE(why.starts_with(c.why)) << why;
  }
  EXPECT_EQ(testsupport::read_file(socket_path()), "not a socket");
}

TEST_F(KrxConnectionTest, StaleSocketIsReplacedButALiveOneIsNot) {
  // A socket file left behind by a listener that is gone.
  testsupport::make_socket(socket_path());
  ASSERT_NE(server_->listen(name_), nullptr);
  Client client = connect();
  ASSERT_TRUE(client.send(Value("hello")));
  EXPECT_EQ(expect_message(client), make_dictionary("Reply", "hello"));

  // A second listener for the same name would take the socket from the one
  // serving it.
  EXPECT_EQ(Connection::create_mach_service(name_, kConnectionListener), nullptr);
  ASSERT_TRUE(client.send(Value("still here")));
  EXPECT_EQ(expect_message(client), make_dictionary("Reply", "still here"));
}

TEST_F(KrxServedConnectionTest, ServerSendsOnItsOwnAndLargeMessagesSurviveTheTrip) {
  Client client = connect();
  auto conn = server_->accepted(0);
  ASSERT_NE(conn, nullptr);

  // From a thread that is not the queue: a progress update, say.
  conn->send_message(make_dictionary("Progress", std::int64_t{50}));
  EXPECT_EQ(expect_message(client), make_dictionary("Progress", std::int64_t{50}));

  // Far more than a socket buffer holds, both ways: the facility reassembles
  // what comes in pieces and flushes what the socket did not take at once.
  Data big(8u << 20);
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<std::uint8_t>(i * 31 + 7);
  const Value request = make_dictionary("Blob", big);
  ASSERT_TRUE(client.send(request));
  EXPECT_EQ(expect_message(client), make_dictionary("Reply", request));
}

TEST_F(KrxServedConnectionTest, PeerCloseEndsTheConnectionOnce) {
  {
    Client client = connect();
    ASSERT_TRUE(client.send(Value("last words")));
    ASSERT_TRUE(server_->wait_count("conn0", 1));
  }
  ASSERT_TRUE(server_->wait([](const auto& r) { return !r.empty() && r.back().invalid; }));
  auto conn = server_->accepted(0);
  conn->send_message(Value("nobody listens"));  // dropped, quietly
  conn->resume();
  std::this_thread::sleep_for(200ms);
  const auto records = server_->records();
  ASSERT_EQ(Server::count(records, "conn0"), 2u);
  EXPECT_EQ(records.back().who, "conn0");
  EXPECT_EQ(records.back().type, Type::Error);
  EXPECT_FALSE(records.back().description.empty());
}

struct BadFrame {
  const char* name;
  std::vector<std::uint8_t> bytes;
  const char* reason;
};

TEST_F(KrxServedConnectionTest, MalformedFrameEndsOnlyThatConnection) {
  Client bystander = connect();
  ASSERT_TRUE(bystander.send(Value("before")));
  EXPECT_EQ(expect_message(bystander), make_dictionary("Reply", "before"));

  std::vector<std::uint8_t> good_then_bad = encode_frame(Value("first"));
  good_then_bad.insert(good_then_bad.end(), {'K', 'R', 'X', '1', 1, 0, 0, 0, 0x01});
  const BadFrame frames[] = {
      {"bad magic", {'H', 'T', 'T', 'P', '/', '1', '.', '1'}, "bad magic"},
      {"announced frame over the limit",
       {'K', 'R', 'X', '1', 0xFF, 0xFF, 0xFF, 0x7F},
       "exceeds the limit"},
      {"good frame, then a bool cut short", good_then_bad, "runs past the frame"},
  };
  std::size_t served = 1;  // the bystander
  for (const auto& f : frames) {
    SCOPED_TRACE(f.name);
    const std::string who = "conn" + std::to_string(served++);
    Client client = connect();
    ASSERT_TRUE(client.send_raw(f.bytes.data(), f.bytes.size()));
    // The server hangs up on the offender (after replying to what was sound).
    Client::Received got = client.receive(kPatience);
    while (std::holds_alternative<Client::Message>(got)) got = client.receive(kPatience);
    EXPECT_TRUE(std::holds_alternative<Client::Closed>(got)) << got.index();
    // Ended with the reason.
    EXPECT_TRUE(server_->wait_any([&](const Record& x) {
      return x.who == who && x.invalid && x.description.find(f.reason) != std::string::npos;
    }));
  }
  // The well-formed frame ahead of the bad one was still delivered.
  const auto records = server_->records();
  EXPECT_TRUE(std::any_of(records.begin(), records.end(),
                          [](const Record& r) { return r.message == Value("first"); }));

  // Everyone else is served as before, and newcomers too.
  ASSERT_TRUE(bystander.send(Value("after")));
  EXPECT_EQ(expect_message(bystander), make_dictionary("Reply", "after"));
  Client newcomer = connect();
  ASSERT_TRUE(newcomer.send(Value("new")));
  EXPECT_EQ(expect_message(newcomer), make_dictionary("Reply", "new"));
}

TEST_F(KrxServedConnectionTest, DescriptorsSentAlongAreClosedUnused) {
  Client client = connect();
  int pipe_fds[2];
  ASSERT_EQ(pipe2(pipe_fds, O_CLOEXEC), 0);

  const auto frame = encode_frame(make_dictionary("Descriptor", Fd{0}));
  ASSERT_TRUE(testsupport::send_with_descriptor(client.fd(), frame, pipe_fds[1]));
  close(pipe_fds[1]);

  // The message itself is delivered ...
  EXPECT_EQ(expect_message(client), make_dictionary("Reply", make_dictionary("Descriptor", Fd{0})));
  // ... and with the server's copy of the write end closed, the pipe is at
  // its end.
  pollfd pfd{pipe_fds[0], POLLIN, 0};
  ASSERT_EQ(poll(&pfd, 1, static_cast<int>(std::chrono::milliseconds(kPatience).count())), 1);
  char byte = 0;
  EXPECT_EQ(read(pipe_fds[0], &byte, 1), 0);
  close(pipe_fds[0]);
}

TEST_F(KrxConnectionTest, EventsOfAllConnectionsRunOneAtATime) {
  // Shared with the handler, which may still be finishing its last request
  // when the test has seen every reply.
  struct Counters {
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
  };
  auto counters = std::make_shared<Counters>();
  server_->on_message = [counters](const std::shared_ptr<Connection>& c, const Event& e) {
    if (++counters->inside > 1) counters->overlapped = true;
    std::this_thread::sleep_for(5ms);
    c->send_message(make_dictionary("Reply", e.message()));  // the reply is part of the request
    --counters->inside;
  };
  ASSERT_NE(server_->listen(name_), nullptr);
  constexpr int kClients = 3;
  constexpr std::int64_t kRequests = 10;
  std::vector<std::thread> threads;
  std::atomic<int> replies{0};
  threads.reserve(kClients);
  for (int t = 0; t < kClients; ++t) {
    threads.emplace_back([&] {
      Client client = connect();
      for (std::int64_t i = 0; i < kRequests; ++i) ASSERT_TRUE(client.send(Value(i)));
      for (std::int64_t i = 0; i < kRequests; ++i) {
        // Each connection's messages keep their order.
        EXPECT_EQ(expect_message(client), make_dictionary("Reply", i));
        ++replies;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(replies.load(), kClients * kRequests);
  EXPECT_FALSE(counters->overlapped.load());

  // One queue thread for every connection, and not the caller's.
  const auto records = server_->records();
  for (const auto& r : records) {
    EXPECT_EQ(r.thread, records.front().thread);
  }
  EXPECT_NE(records.front().thread, std::this_thread::get_id());
}

TEST_F(KrxConnectionTest, NewConnectionIsSilentUntilResumed) {
  server_->accept_resumes = false;
  ASSERT_NE(server_->listen(name_), nullptr);
  Client client = connect();
  ASSERT_TRUE(client.send(Value("early")));
  auto conn = server_->accepted(0);
  ASSERT_NE(conn, nullptr);
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(server_->records().size(), 1u);  // the connection event only

  server_->adopt(conn);
  EXPECT_EQ(expect_message(client), make_dictionary("Reply", "early"));
}

TEST_F(KrxServedConnectionTest, AuditTokenNamesTheClientProcess) {
  Client client = connect();
  auto conn = server_->accepted(0);
  ASSERT_NE(conn, nullptr);
  const AuditToken& token = conn->audit_token();
  EXPECT_EQ(token.pid, getpid());
  EXPECT_EQ(token.uid, getuid());
  EXPECT_EQ(token.gid, getgid());
  ASSERT_NE(token.pidfd, nullptr);
  if (*token.pidfd < 0) GTEST_SKIP() << "this kernel gives no pidfd";
  // The pidfd is ours: the kernel says which pid it refers to.
  const std::string fdinfo =
      testsupport::read_file("/proc/self/fdinfo/" + std::to_string(*token.pidfd));
  EXPECT_NE(fdinfo.find("\nPid:\t" + std::to_string(getpid()) + "\n"), std::string::npos) << fdinfo;
  EXPECT_TRUE((fcntl(*token.pidfd, F_GETFD) & FD_CLOEXEC) != 0);
}

TEST_F(KrxServedConnectionTest, CancelEndsTheConnectionAndStopsAccepting) {
  Client client = connect();
  auto conn = server_->accepted(0);
  ASSERT_NE(conn, nullptr);
  conn->cancel();
  EXPECT_TRUE(std::holds_alternative<Client::Closed>(client.receive(kPatience)));
  client.send(Value("into the void"));
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(Server::count(server_->records(), "conn0"), 0u);

  server_->cancel_all();
  std::string error;
  EXPECT_FALSE(Client::connect_service(dir_.path(), name_, &error).has_value());
  EXPECT_NE(error.find("cannot connect to " + socket_path()), std::string::npos) << error;
}

TEST_F(KrxServedConnectionTest, PeerThatDoesNotReadIsCutOff) {
  Client client = connect();
  auto conn = server_->accepted(0);
  ASSERT_NE(conn, nullptr);
  // Never read by the client: beyond the cap on waiting output the server
  // gives up on it rather than hold the memory.
  const Value chunk = Data(15u << 20, 0x11);
  for (int i = 0; i < 6; ++i) conn->send_message(chunk);
  EXPECT_TRUE(server_->wait_any([](const Record& x) {
    return x.who == "conn0" && x.invalid &&
           x.description.find("does not read") != std::string::npos;
  }));
}

// What any client may cost, made small here; the defaults come back after.
class KrxLimitsTest : public KrxServedConnectionTest {
 protected:
  void SetUp() override {
    KrxServedConnectionTest::SetUp();
    limits_.max_connections = 3;
    limits_.input_budget = std::size_t{1} << 20;
    limits_.frame_deadline = std::chrono::milliseconds(300);
    set_limits(limits_);
  }
  void TearDown() override {
    KrxServedConnectionTest::TearDown();
    set_limits(Limits{});
  }

  // The header of a frame of `length` value bytes and `sent` of them.
  static std::vector<std::uint8_t> unfinished(std::uint32_t length, std::size_t sent) {
    std::vector<std::uint8_t> bytes = {'K', 'R', 'X', '1'};
    for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<std::uint8_t>(length >> (8 * i)));
    bytes.resize(bytes.size() + sent, 0x07);
    return bytes;
  }

  // Whether `client` is still answered.
  void expect_served(Client& client) {
    ASSERT_TRUE(client.send(make_dictionary("Ping", true)));
    EXPECT_EQ(expect_message(client), make_dictionary("Reply", make_dictionary("Ping", true)));
  }

  Limits limits_;
};

TEST_F(KrxLimitsTest, AtTheCapTheQuietestConnectionMakesRoom) {
  Client talker = connect();
  ASSERT_TRUE(server_->wait_count("listener", 1));
  expect_served(talker);
  Client silent = connect();
  Client later = connect();
  ASSERT_TRUE(server_->wait_count("listener", 3));
  // At the cap a newcomer still gets in: the connection that never sent a
  // frame and was heard from least recently goes, the talker stays.
  Client newcomer = connect();
  ASSERT_TRUE(server_->wait_count("listener", 4));
  expect_served(newcomer);
  EXPECT_TRUE(std::holds_alternative<Client::Closed>(silent.receive(kPatience)));
  expect_served(talker);
  EXPECT_TRUE(server_->wait_any([](const Record& x) {
    return x.who == "conn1" && x.description.find("to make room") != std::string::npos;
  }));
}

TEST_F(KrxLimitsTest, UnfinishedFramesShareOneBudgetAndSmallFramesAlwaysPass) {
  Client hog = connect();
  Client greedy = connect();
  Client modest = connect();
  const auto big = unfinished(8u << 20, 900u << 10);
  ASSERT_TRUE(hog.send_raw(big.data(), big.size()));
  ASSERT_TRUE(server_->wait_count("listener", 3));
  // Until the server has read all of it: nothing left in the hog's socket.
  const auto until = std::chrono::steady_clock::now() + kPatience;
  int unread = 1;
  while ((::ioctl(hog.fd(), SIOCOUTQ, &unread) != 0 || unread != 0) &&
         std::chrono::steady_clock::now() < until) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ASSERT_EQ(unread, 0);
  // Past the budget with a frame over the small size: that one fails...
  const auto more = unfinished(8u << 20, 200u << 10);
  ASSERT_TRUE(greedy.send_raw(more.data(), more.size()));
  EXPECT_TRUE(server_->wait_any([](const Record& x) {
    return x.invalid &&
           x.description.find("unfinished frames of all connections") != std::string::npos;
  }));
  // ... a request still gets through.
  expect_served(modest);
}

TEST_F(KrxLimitsTest, AFrameThatTakesTooLongEndsItsConnection) {
  Client slow = connect();
  Client quick = connect();
  const auto start = unfinished(64, 3);
  ASSERT_TRUE(slow.send_raw(start.data(), start.size()));
  EXPECT_TRUE(std::holds_alternative<Client::Closed>(slow.receive(kPatience)));
  EXPECT_TRUE(server_->wait_any([](const Record& x) {
    return x.description.find("a frame took longer than 300 ms to arrive") != std::string::npos;
  }));
  expect_served(quick);
}

}  // namespace
}  // namespace krx
