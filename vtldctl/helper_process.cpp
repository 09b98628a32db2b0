#include "vtldctl/helper_process.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <limits>
#include <thread>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "base/errors.h"

extern char** environ;  // NOLINT(readability-redundant-declaration): POSIX leaves it undeclared

namespace vtldctl {

namespace {

constexpr auto kPollInterval = std::chrono::milliseconds(20);
// Where a service launcher puts the first socket it hands over.
constexpr int kHandedOverDescriptor = 3;
constexpr const char* kListenPid = "LISTEN_PID=";

std::string variable_name(const std::string& entry) { return entry.substr(0, entry.find('=') + 1); }

// The inherited environment with `extra` ("NAME=value") over it.
std::vector<std::string> environment_with(const std::vector<std::string>& extra) {
  std::vector<std::string> result = extra;
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string entry = *e;
    const bool replaced = std::ranges::any_of(
        extra, [&](const std::string& own) { return variable_name(own) == variable_name(entry); });
    if (!replaced) result.push_back(entry);
  }
  return result;
}

std::vector<char*> pointers_to(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  pointers.reserve(strings.size() + 1);
  for (std::string& s : strings) pointers.push_back(s.data());
  pointers.push_back(nullptr);
  return pointers;
}

// Writes `number` in decimal at `out`, ended by a NUL. Allocates nothing:
// it runs between fork and exec.
void write_decimal(char* out, long number) {
  std::array<char, 24> digits{};
  std::size_t count = 0;
  do {
    digits[count++] = static_cast<char>('0' + number % 10);
    number /= 10;
  } while (number > 0);
  while (count > 0) *out++ = digits[--count];
  *out = '\0';
}

// Everything the helper's process needs, made before fork: between fork and
// exec only async-signal-safe calls are allowed, since the caller may run
// other threads. Closes what it opened, bar the memory it hands on.
class Launch {
 public:
  explicit Launch(const HelperStart& how);
  ~Launch();
  Launch(const Launch&) = delete;
  Launch& operator=(const Launch&) = delete;

  // Opens the standard streams; "" or why they cannot be opened.
  std::string open_streams();
  // In the child: takes its streams, socket and environment and runs the
  // program; on failure reports errno on `report` and exits with 127.
  [[noreturn]] void become_helper(int report);
  // The memory kept for the helper's output (or -1), now the caller's.
  int take_memory() {
    memory_kept_ = true;
    return memory_;
  }

 private:
  int open_stream(const HelperStream& stream, std::string* error);
  void add_socket_variables();

  const HelperStart& how_;
  std::vector<std::string> arguments_;
  std::vector<std::string> environment_;
  std::vector<char*> argv_;
  std::vector<char*> envp_;
  char* listen_pid_ = nullptr;  // the digits of LISTEN_PID, written in the child
  std::array<int, 3> streams_ = {-1, -1, -1};
  int memory_ = -1;
  bool memory_kept_ = false;
};

Launch::Launch(const HelperStart& how)
    : how_(how), arguments_{how.program}, environment_(environment_with(how.environment)) {
  arguments_.insert(arguments_.end(), how.arguments.begin(), how.arguments.end());
  if (how.socket) add_socket_variables();
  argv_ = pointers_to(arguments_);
  envp_ = pointers_to(environment_);
  // LISTEN_PID, added last.
  if (how.socket) listen_pid_ = environment_.back().data() + std::strlen(kListenPid);
}

Launch::~Launch() {
  for (int fd : streams_) {
    if (fd >= 0 && fd != memory_) ::close(fd);
  }
  if (memory_ >= 0 && !memory_kept_) ::close(memory_);
}

void Launch::add_socket_variables() {
  std::erase_if(environment_,
                [](const std::string& entry) { return entry.starts_with("LISTEN_"); });
  environment_.push_back("LISTEN_FDS=1");
  environment_.push_back("LISTEN_FDNAMES=" + how_.socket->name);
  // Room for the helper's process id, known only in the child.
  environment_.push_back(kListenPid + std::string(std::numeric_limits<pid_t>::digits10 + 1, ' '));
}

int Launch::open_stream(const HelperStream& stream, std::string* error) {
  if (stream.to == HelperStream::To::kMemory) {
    // Memory, not a pipe: nobody reads while the helper runs, and a pipe
    // that fills up would stall it.
    if (memory_ < 0) memory_ = ::memfd_create("vtld_helper-output", MFD_CLOEXEC);
    if (memory_ < 0) {
      *error = fmt::format("cannot keep the helper's output: {}", vtl::error_description(errno));
    }
    return memory_;
  }
  const bool to_file = stream.to == HelperStream::To::kFile;
  const std::string& path = to_file ? stream.path : "/dev/null";
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) *error = fmt::format("cannot open {}: {}", path, vtl::error_description(errno));
  return fd;
}

