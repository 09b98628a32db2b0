// Container operations against a temporary device: modes, ownership, the
// staging leftovers, and the failure paths with their messages.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "operations/VTLHOperations.h"
#include "platform/sim/device.h"
#include "tests/support/capture.h"
#include "tests/support/daemon.h"

namespace {

namespace fs = std::filesystem;
using testsupport::TempDir;
using vtl::VTLHOperations;

class ContainerTest : public ::testing::Test {
 protected:
  ContainerTest() : platform_(device_.path()) {
    ::umask(022);
    EXPECT_EQ(platform::sim::create_device(device_.path(), {}), "");
  }

  std::string at(const std::string& rel) const { return device_.path() + rel; }

  static mode_t mode_of(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
    return st.st_mode & 07777;
  }

  static void touch(const std::string& path) { std::ofstream(path) << "x"; }

  TempDir device_;
  testsupport::TestPlatform platform_;
  VTLHOperations& ops_ = VTLHOperations::sharedInstance();
};

TEST_F(ContainerTest, WideningKeepsOwnerAndSpecialBits) {
  struct Case {
    mode_t before;
    mode_t after;
  };
  for (const Case& c : {Case{0700, 0777}, Case{01755, 01777}, Case{04700, 04777}, Case{0, 077}}) {
    const std::string dir = at("/private/var/work-" + std::to_string(c.before));
    ASSERT_EQ(::mkdir(dir.c_str(), 0700), 0);
    ASSERT_EQ(::chmod(dir.c_str(), c.before), 0);
    ASSERT_EQ(::chown(dir.c_str(), 7, 8), 0);
    EXPECT_TRUE(ops_.prepareDirectory_writableByMobile(&dir, true));
    EXPECT_EQ(mode_of(dir), c.after) << std::oct << c.before;
    struct stat st {};
    ASSERT_EQ(::stat(dir.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 7u);
    EXPECT_EQ(st.st_gid, 8u);
  }
}

TEST_F(ContainerTest, CreatesMissingDirectoriesWithDefaultMode) {
  const std::string dir = at("/private/var/a/b/c");
  EXPECT_TRUE(ops_.prepareDirectory_writableByMobile(&dir, false));
  EXPECT_TRUE(fs::is_directory(dir));
  EXPECT_EQ(mode_of(dir), 0755u);
  const std::string wide = at("/private/var/x/y");
  EXPECT_TRUE(ops_.prepareDirectory_writableByMobile(&wide, true));
  EXPECT_EQ(mode_of(wide), 0777u);
}

TEST_F(ContainerTest, StagingLeftoverIsRemovedAndNothingElse) {
  const std::string dir = at("/private/var/VTLWorkContainer");
  fs::create_directories(dir + "/VTL_staging/deep/er");
  touch(dir + "/VTL_staging/deep/er/file");
  touch(dir + "/keep");
  fs::create_directories(dir + "/VTL_staging_not");
  EXPECT_TRUE(ops_.prepareDirectory_writableByMobile(&dir, true));
  EXPECT_FALSE(fs::exists(dir + "/VTL_staging"));
  EXPECT_TRUE(fs::exists(dir + "/keep"));
  EXPECT_TRUE(fs::exists(dir + "/VTL_staging_not"));
  // And without a leftover there is nothing to do.
  EXPECT_TRUE(ops_.prepareDirectory_writableByMobile(&dir, false));
}

TEST_F(ContainerTest, RegularFileAtThePathIsAcceptedAndWidened) {
  const std::string file = at("/private/var/plain");
  touch(file);
  ASSERT_EQ(::chmod(file.c_str(), 0600), 0);
  EXPECT_TRUE(ops_.prepareDirectory_writableByMobile(&file, true));
  EXPECT_TRUE(fs::is_regular_file(file));
  EXPECT_EQ(mode_of(file), 0677u);
}

TEST_F(ContainerTest, LinkAtThePathIsNeverFollowed) {
  // A link planted where a container should be must not widen its target.
  const std::string target = at("/private/var/target");
  ASSERT_EQ(::mkdir(target.c_str(), 0700), 0);
  const std::string link = at("/private/var/link");
  fs::create_directory_symlink(target, link);
  EXPECT_FALSE(ops_.prepareDirectory_writableByMobile(&link, true));
  EXPECT_EQ(mode_of(target), 0700u);
  EXPECT_TRUE(
      platform_.log.contains(link + ": Cannot set attribute for Operation not supported - (null)"))
      << ::testing::PrintToString(platform_.log.lines());
}

TEST_F(ContainerTest, CreationFailureIsSilent) {
  const std::string blocked = at("/private/var/file");
  touch(blocked);
  const std::string below = blocked + "/sub";
  EXPECT_FALSE(ops_.prepareDirectory_writableByMobile(&below, true));
  EXPECT_FALSE(ops_.prepareDirectory_writableByMobile(nullptr, true));
  EXPECT_TRUE(platform_.log.lines().empty()) << ::testing::PrintToString(platform_.log.lines());
}

TEST_F(ContainerTest, LogContainerGivesOnlyVtldEntriesToMobile) {
  const std::string dir = at("/private/var/logs/client");
  fs::create_directories(dir);
  for (const char* name : {"vtld-1.log", "old-vtld-x", "vtld_helper-1.log", ".vtld-hidden"}) {
    touch(dir + "/" + name);
  }
  fs::create_directories(dir + "/vtld-dir");
  EXPECT_TRUE(ops_.prepareLogContainer(&dir));
  auto owner = [&](const char* name) {
    struct stat st {};
    EXPECT_EQ(::lstat((dir + "/" + name).c_str(), &st), 0);
    return std::pair(st.st_uid, st.st_gid);
  };
  EXPECT_EQ(owner("vtld-1.log"), std::pair(501u, 501u));
  EXPECT_EQ(owner("vtld-dir"), std::pair(501u, 501u));
  EXPECT_EQ(owner("old-vtld-x"), std::pair(0u, 0u));
  EXPECT_EQ(owner("vtld_helper-1.log"), std::pair(0u, 0u));
  EXPECT_EQ(owner(".vtld-hidden"), std::pair(0u, 0u));
  EXPECT_EQ(mode_of(dir), 0777u);
}

TEST_F(ContainerTest, LogEntryLinksAreReownedAsLinksNotTargets) {
  const std::string dir = at("/private/var/logs/client");
  fs::create_directories(dir);
  const std::string secret = at("/private/var/secret");
  touch(secret);
  fs::create_symlink(secret, dir + "/vtld-trap");
  EXPECT_TRUE(ops_.prepareLogContainer(&dir));
  struct stat st {};
  ASSERT_EQ(::stat(secret.c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, 0u);
}

}  // namespace
