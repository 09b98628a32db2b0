// The client side of KRX: connect to a service, send, receive with a time-out.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "krx/value.h"

namespace krx {

class Client {
 public:
  // Connects to <run_dir>/<service_name>. nullopt and `error` set on failure.
  static std::optional<Client> connect_service(const std::string& run_dir,
                                               const std::string& service_name, std::string* error);
  static std::optional<Client> connect_path(const std::string& socket_path, std::string* error);
  // Over an already-connected stream socket (takes ownership).
  static Client from_socket(int fd);

  Client(Client&&) noexcept;
  Client& operator=(Client&&) noexcept;
  ~Client();

  // Sends one frame. False when the value cannot be framed or the write fails.
  // Blocks until the whole frame is written; a peer that went away is a
  // failure, never SIGPIPE.
  bool send(const Value& message);
  // Sends raw bytes as they are (tests of malformed frames).
  bool send_raw(const void* bytes, std::size_t size);

  struct Message {
    Value value;
  };
  struct Timeout {};
  struct Closed {};  // the peer ended the connection
  struct Malformed {
    std::string reason;
  };
  using Received = std::variant<Message, Timeout, Closed, Malformed>;
  // The next frame, waiting at most `timeout` (a negative one waits without
  // limit). Closed on end of stream, a reset or any receive failure, also
  // when a frame was cut short by it. A malformed frame ends the stream for
  // good: every later call reports it again. Descriptors sent along with
  // the bytes are closed unused.
  Received receive(std::chrono::milliseconds timeout);

  int fd() const;

 private:
  struct State;
  explicit Client(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

}  // namespace krx
