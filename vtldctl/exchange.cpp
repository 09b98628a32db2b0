#include "vtldctl/exchange.h"

#include <sys/un.h>

#include <cerrno>
#include <cstdint>
#include <variant>

#include <fmt/format.h>

#include "base/errors.h"
#include "base/path.h"
#include "base/service_name.h"
#include "krx/codec.h"
#include "krx/connection.h"
#include "vtldctl/exit_status.h"
#include "vtldctl/sim.h"

namespace vtldctl {
namespace {

using End = ExchangeResult::End;

// The longest path a Unix socket's address holds (its terminating NUL aside).
constexpr std::size_t kMaxSocketPath = sizeof(sockaddr_un::sun_path) - 1;

void show(const krx::Value& message, ExchangeResult& result, ReplyPrinter& printer) {
  const auto* dictionary = message.get<krx::Dictionary>();
  if (dictionary == nullptr || dictionary->size() != 1) return printer.message(message);
  const auto& [key, value] = dictionary->front();
  if (key == kResponseKey) {
    ++result.answered;
    const bool* passed = value.get<bool>();
    result.all_true = result.all_true && passed != nullptr && *passed;
    printer.response(value);
  } else if (const auto* percent = value.get<std::int64_t>(); key == kProgressKey && percent) {
    printer.progress(*percent);
  } else {
    printer.message(message);
  }
}

// Whether a connection failed because no helper listens at the path.
bool nothing_listens(const std::string& error) {
  return error == vtl::error_description(ENOENT) || error == vtl::error_description(ECONNREFUSED);
}

std::string seconds_text(std::chrono::milliseconds idle) {
  return fmt::format("{:g}", static_cast<double>(idle.count()) / 1000.0);
}

std::string partial_text(const ExchangeResult& result) {
  if (result.expected <= 1) return "";
  return fmt::format(" ({} of {} answers arrived)", result.answered, result.expected);
}

}  // namespace

ExchangeResult exchange(krx::Client& client, const krx::Value& request,
                        const ExchangeOptions& options, ReplyPrinter& printer) {
  ExchangeResult result;
  if (const auto* dictionary = request.get<krx::Dictionary>()) {
    result.expected = static_cast<int>(dictionary->size());
  }
  if (krx::encode_frame(request).empty()) {
    result.end = End::kUnframable;
    return result;
  }
  if (!client.send(request)) {
    result.end = End::kSendFailed;
    result.detail = "the request could not be written to the connection";
    return result;
  }
  while (result.answered < result.expected) {
    auto received = client.receive(options.idle);
    if (auto* message = std::get_if<krx::Client::Message>(&received)) {
      show(message->value, result, printer);
    } else if (std::holds_alternative<krx::Client::Closed>(received)) {
      printer.finish_bar();
      if (options.ends_helper) {
        printer.ended_by_command();
        return result;
      }
      result.end = End::kClosed;
      return result;
    } else if (std::holds_alternative<krx::Client::Timeout>(received)) {
      result.end = End::kTimedOut;
      return result;
    } else {
      result.end = End::kMalformed;
      result.detail = std::get<krx::Client::Malformed>(received).reason;
      return result;
    }
  }
  printer.finish_bar();
  return result;
}

int exit_status(const ExchangeResult& result) {
  switch (result.end) {
    case End::kAnswered:
      return result.all_true ? kExitSuccess : kExitFailed;
    case End::kUnframable:
      return kExitUsage;
    case End::kSendFailed:
    case End::kClosed:
    case End::kTimedOut:
    case End::kMalformed:
      break;
  }
  return kExitNoAnswer;
}

std::string failure_message(const ExchangeResult& result, std::chrono::milliseconds idle) {
  switch (result.end) {
    case End::kAnswered:
      return "";
    case End::kUnframable:
      return fmt::format(
          "vtldctl: the request cannot be sent as one KRX message (values nest deeper than {} "
          "levels or it is larger than {} MiB)",
          krx::kMaxDepth, krx::kMaxFrameSize >> 20);
    case End::kSendFailed:
      return "vtldctl: sending to the helper failed: " + result.detail;
    case End::kClosed:
      return "vtldctl: the helper ended the connection before replying" + partial_text(result);
    case End::kTimedOut:
      return fmt::format(
          "vtldctl: no reply from the helper within {} s{}; the helper sends none to a client "
          "without the entitlement \"com.tessal.private.vantrel.vantreld\" nor for a command it "
          "does not know: its log says which",
          seconds_text(idle), partial_text(result));
    case End::kMalformed:
      return "vtldctl: the helper sent a malformed message: " + result.detail;
  }
  return "";
}

HelperAddress helper_address(const std::string& root, const std::string& socket) {
  if (!root.empty()) {
    return {device_socket_path(root),
            "start the device's helper with `vtld_helper --root " + root + "` (as root)"};
  }
  if (!socket.empty()) return {socket, "start the helper that serves this socket"};
  return {vtl::join(krx::run_directory(), vtl::kServiceName),
          "start the helper with `systemctl start vtld_helper.socket` (or run vtld_helper as "
          "root)"};
}

std::string socket_path_problem(const std::string& socket_path) {
  if (socket_path.size() <= kMaxSocketPath) return "";
  return fmt::format("the socket path {} is {} bytes, longer than the {} a socket's address holds",
                     socket_path, socket_path.size(), kMaxSocketPath);
}

int run_request(const HelperAddress& address, const krx::Value& request,
                const ExchangeOptions& options, ReplyPrinter& printer) {
  if (const std::string problem = socket_path_problem(address.socket_path); !problem.empty()) {
    printer.note("vtldctl: cannot reach the helper: " + problem);
    return kExitUsage;
  }
  std::string error;
  auto client = krx::Client::connect_path(address.socket_path, &error);
  if (!client) {
    // The client's reason may restate the path; say it once.
    const std::string restated = "cannot connect to " + address.socket_path + ": ";
    if (error.starts_with(restated)) error.erase(0, restated.size());
    printer.note(
        fmt::format("vtldctl: cannot reach the helper at {}: {}", address.socket_path, error));
    if (nothing_listens(error)) {
      printer.note("vtldctl: nothing is listening there; " + address.how_to_start);
    }
    return kExitNoAnswer;
  }
  const ExchangeResult result = exchange(*client, request, options, printer);
  if (const std::string message = failure_message(result, options.idle); !message.empty()) {
    printer.note(message);
  }
  return exit_status(result);
}

}  // namespace vtldctl
