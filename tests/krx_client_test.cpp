// The KRX client over a socket pair: what receive() reports for each way a
// stream can go, sends that fail without killing the caller, and the error
// text of a failed connect.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "krx/client.h"
#include "krx/codec.h"

namespace krx {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;

// A client and the raw other end of its socket.
struct Pair {
  Pair() {
    int fds[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    client.emplace(Client::from_socket(fds[0]));
    peer = fds[1];
  }
  ~Pair() { close_peer(); }
  Pair(const Pair&) = delete;
  Pair& operator=(const Pair&) = delete;

  void write_peer(const Bytes& b) const {
    ASSERT_EQ(write(peer, b.data(), b.size()), static_cast<ssize_t>(b.size()));
  }
  void close_peer() {
    if (peer >= 0) close(peer);
    peer = -1;
  }
  Bytes read_peer(std::size_t n) const {
    Bytes b(n);
    std::size_t got = 0;
    while (got < n) {
      const ssize_t r = read(peer, b.data() + got, n - got);
      if (r <= 0) break;
      got += static_cast<std::size_t>(r);
    }
    b.resize(got);
    return b;
  }

  std::optional<Client> client;
  int peer = -1;
};

Bytes concat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

TEST(KrxClientTest, WhatReceiveReports) {
  const Bytes hello = encode_frame(Value("hello"));
  const Bytes half(hello.begin(), hello.begin() + 5);
  struct Case {
    const char* name;
    Bytes sent;
    bool peer_closes;
    std::vector<std::size_t> expected;  // variant indexes, one per receive
  };
  constexpr std::size_t kMessage = 0, kTimeout = 1, kClosed = 2, kMalformed = 3;
  const Case cases[] = {
      {"nothing yet", {}, false, {kTimeout}},
      {"one frame", hello, false, {kMessage, kTimeout}},
      {"two frames in one write", concat(hello, hello), false, {kMessage, kMessage, kTimeout}},
      {"half a frame", half, false, {kTimeout}},
      {"peer closed", {}, true, {kClosed, kClosed}},
      {"frame, then peer closed", hello, true, {kMessage, kClosed}},
      {"half a frame, then peer closed", half, true, {kClosed}},
      {"garbage stays malformed", {'n', 'o', 'p', 'e'}, false, {kMalformed, kMalformed}},
      {"frame, then garbage",
       concat(hello, {'K', 'R', 'X', '1', 1, 0, 0, 0, 0x0F}),
       false,
       {kMessage, kMalformed}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Pair p;
    if (!c.sent.empty()) p.write_peer(c.sent);
    if (c.peer_closes) p.close_peer();
    for (std::size_t expected : c.expected) {
      auto got = p.client->receive(50ms);
      ASSERT_EQ(got.index(), expected);
      if (expected == kMessage) {
        EXPECT_EQ(std::get<Client::Message>(got).value, Value("hello"));
      }
      if (expected == kMalformed) {
        EXPECT_FALSE(std::get<Client::Malformed>(got).reason.empty());
      }
    }
  }
}

TEST(KrxClientTest, SendWritesExactlyOneFrame) {
  Pair p;
  const Value value = make_dictionary("Path", "/var/mobile");
  const Bytes frame = encode_frame(value);
  ASSERT_TRUE(p.client->send(value));
  EXPECT_EQ(p.read_peer(frame.size()), frame);

  // Values that cannot be framed are refused and nothing goes out.
  EXPECT_FALSE(p.client->send(Value(std::string("a\0b", 3))));
  ASSERT_TRUE(p.client->send_raw("KRX1", 4));
  EXPECT_EQ(p.read_peer(4), (Bytes{'K', 'R', 'X', '1'}));
}

TEST(KrxClientTest, SendToAClosedPeerFailsWithoutSignal) {
  Pair p;
  p.close_peer();
  // Without MSG_NOSIGNAL this would raise SIGPIPE and end the test runner.
  EXPECT_FALSE(p.client->send(Value("anyone?")));
  EXPECT_FALSE(p.client->send(Value("anyone?")));
}

}  // namespace
}  // namespace krx
