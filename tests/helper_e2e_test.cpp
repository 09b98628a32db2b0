// The real helper on a simulated device, driven over its socket: start-up and
// logging, entitlements bound to the executable, the container commands.
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <openssl/evp.h>

#include <filesystem>
#include <fstream>
#include <map>

#include <gtest/gtest.h>

#include "platform/sim/device.h"
#include "tests/support/daemon.h"
#include "tests/support/file_tree.h"
#include "vtld_helper/privileges.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testsupport::Device;
using testsupport::request;

using testsupport::dict;

const krx::Value kTrue = dict({{"Response", true}});
const krx::Value kFalse = dict({{"Response", false}});

std::string sha256_file(const std::string& path) {
  const std::string bytes = testsupport::read_file(path);
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &size, EVP_sha256(), nullptr);
  std::string hex;
  for (unsigned i = 0; i < size; ++i) {
    char b[3];
    static_cast<void>(std::snprintf(b, sizeof b, "%02x", digest[i]));
    hex += b;
  }
  return hex;
}

struct stat stat_of(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
  return st;
}

class HelperTest : public ::testing::Test {
 protected:
  void SetUp() override { device_.start(); }

  // Replaces the test program's entitlements file.
  void entitle(const vtl::Dictionary& entitlements, const std::string& sha256 = "") {
    fs::remove_all(device_.path("/etc/krx/entitlements.d"));
    fs::create_directories(device_.path("/etc/krx/entitlements.d"));
    ASSERT_EQ(platform::sim::write_entitlements_file(
                  device_.root(), "test", testsupport::self_executable(), sha256, entitlements),
              "");
  }

  Device device_;
};

TEST_F(HelperTest, StartsConfinedWithOnlyThePowersItUsesAndLogsToTheDailyFile) {
  krx::Client client = device_.connect();
  EXPECT_EQ(request(client, dict({{"removeWorkContainer:", "/private/var/none"}})),
            std::vector{kTrue});
  // The start line predates file logging: system log only. The lines' form:
  // log_model_test.cpp.
  const std::string log = device_.log_file();
  EXPECT_NE(log.find(" Entering -[VTLHMessageResponder removeWorkContainer:] with parameter: "
                     "/private/var/none\n"),
            std::string::npos)
      << log;
  EXPECT_NE(device_.system_log().find("vtld_helper started"), std::string::npos);
  EXPECT_EQ(log.find("started"), std::string::npos);

  // Confined: the helper's root is the device, and every descriptor names
  // something inside it, or is no file at all; the one exception is the
  // host's /proc, which identifies clients. Standard streams are the caller's.
  const std::string proc = "/proc/" + std::to_string(device_.pid());
  const std::string root = fs::canonical(device_.root()).string();
  EXPECT_EQ(fs::read_symlink(proc + "/root"), root);
  for (const auto& entry : fs::directory_iterator(proc + "/fd")) {
    if (std::stoi(entry.path().filename()) <= 2) continue;
    const std::string target = fs::read_symlink(entry.path()).string();
    const bool no_file = target.starts_with("socket:") || target.starts_with("anon_inode:") ||
                         target.starts_with("pipe:");
    EXPECT_TRUE(no_file || target == "/proc" || target.starts_with(root + "/"))
        << entry.path() << " -> " << target;
  }
  // Powers: what the commands use, in every set, and no way to gain more.
  std::ifstream status(proc + "/status");
  std::map<std::string, std::string> fields;
  for (std::string line; std::getline(status, line);) {
    const std::size_t colon = line.find(':');
    if (colon != std::string::npos) fields[line.substr(0, colon)] = line.substr(colon + 2);
  }
  for (const char* set : {"CapEff", "CapPrm", "CapBnd"}) {
    EXPECT_EQ(std::stoull(fields[set], nullptr, 16), vtl::kept_capabilities()) << set;
  }
  EXPECT_EQ(std::stoull(fields["CapInh"], nullptr, 16), 0u);
  EXPECT_EQ(fields["NoNewPrivs"], "1");
}

TEST_F(HelperTest, EntitlementIsBoundToTheExecutable) {
  const std::string me = testsupport::self_executable();
  krx::Client client = device_.connect();
  const krx::Value probe = dict({{"removeWorkContainer:", "/private/var/none"}});
  struct Case {
    const char* name;
    vtl::Dictionary entitlements;
    std::string sha256;
    bool answered;
  };
  const Case cases[] = {
      {"granted", {{platform::sim::kClientEntitlement, vtl::Value(true)}}, "", true},
      {"granted, digest matches",
       {{platform::sim::kClientEntitlement, vtl::Value(true)}},
       sha256_file(me),
       true},
      {"granted to another build of the program",
       {{platform::sim::kClientEntitlement, vtl::Value(true)}},
       std::string(64, '0'),
       false},
      // What the entitlement's value itself must be: dispatch_test.cpp.
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    entitle(c.entitlements, c.sha256);
    std::vector<krx::Value> replies = request(client, probe, 1, c.answered ? 10s : 500ms);
    EXPECT_EQ(replies, c.answered ? std::vector{kTrue} : std::vector<krx::Value>{});
  }
  EXPECT_TRUE(device_.wait_for_log("The client does not have proper entitlement"));
  // No entitlements file names the program at all.
  fs::remove_all(device_.path("/etc/krx/entitlements.d"));
  EXPECT_TRUE(request(client, probe, 1, 500ms).empty());
  EXPECT_TRUE(device_.running());
}

