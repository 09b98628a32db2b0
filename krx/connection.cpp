#include "krx/connection.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/errors.h"
#include "base/path.h"
#include "base/unique_fd.h"
#include "krx/codec.h"
#include "krx/socket_io.h"

// Linux 6.5 and later hand out a pidfd of the peer with its credentials; the
// C library headers may predate it.
#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace krx {
namespace {

using Clock = std::chrono::steady_clock;

// A peer that stops reading while we keep replying is cut off rather than
// allowed to grow our memory without bound.
constexpr std::size_t kMaxPendingOutput = std::size_t{64} << 20;
// Reads are at least this big, and bigger while a large frame is arriving, so
// a 16 MiB frame takes a few dozen reads rather than hundreds.
constexpr std::size_t kMinRead = std::size_t{64} << 10;
constexpr std::size_t kMaxRead = std::size_t{1} << 20;
// One readiness of the listener accepts at most this many clients before
// events are delivered, so a flood of connects cannot starve the others.
constexpr int kMaxAcceptsPerWakeup = 64;
// Out of descriptors or memory, the listener stays readable; accepting pauses
// this long instead of spinning.
constexpr auto kAcceptPause = std::chrono::milliseconds(100);
constexpr int kMaxEventsPerWait = 64;

// epoll identifiers; connections count up from kFirstConnectionId, never
// reused, so a stale readiness can never reach the wrong connection.
constexpr std::uint64_t kWakeId = 1;
constexpr std::uint64_t kSignalId = 2;
constexpr std::uint64_t kFirstConnectionId = 16;

constexpr const char* kTerminationDescription =
    "the process is asked to end (SIGTERM, SIGINT or SIGHUP)";

std::shared_ptr<const int> own_descriptor(int fd) {
  return {new int(fd), [](const int* p) {
            if (*p >= 0) close(*p);
            delete p;
          }};
}

struct SocketAccess {
  mode_t mode = 0666;
  gid_t group = static_cast<gid_t>(-1);
};

SocketAccess& socket_access() {
  static SocketAccess access;
  return access;
}

int& proc_directory() {
  static int fd = -1;
  return fd;
}

// The program `token`'s process runs now, taken as early as the facility
// sees the peer: at accept. The pidfd is looked at after the read, so that
// the file read was that process's own.
void take_executable(AuditToken& token) {
  const int proc = proc_directory();
  if (proc < 0 || token.pid <= 0) return;
  const std::string exe = std::to_string(token.pid) + "/exe";
  std::array<char, 4096> target{};
  const ssize_t n = readlinkat(proc, exe.c_str(), target.data(), target.size());
  if (n <= 0 || static_cast<std::size_t>(n) >= target.size()) return;
  struct stat file {};
  if (fstatat(proc, exe.c_str(), &file, 0) != 0) return;
  const int pidfd = *token.pidfd;
  // Signal 0 only asks; EPERM (a peer of another user) means it is there.
  if (pidfd >= 0 && syscall(SYS_pidfd_send_signal, pidfd, 0, nullptr, 0) != 0 && errno != EPERM) {
    return;
  }
  token.executable.assign(target.data(), static_cast<std::size_t>(n));
  token.executable_device = file.st_dev;
  token.executable_inode = file.st_ino;
}

AuditToken audit_token_of_peer(int fd) {
  AuditToken token;
  ucred cred{};
  socklen_t length = sizeof cred;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &length) == 0 && length == sizeof cred) {
    token.pid = cred.pid;
    token.uid = cred.uid;
    token.gid = cred.gid;
  }
  int pidfd = -1;
  length = sizeof pidfd;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERPIDFD, &pidfd, &length) != 0 || length != sizeof pidfd) {
    pidfd = -1;
  }
  if (pidfd < 0 && token.pid > 0) {
    // A kernel without SO_PEERPIDFD: open the pidfd by pid. This is racy: if
    // the client exited after connecting and its pid was handed to a new
    // process before this line, the pidfd pins that other process. The window
    // is the time between connect and accept; identity checks that also look
    // at the executable behind the pidfd narrow what a reused pid can gain.
    const long opened = syscall(SYS_pidfd_open, token.pid, 0);
    pidfd = opened >= 0 ? static_cast<int>(opened) : -1;
  }
  if (pidfd >= 0) fcntl(pidfd, F_SETFD, FD_CLOEXEC);
  token.pidfd = own_descriptor(pidfd);
  take_executable(token);
  return token;
}

bool make_nonblocking_cloexec(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0 &&
         fcntl(fd, F_SETFD, FD_CLOEXEC) == 0;
}

std::string& run_directory_storage() {
  // Leaked like the facility, so it is still there for a handler that runs
  // while exit() destroys statics.
  static auto* const directory = new std::string("/run/krx");
  return *directory;
}

