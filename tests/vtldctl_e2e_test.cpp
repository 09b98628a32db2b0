// The vtldctl program end to end: run as a user runs it, against the real
// helper serving a simulated device, with its output and exit status checked.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "platform/sim/device.h"
#include "tests/support/daemon.h"
#include "tests/support/file_tree.h"
#include "vtldctl/helper_process.h"

namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using testsupport::read_file;

struct Outcome {
  int status = -1;  // exit status; 128 + signal when killed
  std::string out;
  std::string err;
};

// The program the kernel reports for vtldctl: what its entitlement names.
std::string vtldctl_path() { return fs::canonical(testsupport::program_path("vtldctl")).string(); }

// Runs a program with `input` on standard input; both outputs kept.
// `extra_env` replaces variables of the same name.
Outcome run_program(const std::vector<std::string>& args, const std::string& input = "",
                    const std::vector<std::string>& extra_env = {}) {
  testsupport::TempDir io;
  vtldctl::HelperStart how;
  how.program = args.front();
  how.arguments.assign(args.begin() + 1, args.end());
  how.input = io / "in";
  how.output = vtldctl::HelperStream::file(io / "out");
  how.errors = vtldctl::HelperStream::file(io / "err");
  how.environment = extra_env;
  std::ofstream(how.input) << input;
  std::string error;
  std::optional<vtldctl::HelperProcess> process = vtldctl::HelperProcess::start(how, &error);
  Outcome run;
  if (!process) {
    ADD_FAILURE() << "cannot start " << args.front() << ": " << error;
    return run;
  }
  const int status = process->wait(std::chrono::minutes(5)).value_or(-1);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  run.out = read_file(io / "out");
  run.err = read_file(io / "err");
  return run;
}

Outcome vtldctl(std::vector<std::string> args, const std::string& input = "") {
  args.insert(args.begin(), vtldctl_path());
  return run_program(args, input);
}

bool is_root() { return ::geteuid() == 0; }

#define SKIP_UNLESS_ROOT() \
  if (!is_root()) GTEST_SKIP() << "the helper confines itself with chroot: needs root"

// Input vtldctl refuses before it connects: nothing is sent, status 2, even
// with no helper anywhere.
struct Refusal {
  std::vector<std::string> args;
  std::string input;
  std::string message;
};

class VtldctlRefuses : public ::testing::TestWithParam<Refusal> {};

