// KRX connections off the handset: a listener for a named service, the client
// connections it accepts, their events, and one serial event queue.
//
// Threads: every handler of every connection runs on one process-wide serial
// queue (a thread of the facility's own, started by the first resume()). An
// event is handled to completion, sends included, before the next is taken.
// send_message() may be called from any thread.
//
// More of what callers rely on:
// - Handlers are never called with a facility lock held: a handler may call
//   any function here, on any connection, including cancel() of its own.
// - A handler may end the process with exit() from the queue thread. The
//   facility is never destroyed (it is leaked on purpose), so no static
//   destructor waits for or tears down the queue under the running handler.
//   Handlers must not throw: an exception leaving a handler ends the process.
// - Every descriptor the facility opens is close-on-exec.
// - Events of one connection arrive in the order their frames arrived; a
//   connection's last event is connection-invalid, delivered once.
// - The facility keeps a connection (and the listener) alive while it has a
//   handler for it, until cancel() or until connection-invalid was delivered;
//   then it drops the handler, so a handler that captures its own connection
//   makes no leak. A connection nobody set a handler on closes when its last
//   reference goes.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "krx/value.h"

namespace krx {

inline constexpr std::uint64_t kConnectionListener = 1;

enum class ErrorKind {
  ConnectionInvalid,    // the peer closed its end, died, or sent a malformed frame
  TerminationImminent,  // the process is asked to end (SIGTERM, SIGINT, SIGHUP)
  ConnectionInterrupted,
  Other,
};

// The facility's error-description key of an error event.
inline constexpr const char* kErrorKeyDescription = "KRXErrorDescription";

// Who is on the other end, as the kernel reports it at connect time. The pidfd
// pins the process: as long as it is open the pid cannot name another one.
struct AuditToken {
  pid_t pid = -1;
  uid_t uid = static_cast<uid_t>(-1);
  gid_t gid = static_cast<gid_t>(-1);
  std::shared_ptr<const int> pidfd;  // -1 inside when the kernel gave none
  // The program the peer ran when its connection was accepted (read through
  // the proc directory set below): the path the kernel reports for it (empty
  // when it could not be read), and the file's device and inode. Identity is
  // what the peer was then; a peer that later becomes another program is
  // told apart by its file. No descriptor of it is kept.
  std::string executable;
  dev_t executable_device = 0;
  ino_t executable_inode = 0;
};

// Where peers' executables are read: a descriptor of the /proc that shows
// the peers' processes, opened before any chroot (borrowed, not owned). Set
// it before the listener accepts; until then (and with -1) no executable is
// taken.
void set_proc_directory(int fd);

// What any client may cost the process, so that no number of them, idle,
// slow or flooding, keeps a well-behaved client from being served:
//   max_connections  clients connected at once. A newcomer at the cap still
//                    gets in: the connection quiet the longest is ended to
//                    make room, one that never sent a whole frame before any
//                    that did, so idle connections cannot lock a client out.
//                    A descriptor is kept in reserve, so that even a process
//                    out of descriptors accepts and closes instead of leaving
//                    the listener stalled.
//   input_budget     bytes of unfinished frames buffered across all
//                    connections. A connection whose unfinished frame would
//                    take the total past it fails (connection-invalid) once
//                    that frame is over small_frame bytes: small frames, what
//                    requests are, are always taken. A buffer a large frame
//                    needed is given back once the frame is whole.
//   frame_deadline   time a frame may take to arrive once its first byte is
//                    in; a connection over it fails.
struct Limits {
  std::size_t max_connections = 512;
  std::size_t input_budget = std::size_t{64} << 20;
  std::size_t small_frame = std::size_t{64} << 10;
  std::chrono::milliseconds frame_deadline{10'000};
};
// Replaces the limits (for connections made and frames begun from now on).
void set_limits(const Limits& limits);

// The mode and group a listener's socket file is bound with: 0666 and the
// process's own group unless set (group -1 keeps it). Set it before
// creating listeners; a handed-over socket keeps what its launcher gave it.
void set_socket_access(unsigned mode, gid_t group);

class Connection;

class Event {
 public:
  static Event connection(std::shared_ptr<Connection> c);
  static Event message(Value v);
  static Event error(ErrorKind kind, std::string description);