class ConnectionImpl;

struct Pending {
  std::shared_ptr<ConnectionImpl> target;
  Event event;
};

class Facility;

// Holds the facility's mutex. References that may be the last ones to an
// object are buried in the facility's graveyard while it is held and let go
// only after it is released: a connection's destructor takes the mutex
// itself, and a handler may own connections.
class Locked {
 public:
  explicit Locked(Facility& facility);
  ~Locked();
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;

 private:
  Facility& facility_;
  std::unique_lock<std::mutex> lock_;
};

class ConnectionImpl final : public Connection {
 public:
  ConnectionImpl(std::uint64_t connection_id, bool is_listener, int socket, AuditToken peer)
      : id(connection_id), listener(is_listener), token(std::move(peer)), fd(socket) {}
  ~ConnectionImpl() override;
  ConnectionImpl(const ConnectionImpl&) = delete;
  ConnectionImpl& operator=(const ConnectionImpl&) = delete;

  // Only called while a strong reference is held elsewhere.
  std::shared_ptr<ConnectionImpl> self() {
    return std::static_pointer_cast<ConnectionImpl>(shared_from_this());
  }

  const std::uint64_t id;
  const bool listener;
  const AuditToken token;

  // Everything below is guarded by the facility's mutex.
  int fd;
  std::shared_ptr<EventHandler> handler;
  bool resumed = false;
  bool cancelled = false;
  bool failed = false;          // the socket is gone; connection-invalid is due
  bool invalid_queued = false;  // ... and has been queued
  bool finished = false;        // ... and has been delivered: no more events
  std::string failure;
  std::vector<std::uint8_t> in;
  std::size_t in_begin = 0;
  std::size_t in_wanted = 0;  // what the frame being received still lacks
  std::vector<std::uint8_t> out;
  std::size_t out_begin = 0;
  std::uint32_t interest = 0;
  bool registered = false;
  bool accept_paused = false;
  // Bytes of the unfinished frame counted in the facility's input total, and
  // when that frame began to arrive (for the deadline; nullopt: none).
  std::size_t counted_input = 0;
  std::optional<Clock::time_point> frame_started;
  // When bytes last came, and whether a whole frame ever did: who makes room
  // when the connections are at their cap.
  Clock::time_point last_heard = Clock::now();
  bool spoke = false;
};

// The facility: the registry of connections, the one epoll set, the serial
// queue of events and the thread that runs it. One per process.
class Facility {
 public:
  static Facility& instance() {
    // Leaked on purpose. Handlers may call exit() on the queue thread; a
    // destructor run by exit() that stopped or joined that thread would wait
    // for itself, or pull the queue from under the handler still running on
    // it. The kernel takes back the descriptors when the process ends.
    static Facility* const facility = new Facility();
    return *facility;
  }

  bool usable() const { return epoll_fd_ >= 0 && wake_fd_ >= 0; }

  // --- called with the mutex held ------------------------------------------

  void bury(std::shared_ptr<const void> p) {
    if (p) graveyard_.push_back(std::move(p));
  }

  std::shared_ptr<ConnectionImpl> add_connection(bool listener, int fd, AuditToken token) {
    const std::uint64_t id = next_id_++;
    if (!listener && fd >= 0) ++clients_;
    auto connection = std::make_shared<ConnectionImpl>(id, listener, fd, std::move(token));
    registry_.emplace(id, connection);
    return connection;
  }

  void forget(ConnectionImpl& c) {
    registry_.erase(c.id);
    close_socket(c);
  }

  void push(std::shared_ptr<ConnectionImpl> target, Event event) {
    pending_.push_back(Pending{std::move(target), std::move(event)});
    if (std::this_thread::get_id() != queue_thread_) wake();
  }

  void start_thread() {
    if (thread_started_) return;
    std::thread thread([this] { run(); });
    pthread_setname_np(thread.native_handle(), "krx-queue");
    thread.detach();
    thread_started_ = true;
  }

  void set_handler(ConnectionImpl& c, EventHandler handler) {
    bury(std::move(c.handler));
    c.handler.reset();
    if (!handler) {
      unretain(c);
      return;
    }
    c.handler = std::make_shared<EventHandler>(std::move(handler));
    if (!c.cancelled && !c.finished) retained_.emplace(c.id, c.self());
  }

  void resume(ConnectionImpl& c) {
    if (c.resumed || c.cancelled) return;
    c.resumed = true;
    start_thread();
    update_interest(c);
    if (c.failed) queue_invalid(c);
  }

  void cancel(ConnectionImpl& c) {
    if (c.cancelled) return;
    c.cancelled = true;
    close_socket(c);
    retire(c);
  }

