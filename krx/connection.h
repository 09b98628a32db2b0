// KRX connections off the handset: a listener for a named service, the client
// connections it accepts, their events, and one serial event queue.
//
// Threads: every handler of every connection runs on one process-wide serial
// queue (a thread of the facility's own, started by the first resume()). An
// event is handled to completion, sends included, before the next is taken.
// send_message() may be called from any thread.
#pragma once

#include <sys/types.h>

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
  TerminationImminent,  // the process is asked to end (SIGTERM)
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
};

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
  // other thread starts: it arranges for SIGTERM to reach the event queue.
  static std::shared_ptr<Connection> create_mach_service(std::string_view service_name,
                                                         std::uint64_t flags);
  // A connection over an already-connected stream socket (takes ownership).
  static std::shared_ptr<Connection> from_socket(int fd);

  virtual ~Connection();

  void set_event_handler(EventHandler handler);
  void resume();
  void cancel();
  // Queues one message; never waits for the peer. Dropped once cancelled or
  // invalid.
  void send_message(const Value& message);
  const AuditToken& audit_token() const;

 protected:
  Connection() = default;
};

// Where listeners without a handed-over socket bind: "/run/krx" unless changed.
void set_run_directory(std::string path);
const std::string& run_directory();

// Keep-alive transactions: while one is open, termination-imminent is held
// back. RAII form below.
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
[[noreturn]] void run_main_loop();

}  // namespace krx
