#include "vtldctl/helper_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <thread>
#include <utility>
#include <vector>

#include <fmt/format.h>

extern char** environ;  // NOLINT(readability-redundant-declaration): POSIX leaves it undeclared

namespace vtldctl {

namespace {
constexpr auto kPollInterval = std::chrono::milliseconds(20);
}  // namespace

std::optional<HelperProcess> HelperProcess::start(const std::string& helper_path,
                                                  const std::string& root, std::string* error) {
  // Memory, not a pipe: nobody reads while the helper runs, and a pipe that
  // fills up would stall it.
  const int output_fd = ::memfd_create("vtld_helper-output", MFD_CLOEXEC);
  if (output_fd < 0) {
    *error = fmt::format("cannot keep the helper's output: {}", std::strerror(errno));
    return std::nullopt;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, output_fd, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output_fd, STDERR_FILENO);
  std::vector<std::string> args = {helper_path, "--root", root};
  std::vector<char*> argv;
  argv.reserve(args.size() + 1);
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  const int rc = ::posix_spawn(&pid, helper_path.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    ::close(output_fd);
    *error = fmt::format("cannot start {}: {}", helper_path, std::strerror(rc));
    return std::nullopt;
  }
  return HelperProcess(pid, output_fd);
}

HelperProcess::HelperProcess(HelperProcess&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)),
      output_fd_(std::exchange(other.output_fd_, -1)),
      status_(std::exchange(other.status_, std::nullopt)) {}

HelperProcess::~HelperProcess() {
  if (pid_ > 0 && !status_) {
    ::kill(pid_, SIGKILL);
    reap(true);
  }
  if (output_fd_ >= 0) ::close(output_fd_);
}

bool HelperProcess::reap(bool wait) {
  if (status_) return true;
  int status = 0;
  pid_t rc = -1;
  do {
    rc = ::waitpid(pid_, &status, wait ? 0 : WNOHANG);
  } while (rc < 0 && errno == EINTR);
  if (rc != pid_) return false;
  status_ = status;
  return true;
}

std::optional<krx::Client> HelperProcess::wait_until_serving(const std::string& socket_path,
                                                             std::chrono::milliseconds limit,
                                                             std::string* error) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  std::string last_error;
  for (;;) {
    if (reap(false)) {
      *error = fmt::format("the helper {} before serving; what it wrote:\n{}",
                           wait_status_text(*status_), output());
      return std::nullopt;
    }
    if (auto client = krx::Client::connect_path(socket_path, &last_error)) return client;
    if (std::chrono::steady_clock::now() >= deadline) {
      *error = fmt::format("the helper did not serve {} within {} s ({}); what it wrote:\n{}",
                           socket_path, limit.count() / 1000, last_error, output());
      return std::nullopt;
    }
    std::this_thread::sleep_for(kPollInterval);
  }
}

std::optional<int> HelperProcess::stop(std::chrono::milliseconds limit) {
  if (!status_) ::kill(pid_, SIGTERM);
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!reap(false)) {
    if (std::chrono::steady_clock::now() >= deadline) {
      ::kill(pid_, SIGKILL);
      reap(true);
      return std::nullopt;
    }
    std::this_thread::sleep_for(kPollInterval);
  }
  return status_;
}

std::string HelperProcess::output() const {
  std::string text;
  char buffer[4096];
  off_t offset = 0;
  for (;;) {
    const ssize_t n = ::pread(output_fd_, buffer, sizeof buffer, offset);
    if (n <= 0) break;
    text.append(buffer, static_cast<std::size_t>(n));
    offset += n;
  }
  return text;
}

std::string wait_status_text(int status) {
  if (WIFEXITED(status)) return fmt::format("exited with status {}", WEXITSTATUS(status));
  if (WIFSIGNALED(status)) {
    return fmt::format("was killed by signal {} ({})", WTERMSIG(status),
                       strsignal(WTERMSIG(status)));
  }
  return fmt::format("ended with wait status {:#x}", status);
}

}  // namespace vtldctl