  void send(ConnectionImpl& c, std::vector<std::uint8_t> frame) {
    if (c.fd < 0 || c.failed || c.cancelled) return;
    std::size_t written = 0;
    if (c.out_begin == c.out.size()) {
      const auto sent = write_some(c, frame.data(), frame.size());
      if (sent < 0) return;
      written = static_cast<std::size_t>(sent);
    }
    if (written == frame.size()) return;
    if (c.out_begin != 0) {
      c.out.erase(c.out.begin(), c.out.begin() + static_cast<std::ptrdiff_t>(c.out_begin));
      c.out_begin = 0;
    }
    if (c.out.size() + (frame.size() - written) > kMaxPendingOutput) {
      fail(c, "the peer does not read: more than " + std::to_string(kMaxPendingOutput >> 20) +
                  " MiB of output is waiting");
      return;
    }
    c.out.insert(c.out.end(), frame.begin() + static_cast<std::ptrdiff_t>(written), frame.end());
    update_interest(c);
    // The queue thread flushes what the socket did not take.
    start_thread();
  }

  void transaction_begin() { ++transactions_; }

  void transaction_end() {
    // An unmatched end is ignored rather than let the count go negative and
    // hold termination back for good.
    if (transactions_ == 0 || --transactions_ > 0) return;
    for (auto& item : held_) pending_.push_back(std::move(item));
    if (!held_.empty() && std::this_thread::get_id() != queue_thread_) wake();
    held_.clear();
    start_termination();
  }

