// The device manifest and hard-link staging through the real helper on a
// simulated device: the file read by Python's plistlib, progress of the
// whole-data-area walk, and staging trees of hard links. What each record
// holds is tested in-process (manifest_file_metadata_test.cpp,
// manifest_builder_test.cpp).
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <set>

#include <gtest/gtest.h>

#include "base/plist.h"
#include "manifest/VTLManifest.h"
#include "tests/support/daemon.h"
#include "tests/support/file_tree.h"

namespace {

using namespace std::chrono_literals;
using testsupport::Device;
using testsupport::make_dir;
using testsupport::request;
using testsupport::write_file;
using vtl::Dictionary;
using vtl::Value;

constexpr const char* kManifestFile = "/private/var/VTLWorkContainer/DeviceManifest.plist";

using testsupport::dict;

const krx::Value kTrue = dict({{"Response", true}});
const krx::Value kFalse = dict({{"Response", false}});

class DeviceManifestTest : public ::testing::Test {
 protected:
  DeviceManifestTest() {
    device_.start();
    client_ = std::make_unique<krx::Client>(device_.connect());
    EXPECT_EQ(request(*client_, dict({{"prepareWorkContainer:", "/private/var/VTLWorkContainer"}})),
              std::vector{kTrue});
  }

  std::vector<krx::Value> manifest_of(const std::string& path, std::optional<bool> inclusive,
                                      std::chrono::milliseconds idle = 60s) {
    krx::Dictionary parameters{{"Path", path}};
    if (inclusive) parameters.emplace_back("Inclusive", *inclusive);
    return request(*client_, dict({{"createDeviceManifest:", krx::Value(parameters)}}), 1, idle);
  }

  Dictionary read_manifest() const {
    std::optional<Value> v =
        vtl::read_plist_file(device_.path(kManifestFile), std::size_t{1} << 30);
    if (!v || v->dictionary() == nullptr) throw std::runtime_error("no readable device manifest");
    return *v->dictionary();
  }

  static std::set<std::string> keys(const Dictionary& d) {
    std::set<std::string> out;
    for (const auto& [k, v] : d) out.insert(k);
    return out;
  }

