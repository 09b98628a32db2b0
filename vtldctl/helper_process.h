// A vtld_helper that vtldctl starts itself (for the demo): started on a
// simulated device, waited for until it serves, stopped as the service
// launcher stops it (SIGTERM).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

#include "krx/client.h"

namespace vtldctl {

class HelperProcess {
 public:
  // Starts `helper_path --root root` with standard input from /dev/null and
  // standard output and error kept in memory (they are the helper's system
  // log on a simulated device). nullopt and `error` set when it cannot start.
  static std::optional<HelperProcess> start(const std::string& helper_path, const std::string& root,
                                            std::string* error);

  HelperProcess(HelperProcess&& other) noexcept;
  HelperProcess& operator=(HelperProcess&&) = delete;
  HelperProcess(const HelperProcess&) = delete;
  HelperProcess& operator=(const HelperProcess&) = delete;
  // Kills (SIGKILL) and reaps a helper still running: none is left behind.
  ~HelperProcess();

  // Connects to `socket_path` as soon as the helper serves it. nullopt and
  // `error` set when the helper exits first (its standard error is in the
  // message) or `limit` passes.
  std::optional<krx::Client> wait_until_serving(const std::string& socket_path,
                                                std::chrono::milliseconds limit,
                                                std::string* error);

  // Sends SIGTERM and waits up to `limit`; returns the wait status, or
  // nullopt when the helper had to be killed.
  std::optional<int> stop(std::chrono::milliseconds limit);

  // Everything the helper wrote to standard output and error so far.
  std::string output() const;
  pid_t pid() const { return pid_; }

 private:
  HelperProcess(pid_t pid, int output_fd) : pid_(pid), output_fd_(output_fd) {}
  // Reaps the helper if it has ended; true then (and sets status_).
  bool reap(bool wait);

  pid_t pid_ = -1;
  int output_fd_ = -1;
  std::optional<int> status_;
};

// "exited with status 0", "was killed by signal 9 (Killed)".
std::string wait_status_text(int status);

}  // namespace vtldctl