  // Connection, Error, or the message value's own type.
  Type type() const;
  const std::shared_ptr<Connection>& new_connection() const { return connection_; }
  const Value& message() const { return message_; }
  bool is_error(ErrorKind kind) const { return type() == Type::Error && error_ == kind; }
  // The error's description (under kErrorKeyDescription); empty for non-errors.
  const std::string& error_description() const { return description_; }

 private:
  Type type_ = Type::Null;
  std::shared_ptr<Connection> connection_;
  Value message_;
  ErrorKind error_ = ErrorKind::Other;
  std::string description_;
};

using EventHandler = std::function<void(const Event&)>;

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  // Creates a listener for `service_name`. With `kConnectionListener` in flags
  // it listens on the socket the service launcher handed over for that name
  // (systemd socket activation), or else binds <run directory>/<service_name>.
  // Returns nullptr when it cannot. Call it from the main thread before any
  // other thread starts: it arranges for SIGTERM, SIGINT and SIGHUP to reach the event queue.
  //
  // Handed-over sockets: the one whose name (LISTEN_FDNAMES) is
  // `service_name`, else the first listening Unix stream socket not taken by
  // another listener. Binding: the socket file gets the mode and group of
  // set_socket_access (who may do what is still decided per message, by
  // entitlement); a socket file left by an
  // earlier run is replaced, but not one a live listener still answers on,
  // and never a file of another kind. nullptr when the run directory is
  // missing, the path does not fit a socket address, `service_name` is not a
  // single path component, or bind/listen fail; `why`, when given, then says
  // which (with the path and errno).
  //
  // Without kConnectionListener it connects to <run directory>/<service_name>
  // as a client would and returns that connection (nullptr when it cannot).
  static std::shared_ptr<Connection> create_mach_service(std::string_view service_name,
                                                         std::uint64_t flags,
                                                         std::string* why = nullptr);
  // A connection over an already-connected stream socket (takes ownership).
  static std::shared_ptr<Connection> from_socket(int fd);

  virtual ~Connection();

  // Replaces the handler; an empty one drops it (events are then dropped).
  void set_event_handler(EventHandler handler);
  // Starts event delivery. A connection accepted by a listener delivers
  // nothing, and is not even read, until its handler is set and resume() is
  // called; messages that arrived meanwhile are delivered then.
  void resume();
  // Stops event delivery at once (events already queued are dropped), closes
  // the socket and drops the handler. For a listener: stops accepting; the
  // socket file stays (the next start replaces it).
  void cancel();
  // Queues one message; never waits for the peer. Dropped once cancelled or
  // invalid.
  // What the socket does not take at once waits in the connection and is
  // written by the queue thread as the peer reads. More than 64 MiB waiting
  // means the peer does not read: the connection fails (connection-invalid).
  // A value encode_frame() cannot frame is not sent.
  void send_message(const Value& message);
  // The peer's credentials, taken when the connection was accepted. The pidfd
  // comes from the kernel with the credentials (SO_PEERPIDFD) where it can;
  // on older kernels it is opened by pid, which leaves a window in which a
  // client that exits at once may have its pid reused. For a listener: no
  // peer (-1 everywhere).
  const AuditToken& audit_token() const;

 protected:
  Connection() = default;
};

// Where listeners without a handed-over socket bind: "/run/krx" unless changed.
// Set it before creating listeners; it is not guarded against concurrent use.
void set_run_directory(std::string path);
const std::string& run_directory();

// Keep-alive transactions: while one is open, termination-imminent is held
// back. RAII form below.
//
// On SIGTERM (or SIGINT, SIGHUP) the facility delivers termination-imminent to every live
// connection (resumed, with a handler, not cancelled or failed), in the order
// they were made, then to the listener. While the transaction count is above
// zero that waits; it goes out when the count drops to zero, and if that
// happens inside a handler, after that handler returns. The facility does not
// end the process itself: that is the handlers' decision. An unmatched
// transaction_end() is ignored. Callable from any thread.
void transaction_begin();
void transaction_end();

class Transaction {
 public:
  Transaction() { transaction_begin(); }
  ~Transaction() { transaction_end(); }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
};

// Parks the calling (main) thread for good; the event queue does the work.
// Signals keep their dispositions: SIGTERM, SIGINT and SIGHUP are read by the queue, others act
// as they would.
[[noreturn]] void run_main_loop();

}  // namespace krx
