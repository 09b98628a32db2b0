// One request to the helper and its answers.
//
// The helper answers every command of a request with one "Response" (true or
// false), in the order it runs them, and may send "Progress" before a
// command's answer. Answers carry no command name, so they can only be shown
// in order. The helper says nothing at all to a client without the
// entitlement, nor for a command it does not know (and drops the rest of that
// request): only the idle time-out notices, so its message says where to look.
#pragma once

#include <chrono>
#include <string>

#include "krx/client.h"
#include "krx/value.h"
#include "vtldctl/reply_printer.h"

namespace vtldctl {

struct ExchangeOptions {
  // Time allowed between two messages from the helper; progress restarts it.
  std::chrono::milliseconds idle{std::chrono::seconds(30)};
  // The command ends the helper instead of answering: the connection ending
  // completes it.
  bool ends_helper = false;
};

struct ExchangeResult {
  enum class End {
    kAnswered,    // every expected answer arrived
    kUnframable,  // the request cannot be one KRX message; nothing was sent
    kSendFailed,
    kClosed,
    kTimedOut,
    kMalformed,
  };
  End end = End::kAnswered;
  int expected = 0;  // one answer per key of the request
  int answered = 0;
  bool all_true = true;  // every answer that arrived was true
  std::string detail;    // what went wrong, for kSendFailed and kMalformed
};

// Sends `request` (a dictionary) on `client` and shows every message until
// each key is answered, the connection ends, or the helper stays silent for
// `options.idle`.
ExchangeResult exchange(krx::Client& client, const krx::Value& request,
                        const ExchangeOptions& options, ReplyPrinter& printer);

// The exit status for a result (see exit_status.h).
int exit_status(const ExchangeResult& result);
// The error line for a result that did not end with every answer, starting
// "vtldctl: "; empty when every answer arrived.
std::string failure_message(const ExchangeResult& result, std::chrono::milliseconds idle);

// Where the helper is, and how to start it when nothing listens there.
struct HelperAddress {
  std::string socket_path;
  std::string how_to_start;  // e.g. "start the device's helper with `vtld_helper --root D`"
};

// The helper of the device at `root` (when not empty), else the one at
// `socket` (when not empty), else the host's.
HelperAddress helper_address(const std::string& root, const std::string& socket);

// Why `socket_path` cannot name a socket (it is longer than one holds), or "".
std::string socket_path_problem(const std::string& socket_path);

// Connects to the helper at `address`, runs one exchange, prints what
// happened and returns the exit status.
int run_request(const HelperAddress& address, const krx::Value& request,
                const ExchangeOptions& options, ReplyPrinter& printer);

}  // namespace vtldctl