  // Blocks the signals that ask the process to end (SIGTERM from a service
  // manager, SIGINT from a terminal, SIGHUP when the terminal goes) in the
  // calling thread, which every thread started later inherits, and reads
  // them from a signalfd on the queue instead.
  bool watch_termination_signal() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&set, signal);
    if (pthread_sigmask(SIG_BLOCK, &set, nullptr) != 0) return false;
    if (signal_fd_ >= 0) return true;
    signal_fd_ = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
    if (signal_fd_ < 0) return false;
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = kSignalId;
    if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, signal_fd_, &ev) != 0) {
      close(signal_fd_);
      signal_fd_ = -1;
      return false;
    }
    return true;
  }

  void set_limits(const Limits& limits) { limits_ = limits; }

  // Handed-over descriptors already given to a listener, so that two
  // listeners never share one.
  bool claimed(int fd) const { return claimed_.count(fd) != 0; }
  void claim(int fd) { claimed_.insert(fd); }

 private:
  friend class Locked;

  Facility() {
    epoll_fd_ = epoll_create1(EPOLL_CLOEXEC);
    wake_fd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (epoll_fd_ < 0 || wake_fd_ < 0) return;
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = kWakeId;
    if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, wake_fd_, &ev) != 0) {
      close(wake_fd_);
      wake_fd_ = -1;
    }
    read_buffer_.resize(kMaxRead);
  }

  void wake() const {
    const std::uint64_t one = 1;
    // A full counter already means "wake up"; nothing to do on failure.
    [[maybe_unused]] const auto n = write(wake_fd_, &one, sizeof one);
  }

  void unretain(ConnectionImpl& c) {
    auto it = retained_.find(c.id);
    if (it == retained_.end()) return;
    bury(std::move(it->second));
    retained_.erase(it);
  }

  // The facility lets go of the connection: no handler, no reference.
  void retire(ConnectionImpl& c) {
    bury(std::move(c.handler));
    c.handler.reset();
    unretain(c);
  }

  void close_socket(ConnectionImpl& c) {
    if (c.fd >= 0) {
      if (c.registered) epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, c.fd, nullptr);
      close(c.fd);
      if (!c.listener) --clients_;
    }
    count_input(c, 0, false);
    c.fd = -1;
    c.registered = false;
    c.interest = 0;
    std::vector<std::uint8_t>().swap(c.in);
    std::vector<std::uint8_t>().swap(c.out);
    c.in_begin = c.out_begin = 0;
  }

  void update_interest(ConnectionImpl& c) {
    std::uint32_t want = 0;
    if (c.fd >= 0 && !c.cancelled && !c.failed) {
      if (c.resumed && !c.accept_paused) want |= EPOLLIN;
      if (c.out_begin < c.out.size()) want |= EPOLLOUT;
    }
    if (want == c.interest) return;
    epoll_event ev{};
    ev.events = want;
    ev.data.u64 = c.id;
    int rc = 0;
    if (want == 0) {
      rc = epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, c.fd, nullptr);
      c.registered = false;
    } else {
      rc = epoll_ctl(epoll_fd_, c.registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, c.fd, &ev);
      c.registered = c.registered || rc == 0;
    }
    c.interest = rc == 0 ? want : 0;
    if (rc != 0 && want != 0 && !c.listener) {
      fail(c, "cannot watch the connection: " + vtl::error_description(errno));
    }
  }

  void fail(ConnectionImpl& c, std::string why) {
    if (c.failed || c.cancelled) return;
    c.failed = true;
    c.failure = std::move(why);
    close_socket(c);
    if (c.resumed) queue_invalid(c);
  }

  void queue_invalid(ConnectionImpl& c) {
    if (c.invalid_queued) return;
    c.invalid_queued = true;
    push(c.self(), Event::error(ErrorKind::ConnectionInvalid, c.failure));
  }

  // Bytes written, or -1 when the connection failed.
  std::ptrdiff_t write_some(ConnectionImpl& c, const std::uint8_t* p, std::size_t size) {
    std::size_t done = 0;
    while (done < size) {
      const ssize_t n = ::send(c.fd, p + done, size - done, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n > 0) {
        done += static_cast<std::size_t>(n);
      } else if (n < 0 && errno == EINTR) {
        continue;
      } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        break;
      } else {
        fail(c, "cannot send: " + vtl::error_description(n < 0 ? errno : EPIPE));
        return -1;
      }
    }
    return static_cast<std::ptrdiff_t>(done);
  }

  void flush(ConnectionImpl& c) {
    const auto sent = write_some(c, c.out.data() + c.out_begin, c.out.size() - c.out_begin);
    if (sent < 0) return;
    c.out_begin += static_cast<std::size_t>(sent);
    if (c.out_begin == c.out.size()) {
      // Give back a large buffer once it drained; keep a small one for reuse.
      if (c.out.capacity() > kMinRead) {
        std::vector<std::uint8_t>().swap(c.out);
      } else {
        c.out.clear();
      }
      c.out_begin = 0;
    }
  }

  void receive(ConnectionImpl& c) {
    const std::size_t chunk = std::clamp(c.in_wanted, kMinRead, kMaxRead);
    const ssize_t n = receive_closing_descriptors(c.fd, read_buffer_.data(), chunk, MSG_DONTWAIT);
    if (n == 0) {
      fail(c, "the peer closed the connection");
      return;
    }
    if (n < 0) {
      if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
        fail(c, "cannot receive: " + vtl::error_description(errno));
      }
      return;
    }
    if (c.in_begin != 0) {
      c.in.erase(c.in.begin(), c.in.begin() + static_cast<std::ptrdiff_t>(c.in_begin));
      c.in_begin = 0;
    }
    const std::size_t unfinished = c.in.size() + static_cast<std::size_t>(n);
    if (unfinished > limits_.small_frame &&
        input_total_ - c.counted_input + unfinished > limits_.input_budget) {
      fail(c, "unfinished frames of all connections would exceed " +
                  std::to_string(limits_.input_budget >> 20) + " MiB");
      return;
    }
    c.in.insert(c.in.end(), read_buffer_.begin(), read_buffer_.begin() + n);
    bool completed = false;
    while (c.fd >= 0 && c.in_begin < c.in.size()) {
      auto result = decode_frame(std::span(c.in).subspan(c.in_begin));
      if (auto* more = std::get_if<NeedMore>(&result)) {
        c.in_wanted = more->bytes_wanted;
        break;
      }
      if (auto* error = std::get_if<DecodeError>(&result)) {
        fail(c, "malformed frame: " + error->reason);
        break;
      }
      auto& decoded = std::get<Decoded>(result);
      c.in_begin += decoded.frame_size;
      c.in_wanted = 0;
      completed = true;
      push(c.self(), Event::message(std::move(decoded.value)));
    }
    if (c.fd >= 0 && c.in_begin == c.in.size()) {
      // Give back what a large frame needed; keep a small buffer for reuse.
      // Kept, it would stay charged to no budget for as long as the
      // connection lasts.
      if (c.in.capacity() > limits_.small_frame) {
        std::vector<std::uint8_t>().swap(c.in);
      } else {
        c.in.clear();
      }
      c.in_begin = 0;
    }
    c.last_heard = Clock::now();
    c.spoke = c.spoke || completed;
    if (c.fd >= 0) count_input(c, c.in.size() - c.in_begin, completed);
  }

  // Records that `c` holds `unfinished` bytes of a frame not yet whole, in
  // the input total and for the deadline; a frame that `completed` in the
  // same read restarts the deadline for the next one.
  void count_input(ConnectionImpl& c, std::size_t unfinished, bool completed) {
    input_total_ = input_total_ - c.counted_input + unfinished;
    c.counted_input = unfinished;
    const bool restart = unfinished == 0 || completed;
    if (c.frame_started && restart) {
      deadlines_.erase({*c.frame_started, c.id});
      c.frame_started.reset();
    }
    if (unfinished != 0 && !c.frame_started) {
      c.frame_started = Clock::now();
      deadlines_.insert({*c.frame_started, c.id});
    }
  }

  // At the cap a newcomer still gets in, so that connections left idle can
  // never lock a client out: the client connection quiet the longest is
  // ended, one that never sent a whole frame before any that did. False
  // when there is none to end.
  bool make_room() {
    std::shared_ptr<ConnectionImpl> victim;
    for (auto& [id, weak] : registry_) {
      std::shared_ptr<ConnectionImpl> c = weak.lock();
      if (!c || c->listener || c->fd < 0 || c->failed || c->cancelled) {
        bury(std::move(c));
        continue;
      }
      if (!victim ||
          std::pair(c->spoke, c->last_heard) < std::pair(victim->spoke, victim->last_heard)) {
        bury(std::move(victim));
        victim = std::move(c);
      } else {
        bury(std::move(c));
      }
    }
    if (!victim) return false;
    fail(*victim, "ended to make room for a new connection (" +
                      std::to_string(limits_.max_connections) + " at most)");
    bury(std::move(victim));
    return true;
  }

  // Ends the connections whose frame has taken longer than the deadline.
  void expire_frames() {
    const auto now = Clock::now();
    while (!deadlines_.empty() && deadlines_.begin()->first + limits_.frame_deadline <= now) {
      const std::uint64_t id = deadlines_.begin()->second;
      deadlines_.erase(deadlines_.begin());
      auto it = registry_.find(id);
      std::shared_ptr<ConnectionImpl> c = it != registry_.end() ? it->second.lock() : nullptr;
      if (c) {
        c->frame_started.reset();
        fail(*c, "a frame took longer than " + std::to_string(limits_.frame_deadline.count()) +
                     " ms to arrive");
      }
      bury(std::move(c));
    }
  }

  void accept_clients(ConnectionImpl& listener) {
    for (int i = 0; i < kMaxAcceptsPerWakeup; ++i) {
      const int fd = accept4(listener.fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd < 0) {
        if (errno == EINTR || errno == ECONNABORTED || errno == EPROTO) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) return;
        // Out of descriptors: the one in reserve makes room to accept the
        // waiting client and close it, so that the listener moves on.
        if ((errno == EMFILE || errno == ENFILE) && reserve_fd_ >= 0) {
          close(reserve_fd_);
          const int turned_away = accept4(listener.fd, nullptr, nullptr, SOCK_CLOEXEC);
          if (turned_away >= 0) close(turned_away);
          reserve_fd_ = eventfd(0, EFD_CLOEXEC);
          continue;
        }
        listener.accept_paused = true;
        accept_retry_at_ = Clock::now() + kAcceptPause;
        update_interest(listener);
        return;
      }
      if (clients_ >= limits_.max_connections && !make_room()) {
        close(fd);
        continue;
      }
      auto connection = add_connection(false, fd, audit_token_of_peer(fd));
      push(listener.self(), Event::connection(std::move(connection)));
    }
  }

  static bool live(const ConnectionImpl& c) {
    return c.resumed && c.handler && !c.cancelled && !c.failed && !c.finished;
  }

  // Termination-imminent goes to every live client connection first, in the
  // order they were made, and then to the listeners, so that a listener that
  // ends the process does so after the clients had their say.
  void start_termination() {
    if (!termination_requested_ || transactions_ > 0) return;
    termination_requested_ = false;
    std::vector<std::shared_ptr<ConnectionImpl>> listeners;
    for (auto& [id, weak] : registry_) {
      auto c = weak.lock();
      if (!c || !live(*c)) {
        bury(std::move(c));
        continue;
      }
      if (c->listener) {
        listeners.push_back(std::move(c));
      } else {
        push(std::move(c), Event::error(ErrorKind::TerminationImminent, kTerminationDescription));
      }
    }
    for (auto& l : listeners) {
      push(std::move(l), Event::error(ErrorKind::TerminationImminent, kTerminationDescription));
    }
  }

  void take_signals() {
    signalfd_siginfo info{};
    bool any = false;
    while (read(signal_fd_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) any = true;
    if (!any) return;
    termination_requested_ = true;
    start_termination();
  }

  void take_wakeups() const {
    std::uint64_t count = 0;
    [[maybe_unused]] const auto n = read(wake_fd_, &count, sizeof count);
  }

  // Until the next timed thing: a paused listener's retry, or the first
  // frame deadline. -1: none.
  int wait_timeout_ms() const {
    std::optional<Clock::time_point> next = accept_retry_at_;
    if (!deadlines_.empty()) {
      const Clock::time_point due = deadlines_.begin()->first + limits_.frame_deadline;
      if (!next || due < *next) next = due;
    }
    if (!next) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*next - Clock::now());
    return static_cast<int>(std::max<std::int64_t>(0, left.count()));
  }

  void resume_accepting() {
    if (!accept_retry_at_ || *accept_retry_at_ > Clock::now()) return;
    accept_retry_at_.reset();
    for (auto& [id, weak] : registry_) {
      auto c = weak.lock();
      if (c && c->accept_paused) {
        c->accept_paused = false;
        update_interest(*c);
      }
      bury(std::move(c));
    }
  }

  void handle_ready(std::uint64_t id, std::uint32_t events) {
    std::shared_ptr<ConnectionImpl> c;  // outlives the lock below
    Locked lock(*this);
    if (id == kWakeId) {
      take_wakeups();
      return;
    }
    if (id == kSignalId) {
      take_signals();
      return;
    }
    auto it = registry_.find(id);
    if (it == registry_.end()) return;
    c = it->second.lock();
    if (!c || c->fd < 0) return;
    if (c->listener) {
      if (c->resumed && !c->cancelled) accept_clients(*c);
      return;
    }
    if ((events & (EPOLLOUT | EPOLLERR | EPOLLHUP)) != 0 && c->out_begin < c->out.size()) {
      flush(*c);
    }
    if (c->fd >= 0 && c->resumed && (events & (EPOLLIN | EPOLLERR | EPOLLHUP)) != 0) {
      receive(*c);
    }
    if (c->fd >= 0) update_interest(*c);
  }

  // Hands queued events to their handlers one at a time, without the mutex,
  // until the queue is empty.
  void deliver_pending() {
    for (;;) {
      Pending item;  // declared before the lock, so let go of after it
      std::shared_ptr<EventHandler> handler;
      bool invalid = false;
      {
        Locked lock(*this);
        if (pending_.empty()) return;
        item = std::move(pending_.front());
        pending_.pop_front();
        if (item.event.is_error(ErrorKind::TerminationImminent) && transactions_ > 0) {
          held_.push_back(std::move(item));
          continue;
        }
        const ConnectionImpl& c = *item.target;
        if (c.cancelled || c.finished || !c.resumed || !c.handler) continue;
        handler = c.handler;
        invalid = item.event.is_error(ErrorKind::ConnectionInvalid);
      }
      (*handler)(item.event);
      if (invalid) {
        Locked lock(*this);
        item.target->finished = true;
        retire(*item.target);
      }
    }
  }

  [[noreturn]] void run() {
    {
      Locked lock(*this);
      queue_thread_ = std::this_thread::get_id();
    }
    epoll_event events[kMaxEventsPerWait];
    for (;;) {
      deliver_pending();
      int timeout = -1;
      {
        Locked lock(*this);
        timeout = wait_timeout_ms();
      }
      const int n = epoll_wait(epoll_fd_, events, kMaxEventsPerWait, timeout);
      for (int i = 0; i < n; ++i) handle_ready(events[i].data.u64, events[i].events);
      if (timeout >= 0) {
        Locked lock(*this);
        resume_accepting();
        expire_frames();
      }
      if (n < 0 && errno != EINTR) {
        // Only a broken epoll set gets here; do not spin on it.
        std::this_thread::sleep_for(kAcceptPause);
      }
    }
  }

  std::mutex mutex_;
  int epoll_fd_ = -1;
  int wake_fd_ = -1;
  int signal_fd_ = -1;
  bool thread_started_ = false;
  std::thread::id queue_thread_;
  std::uint64_t next_id_ = kFirstConnectionId;
  // Every connection object that exists, by id (ordered: the order they were
  // made). Weak: users own connections until a handler is set.
  std::map<std::uint64_t, std::weak_ptr<ConnectionImpl>> registry_;
  // Connections the facility keeps alive because it has a handler for them.
  std::unordered_map<std::uint64_t, std::shared_ptr<ConnectionImpl>> retained_;
  std::deque<Pending> pending_;
  // Termination-imminent events that came up while a transaction was open.
  std::vector<Pending> held_;
  // When paused listeners try accepting again.
  std::optional<Clock::time_point> accept_retry_at_;
  int transactions_ = 0;
  bool termination_requested_ = false;
  std::set<int> claimed_;
  Limits limits_;
  std::size_t clients_ = 0;      // client connections with an open socket
  std::size_t input_total_ = 0;  // bytes of unfinished frames, all connections
  // Unfinished frames by the time they began to arrive.
  std::set<std::pair<Clock::time_point, std::uint64_t>> deadlines_;
  int reserve_fd_ = eventfd(0, EFD_CLOEXEC);
  std::vector<std::uint8_t> read_buffer_;  // used by the queue thread only
  std::vector<std::shared_ptr<const void>> graveyard_;
};

