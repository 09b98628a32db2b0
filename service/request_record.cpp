#include "service/request_record.h"

#include <algorithm>
#include <string>
#include <vector>

#include "base/VTLLogModel.h"

namespace vtl {
namespace {

constexpr std::string_view kWaiting = "Waiting for requests";
// Longer names are cut: the name is the client's to choose.
constexpr std::size_t kMaxRequestName = 80;

// A request name the client chose, made safe for one log line.
std::string printable(std::string_view text) {
  std::string out;
  for (const char c : text.substr(0, kMaxRequestName)) {
    out += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c;
  }
  if (text.size() > kMaxRequestName) out += "...";
  return out;
}

std::string_view result_name(RequestRecord::Outcome outcome) {
  switch (outcome) {
    case RequestRecord::Outcome::kPassed:
      return "passed";
    case RequestRecord::Outcome::kFailed:
      return "failed";
    case RequestRecord::Outcome::kRefused:
      return "refused";
    case RequestRecord::Outcome::kUnanswered:
      return "unanswered";
  }
  return "unknown";
}

LogPriority priority_of(RequestRecord::Outcome outcome) {
  switch (outcome) {
    case RequestRecord::Outcome::kPassed:
      return LogPriority::kInfo;
    case RequestRecord::Outcome::kFailed:
      return LogPriority::kError;
    case RequestRecord::Outcome::kRefused:
    case RequestRecord::Outcome::kUnanswered:
      return LogPriority::kWarning;
  }
  return LogPriority::kInfo;
}

std::vector<LogField> client_fields(std::string_view request, const krx::AuditToken* client) {
  std::vector<LogField> fields = {{"VTL_REQUEST", std::string(request)}};
  if (client != nullptr) {
    fields.push_back({"VTL_CLIENT_PID", std::to_string(client->pid)});
    fields.push_back({"VTL_CLIENT_UID", std::to_string(client->uid)});
    if (!client->executable.empty()) fields.push_back({"VTL_CLIENT_EXE", client->executable});
  }
  return fields;
}

}  // namespace

RequestRecord::RequestRecord(platform::ServiceManager* manager, const krx::AuditToken* client,
                             std::string_view request)
    : manager_(manager),
      request_(printable(request)),
      client_(describe(client)),
      start_(std::chrono::steady_clock::now()) {
  VTLLogModel::sharedInstance().setContextFields(client_fields(request_, client));
  status("Serving " + request_ + " for " + client_);
}

RequestRecord::~RequestRecord() {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                      std::chrono::steady_clock::now() - start_)
                      .count();
  std::string line =
      "Request " + request_ + " from " + client_ + " " + std::string(result_name(outcome_));
  line += why_.empty() ? " in " + std::to_string(ms) + " ms" : ": " + why_;
  const LogField fields[] = {{"VTL_RESULT", std::string(result_name(outcome_))},
                             {"VTL_DURATION_MS", std::to_string(ms)}};
  VTLLogModel& log = VTLLogModel::sharedInstance();
  log.logToSystem(priority_of(outcome_), line, fields);
  log.setContextFields({});
  status(kWaiting);
}

void RequestRecord::set_outcome(Outcome outcome, std::string_view why) {
  if (outcome_ == Outcome::kRefused) return;
  outcome_ = outcome;
  why_ = why;
}

void RequestRecord::progress(std::int64_t percent) const {
  // The share the client is told may run past 100 (it counts what the walk
  // meets against an estimate); the status line says no more than done.
  status("Serving " + request_ + " for " + client_ + ": " +
         std::to_string(std::min<std::int64_t>(percent, 100)) + "%");
}

std::string RequestRecord::describe(const krx::AuditToken* client) {
  if (client == nullptr) return "an unknown client";
  return "pid " + std::to_string(client->pid) + " (uid " + std::to_string(client->uid) + ", " +
         (client->executable.empty() ? "executable unknown" : client->executable) + ")";
}

void RequestRecord::status(std::string_view text) const {
  if (manager_ != nullptr) manager_->status(text);
}

void report_ready(platform::ServiceManager* manager) {
  if (manager != nullptr) manager->ready(kWaiting);
}

}  // namespace vtl
