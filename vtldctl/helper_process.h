// A vtld_helper that its own client starts: vtldctl's demo, the benches and
// the tests all start it here, so that it always starts the same way (the
// tests start vtldctl itself here too). Started with given arguments,
// standard streams and environment (and, as a service launcher does,
// optionally with its listening socket handed over), waited for until it
// serves, stopped as the service launcher stops it (SIGTERM).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "krx/client.h"

namespace vtldctl {

// Where one of the helper's standard output streams goes.
struct HelperStream {
  enum class To { kNull, kMemory, kFile };
  To to = To::kNull;
  std::string path;  // kFile: appended to, made (0644) when missing

  static HelperStream null() { return {}; }
  // Kept for HelperProcess::output(); both streams share one when both go there.
  static HelperStream memory() { return {To::kMemory, ""}; }
  static HelperStream file(std::string path) { return {To::kFile, std::move(path)}; }
};

// A listening socket handed over as a service launcher hands it: as
// descriptor 3, with LISTEN_FDS=1, LISTEN_PID naming the helper and
// LISTEN_FDNAMES=`name`.
struct HandedOverSocket {
  int fd = -1;
  std::string name;
};

// How to start the helper.
struct HelperStart {
  std::string program;
  std::vector<std::string> arguments;  // after the program's own name
  std::string input;                   // the file standard input reads; /dev/null when empty
  HelperStream output = HelperStream::null();
  HelperStream errors = HelperStream::null();
  // "NAME=value" entries over the inherited environment (replacing a
  // variable of the same name).
  std::vector<std::string> environment;
  std::optional<HandedOverSocket> socket;
  // An aborting helper leaves a core file only when this is set.
  bool core_file = true;
};

class HelperProcess {
 public:
  // Starts the helper as `how` says. nullopt and `error` set when it cannot
  // start (the program cannot be run, a stream cannot be opened).
  static std::optional<HelperProcess> start(const HelperStart& how, std::string* error);
  // Starts `helper_path --root root` with standard output and error kept in
  // memory (they are the helper's system log on a simulated device).
  static std::optional<HelperProcess> start(const std::string& helper_path, const std::string& root,
                                            std::string* error);

  HelperProcess(HelperProcess&& other) noexcept;
  // Ends (as the destructor does) the helper this one held.
  HelperProcess& operator=(HelperProcess&& other) noexcept;
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
  // Waits until a socket is at `socket_path`, without connecting (a
  // connection would be in the helper's log); false when the helper ended
  // first (running() then says so) or `limit` passed.
  bool wait_for_socket(const std::string& socket_path, std::chrono::milliseconds limit);

  // Whether the helper has not ended yet.
  bool running() { return !reap(false); }
  // Waits up to `limit` for the helper to end by itself; its wait status, or
  // nullopt when it still runs.
  std::optional<int> wait(std::chrono::milliseconds limit);
  // Sends SIGTERM and waits up to `limit`; returns the wait status, or
  // nullopt when the helper had to be killed.
  std::optional<int> stop(std::chrono::milliseconds limit);

  // Everything the helper wrote to the streams kept in memory so far.
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