  Device device_;
  std::unique_ptr<krx::Client> client_;
};

TEST_F(DeviceManifestTest, PythonsPlistlibReadsTheManifest) {
  if (std::system("command -v python3 >/dev/null 2>&1") != 0) GTEST_SKIP() << "no python3";
  const std::string data = device_.path("/private/var/mobile/Py");
  for (int i = 0; i < 300; ++i)
    write_file(data + "/d" + std::to_string(i % 7) + "/f" + std::to_string(i), std::to_string(i));
  write_file(data + "/caf\xc3\xa9 \xf0\x9f\x98\x80", "unicode name");
  testsupport::make_link("d1", data + "/l");
  ASSERT_EQ(manifest_of("/private/var/mobile/Py", std::nullopt), std::vector{kTrue});
  const Dictionary manifest = read_manifest();

  // Python checks each file's hash and size against the file itself.
  const std::string script =
      "import os, plistlib, sys, hashlib\n"
      "d = plistlib.load(open(sys.argv[1], 'rb'))\n"
      "for k, r in d.items():\n"
      "    a, p = r['VTLManifestFileAttributes'], sys.argv[2] + k\n"
      "    if a['FileType'] == 'Regular':\n"
      "        assert r['VTLManifestFileHash'] == hashlib.sha1(open(p, 'rb').read()).digest(), k\n"
      "        assert a['FileSize'] == os.path.getsize(p), k\n"
      "print(len(d), d['/l']['VTLManifestSymbolicLinkTargetFile'],\n"
      "      d['/caf\\u00e9 \\U0001f600']['VTLManifestFileAttributes']['FileSize'])\n";
  std::string output;
  EXPECT_EQ(testsupport::run({"python3", "-c", script, device_.path(kManifestFile), data}, &output),
            0);
  EXPECT_EQ(output, std::to_string(manifest.size()) + " d1 12\n");
  EXPECT_GT(manifest.size(), 300u);
}

TEST_F(DeviceManifestTest, WholeDataAreaSendsRisingProgressBeforeItsResponse) {
  for (int i = 0; i < 200; ++i) {
    write_file(device_.path("/private/var/mobile/Library/Files/f" + std::to_string(i)),
               std::string(20000 + static_cast<std::size_t>(i), 'p'));
  }
  for (const char* skipped :
       {"/private/var/mobile/Containers/Data/x", "/private/var/mobile/Applications/App/y",
        "/private/var/mobile/QuarnBuiltProducts/z"}) {
    write_file(device_.path(skipped), "never recorded");
  }
  write_file(device_.path("/private/var/mobile/ContainersNot/kept"), "recorded");

  const std::vector<krx::Value> messages = manifest_of("/private/var/", false);
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(messages.back(), kTrue);
  std::vector<std::int64_t> progress;
  for (std::size_t i = 0; i + 1 < messages.size(); ++i) {
    const krx::Value* p = messages[i].find("Progress");
    ASSERT_NE(p, nullptr) << "only progress comes before the response";
    progress.push_back(*p->get<std::int64_t>());
  }
  ASSERT_GE(progress.size(), 10u);
  for (std::size_t i = 1; i < progress.size(); ++i) EXPECT_GT(progress[i], progress[i - 1]);
  EXPECT_GE(progress.back(), 100);

  const Dictionary manifest = read_manifest();
  EXPECT_TRUE(manifest.contains("/var/mobile/Library/Files/f7"));
  EXPECT_TRUE(manifest.contains("/var/mobile/ContainersNot/kept"));
  EXPECT_TRUE(manifest.contains("/var/mobile"));
  EXPECT_FALSE(manifest.contains("/var"));
  for (const auto& [key, record] : manifest) {
    EXPECT_TRUE(key.starts_with("/var/")) << key;
    EXPECT_FALSE(key.starts_with("/var/mobile/Containers/")) << key;
    EXPECT_FALSE(key.starts_with("/var/mobile/Applications/")) << key;
    EXPECT_FALSE(key.starts_with("/var/mobile/QuarnBuiltProducts/")) << key;
  }
  EXPECT_TRUE(device_.wait_for_log("Device manifest created (for /private/var/)"));
}

TEST_F(DeviceManifestTest, AnOrdinaryPathSendsNoProgressAndSkipsItsHiddenEntries) {
  write_file(device_.path("/private/var/mobile/Media/a"), std::string(5000, 'a'));
  write_file(device_.path("/private/var/mobile/Media/.Trash/b"), "b");
  write_file(device_.path("/private/var/mobile/Media/c/.d"), "deeper hidden entries stay");
  // Without "Inclusive": not inclusive.
  EXPECT_EQ(manifest_of("/private/var/mobile/Media", std::nullopt), std::vector{kTrue});
  EXPECT_EQ(keys(read_manifest()), (std::set<std::string>{"/a", "/c", "/c/.d"}));
}

TEST_F(DeviceManifestTest,
       ANewManifestReplacesTheOldAFailedWalkWritesNothingAndAMissingPathIsEmpty) {
  write_file(device_.path(kManifestFile), "an old, broken manifest");
  write_file(device_.path("/private/var/mobile/One/x"), "x");
  EXPECT_EQ(manifest_of("/private/var/mobile/One", false), std::vector{kTrue});
  EXPECT_EQ(keys(read_manifest()), std::set<std::string>{"/x"});

  // The path itself cannot be classified: the walk fails.
  EXPECT_EQ(manifest_of("/private/var/mobile/Missing", true), std::vector{kFalse});
  EXPECT_TRUE(device_.wait_for_log("Cannot create device manifest - 1"));
  EXPECT_EQ(keys(read_manifest()), std::set<std::string>{"/x"});
  // No path at all.
  EXPECT_EQ(request(*client_, dict({{"createDeviceManifest:", dict({})}})), std::vector{kFalse});
  // Walked without "Inclusive", a missing path is an enumeration that finds
  // nothing: its error is logged and an empty manifest written.
  EXPECT_EQ(manifest_of("/private/var/mobile/Missing", false), std::vector{kTrue});
  EXPECT_TRUE(device_.wait_for_log("Could not enumerate /private/var/mobile/Missing"));
  EXPECT_EQ(keys(read_manifest()), std::set<std::string>{});
}

TEST_F(DeviceManifestTest, HardLinkedStagingSharesInodes) {
  const std::string src = device_.path("/private/var/mobile/Src");
  write_file(src + "/file", "content");
  write_file(src + "/tree/a", "a");
  write_file(src + "/tree/sub/b", "b");
  testsupport::make_link("a", src + "/tree/link");
  testsupport::make_fifo(src + "/tree/fifo");
  ASSERT_EQ(::chown((src + "/tree/sub").c_str(), 501, 501), 0);
  ASSERT_EQ(::chmod((src + "/tree/sub").c_str(), 0550), 0);
  const std::string staging = "/private/var/VTLWorkContainer/VTL_staging";
  make_dir(device_.path(staging));

  auto link = [&](const std::string& from, const std::string& to) {
    return request(*client_,
                   dict({{"createHardLink:", dict({{"FilePath", from}, {"StagingPath", to}})}}));
  };
  EXPECT_EQ(link("/private/var/mobile/Src/file", staging + "/file"), std::vector{kTrue});
  EXPECT_EQ(testsupport::lstat_of(device_.path(staging + "/file")).st_ino,
            testsupport::lstat_of(src + "/file").st_ino);

  EXPECT_EQ(link("/private/var/mobile/Src/tree", staging + "/tree"), std::vector{kTrue});
  const std::string staged = device_.path(staging + "/tree");
  EXPECT_NE(testsupport::lstat_of(staged).st_ino, testsupport::lstat_of(src + "/tree").st_ino);
  for (const char* item : {"/a", "/sub/b", "/link", "/fifo"}) {
    EXPECT_EQ(testsupport::lstat_of(staged + item).st_ino,
              testsupport::lstat_of(src + "/tree" + item).st_ino)
        << item;
  }
  EXPECT_TRUE(S_ISLNK(testsupport::lstat_of(staged + "/link").st_mode));
  const struct stat sub = testsupport::lstat_of(staged + "/sub");
  EXPECT_NE(sub.st_ino, testsupport::lstat_of(src + "/tree/sub").st_ino);
  EXPECT_EQ(sub.st_uid, 501u);
  EXPECT_EQ(sub.st_mode & 07777, 0550u);

  EXPECT_EQ(link("/private/var/mobile/Src/file", staging + "/file"), std::vector{kFalse});
  EXPECT_TRUE(device_.wait_for_log("Could not link /private/var/mobile/Src/file to " + staging +
                                   "/file with error -File exists."));
  EXPECT_EQ(link("/private/var/mobile/Src/tree", staging + "/tree"), std::vector{kFalse});
  EXPECT_EQ(link("/private/var/mobile/Src/file", staging + "/no/parent"), std::vector{kFalse});
  EXPECT_EQ(
      request(*client_, dict({{"createHardLink:", dict({{"FilePath", "/private/var/mobile/x"}})}})),
      std::vector{kFalse});
  EXPECT_TRUE(device_.wait_for_log(
      "Could not link /private/var/mobile/x to (null) with error -Invalid argument."));
}

}  // namespace