TEST_P(VtldctlRefuses, BeforeSendingAnything) {
  testsupport::TempDir dir;
  std::vector<std::string> args = {"--socket", dir / "no-helper"};
  args.insert(args.end(), GetParam().args.begin(), GetParam().args.end());
  const Outcome run = vtldctl(args, GetParam().input);
  EXPECT_EQ(run.status, 2) << run.err;
  EXPECT_THAT(run.err, HasSubstr(GetParam().message));
  EXPECT_THAT(run.out, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    BadInput, VtldctlRefuses,
    ::testing::Values(
        Refusal{{"send", R"({"$foo": 1})"}, "", "vtldctl: bad request: unknown typed value $foo"},
        Refusal{{"send", R"({"a":)"}, "", "vtldctl: bad request: parse error"},
        Refusal{{"send", "-"},
                R"({"x": {"$data": "!"}})",
                "not valid base64 (standard alphabet, padded with '=') (at /x)"},
        Refusal{{"send", "[1]"}, "", "it must be a JSON object"},
        Refusal{{"send"}, "", "JSON is required"},
        Refusal{{"prepare-work-container"}, "", "PATH is required"},
        Refusal{{"prepare-work-containr", "/x"},
                "",
                "vtldctl: 'prepare-work-containr' is not a command; did you mean "
                "'prepare-work-container'?"},
        Refusal{{"help", "sim", "craete"}, "", "did you mean 'create'? (see vtldctl help sim)"},
        Refusal{{}, "", "vtldctl: a command is required"},
        Refusal{{"--root", "/x", "migrate-preferences"}, "", "excludes"},
        Refusal{{"--timeout", "abc", "migrate-preferences"},
                "",
                "vtldctl: --timeout: 'abc' is not a number of seconds (0.1 to 86400)"},
        Refusal{{"demo"}, "", "--root and --socket choose a helper to talk to"}));

TEST(VtldctlUnreachable, SaysWhereItLookedWhyAndHowToStartTheHelper) {
  testsupport::TempDir dir;
  const Outcome run = vtldctl({"--socket", dir / "no-helper", "migrate-preferences"});
  EXPECT_EQ(run.status, 3);
  EXPECT_THAT(run.err, HasSubstr("vtldctl: cannot reach the helper at " + (dir / "no-helper") +
                                 ": No such file or directory\nvtldctl: nothing is listening "
                                 "there; start the helper that serves this socket\n"));
  EXPECT_THAT(run.out, IsEmpty());
  const Outcome on_device = vtldctl({"--root", dir.path(), "send", "{}"});
  EXPECT_THAT(on_device.err,
              AllOf(HasSubstr("at " + dir.path() + "/run/krx/com.tessal.vantreldhelper: "),
                    HasSubstr("`vtld_helper --root " + dir.path() + "` (as root)")));
}

// --root and --json reach a tool that reads the device itself.
TEST(VtldctlDiskShow, ReadsTheDevicesDiskAsJson) {
  testsupport::TempDir dir;
  const std::string root = dir / "device";
  ASSERT_EQ(platform::sim::create_device(root, {}), "");
  const Outcome run = vtldctl({"--root", root, "disk", "show", "/dev/rdisk0s1", "--json"});
  ASSERT_EQ(run.status, 0) << run.err;
  const nlohmann::json map = nlohmann::json::parse(run.out);
  EXPECT_EQ(map.at("Disk"), root + "/dev/rdisk0s1");
  EXPECT_EQ(map.at("Entries").at(1).at("Name"), "Data");
}

// A started helper on a device where vtldctl holds the client entitlement.
class VtldctlOnDevice : public ::testing::Test {
 protected:
  void SetUp() override {
    SKIP_UNLESS_ROOT();
    device_.emplace();
    vtl::Dictionary entitlements;
    entitlements.emplace(platform::sim::kClientEntitlement, true);
    ASSERT_EQ(platform::sim::write_entitlements_file(device_->root(), "vtldctl", vtldctl_path(), "",
                                                     entitlements),
              "");
    device_->start();
  }

  Outcome on_device(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.begin(), {"--root", device_->root()});
    return vtldctl(args, input);
  }
  mode_t mode_of(const std::string& device_path) {
    struct stat st {};
    if (::stat(device_->path(device_path).c_str(), &st) != 0) return 0;
    return st.st_mode & 07777;
  }

  // Made only when the test runs: laying out a device needs root too.
  std::optional<testsupport::Device> device_;
};

TEST_F(VtldctlOnDevice, EachCommandAnswersWithItsExitStatus) {
  struct Step {
    std::vector<std::string> args;
    int status;
    const char* out;
  };
  const Step steps[] = {
      {{"migrate-preferences"}, 0, "Response: true\n"},
      // Already moved: the helper reports the second attempt as a failure.
      {{"migrate-preferences"}, 1, "Response: false\n"},
      {{"prepare-work-container", "/private/var/Work"}, 0, "Response: true\n"},
      {{"prepare-log-container", "/private/var/logs/client"}, 0, "Response: true\n"},
      {{"prepare-log-container", "/tmp/x"}, 1, "Response: false\n"},
  };
  for (const Step& step : steps) {
    const Outcome run = on_device(step.args);
    EXPECT_EQ(run.status, step.status) << step.args[0] << ": " << run.err;
    EXPECT_EQ(run.out, step.out) << step.args[0];
  }
  EXPECT_TRUE(
      fs::exists(device_->path("/var/mobile/Library/Preferences/com.tessal.Vantrel.plist")));
  EXPECT_EQ(mode_of("/private/var/Work"), 0777U);
  EXPECT_EQ(mode_of("/private/var/logs/client"), 0777U);
  EXPECT_FALSE(fs::exists(device_->path("/tmp/x")));

  const Outcome removed = on_device({"remove-work-container", "/private/var/Work"});
  EXPECT_EQ(removed.status, 0);
  EXPECT_FALSE(fs::exists(device_->path("/private/var/Work")));
  EXPECT_TRUE(device_->wait_for_log(
      "Entering -[VTLHMessageResponder removeWorkContainer:] with parameter: /private/var/Work"));
}

