#include "krx/client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "base/errors.h"
#include "base/path.h"
#include "krx/codec.h"
#include "krx/socket_io.h"

namespace krx {
namespace {

constexpr std::size_t kReadChunk = std::size_t{64} << 10;

}  // namespace

struct Client::State {
  explicit State(int socket) : fd(socket) {}
  ~State() {
    if (fd >= 0) close(fd);
  }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  int fd;
  std::vector<std::uint8_t> in;
  std::size_t in_begin = 0;
  // Once a frame was malformed the stream cannot be resynchronised; every
  // later receive reports the same.
  std::string malformed;
  bool closed = false;
};

Client::Client(std::unique_ptr<State> state) : state_(std::move(state)) {}
Client::Client(Client&&) noexcept = default;
Client& Client::operator=(Client&&) noexcept = default;
Client::~Client() = default;

std::optional<Client> Client::connect_service(const std::string& run_dir,
                                              const std::string& service_name, std::string* error) {
  return connect_path(vtl::join(run_dir, service_name), error);
}

std::optional<Client> Client::connect_path(const std::string& socket_path, std::string* error) {
  auto failed = [&](const std::string& why) -> std::optional<Client> {
    if (error != nullptr) *error = "cannot connect to " + socket_path + ": " + why;
    return std::nullopt;
  };
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (socket_path.empty() || socket_path.size() >= sizeof addr.sun_path) {
    return failed("the socket path is empty or longer than " +
                  std::to_string(sizeof addr.sun_path - 1) + " bytes");
  }
  std::memcpy(addr.sun_path, socket_path.data(), socket_path.size());
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return failed(vtl::error_description(errno));
  Client client(std::make_unique<State>(fd));
  int rc = 0;
  do {
    rc = connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) return failed(vtl::error_description(errno));
  return client;
}

Client Client::from_socket(int fd) { return Client(std::make_unique<State>(fd)); }

int Client::fd() const { return state_ ? state_->fd : -1; }

bool Client::send(const Value& message) {
  const auto frame = encode_frame(message);
  return !frame.empty() && send_raw(frame.data(), frame.size());
}

bool Client::send_raw(const void* bytes, std::size_t size) {
  if (!state_ || state_->fd < 0) return false;
  const auto* p = static_cast<const std::uint8_t*>(bytes);
  std::size_t done = 0;
  while (done < size) {
    // MSG_NOSIGNAL: a server that went away is a failed send, not SIGPIPE.
    const ssize_t n = ::send(state_->fd, p + done, size - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

Client::Received Client::receive(std::chrono::milliseconds timeout) {
  if (!state_ || state_->fd < 0) return Closed{};
  State& s = *state_;
  const bool forever = timeout.count() < 0;
  const auto deadline = std::chrono::steady_clock::now() + (forever ? timeout.zero() : timeout);
  for (;;) {
    if (!s.malformed.empty()) return Malformed{s.malformed};
    if (s.in_begin < s.in.size()) {
      auto result = decode_frame(std::span(s.in).subspan(s.in_begin));
      if (auto* decoded = std::get_if<Decoded>(&result)) {
        s.in_begin += decoded->frame_size;
        if (s.in_begin == s.in.size()) {
          s.in.clear();
          s.in_begin = 0;
        }
        return Message{std::move(decoded->value)};
      }
      if (auto* error = std::get_if<DecodeError>(&result)) {
        s.malformed = error->reason;
        continue;
      }
    }
    if (s.closed) return Closed{};

    int wait_ms = -1;
    if (!forever) {
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      wait_ms = static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 1 << 30));
    }
    pollfd pfd{s.fd, POLLIN, 0};
    const int ready = poll(&pfd, 1, wait_ms);
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) return Timeout{};
    if (ready < 0) {
      s.closed = true;
      continue;
    }
    if (s.in_begin != 0) {
      s.in.erase(s.in.begin(), s.in.begin() + static_cast<std::ptrdiff_t>(s.in_begin));
      s.in_begin = 0;
    }
    const std::size_t old_size = s.in.size();
    s.in.resize(old_size + kReadChunk);
    const ssize_t n =
        receive_closing_descriptors(s.fd, s.in.data() + old_size, kReadChunk, MSG_DONTWAIT);
    s.in.resize(old_size + static_cast<std::size_t>(n > 0 ? n : 0));
    if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) continue;
    // End of stream, a reset or any other failure: nothing more will come.
    if (n <= 0) s.closed = true;
  }
}

}  // namespace krx
