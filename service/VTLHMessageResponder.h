// VTLHMessageResponder: the helper's single request dispatcher and its only way
// of answering.
//
// A request is a dictionary whose keys name commands ("prepareWorkContainer:")
// and whose values are their parameters. The responder checks the sender's
// entitlement, converts the request, runs one command per key and answers each
// with one "Response" message. Long commands also send "Progress" messages
// through it.
//
// Threads: called only on the KRX event queue, one request at a time. It keeps
// a single current connection, overwritten per request: the helper serves one
// client (vtld) at a time, and replies go to whoever sent the request being
// served.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "base/value.h"
#include "krx/connection.h"
#include "krx/value.h"
#include "partition/resize.h"
#include "platform/code_signing.h"
#include "platform/service_manager.h"
#include "service/request_record.h"

namespace vtl {

class VTLHMessageResponder {
 public:
  static VTLHMessageResponder& sharedInstance();

  // What the responder is handed once at start-up: the code signing that
  // identifies clients (none: no client is entitled), and the storage roles
  // the partition commands resize with.
  struct Environment {
    platform::CodeSigning* code_signing = nullptr;
    StorageRoles storage;
    // Told when the helper serves and what it serves (none: nobody is told).
    platform::ServiceManager* service_manager = nullptr;
  };
  void setUp(const Environment& environment) { environment_ = environment; }

  // Whether the peer of the current connection holds
  // "com.tessal.private.vantrel.vantreld" set to true.
  bool hasEntitlementVantreld();
  // Runs one request. An unentitled sender gets no reply of any kind.
  void handleKRXMessage(const krx::Value& message);
  // Tells the service manager that the helper now serves its socket.
  void reportReady() const { report_ready(environment_.service_manager); }

  void sendPassResponse();
  void sendFailResponse();
  void sendProgress(std::int64_t percent);
  void sendData(std::span<const std::uint8_t> bytes);

  // The commands. Each logs its entry, unpacks its parameter and returns the
  // result of the operation it calls.
  bool migratePreferencesFile(const Value& parameter);
  bool prepareLogContainer(const Value& parameter);
  bool prepareWorkContainer(const Value& parameter);
  bool removeWorkContainer(const Value& parameter);
  bool deleteNvram(const Value& parameter);
  bool writeNvram(const Value& parameter);
  bool reboot(const Value& parameter);
  bool quitHelper(const Value& parameter);
  bool createDeviceManifest(const Value& parameter);
  bool createHardLink(const Value& parameter);
  bool shrinkDataPartition(const Value& parameter);
  bool expandDataPartition(const Value& parameter);
  bool restoreAttributes(const Value& parameter);
  bool moveStagingToFinal(const Value& parameter);

  // The connection replies go to. Weak: the responder never keeps a client's
  // connection alive; replies due after the client has gone are dropped.
  std::shared_ptr<krx::Connection> connection() const { return connection_.lock(); }
  void setConnection(const std::shared_ptr<krx::Connection>& connection) {
    connection_ = connection;
  }

  static constexpr std::string_view kClassName = "VTLHMessageResponder";

 private:
  VTLHMessageResponder() = default;
  void send(std::string key, krx::Value value);
  void serve(const krx::Value& message, RequestRecord& record);
  // Whether `path`, given to `command` (under `parameter`, "" for the value
  // itself), lies where that command may act (confinement.h); logs the
  // refusal under `method` when it does not. An absent path is left to the
  // operation.
  bool confined(const char* method, std::string_view command, std::string_view parameter,
                const std::string* path);
  // Notes a refusal on the request being served.
  void refused(std::string_view why);

  std::weak_ptr<krx::Connection> connection_;
  Environment environment_;
  // The request being served, while one is.
  RequestRecord* record_ = nullptr;
};

}  // namespace vtl
