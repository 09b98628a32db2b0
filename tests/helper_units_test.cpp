// The helper as the service manager runs it: the command line of the service
// unit this build installs, started by systemd's socket activator on the
// first connection, with the socket unit's descriptor name and the
// notification the unit's type asks for. (The install test runs systemd's
// own checks on the installed units.)
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
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

// The values of `key` in the unit file at `path`, in order.
std::vector<std::string> unit_values(const std::string& path, const std::string& key) {
  std::vector<std::string> values;
  std::istringstream lines(read_file(path));
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(key + "=")) values.push_back(line.substr(key.size() + 1));
  }
  return values;
}

TEST(Units, SystemdSocketActivatorStartsTheHelper) {
  std::optional<std::string> activate = find_program("systemd-socket-activate");
  if (!activate) GTEST_SKIP() << "systemd-socket-activate is not installed";
  // The service unit as this build installs it, the socket unit as it stands.
  const std::string service = std::string(VTL_UNITS_DIR) + "/vtld_helper.service";
  const std::string socket_unit =
      std::string(VTL_SOURCE_DIR) + "/vtld_helper/systemd/vtld_helper.socket";
  ASSERT_EQ(unit_values(service, "Type"), std::vector<std::string>{"notify"});
  const std::vector<std::string> exec_start = unit_values(service, "ExecStart");
  ASSERT_EQ(exec_start.size(), 1U);
  std::istringstream words(exec_start.front());
  std::vector<std::string> command{std::istream_iterator<std::string>(words), {}};
  // The installed helper's path; this build's helper stands in for it.
  ASSERT_TRUE(command.at(0).ends_with("/sbin/vtld_helper")) << command.at(0);
  command.at(0) = testsupport::program_path("vtld_helper");
  const std::vector<std::string> fdname = unit_values(socket_unit, "FileDescriptorName");
  ASSERT_EQ(fdname.size(), 1U);

  testsupport::Device device;
  // The device's socket and root stand in for the host's.
  const std::string socket = device.socket_path();
  const std::string& root = device.root();
  command.insert(command.end(), {"--root", root});
  testsupport::TempDir outside;
  const std::string log = outside / "activated.stderr";
  const std::string notify_path = outside / "notify";
  // The service manager's end of the notification protocol.
  const int notify = testsupport::bound_unix_socket(SOCK_DGRAM, notify_path);
  ASSERT_GE(notify, 0);
  // The activator hands its children only the environment it is told to:
  // the sanitizer build's helper, confined without /proc, cannot check for
  // leaks. It becomes the helper (exec); whatever ends the test, it goes
  // with it: left running, it would hold the test's output open.
  vtldctl::HelperStart how;
  how.program = *activate;
  // The activator's own options, then the unit's command line.
  how.arguments = {"-l",
                   socket,
                   "-E",
                   "ASAN_OPTIONS=detect_leaks=0",
                   "-E",
                   "NOTIFY_SOCKET=" + notify_path,
                   "--fdname=" + fdname.front()};
  how.arguments.insert(how.arguments.end(), command.begin(), command.end());
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
  EXPECT_EQ(testsupport::receive_datagram(notify), "READY=1\nSTATUS=Waiting for requests");
  EXPECT_TRUE(testsupport::receive_datagram(notify).starts_with(
      "STATUS=Serving removeWorkContainer: for pid "));
  EXPECT_EQ(testsupport::receive_datagram(notify), "STATUS=Waiting for requests");
  ::close(notify);
  const int status = activator->stop(20s).value_or(-1);
  // The activator execs the helper, which ends on SIGTERM with status 0.
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << read_file(log);
  EXPECT_NE(read_file(log).find("KRX connection will be closed"), std::string::npos);
}

}  // namespace
