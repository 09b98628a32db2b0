// Test support: temporary directories, simulated devices, and the real
// vtld_helper serving one over its socket.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <initializer_list>
#include <optional>
#include <ostream>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "krx/client.h"
#include "krx/value.h"
#include "vtldctl/helper_process.h"

namespace krx {
// Readable failure messages for KRX values in assertions.
void PrintTo(const Value& value, std::ostream* out);
}  // namespace krx

namespace testsupport {

// A fresh directory under $TMPDIR (or /tmp), removed with everything in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& rel) const { return path_ + "/" + rel; }

 private:
  std::string path_;
};

// Absolute path of a built program (vtld_helper, vtldctl) in the build tree.
std::string program_path(const std::string& name);
// Absolute path of the running test executable, as the kernel reports it.
std::string self_executable();

// A simulated device in a temporary directory with the running test program
// entitled as a client, and the real helper serving it.
class Device {
 public:
  Device();   // creates the device; does not start the helper
  ~Device();  // stops the helper (SIGKILL if it does not end) and removes the device

  const std::string& root() const { return dir_.path(); }
  std::string path(const std::string& device_path) const { return root() + device_path; }
  std::string socket_path() const;

  // Starts vtld_helper --root on the device (with `extra_args`) and waits for
  // its socket. Standard error of the helper (its system log) is captured.
  void start(const std::vector<std::string>& extra_args = {});
  // Starts the helper the way a service launcher does on a client's first
  // connection: `listening_fd` handed over as descriptor 3 (LISTEN_FDS). Does
  // not wait: the socket already exists.
  void start_activated(int listening_fd);
  bool running();
  // Sends SIGTERM and waits; returns the wait status.
  int terminate();
  // Waits for the helper to end by itself; nullopt on time-out.
  std::optional<int> wait_exit(std::chrono::milliseconds timeout);
  pid_t pid() const { return helper_ ? helper_->pid() : -1; }

  // What the helper wrote to its system log (standard error) so far.
  std::string system_log() const;
  // Waits until the system log contains `text`; false on time-out.
  bool wait_for_log(const std::string& text,
                    std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
  // Today's log file content ("" when absent).
  std::string log_file() const;

  krx::Client connect() const;

 private:
  // Starts the helper on the device, its system log appended to stderr_path_.
  void launch(const std::vector<std::string>& extra_args,
              std::optional<vtldctl::HandedOverSocket> socket);

  TempDir dir_;
  std::string stderr_path_;
  std::optional<vtldctl::HelperProcess> helper_;
};

// A KRX dictionary of `entries`, in the order given: requests and replies.
krx::Value dict(std::initializer_list<std::pair<std::string, krx::Value>> entries);

// A Unix socket of `type` bound at `path` (a launcher's listening socket, a
// syslog or service manager's socket); -1 when it cannot be made.
int bound_unix_socket(int type, const std::string& path);
// The next datagram on `fd`; "" when none comes within `limit`.
std::string receive_datagram(int fd, std::chrono::milliseconds limit = std::chrono::seconds(10));

// Sends `bytes` on the connected `socket` with the descriptor `passed`
// attached, as a client may; whether all of them went.
bool send_with_descriptor(int socket, std::span<const std::uint8_t> bytes, int passed);

// Sends one request and collects messages until `responses` "Response"
// messages arrived or nothing came for `idle`. Returns everything received.
std::vector<krx::Value> request(krx::Client& client, const krx::Value& message, int responses = 1,
                                std::chrono::milliseconds idle = std::chrono::seconds(10));

}  // namespace testsupport
