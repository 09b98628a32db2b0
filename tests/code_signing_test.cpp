// Entitlements files: only what root alone could have written is read, and
// a file may bind the entitlement to the account its client runs as.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include <gtest/gtest.h>

#include "base/plist.h"
#include "platform/accounts.h"
#include "platform/code_signing.h"
#include "platform/sim/device.h"
#include "tests/support/daemon.h"
#include "tests/support/file_tree.h"

namespace {

namespace fs = std::filesystem;

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
