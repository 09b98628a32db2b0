// Where each command may act: the rules of service/confinement.h, checked
// beneath a device root laid out in a temporary directory.
#include "service/confinement.h"

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>

#include <gtest/gtest.h>

#include "manifest/VTLManifest.h"
#include "tests/support/capture.h"
#include "tests/support/daemon.h"
#include "tests/support/file_tree.h"

namespace {

namespace fs = std::filesystem;
using vtl::confinement::Region;

TEST(Confinement, LexicalFormResolvesTheTextAloneAndRefusesWhatItCannot) {
  struct {
    const char* path;
    std::optional<std::string> form;
  } const cases[] = {
      {"/private/var/w", "/private/var/w"},
      {"/var/mobile/./Staging/", "/private/var/mobile/Staging"},
      {"//private//var", "/private/var"},
      {"/variable", "/variable"},
      {"/", "/"},
      {"private/var/X", std::nullopt},
      {"", std::nullopt},
      {"/private/var/logs/../../etc", std::nullopt},
      {"/private/var/mobile/x/../y", std::nullopt},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(vtl::confinement::lexical_form(c.path), c.form) << c.path;
  }
}

TEST(Confinement, EachRegionRefusesWhatLiesOutsideItAndSaysWhy) {
  testsupport::TempDir root;
  fs::create_directories(root / "private/var/mobile/Staging");
  fs::create_directories(root / "etc");
  // A link the client could plant inside its own tree, leading out.
  fs::create_directory_symlink("../../../etc", root / "private/var/mobile/escape");
  const int fd = ::open(root.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(fd, 0);

  struct {
    const char* path;
    Region region;
    const char* refusal;  // nullptr: allowed
  } const cases[] = {
      // Containers, staging trees and what is removed.
      {"/private/var/VTLWorkContainer", Region::kClientTree, nullptr},
      {"/var/mobile/Staging", Region::kClientTree, nullptr},
      {"/private/var/logs/client", Region::kClientTree, nullptr},
      {"/", Region::kClientTree, "it is outside the data area"},
      {"/etc", Region::kClientTree, "it is outside the data area"},
      {"/etc/foo", Region::kClientTree, "it is outside the data area"},
      {"/private/variable", Region::kClientTree, "it is outside the data area"},
      {"private/var/X", Region::kClientTree, "it is not an absolute path"},
      {"/private/var/mobile/../../../etc", Region::kClientTree, "it climbs with \"..\""},
      {"/private/var", Region::kClientTree, "it is one of the device's own folders"},
      {"/var", Region::kClientTree, "it is one of the device's own folders"},
      {"/private/var/mobile/", Region::kClientTree, "it is one of the device's own folders"},
      {"/private/var/logs", Region::kClientTree, "it is one of the device's own folders"},
      {"/private/var/root/Library", Region::kClientTree, "it is in root's home"},
      {"/private/var/logs/vtld", Region::kClientTree, "it is in the helper's own log folder"},
      {"/private/var/mobile/escape", Region::kClientTree,
       "it passes through the symbolic link /private/var/mobile/escape"},
      {"/private/var/mobile/escape/passwd", Region::kClientTree,
       "it passes through the symbolic link /private/var/mobile/escape"},
      // Promotion never takes the final place itself.
      {"/private/var/mobile/Staging", Region::kStagingTree, nullptr},
      {"/var/backup", Region::kStagingTree, "it is the final place itself"},
      {"/private/var/backup/x", Region::kStagingTree, "it is the final place itself"},
      // Read or linked from: the fixed folders too, never root's home.
      {"/private/var/mobile", Region::kClientData, nullptr},
      {"/etc/passwd", Region::kClientData, "it is outside the data area"},
      {"/private/var/root/Library/Preferences/com.tessal.Vantrel.plist", Region::kClientData,
       "it is in root's home"},
      // Device-manifest walks: the data area and its names.
      {"/private", Region::kDataArea, nullptr},
      {"/private/", Region::kDataArea, nullptr},
      {"/private/var/root", Region::kDataArea, nullptr},
      {"/usr", Region::kDataArea, "it is outside the data area"},
      // Log folders.
      {"/var/logs/client", Region::kLogs, nullptr},
      {"/private/var/logsX", Region::kLogs, nullptr},
      {"/var/logs/../mobile", Region::kLogs, "it climbs with \"..\""},
      {"/private/var/logs/vtld/x", Region::kLogs, "it is the helper's own log folder"},
  };
  for (const auto& c : cases) {
    const std::optional<std::string> why = vtl::confinement::refusal(c.path, c.region, fd);
    if (c.refusal == nullptr) {
      EXPECT_EQ(why, std::nullopt) << c.path;
    } else {
      EXPECT_EQ(why, std::optional<std::string>(c.refusal)) << c.path;
    }
  }
  ::close(fd);
}

using testsupport::dict;

// Every item of the device with everything recorded of it (owner, mode,
// dates, link count, content digest), but the helper's own log folder.
vtl::Dictionary whole_device(const std::string& root) {
  testsupport::TestPlatform platform(root);
  vtl::VTLManifest manifest(platform.files());
  EXPECT_TRUE(manifest.addFilesFromPath_relativeTo_skip_inclusive(
      root, root, {root + "/private/var/logs"}, true));
  return manifest.dict();
}

TEST(Confinement, RefusedRequestsLeaveTheDeviceAsItWasAndTheHelperServing) {
  testsupport::Device device;
  fs::create_directories(device.path("/private/var/mobile/Staging"));
  fs::create_directories(device.path("/private/var/backup/old"));
  fs::create_directory_symlink("../../../etc", device.path("/private/var/mobile/escape"));
  testsupport::write_file(device.path("/private/var/mobile/content.signedmanifest"), "x");
  device.start();
  krx::Client client = device.connect();
  const vtl::Dictionary before = whole_device(device.root());

  // One refusal or two per command: which paths each region refuses is
  // the in-process test's.
  const std::pair<std::string, krx::Value> refused[] = {
      {"removeWorkContainer:", "/etc"},
      {"removeWorkContainer:", "/private/var"},
      {"prepareWorkContainer:", "/private/var/mobile/escape"},
      {"prepareLogContainer:", "/private/var/logs/../../etc"},
      {"createHardLink:",
       dict({{"FilePath", "/etc/passwd"}, {"StagingPath", "/private/var/mobile/Staging/passwd"}})},
      {"createHardLink:", dict({{"FilePath", "/private/var/mobile/escape/group"},
                                {"StagingPath", "/private/var/mobile/Staging/group"}})},
      {"createDeviceManifest:", dict({{"Path", "/etc"}})},
      {"restoreAttributes:",
       dict({{"StagingRootPath", "/etc"},
             {"ManifestPath", "/private/var/mobile/content.signedmanifest"}})},
      {"moveStagingToFinal:", "/var/backup"},
  };
  for (const auto& [command, parameter] : refused) {
    SCOPED_TRACE(command);
    EXPECT_EQ(testsupport::request(client, dict({{command, parameter}})),
              std::vector{dict({{"Response", false}})});
  }
  EXPECT_TRUE(
      device.wait_for_log("-[VTLHMessageResponder prepareLogContainer:]: creating logs under "
                          "/private/var/logs/../../etc is not allowed."));
  EXPECT_TRUE(device.wait_for_log(
      "-[VTLHMessageResponder removeWorkContainer:]: Refusing /etc: it is outside the data area."));
  EXPECT_TRUE(device.wait_for_log(
      "-[VTLHMessageResponder createHardLink:]: Refusing FilePath /etc/passwd: it is outside the "
      "data area."));
  EXPECT_EQ(whole_device(device.root()), before);
  EXPECT_EQ(testsupport::request(client, dict({{"removeWorkContainer:", "/private/var/absent"}})),
            std::vector{dict({{"Response", true}})});
}

}  // namespace
