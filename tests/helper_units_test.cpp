// The helper as the service manager runs it: its units pass systemd's own
// checks, and systemd's socket activator starts it on the first connection.
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "krx/client.h"
#include "tests/support/daemon.h"
#include "tests/support/file_tree.h"
#include "vtldctl/helper_process.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testsupport::read_file;

std::optional<std::string> find_program(const std::string& name) {
  for (const char* dir : {"/usr/bin", "/bin", "/usr/sbin"}) {
    const std::string path = std::string(dir) + "/" + name;
    if (::access(path.c_str(), X_OK) == 0) return path;
  }
  return std::nullopt;
}

// The service manager's end of the notification protocol: a datagram socket.
class NotifySocket {
 public:
  explicit NotifySocket(const std::string& path) : path_(path) {
    fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    const timeval wait{.tv_sec = 10, .tv_usec = 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
  }
  ~NotifySocket() {
    ::close(fd_);
    ::unlink(path_.c_str());
  }
  NotifySocket(const NotifySocket&) = delete;
  NotifySocket& operator=(const NotifySocket&) = delete;

  // The next message; "" when none came in time.
  std::string receive() const {
    char buffer[4096];
    const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
    return n > 0 ? std::string(buffer, static_cast<std::size_t>(n)) : "";
  }

 private:
  std::string path_;
  int fd_;
};

TEST(Units, PassSystemdVerification) {
  std::optional<std::string> analyze = find_program("systemd-analyze");
  if (!analyze) GTEST_SKIP() << "systemd-analyze is not installed";
  testsupport::TempDir dir;
  const std::string units = std::string(VTL_SOURCE_DIR) + "/vtld_helper/systemd";
  fs::copy_file(units + "/vtld_helper.socket", dir / "vtld_helper.socket");
  std::string service = read_file(units + "/vtld_helper.service.in");
  const std::string placeholder = "@VTL_HELPER_PATH@";
  service.replace(service.find(placeholder), placeholder.size(),
                  testsupport::program_path("vtld_helper"));
  std::ofstream(dir / "vtld_helper.service") << service;
  const std::string command = "cd " + dir.path() + " && " + *analyze +
                              " verify --man=no ./vtld_helper.socket ./vtld_helper.service 2>&1";
  FILE* out = ::popen(command.c_str(), "r");
  ASSERT_NE(out, nullptr);
  std::string text;
  char buffer[512];
  while (std::fgets(buffer, sizeof buffer, out) != nullptr) text += buffer;
  const int status = ::pclose(out);
  EXPECT_EQ(status, 0) << text;
  EXPECT_EQ(text, "");
}

TEST(Units, SystemdSocketActivatorStartsTheHelper) {
  std::optional<std::string> activate = find_program("systemd-socket-activate");
  if (!activate) GTEST_SKIP() << "systemd-socket-activate is not installed";
  testsupport::Device device;
  const std::string socket = device.socket_path();
  const std::string helper = testsupport::program_path("vtld_helper");
  const std::string& root = device.root();
  const std::string log = root + ".activated.stderr";
  // The activator hands its children only the environment it is told to:
  // the sanitizer build's helper, confined without /proc, cannot check for
  // leaks. It becomes the helper (exec); whatever ends the test, it goes
  // with it: left running, it would hold the test's output open.
  vtldctl::HelperStart how;
  how.program = *activate;
  // The activator's own options, then the helper's command line.
  // The unit's Type=notify: the helper says when it serves, and what it serves.
  const std::string notify_path = root + ".notify";
  NotifySocket notify(notify_path);
  how.arguments = {
      "-l", socket, "-E", "ASAN_OPTIONS=detect_leaks=0", "-E", "NOTIFY_SOCKET=" + notify_path};
  how.arguments.insert(how.arguments.end(),
                       {"--fdname=com.tessal.vantreldhelper", helper, "--root", root});
  how.errors = vtldctl::HelperStream::file(log);
  std::string error;
  std::optional<vtldctl::HelperProcess> activator = vtldctl::HelperProcess::start(how, &error);
  ASSERT_TRUE(activator) << error;
  // The activator binds the socket and then listens on it; the helper starts
  // only once a client is there. Until it listens, a connection is refused.
  std::optional<krx::Client> client = activator->wait_until_serving(socket, 10s, &error);
  ASSERT_TRUE(client) << error;
  EXPECT_EQ(testsupport::request(
                *client, testsupport::dict({{"removeWorkContainer:", "/private/var/none"}})),
            std::vector{testsupport::dict({{"Response", true}})});
  EXPECT_EQ(notify.receive(), "READY=1\nSTATUS=Waiting for requests");
  EXPECT_TRUE(notify.receive().starts_with("STATUS=Serving removeWorkContainer: for pid "));
  EXPECT_EQ(notify.receive(), "STATUS=Waiting for requests");
  const int status = activator->stop(20s).value_or(-1);
  // The activator execs the helper, which ends on SIGTERM with status 0.
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << read_file(log);
  EXPECT_NE(read_file(log).find("KRX connection will be closed"), std::string::npos);
  fs::remove(log);
}

}  // namespace