Locked::Locked(Facility& facility) : facility_(facility), lock_(facility.mutex_) {}

Locked::~Locked() {
  std::vector<std::shared_ptr<const void>> released;
  released.swap(facility_.graveyard_);
  lock_.unlock();
  // `released` goes here, with the mutex free for the destructors it runs.
}

ConnectionImpl::~ConnectionImpl() {
  Facility& facility = Facility::instance();
  Locked lock(facility);
  facility.forget(*this);
}

ConnectionImpl& impl(Connection* c) { return *static_cast<ConnectionImpl*>(c); }
const ConnectionImpl& impl(const Connection* c) { return *static_cast<const ConnectionImpl*>(c); }

// The descriptor systemd handed over for `service_name`: the one of that
// name, else the first listening Unix stream socket (systemd names sockets
// after their unit unless told otherwise). -1 when there is none.
int handed_over_socket(std::string_view service_name, Facility& facility) {
  const int count = sd_listen_fds(0);
  if (count <= 0) return -1;
  char** names = nullptr;
  const int named = sd_listen_fds_with_names(0, &names);
  auto usable = [&](int fd) { return sd_is_socket_unix(fd, SOCK_STREAM, 1, nullptr, 0) > 0; };
  int chosen = -1;
  for (int i = 0; named == count && names != nullptr && i < count && chosen < 0; ++i) {
    const int fd = SD_LISTEN_FDS_START + i;
    if (names[i] != nullptr && service_name == names[i] && !facility.claimed(fd) && usable(fd)) {
      chosen = fd;
    }
  }
  for (int i = 0; chosen < 0 && i < count; ++i) {
    const int fd = SD_LISTEN_FDS_START + i;
    if (!facility.claimed(fd) && usable(fd)) chosen = fd;
  }
  if (chosen >= 0) facility.claim(chosen);
  if (names != nullptr) {
    for (int i = 0; i < named; ++i) free(names[i]);  // NOLINT(cppcoreguidelines-no-malloc)
    free(static_cast<void*>(names));                 // NOLINT(cppcoreguidelines-no-malloc)
  }
  if (chosen >= 0 && !make_nonblocking_cloexec(chosen)) return -1;
  return chosen;
}

