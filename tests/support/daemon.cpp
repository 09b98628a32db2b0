#include "tests/support/daemon.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "platform/sim/device.h"
#include "tests/support/file_tree.h"

namespace krx {

void PrintTo(const Value& value, std::ostream* out) {
  struct Printer {
    std::ostream* out;
    void operator()(const Null&) const { *out << "null"; }
    void operator()(bool b) const { *out << (b ? "true" : "false"); }
    void operator()(std::int64_t i) const { *out << i; }
    void operator()(std::uint64_t u) const { *out << u << "u"; }
    void operator()(double d) const { *out << d; }
    void operator()(const Date& d) const { *out << "date(" << d.nanoseconds_since_1970 << ")"; }
    void operator()(const Data& d) const { *out << "data(" << d.size() << " bytes)"; }
    void operator()(const std::string& s) const { *out << '"' << s << '"'; }
    void operator()(const Uuid&) const { *out << "uuid"; }
    void operator()(const Fd& f) const { *out << "fd(" << f.index << ")"; }
    void operator()(const Array& a) const {
      *out << "[";
      for (const Value& v : a) {
        PrintTo(v, out);
        *out << ", ";
      }
      *out << "]";
    }
    void operator()(const Dictionary& d) const {
      *out << "{";
      for (const auto& [k, v] : d) {
        *out << k << ": ";
        PrintTo(v, out);
        *out << ", ";
      }
      *out << "}";
    }
  };
  std::visit(Printer{out}, value.storage());
}

}  // namespace krx

namespace testsupport {

namespace fs = std::filesystem;

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern =
      std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/vtld-test-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error(std::string("mkdtemp: ") + std::strerror(errno));
  }
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ec;
  fs::remove_all(path_, ec);
}

std::string program_path(const std::string& name) { return std::string(VTL_BIN_DIR) + "/" + name; }

std::string self_executable() {
  std::error_code ec;
  return fs::read_symlink("/proc/self/exe", ec).string();
}

Device::Device() {
  platform::sim::DeviceOptions options;
  options.entitled_clients.push_back(self_executable());
  if (std::string err = platform::sim::create_device(root(), options); !err.empty()) {
    throw std::runtime_error("cannot create a simulated device: " + err);
  }
  stderr_path_ = dir_.path() + ".stderr";
}

Device::~Device() {
  helper_.reset();  // killed if it still runs
  std::error_code ec;
  fs::remove(stderr_path_, ec);
}

std::string Device::socket_path() const {
  return platform::sim::service_socket_path(root(), "com.tessal.vantreldhelper");
}

void Device::launch(const std::vector<std::string>& extra_args,
                    std::optional<vtldctl::HandedOverSocket> socket) {
  vtldctl::HelperStart how;
  how.program = program_path("vtld_helper");
  how.arguments = {"--root", root()};
  how.arguments.insert(how.arguments.end(), extra_args.begin(), extra_args.end());
  how.errors = vtldctl::HelperStream::file(stderr_path_);
  // Inside its confinement the helper has no /proc for the leak checker to
  // read at exit; leaks are checked by the in-process tests instead.
  how.environment = {"ASAN_OPTIONS=detect_leaks=0"};
  how.socket = std::move(socket);
  // An aborting helper must not leave a core file anywhere.
  how.core_file = false;
  std::string error;
  helper_ = vtldctl::HelperProcess::start(how, &error);
  if (!helper_) throw std::runtime_error(error);
}

void Device::start(const std::vector<std::string>& extra_args) {
  launch(extra_args, std::nullopt);
  if (helper_->wait_for_socket(socket_path(), std::chrono::seconds(20))) return;
  if (helper_->running()) {
    throw std::runtime_error("vtld_helper did not create its socket: " + system_log());
  }
  helper_.reset();
  throw std::runtime_error("vtld_helper ended before serving: " + system_log());
}

void Device::start_activated(int listening_fd) {
  launch({}, vtldctl::HandedOverSocket{listening_fd, "com.tessal.vantreldhelper"});
}

bool Device::running() { return helper_ && helper_->running(); }

int Device::terminate() {
  if (!helper_) return -1;
  std::optional<int> status = helper_->stop(std::chrono::seconds(20));
  helper_.reset();
  return status.value_or(-1);
}

std::optional<int> Device::wait_exit(std::chrono::milliseconds timeout) {
  if (!helper_) return std::nullopt;
  std::optional<int> status = helper_->wait(timeout);
  if (status) helper_.reset();
  return status;
}

std::string Device::system_log() const { return read_file(stderr_path_); }

bool Device::wait_for_log(const std::string& text, std::chrono::milliseconds timeout) const {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (system_log().find(text) != std::string::npos) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

std::string Device::log_file() const {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  ::localtime_r(&now, &local);
  char name[64];
  static_cast<void>(std::snprintf(name, sizeof name, "/vtld_helper-%04d%02d%02d.log",
                                  local.tm_year + 1900, local.tm_mon + 1, local.tm_mday));
  return read_file(path("/private/var/logs/vtld") + name);
}

krx::Client Device::connect() const {
  std::string error;
  std::optional<krx::Client> client = krx::Client::connect_path(socket_path(), &error);
  if (!client) throw std::runtime_error("cannot connect: " + error);
  return std::move(*client);
}

krx::Value dict(std::initializer_list<std::pair<std::string, krx::Value>> entries) {
  krx::Dictionary d;
  for (const auto& e : entries) d.emplace_back(e.first, e.second);
  return krx::Value(std::move(d));
}

int bound_unix_socket(int type, const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return -1;
  path.copy(address.sun_path, path.size());
  const int fd = ::socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
  if (fd >= 0 && ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

std::string receive_datagram(int fd, std::chrono::milliseconds limit) {
  pollfd readable{fd, POLLIN, 0};
  if (::poll(&readable, 1, static_cast<int>(limit.count())) != 1) return "";
  char datagram[4096];
  const ssize_t n = ::recv(fd, datagram, sizeof datagram, 0);
  return n > 0 ? std::string(datagram, static_cast<std::size_t>(n)) : "";
}

bool send_with_descriptor(int socket, std::span<const std::uint8_t> bytes, int passed) {
  iovec iov{const_cast<std::uint8_t*>(bytes.data()), bytes.size()};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr msg{};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control;
  msg.msg_controllen = sizeof control;
  cmsghdr* c = CMSG_FIRSTHDR(&msg);
  c->cmsg_level = SOL_SOCKET;
  c->cmsg_type = SCM_RIGHTS;
  c->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(c), &passed, sizeof passed);
  return ::sendmsg(socket, &msg, MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

std::vector<krx::Value> request(krx::Client& client, const krx::Value& message, int responses,
                                std::chrono::milliseconds idle) {
  std::vector<krx::Value> received;
  if (!client.send(message)) return received;
  int seen = 0;
  while (seen < responses) {
    krx::Client::Received r = client.receive(idle);
    auto* m = std::get_if<krx::Client::Message>(&r);
    if (m == nullptr) break;
    if (m->value.find("Response") != nullptr) ++seen;
    received.push_back(std::move(m->value));
  }
  return received;
}

}  // namespace testsupport
