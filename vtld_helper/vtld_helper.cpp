#include "vtld_helper/vtld_helper.h"

#include <cstdlib>
#include <string>

#include "base/VTLLog.h"
#include "base/VTLLogModel.h"
#include "service/VTLHMessageResponder.h"
#include "vtl_version.h"

namespace vtl {
namespace {

// The one listener of the process: created once, never released.
std::shared_ptr<krx::Connection> g_listener;

// Reports a broken invariant the way the platform's assertion handler does,
// then aborts. A client connection carries dictionaries and nothing else; a
// message of another type means the facility itself is not what we think.
[[noreturn]] void assertion_failed(const char* function, const char* file, int line,
                                   const char* expression) {
  VTLLog("Assertion failed: (%s), function %s, file %s, line %d.", expression, function, file,
         line);
  std::abort();
}

}  // namespace

int VTLH_start_listener() {
  if (g_listener) return 0;
  std::string why;
  g_listener = krx::Connection::create_mach_service(kServiceName, krx::kConnectionListener, &why);
  if (!g_listener) {
    VTLLog("Could not create KRX listener.");
    // Why, for the operator, beside the system's own line.
    VTLLogModel::sharedInstance().logToSystem(LogPriority::kError,
                                              "Could not create KRX listener: " + why);
    std::exit(1);
  }
  g_listener->set_event_handler(VTLH_handle_listener_event);
  // Ready before the first connection is served: the listener already takes
  // connections, and once resumed, its queue may serve one before this
  // thread runs again.
  VTLHMessageResponder::sharedInstance().reportReady();
  g_listener->resume();
  return 0;
}

void VTLH_handle_listener_event(const krx::Event& event) {
  if (event.type() == krx::Type::Connection) {
    VTLLog("It's an KRX_TYPE_CONNECTION");
    VTLH_handle_connection(event.new_connection());
    return;
  }
  if (event.is_error(krx::ErrorKind::TerminationImminent)) {
    VTLLog("KRX connection will be closed");
    std::exit(0);
  }
  if (event.is_error(krx::ErrorKind::ConnectionInvalid)) {
    VTLLog("No KRX connection, exiting");
    std::exit(0);
  }
  VTLLog("Got KRX error on listener connection: %s", event.error_description());
  g_listener->cancel();
  std::exit(1);
}

void VTLH_handle_connection(const std::shared_ptr<krx::Connection>& connection) {
  VTLLog("Start to deal with new connection");
  // The handler keeps its connection alive for as long as the facility keeps
  // the handler.
  connection->set_event_handler([connection](const krx::Event& event) {
    VTLTrace("Checking the type");
    if (event.type() == krx::Type::Error) {
      VTLTrace("It's an KRX_TYPE_ERROR");
      if (event.is_error(krx::ErrorKind::ConnectionInvalid)) {
        VTLLog("KRX disconnected by client");
        VTLHMessageResponder::sharedInstance().setConnection(nullptr);
      } else if (event.is_error(krx::ErrorKind::TerminationImminent)) {
        VTLLog("KRX connection will be closed");
      }
      return;
    }
    VTLLog("Received an KRX request?");
    if (event.type() != krx::Type::Dictionary) {
      assertion_failed("__VTLH_handle_connection_block_invoke", "vtld_helper/vtld_helper", 65,
                       "type == KRX_TYPE_DICTIONARY");
    }
    VTLLog("VTLH: Received a KRX request");
    VTLHMessageResponder& responder = VTLHMessageResponder::sharedInstance();
    responder.setConnection(connection);
    responder.handleKRXMessage(event.message());
    VTLLog("Message handled");
  });
  connection->resume();
}

void VTLH_main(const char* program_path) {
  // The start line carries the version to the system log.
  VTLLogModel& log = VTLLogModel::sharedInstance();
  log.setContextFields({{"VTL_VERSION", VTL_VERSION}});
  VTLLog("%s started", program_path);
  log.setContextFields({});
  // Without file logging the helper still serves; its lines then reach only
  // the system log.
  static_cast<void>(VTLLogModel::sharedInstance().enableLogToFilesUnder_prefix_expireDays(
      "/private/var/logs/vtld", "vtld_helper", 5));
  VTLH_start_listener();
  krx::run_main_loop();
}

}  // namespace vtl