bool socket_address(const std::string& path, sockaddr_un* addr) {
  *addr = sockaddr_un{};
  addr->sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof addr->sun_path) return false;
  std::memcpy(addr->sun_path, path.data(), path.size());
  return true;
}

// True when something accepts connections at `addr` now: then the socket
// file is not stale and must not be taken over.
bool someone_listens(const sockaddr_un& addr) {
  const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (probe < 0) return false;
  const int rc = connect(probe, reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
  const bool listening = rc == 0 || errno == EAGAIN || errno == EINPROGRESS;
  close(probe);
  return listening;
}

// Binds and listens on the service's socket under the run directory; -1
// with `why` (path and errno) when it cannot.
int bind_listener(std::string_view service_name, std::string* why) {
  // A service name is one path component: it must not lead out of the run
  // directory.
  if (service_name.empty() || service_name.find('/') != std::string_view::npos ||
      service_name == "." || service_name == "..") {
    *why = "the service name " + std::string(service_name) + " is not one path component";
    return -1;
  }
  const std::string path = vtl::join(run_directory(), service_name);
  const auto failed = [why](const std::string& what, const std::string& where) {
    *why = "cannot " + what + " " + where + ": " + vtl::error_description(errno);
    return -1;
  };
  sockaddr_un addr{};
  if (!socket_address(path, &addr)) {
    *why = "the socket path " + path + " is too long";
    return -1;
  }
  struct stat st {};
  if (lstat(path.c_str(), &st) == 0) {
    // Only a socket left behind by an earlier run is replaced; any other file
    // there is not ours to delete.
    if (!S_ISSOCK(st.st_mode)) {
      *why = path + " exists and is not a socket";
      return -1;
    }
    if (someone_listens(addr)) {
      *why = "another process already listens on " + path;
      return -1;
    }
  }
  // The socket is made under a hidden name and moved into place once it
  // listens: a client that finds the service's socket can always connect.
  const std::string staging =
      run_directory() + "/." + std::string(service_name) + "." + std::to_string(getpid());
  sockaddr_un staging_addr{};
  if (!socket_address(staging, &staging_addr)) {
    *why = "the socket path " + staging + " is too long";
    return -1;
  }
  unlink(staging.c_str());
  vtl::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!fd) return failed("create a socket for", path);
  if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&staging_addr), sizeof staging_addr) != 0) {
    return failed("bind", staging);
  }
  // Who may connect is set by the socket's mode and group (set_socket_access);
  // who may do what is decided per message from the peer's entitlements.
  const SocketAccess access = socket_access();
  int result = -1;
  if (access.group != static_cast<gid_t>(-1) &&
      chown(staging.c_str(), static_cast<uid_t>(-1), access.group) != 0) {
    result = failed("give the group of", staging);
  } else if (chmod(staging.c_str(), access.mode) != 0) {
    result = failed("set the mode of", staging);
  } else if (listen(fd.get(), SOMAXCONN) != 0) {
    result = failed("listen on", staging);
  } else if (rename(staging.c_str(), path.c_str()) != 0) {
    result = failed("move the socket to", path);
  } else {
    return fd.release();
  }
  unlink(staging.c_str());
  return result;
}

