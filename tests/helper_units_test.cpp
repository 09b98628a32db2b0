// The helper as the service manager runs it: its units pass systemd's own
// checks, and systemd's socket activator starts it on the first connection.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "krx/client.h"
#include "tests/support/daemon.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

std::string read_file(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

std::optional<std::string> find_program(const std::string& name) {
  for (const char* dir : {"/usr/bin", "/bin", "/usr/sbin"}) {
    const std::string path = std::string(dir) + "/" + name;
    if (::access(path.c_str(), X_OK) == 0) return path;
  }
  return std::nullopt;
}

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
  // leaks.
  const std::vector<std::string> args = {*activate,
                                         "-l",
                                         socket,
                                         "-E",
                                         "ASAN_OPTIONS=detect_leaks=0",
                                         "--fdname=com.tessal.vantreldhelper",
                                         helper,
                                         "--root",
                                         root};
  std::vector<char*> argv;
  argv.reserve(args.size() + 1);
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  const pid_t pid = ::fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    if (std::freopen(log.c_str(), "w", stderr) == nullptr) ::_exit(127);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  // Whatever ends the test, the activator (or the helper it became) goes
  // with it: left running, it would hold the test's output open.
  struct Reaper {
    pid_t pid;
    ~Reaper() {
      if (pid <= 0) return;
      ::kill(pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
    }
  } reaper{pid};
  // The activator binds the socket and then listens on it; the helper starts
  // only once a client is there. Until it listens, a connection is refused.
  std::optional<krx::Client> client;
  std::string error;
  for (int i = 0; i < 2000 && !client; ++i) {
    client = krx::Client::connect_path(socket, &error);
    if (!client) std::this_thread::sleep_for(5ms);
  }
  ASSERT_TRUE(client) << error;
  krx::Dictionary request{{"removeWorkContainer:", krx::Value("/private/var/none")}};
  std::vector<krx::Value> replies = testsupport::request(*client, krx::Value(request));
  EXPECT_EQ(replies, std::vector{krx::Value(krx::Dictionary{{"Response", krx::Value(true)}})});
  ::kill(pid, SIGTERM);
  int status = 0;
  ::waitpid(pid, &status, 0);
  reaper.pid = 0;  // reaped here
  // The activator execs the helper, which ends on SIGTERM with status 0.
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << read_file(log);
  EXPECT_NE(read_file(log).find("KRX connection will be closed"), std::string::npos);
  fs::remove(log);
}

}  // namespace