TEST_F(HelperTest, PreferencesMigrateOnceToMobile) {
  const std::string source =
      device_.path("/private/var/root/Library/Preferences/com.tessal.Vantrel.plist");
  const std::string destination =
      device_.path("/private/var/mobile/Library/Preferences/com.tessal.Vantrel.plist");
  krx::Client client = device_.connect();
  EXPECT_EQ(request(client, dict({{"migratePreferencesFile:", true}})), std::vector{kTrue});
  EXPECT_FALSE(fs::exists(source));
  const struct stat st = stat_of(destination);
  EXPECT_EQ(st.st_uid, 501u);
  EXPECT_EQ(st.st_gid, 501u);
  // A second migration finds no source.
  EXPECT_EQ(request(client, dict({{"migratePreferencesFile:", true}})), std::vector{kFalse});
  // Source and destination both present: nothing is touched.
  std::ofstream(source) << "new";
  EXPECT_EQ(request(client, dict({{"migratePreferencesFile:", true}})), std::vector{kFalse});
  EXPECT_TRUE(fs::exists(source));
  EXPECT_NE(fs::file_size(destination), 3u);
}

TEST_F(HelperTest, AMigrationIntoALinkedFolderIsRefused) {
  // Mobile owns its preferences folder and puts a link in its place,
  // aiming the move and the chown at the entitlements.
  const std::string source =
      device_.path("/private/var/root/Library/Preferences/com.tessal.Vantrel.plist");
  const std::string folder = device_.path("/private/var/mobile/Library/Preferences");
  fs::remove_all(folder);
  fs::create_directory_symlink("/etc/krx/entitlements.d", folder);
  krx::Client client = device_.connect();
  EXPECT_EQ(request(client, dict({{"migratePreferencesFile:", true}})), std::vector{kFalse});
  EXPECT_TRUE(device_.wait_for_log(
      "Couldn't move /var/root/Library/Preferences/com.tessal.Vantrel.plist to "
      "/var/mobile/Library/Preferences/com.tessal.Vantrel.plist"));
  EXPECT_TRUE(fs::exists(source));
  EXPECT_FALSE(fs::exists(device_.path("/etc/krx/entitlements.d/com.tessal.Vantrel.plist")));
}

TEST_F(HelperTest, AProcessThatExecsAnEntitledProgramAfterConnectingIsNotServed) {
  // vtldctl is entitled; this test program, which connects, is not.
  const std::string vtldctl = testsupport::program_path("vtldctl");
  fs::remove_all(device_.path("/etc/krx/entitlements.d"));
  fs::create_directories(device_.path("/etc/krx/entitlements.d"));
  ASSERT_EQ(platform::sim::write_entitlements_file(
                device_.root(), "vtldctl", vtldctl, "",
                {{platform::sim::kClientEntitlement, vtl::Value(true)}}),
            "");
  // Where the exec'd vtldctl waits: a socket nobody answers on.
  testsupport::TempDir quiet;
  const std::string quiet_socket = quiet / "s";
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  static_cast<void>(
      std::snprintf(address.sun_path, sizeof address.sun_path, "%s", quiet_socket.c_str()));
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(listener, 4), 0);
  const std::string trick = "/private/var/exec-trick";

  const pid_t connecting = ::fork();
  ASSERT_GE(connecting, 0);
  if (connecting == 0) {
    // Connected and seen by the helper as what it is, unentitled...
    krx::Client client = device_.connect();
    static_cast<void>(client.send(dict({{"removeWorkContainer:", "/private/var/none"}})));
    if (!device_.wait_for_log("The client does not have proper entitlement")) ::_exit(2);
    if (::fork() == 0) {
      // ... then a child that keeps the connection asks, once its parent
      // has become vtldctl.
      for (int i = 0; i < 1000 && fs::read_symlink("/proc/" + std::to_string(::getppid()) +
                                                   "/exe") != fs::path(vtldctl);
           ++i) {
        ::usleep(10'000);
      }
      static_cast<void>(client.send(dict({{"prepareWorkContainer:", trick}})));
      static_cast<void>(client.receive(std::chrono::seconds(5)));
      ::_exit(0);
    }
    ::execl(vtldctl.c_str(), vtldctl.c_str(), "--socket", quiet_socket.c_str(), "--timeout", "30",
            "send", R"({"removeWorkContainer:": "/private/var/none"})",
            static_cast<char*>(nullptr));
    ::_exit(127);
  }
  EXPECT_TRUE(device_.wait_for_log("no longer runs " + testsupport::self_executable() +
                                   ", the program it connected as."));
  ::kill(connecting, SIGKILL);
  ::waitpid(connecting, nullptr, 0);
  ::close(listener);
  EXPECT_FALSE(fs::exists(device_.path(trick)));
}

}  // namespace
