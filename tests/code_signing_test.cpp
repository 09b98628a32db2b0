// Entitlements files: only what root alone could have written is read, a
// file may bind the entitlement to the account its client runs as, and what
// is kept between messages never hides a change.
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include "base/plist.h"
#include "platform/accounts.h"
#include "platform/code_signing.h"
#include "platform/sim/device.h"
#include "tests/support/daemon.h"
#include "tests/support/file_tree.h"

namespace {

namespace fs = std::filesystem;

// The system clock, a minute ahead: every file looks long settled, so the
// helper keeps what it read and must tell a change by the file alone.
class AheadClock final : public vtl::Clock {
 public:
  vtl::Date now() const override { return Clock::system().now() + std::chrono::minutes(1); }
};

class EntitlementFilesTest : public ::testing::Test {
 public:
  EntitlementFilesTest() {
    fs::create_directories(root_ / "etc/krx/entitlements.d");
    testsupport::write_file(
        root_ / "etc/passwd",
        "root:x:0:0::/var/root:/bin/sh\nmobile:x:501:501::/var/mobile:/bin/sh\n");
    testsupport::write_file(root_ / "etc/group", "wheel:x:0:\nmobile:x:501:\n");
    accounts_ = platform::make_passwd_accounts(root_.path());
    signing_ = platform::make_entitlement_files(root_.path(), proc_, accounts_.get());
    // This process, as the facility takes a peer at accept.
    token_.pid = ::getpid();
    token_.uid = ::getuid();
    token_.pidfd = std::make_shared<const int>(-1);
    token_.executable = testsupport::self_executable();
    struct stat st {};
    EXPECT_EQ(::stat("/proc/self/exe", &st), 0);
    token_.executable_device = st.st_dev;
    token_.executable_inode = st.st_ino;
  }
  ~EntitlementFilesTest() override { ::close(proc_); }

  // Writes "client.plist" naming this program, with `extra` keys.
  void entitle(const vtl::Dictionary& extra = {}) {
    vtl::Dictionary file = {
        {"Executable", vtl::Value(token_.executable)},
        {"Entitlements",
         vtl::Value(vtl::Dictionary{{platform::sim::kClientEntitlement, vtl::Value(true)}})}};
    for (const auto& [key, value] : extra) file.insert_or_assign(key, value);
    testsupport::write_file(file_path(), vtl::plist_to_xml(vtl::Value(file)));
    ::chmod(file_path().c_str(), 0644);
  }
  std::string dir() const { return root_ / "etc/krx/entitlements.d"; }
  std::string file_path() const { return dir() + "/client.plist"; }

  // Whether this program holds the entitlement, and the notes of the look.
  bool granted(std::vector<std::string>* notes) {
    std::string why;
    std::unique_ptr<platform::CodeSigning::Task> task =
        signing_->task_from_audit_token(token_, &why);
    EXPECT_TRUE(task) << why;
    if (!task) return false;
    const std::optional<vtl::Value> value =
        task->copy_value_for_entitlement(platform::sim::kClientEntitlement, notes);
    return value && value->boolean() != nullptr && *value->boolean();
  }

  // Runs `change` on `path` once the file system's clock has moved past its
  // change time, so that the change cannot leave the times as they were.
  static void change(const std::string& path, const std::function<void()>& change) {
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    const auto ticks = [](const timespec& t) { return std::pair(t.tv_sec, t.tv_nsec); };
    const auto before = ticks(st.st_ctim);
    timespec now{};
    for (int waited = 0; ticks(now) <= before && waited < 2000; ++waited) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
    }
    change();
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    ASSERT_NE(ticks(st.st_ctim), before) << path;
  }

  testsupport::TempDir root_;
  testsupport::TempDir elsewhere_;
  int proc_ = ::open("/proc", O_PATH | O_DIRECTORY | O_CLOEXEC);
  std::unique_ptr<platform::Accounts> accounts_;
  std::unique_ptr<platform::CodeSigning> signing_;
  krx::AuditToken token_;
};