int connect_to(std::string_view service_name) {
  const std::string path = vtl::join(run_directory(), service_name);
  sockaddr_un addr{};
  if (!socket_address(path, &addr)) return -1;
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  int rc = 0;
  do {
    rc = connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

// ---------------------------------------------------------------------------
// Event

Event Event::connection(std::shared_ptr<Connection> c) {
  Event e;
  e.type_ = Type::Connection;
  e.connection_ = std::move(c);
  return e;
}

Event Event::message(Value v) {
  Event e;
  e.type_ = v.type();
  e.message_ = std::move(v);
  return e;
}

Event Event::error(ErrorKind kind, std::string description) {
  Event e;
  e.type_ = Type::Error;
  e.error_ = kind;
  e.description_ = std::move(description);
  return e;
}

Type Event::type() const { return type_; }

// ---------------------------------------------------------------------------
// Connection

std::shared_ptr<Connection> Connection::create_mach_service(std::string_view service_name,
                                                            std::uint64_t flags, std::string* why) {
  std::string ignored;
  if (why == nullptr) why = &ignored;
  Facility& facility = Facility::instance();
  if (!facility.usable()) {
    *why = "the event queue could not be set up";
    return nullptr;
  }
  if ((flags & kConnectionListener) == 0) {
    const int fd = connect_to(service_name);
    return fd < 0 ? nullptr : from_socket(fd);
  }
  {
    Locked lock(facility);
    if (!facility.watch_termination_signal()) {
      *why = "cannot watch the termination signals: " + vtl::error_description(errno);
      return nullptr;
    }
  }
  int fd = -1;
  {
    Locked lock(facility);
    fd = handed_over_socket(service_name, facility);
  }
  if (fd < 0) fd = bind_listener(service_name, why);
  if (fd < 0) return nullptr;
  AuditToken own;
  own.pidfd = own_descriptor(-1);
  Locked lock(facility);
  return facility.add_connection(true, fd, std::move(own));
}

std::shared_ptr<Connection> Connection::from_socket(int fd) {
  if (fd < 0) return nullptr;
  Facility& facility = Facility::instance();
  if (!facility.usable() || !make_nonblocking_cloexec(fd)) {
    close(fd);
    return nullptr;
  }
  AuditToken token = audit_token_of_peer(fd);
  Locked lock(facility);
  return facility.add_connection(false, fd, std::move(token));
}

Connection::~Connection() = default;

void Connection::set_event_handler(EventHandler handler) {
  Facility& facility = Facility::instance();
  Locked lock(facility);
  facility.set_handler(impl(this), std::move(handler));
}

void Connection::resume() {
  Facility& facility = Facility::instance();
  Locked lock(facility);
  if (facility.usable()) facility.resume(impl(this));
}

void Connection::cancel() {
  Facility& facility = Facility::instance();
  Locked lock(facility);
  facility.cancel(impl(this));
}

void Connection::send_message(const Value& message) {
  if (impl(this).listener) return;
  auto frame = encode_frame(message);
  if (frame.empty()) return;
  Facility& facility = Facility::instance();
  Locked lock(facility);
  facility.send(impl(this), std::move(frame));
}

const AuditToken& Connection::audit_token() const { return impl(this).token; }

// ---------------------------------------------------------------------------
// Process-wide settings

void set_proc_directory(int fd) { proc_directory() = fd; }

void set_limits(const Limits& limits) {
  Facility& facility = Facility::instance();
  Locked lock(facility);
  facility.set_limits(limits);
}

void set_socket_access(unsigned mode, gid_t group) {
  socket_access() = SocketAccess{static_cast<mode_t>(mode & 0777), group};
}

void set_run_directory(std::string path) { run_directory_storage() = std::move(path); }

const std::string& run_directory() { return run_directory_storage(); }

void transaction_begin() {
  Facility& facility = Facility::instance();
  Locked lock(facility);
  facility.transaction_begin();
}

void transaction_end() {
  Facility& facility = Facility::instance();
  Locked lock(facility);
  facility.transaction_end();
}

void run_main_loop() {
  for (;;) pause();
}

}  // namespace krx