TEST_F(VtldctlOnDevice, UnknownCommandEndsInTheTimeOutWithAHint) {
  const Outcome run = on_device({"send", "--timeout", "1", R"({"prepareWorkContainer": "/x"})"});
  EXPECT_EQ(run.status, 3);
  EXPECT_THAT(run.out, IsEmpty());
  EXPECT_THAT(run.err, AllOf(HasSubstr("vtldctl: no reply from the helper within 1 s"),
                             HasSubstr("for a command it does not know: its log says which")));
  EXPECT_TRUE(device_->wait_for_log("does not respond to prepareWorkContainer."));
}

TEST(VtldctlSimCreate, LaysOutADeviceThatEntitlesVtldctl) {
  SKIP_UNLESS_ROOT();  // the device's mobile folders are given to uid 501
  testsupport::TempDir dir;
  const std::string root = dir / "device";
  const Outcome run = vtldctl({"sim", "create", root});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_THAT(run.out, AllOf(HasSubstr("Created a simulated device in " + root),
                             HasSubstr("vtld_helper --root " + root),
                             HasSubstr("Entitled client: " + vtldctl_path())));
  for (const char* path : {"/etc/passwd", "/etc/group", "/run/krx", "/private/var/logs/vtld",
                           "/var/root/Library/Preferences/com.tessal.Vantrel.plist"}) {
    EXPECT_TRUE(fs::exists(root + path)) << path;
  }
  // Bound to vtldctl's own path, as the kernel reports it.
  const std::string entitlements = read_file(root + "/etc/krx/entitlements.d/vtldctl.plist");
  EXPECT_THAT(entitlements,
              AllOf(HasSubstr(vtldctl_path()), HasSubstr("com.tessal.private.vantrel.vantreld")));
}

TEST(VtldctlSimCreate, RefusesADirectoryInUse) {
  testsupport::TempDir dir;
  std::ofstream(dir / "something") << "x";
  const Outcome run = vtldctl({"sim", "create", dir.path()});
  EXPECT_EQ(run.status, 4);
  EXPECT_THAT(run.err, HasSubstr("vtldctl: cannot create a simulated device in " + dir.path()));
  EXPECT_FALSE(fs::exists(dir / "etc"));
}

// The demo lays out its device as `vtldctl sim create` does and talks to the
// helper it starts as vtldctl: that such a device serves vtldctl is caught here.
TEST(VtldctlDemo, EveryStepGoesAsToldAndTheDeviceIsKept) {
  SKIP_UNLESS_ROOT();
  testsupport::TempDir dir;
  const std::string root = dir / "device";
  const Outcome run =
      run_program({vtldctl_path(), "demo", root}, "", {"ASAN_OPTIONS=detect_leaks=0"});
  EXPECT_EQ(run.status, 0) << run.out << run.err;
  EXPECT_THAT(run.out, AllOf(HasSubstr("Every step went as told."),
                             HasSubstr("The helper exited with status 0."),
                             HasSubstr("vtld_helper-"), Not(HasSubstr("WRONG"))));
  // A given directory is kept; the steps' traces are in it.
  EXPECT_TRUE(fs::exists(root + "/private/var/logs/vtld-client/vtld-1.log"));
  EXPECT_FALSE(fs::exists(root + "/private/var/VTLWorkContainer"));
}

TEST(VtldctlDemo, RefusesADirectoryInUse) {
  SKIP_UNLESS_ROOT();
  testsupport::TempDir dir;
  std::ofstream(dir / "something") << "x";
  const Outcome run = vtldctl({"demo", dir.path()});
  EXPECT_EQ(run.status, 4);
  EXPECT_THAT(run.err, HasSubstr("exists and is not empty"));
}

TEST(VtldctlDemo, SaysWhenTheHelperDoesNotStart) {
  SKIP_UNLESS_ROOT();
  testsupport::TempDir dir;
  // A "helper" that fails at once, as one that cannot bind its socket would.
  const std::string fake = dir / "fake-helper";
  std::ofstream(fake) << "#!/bin/sh\necho 'cannot listen' >&2\nexit 1\n";
  fs::permissions(fake, fs::perms::owner_all);
  const Outcome run = vtldctl({"demo", dir / "device", "--helper", fake});
  EXPECT_EQ(run.status, 4);
  EXPECT_THAT(run.err, AllOf(HasSubstr("the helper exited with status 1 before serving"),
                             HasSubstr("cannot listen")));
}

}  // namespace