std::string Launch::open_streams() {
  std::string error;
  const std::string input = how_.input.empty() ? "/dev/null" : how_.input;
  streams_[STDIN_FILENO] = ::open(input.c_str(), O_RDONLY | O_CLOEXEC);
  if (streams_[STDIN_FILENO] < 0) {
    return fmt::format("cannot open {}: {}", input, vtl::error_description(errno));
  }
  streams_[STDOUT_FILENO] = open_stream(how_.output, &error);
  if (streams_[STDOUT_FILENO] < 0) return error;
  streams_[STDERR_FILENO] = open_stream(how_.errors, &error);
  return error;
}

void Launch::become_helper(int report) {
  ::dup2(streams_[STDIN_FILENO], STDIN_FILENO);
  ::dup2(streams_[STDOUT_FILENO], STDOUT_FILENO);
  ::dup2(streams_[STDERR_FILENO], STDERR_FILENO);
  if (how_.socket && how_.socket->fd != kHandedOverDescriptor) {
    ::dup2(how_.socket->fd, kHandedOverDescriptor);
  } else if (how_.socket) {
    ::fcntl(kHandedOverDescriptor, F_SETFD, 0);
  }
  if (listen_pid_ != nullptr) write_decimal(listen_pid_, ::getpid());
  if (!how_.core_file) {
    const rlimit no_core{0, 0};
    ::setrlimit(RLIMIT_CORE, &no_core);
  }
  ::execve(argv_[0], argv_.data(), envp_.data());
  const int failure = errno;
  // The parent learns why from the report pipe; if even that write fails, it
  // sees the child end with 127 and nothing more can be done from here.
  [[maybe_unused]] const ssize_t reported = ::write(report, &failure, sizeof failure);
  ::_exit(127);
}

// The child's errno from a failed exec, read from `report` (its writing end
// closed); 0 when the exec went through.
int exec_failure(int report) {
  int failure = 0;
  ssize_t n = 0;
  do {
    n = ::read(report, &failure, sizeof failure);
  } while (n < 0 && errno == EINTR);
  return n == sizeof failure ? failure : 0;
}

}  // namespace

std::optional<HelperProcess> HelperProcess::start(const HelperStart& how, std::string* error) {
  Launch launch(how);
  if (std::string why = launch.open_streams(); !why.empty()) {
    *error = why;
    return std::nullopt;
  }
  // Closed on exec: whatever comes on it is the errno of a failed exec.
  int report[2];
  if (::pipe2(report, O_CLOEXEC) != 0) {
    *error = fmt::format("cannot start {}: {}", how.program, vtl::error_description(errno));
    return std::nullopt;
  }
  const pid_t pid = ::fork();
  if (pid == 0) launch.become_helper(report[1]);
  const int fork_failure = errno;
  ::close(report[1]);
  const int failure = pid < 0 ? fork_failure : exec_failure(report[0]);
  ::close(report[0]);
  if (pid > 0 && failure != 0) ::waitpid(pid, nullptr, 0);
  if (failure != 0) {
    *error = fmt::format("cannot start {}: {}", how.program, vtl::error_description(failure));
    return std::nullopt;
  }
  return HelperProcess(pid, launch.take_memory());
}

std::optional<HelperProcess> HelperProcess::start(const std::string& helper_path,
                                                  const std::string& root, std::string* error) {
  HelperStart how;
  how.program = helper_path;
  how.arguments = {"--root", root};
  how.output = HelperStream::memory();
  how.errors = HelperStream::memory();
  return start(how, error);
}

HelperProcess::HelperProcess(HelperProcess&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)),
      output_fd_(std::exchange(other.output_fd_, -1)),
      status_(std::exchange(other.status_, std::nullopt)) {}

HelperProcess& HelperProcess::operator=(HelperProcess&& other) noexcept {
  if (this == &other) return *this;
  const HelperProcess previous(std::move(*this));
  pid_ = std::exchange(other.pid_, -1);
  output_fd_ = std::exchange(other.output_fd_, -1);
  status_ = std::exchange(other.status_, std::nullopt);
  return *this;
}

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

bool HelperProcess::wait_for_socket(const std::string& socket_path,
                                    std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    struct stat st {};
    if (::stat(socket_path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) return true;
    if (reap(false) || std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(kPollInterval);
  }
}

std::optional<int> HelperProcess::wait(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!reap(false)) {
    if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
    std::this_thread::sleep_for(kPollInterval);
  }
  return status_;
}

std::optional<int> HelperProcess::stop(std::chrono::milliseconds limit) {
  if (!status_) ::kill(pid_, SIGTERM);
  if (std::optional<int> status = wait(limit)) return status;
  ::kill(pid_, SIGKILL);
  reap(true);
  return std::nullopt;
}

std::string HelperProcess::output() const {
  std::string text;
  if (output_fd_ < 0) return text;
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
