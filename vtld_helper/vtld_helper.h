// The helper's entry and its attachment to KRX: the listener for
// "com.tessal.vantreldhelper" and the handler of each client connection.
#pragma once

#include <memory>

#include "base/service_name.h"
#include "krx/connection.h"

namespace vtl {

// Creates, configures and resumes the listener; returns 0. Once a listener
// exists, returns 0 and does nothing else. Ends the process with status 1 when
// the listener cannot be created.
int VTLH_start_listener();
// The listener's event handler: accepts every connection; ends the process on
// any listener error (status 0 for termination-imminent and connection-invalid,
// 1 for anything else).
void VTLH_handle_listener_event(const krx::Event& event);
// Installs the per-connection handler on a newly accepted connection and
// resumes it.
void VTLH_handle_connection(const std::shared_ptr<krx::Connection>& connection);

// The entry proper, after the platform is in place: log the start, turn on
// file logging, listen, and park the main thread for good.
[[noreturn]] void VTLH_main(const char* program_path);

}  // namespace vtl
