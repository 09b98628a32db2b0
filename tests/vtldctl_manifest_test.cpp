// vtldctl's manifest tools and its two manifest commands: the requests the
// rows build, `manifest show` (lines and JSON) and `manifest diff` on
// manifests written by the library from real trees.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "manifest/VTLManifest.h"
#include "platform/platform.h"
#include "platform/protection_classes.h"
#include "tests/support/capture.h"
#include "tests/support/daemon.h"
#include "tests/support/file_tree.h"
#include "tests/support/output_file.h"
#include "vtldctl/commands.h"
#include "vtldctl/exit_status.h"
#include "vtldctl/manifest_tools.h"

namespace {

using testsupport::write_file;

using testsupport::dict;

TEST(VtldctlManifestCommands, RowsBuildTheHelpersRequests) {
  const vtldctl::Command* manifest = vtldctl::find_command("create-device-manifest");
  ASSERT_NE(manifest, nullptr);
  vtldctl::Arguments arguments;
  arguments.positionals = {"/private/var/"};
  arguments.flags = {true};
  EXPECT_EQ(
      vtldctl::build_request(*manifest, arguments),
      dict({{"createDeviceManifest:", dict({{"Path", "/private/var/"}, {"Inclusive", true}})}}));

  const vtldctl::Command* link = vtldctl::find_command("create-hard-link");
  ASSERT_NE(link, nullptr);
  vtldctl::Arguments link_arguments;
  link_arguments.positionals = {"/a", "/b"};
  EXPECT_EQ(vtldctl::build_request(*link, link_arguments),
            dict({{"createHardLink:", dict({{"FilePath", "/a"}, {"StagingPath", "/b"}})}}));
}

using Output = testsupport::OutputFile;

class ManifestToolsTest : public ::testing::Test, protected testsupport::AccountsDevice {
 protected:
  std::string manifest_of(const std::string& tree, const std::string& out) {
    vtl::VTLManifest m(platform_.files());
    EXPECT_TRUE(m.addFilesFromPath_relativeTo_skip_inclusive(tree, tree, {}, false));
    EXPECT_EQ(m.writeBinaryPropertyListToFile(out), 0);
    return out;
  }
};

TEST_F(ManifestToolsTest, ShowPrintsOneLinePerRecord) {
  const std::string tree = device_ / "tree";
  write_file(tree + "/notes.txt", "hello");
  ASSERT_EQ(::chown((tree + "/notes.txt").c_str(), 501, 501), 0);
  ASSERT_EQ(::chmod((tree + "/notes.txt").c_str(), 04750), 0);
  testsupport::set_xattr(tree + "/notes.txt", "user.color", "blue");
  ASSERT_EQ(classes_->set(tree + "/notes.txt", "B"), 0);
  testsupport::make_link("notes.txt", tree + "/latest");
  const std::string file = manifest_of(tree, device_ / "m.plist");

  Output out;
  Output err;
  EXPECT_EQ(vtldctl::manifest_show(file, false, out.file(), err.file()), vtldctl::kExitSuccess);
  const std::string text = out.text();
  EXPECT_NE(text.find(file + ": 2 records\n"), std::string::npos) << text;
  // SHA-1 of "hello": aaf4c61ddcc5e8a2dabede0f3b482cd9aea9434d.
  EXPECT_NE(text.find("-rwsr-x---   mobile   mobile          5 B    aaf4c61ddcc5  /notes.txt  "
                      "[user.color]\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("lrwxrwxrwx     root     root          9 -    -             /latest -> "
                      "notes.txt\n"),
            std::string::npos)
      << text;
}

TEST_F(ManifestToolsTest, ShowAsJsonKeepsEveryValue) {
  const std::string tree = device_ / "tree";
  write_file(tree + "/a", "hello");
  testsupport::set_xattr(tree + "/a", "user.bin", std::string("\x00\xff", 2));
  const timespec times[2] = {{0, UTIME_OMIT}, {1700000000, 123456789}};
  ASSERT_EQ(::utimensat(AT_FDCWD, (tree + "/a").c_str(), times, 0), 0);
  const std::string file = manifest_of(tree, device_ / "m.plist");
  Output out;
  Output err;
  EXPECT_EQ(vtldctl::manifest_show(file, true, out.file(), err.file()), vtldctl::kExitSuccess);
  const nlohmann::json j = nlohmann::json::parse(out.text());
  const auto& record = j.at("/a");
  EXPECT_EQ(record.at("VTLManifestFileHash"), "aaf4c61ddcc5e8a2dabede0f3b482cd9aea9434d");
  EXPECT_EQ(record.at("VTLManifestFileExtendedAttributes").at("user.bin"), "00ff");
  EXPECT_EQ(record.at("VTLManifestFileAttributes").at("FileSize"), 5);
  EXPECT_EQ(record.at("VTLManifestFileAttributes").at("ModificationDate"),
            "2023-11-14T22:13:20.123457Z");
  EXPECT_EQ(record.at("VTLManifestSymbolicLinkTargetFile"), "");
}

TEST_F(ManifestToolsTest, DiffNamesEachDifferenceInTheHelpersTerms) {
  const std::string a = device_ / "a";
  const std::string b = device_ / "b";
  for (const std::string& root : {a, b}) {
    write_file(root + "/same", "same");
    write_file(root + "/changed", root == a ? "before" : "after");
    write_file(root + "/moded", "m");
    testsupport::make_link(root == a ? "same" : "changed", root + "/link");
    write_file(root + "/xattr", "x");
  }
  ASSERT_EQ(::chmod((b + "/moded").c_str(), 0600), 0);
  testsupport::set_xattr(b + "/xattr", "user.k", "v");
  write_file(a + "/only-a", "");
  testsupport::make_dir(b + "/only-b");
  // A new date, size aside, is no difference to the helper.
  const timespec times[2] = {{0, UTIME_OMIT}, {1000, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, (b + "/same").c_str(), times, 0), 0);
  const std::string first = manifest_of(a, device_ / "a.plist");
  const std::string second = manifest_of(b, device_ / "b.plist");

  Output out;
  Output err;
  EXPECT_EQ(vtldctl::manifest_diff(first, second, false, out.file(), err.file()),
            vtldctl::kExitFailed);
  EXPECT_EQ(out.text(),
            "/changed: contents differ (SHA-1) (51de2b835bd3 -> 405906c9d5be)\n"
            "/link: link target differs (same -> changed)\n"
            "/moded: owner, group or permissions differ (0:0 0644 -> 0:0 0600)\n"
            "/xattr: extended attributes differ\n"
            "only in " +
                first +
                ": /only-a\n"
                "only in " +
                second +
                ": /only-b\n"
                "5 paths in both, 4 of them differ; 1 only in " +
                first + "; 1 only in " + second + "\n");

  Output same;
  EXPECT_EQ(vtldctl::manifest_diff(first, first, true, same.file(), err.file()),
            vtldctl::kExitSuccess);
  EXPECT_EQ(same.text(), "{\"Both\":6,\"Differ\":0,\"OnlyInA\":0,\"OnlyInB\":0}\n");
}

TEST_F(ManifestToolsTest, FilesThatAreNotManifestsAreRefused) {
  write_file(device_ / "junk", "not a property list");
  write_file(device_ / "array.plist",
             "<?xml version=\"1.0\"?><plist version=\"1.0\"><array/></plist>");
  Output out;
  Output err;
  EXPECT_EQ(vtldctl::manifest_show(device_ / "junk", false, out.file(), err.file()),
            vtldctl::kExitLocalFailure);
  EXPECT_EQ(vtldctl::manifest_show(device_ / "array.plist", false, out.file(), err.file()),
            vtldctl::kExitLocalFailure);
  EXPECT_EQ(
      vtldctl::manifest_diff(device_ / "missing", device_ / "junk", false, out.file(), err.file()),
      vtldctl::kExitLocalFailure);
  EXPECT_NE(err.text().find("not a manifest"), std::string::npos);
}

}  // namespace