TEST_F(EntitlementFilesTest, OnlyFilesRootAloneCouldHaveWrittenAreRead) {
  struct Case {
    const char* name;
    std::function<void(EntitlementFilesTest&)> plant;
    bool granted;
    const char* note;  // part of the note logged; nullptr: none
  };
  const Case cases[] = {
      {"root's, 0644", [](EntitlementFilesTest&) {}, true, nullptr},
      {"writable by others", [](EntitlementFilesTest& t) { ::chmod(t.file_path().c_str(), 0666); },
       false, "client.plist is ignored"},
      {"writable by the group",
       [](EntitlementFilesTest& t) { ::chmod(t.file_path().c_str(), 0664); }, false,
       "client.plist is ignored"},
      {"owned by mobile",
       [](EntitlementFilesTest& t) { ASSERT_EQ(::chown(t.file_path().c_str(), 501, 501), 0); },
       false, "client.plist is ignored"},
      {"a link to a file elsewhere",
       [](EntitlementFilesTest& t) {
         fs::rename(t.file_path(), t.elsewhere_ / "real.plist");
         fs::create_symlink(t.elsewhere_ / "real.plist", t.file_path());
       },
       false, "client.plist is ignored"},
      {"in a folder anyone may write",
       [](EntitlementFilesTest& t) { ::chmod(t.dir().c_str(), 0777); }, false,
       "entitlements.d is ignored"},
      {"in a folder mobile owns",
       [](EntitlementFilesTest& t) { ASSERT_EQ(::chown(t.dir().c_str(), 501, 501), 0); }, false,
       "entitlements.d is ignored"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(dir());
    fs::create_directories(dir());
    ::chmod(dir().c_str(), 0755);
    entitle();
    c.plant(*this);
    std::vector<std::string> notes;
    EXPECT_EQ(granted(&notes), c.granted);
    if (c.note == nullptr) {
      EXPECT_TRUE(notes.empty()) << notes.front();
    } else {
      ASSERT_EQ(notes.size(), 1u);
      EXPECT_NE(notes.front().find(c.note), std::string::npos) << notes.front();
    }
  }
}

TEST_F(EntitlementFilesTest, AFileMayNameTheAccountItsClientRunsAs) {
  std::vector<std::string> notes;
  entitle({{"User", vtl::Value("root")}});
  EXPECT_TRUE(granted(&notes));
  entitle({{"User", vtl::Value("mobile")}});
  EXPECT_FALSE(granted(&notes));
  entitle({{"User", vtl::Value("nobody-here")}});
  EXPECT_FALSE(granted(&notes));
  EXPECT_TRUE(notes.empty());
}

}  // namespace

TEST_F(EntitlementFilesTest, WhatIsKeptBetweenMessagesNeverHidesAChange) {
  const AheadClock ahead;
  signing_ = platform::make_entitlement_files(root_.path(), proc_, accounts_.get(), ahead);
  std::vector<std::string> notes;
  entitle();
  ASSERT_TRUE(granted(&notes));
  ASSERT_TRUE(granted(&notes));  // now from what was kept

  // Rewritten in place with the same size: another program named.
  const std::string same_size = token_.executable.substr(0, token_.executable.size() - 1) + "~";
  change(file_path(), [&] { entitle({{"Executable", vtl::Value(same_size)}}); });
  EXPECT_FALSE(granted(&notes));
  change(file_path(), [&] { entitle(); });
  EXPECT_TRUE(granted(&notes));

  // A file that sorts first, refusing, decides.
  vtl::Dictionary refusing = {
      {"Executable", vtl::Value(token_.executable)},
      {"Entitlements",
       vtl::Value(vtl::Dictionary{{platform::sim::kClientEntitlement, vtl::Value(false)}})}};
  change(dir(), [&] {
    testsupport::write_file(dir() + "/a.plist", vtl::plist_to_xml(vtl::Value(refusing)));
    ::chmod((dir() + "/a.plist").c_str(), 0644);
  });
  EXPECT_FALSE(granted(&notes));
  change(dir(), [&] { fs::remove(dir() + "/a.plist"); });
  EXPECT_TRUE(granted(&notes));

  // Made writable by others: ignored at once.
  change(file_path(), [&] { ::chmod(file_path().c_str(), 0666); });
  EXPECT_FALSE(granted(&notes));
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_NE(notes.front().find("client.plist is ignored"), std::string::npos) << notes.front();
}
