// One request as an operator sees it, beside the system's own log lines: who
// asked for what, how it ended and how long it took, as one line in the
// system log with fields (request, client pid, uid and executable, result,
// duration), and as the service manager's status line while it runs.
//
// While a record is alive, every message the helper logs carries the
// request's fields to the system log, so that one client's requests can be
// picked out of the journal. Requests are served one at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "krx/connection.h"
#include "platform/service_manager.h"

namespace vtl {

class RequestRecord {
 public:
  enum class Outcome {
    kPassed,      // answered true
    kFailed,      // answered false
    kRefused,     // the client may not have it done: no answer, or false
    kUnanswered,  // not a request the helper knows: no answer
  };

  // `client` is the requester's identity (nullptr: unknown); `manager` may be
  // nullptr.
  RequestRecord(platform::ServiceManager* manager, const krx::AuditToken* client,
                std::string_view request);
  // Writes the closing line and tells the manager the helper waits again.
  ~RequestRecord();
  RequestRecord(const RequestRecord&) = delete;
  RequestRecord& operator=(const RequestRecord&) = delete;

  // The outcome so far; a refusal stands whatever is set after it.
  void set_outcome(Outcome outcome, std::string_view why = {});
  // The share of a long request done so far, for the status line.
  void progress(std::int64_t percent) const;

  // "pid 4242 (uid 501, /usr/bin/vtld)": the client as the kernel named it.
  static std::string describe(const krx::AuditToken* client);

 private:
  void status(std::string_view text) const;

  platform::ServiceManager* manager_;
  std::string request_;
  std::string client_;
  std::chrono::steady_clock::time_point start_;
  Outcome outcome_ = Outcome::kPassed;
  std::string why_;
};

// Tells the manager (when there is one) that the helper serves its socket.
void report_ready(platform::ServiceManager* manager);

}  // namespace vtl
