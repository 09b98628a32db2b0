// The attribute restore in-process, on staging trees in a temporary
// directory: which records each container type and identifier select, that
// every staged item ends up as its record says, and what stops a restore.
// The promotion into "/var/backup" is tested through the helper only
// (operations_restore_e2e_test.cpp): in-process it would touch the host.
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "base/plist.h"
#include "manifest/VTLManifest.h"
#include "manifest/attribute_keys.h"
#include "operations/VTLHOperations.h"
#include "platform/platform.h"
#include "platform/protection_classes.h"
#include "tests/support/daemon.h"
#include "tests/support/signing.h"

namespace {

namespace fs = std::filesystem;
using testsupport::Fuse;
using vtl::Dictionary;
using vtl::Value;

constexpr const char* kLoading = "Loading signed manifest.";
constexpr const char* kStrong = "Verifing strong signing";
constexpr const char* kPassed = "Manifest passed signature check.";

// A record that gives a regular file `mode` and root's ownership.
Dictionary file_record(std::int64_t mode, std::int64_t uid = 0, std::int64_t gid = 0,
                       Dictionary xattrs = {}, const char* protection = nullptr) {
  Dictionary attributes = {
      {"FileType", Value("Regular")},
      {"PosixPermissions", Value(mode)},
      {"OwnerAccountID", Value(uid)},
      {"GroupOwnerAccountID", Value(gid)},
  };
  if (protection != nullptr) attributes.emplace("ProtectionClass", Value(protection));
  return {
      {"VTLManifestFileAttributes", Value(std::move(attributes))},
      {"VTLManifestFileExtendedAttributes", Value(std::move(xattrs))},
      {"VTLManifestFileHash", Value(vtl::Data{})},
      {"VTLManifestSymbolicLinkTargetFile", Value("")},
  };
}

Dictionary records_for(std::int64_t mode) { return {{"/f", Value(file_record(mode))}}; }

mode_t mode_of(const std::string& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return 0;
  return st.st_mode & 07777;
}

std::size_t open_descriptors() {
  std::size_t n = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/fd")) ++n;
  return n;
}

class RestoreTest : public ::testing::Test {
 protected:
  RestoreTest()
      : staging_(dir_ / "staging"),
        manifest_path_(dir_ / "manifest.plist"),
        signer_(testsupport::pki_signer("production-leaf", {"production-intermediate"})) {
    testsupport::install_fixture_trust(dir_.path());
    testsupport::write_fuse(dir_.path(), Fuse::kTrue);
    platform_ = std::make_unique<testsupport::SigningPlatform>(dir_.path());
    platform_->base.roles.protection_classes = classes_.get();
    platform_->base.apply();
    fs::create_directories(staging_);
    std::ofstream(staging_ + "/f") << "content";
    ::chmod((staging_ + "/f").c_str(), 0600);
  }

  void sign(const Dictionary& raw) {
    testsupport::write_signed_manifest(manifest_path_, signer_, raw);
  }
  bool restore(const std::string* type, const std::string* identifier) {
    return restore_from(&staging_, &manifest_path_, type, identifier);
  }
  bool restore_from(const std::string* root, const std::string* manifest,
                    const std::string* type = nullptr, const std::string* identifier = nullptr) {
    platform_->base.log.clear();
    return vtl::VTLHOperations::sharedInstance()
        .restoreAttributesUnder_fromManifest_containerType_identifier(root, manifest, type,
                                                                      identifier);
  }
  std::vector<std::string> log() const { return platform_->base.log.lines(); }
  // How the item at `path` compares with `record` (6: the same type, owner,
  // group, mode, extended attributes and link target), and whether it has
  // the record's protection class.
  std::pair<int, bool> compared(const std::string& path, const Dictionary& record) const {
    const auto item = vtl::VTLFileMetadata::fileMetadatatWithPath(path, platform_->base.files());
    if (!item) return {-1, false};
    const vtl::VTLFileMetadata recorded(record);
    auto protection = [](const vtl::VTLFileMetadata& m) {
      const auto it = m.getFileAttributes()->find(vtl::keys::kProtectionClass);
      return it == m.getFileAttributes()->end() ? std::nullopt : std::optional(it->second);
    };
    return {item->compareWith(&recorded), protection(*item) == protection(recorded)};
  }

  testsupport::TempDir dir_;
  std::string staging_;
  std::string manifest_path_;
  vtl::ManifestSigner signer_;
  std::unique_ptr<platform::ProtectionClasses> classes_ = platform::make_xattr_protection_classes();
  std::unique_ptr<testsupport::SigningPlatform> platform_;
};

// Each container selects its own records: the file's mode tells which.
TEST_F(RestoreTest, TheContainerTypeAndIdentifierSelectTheRecords) {
  Dictionary raw = testsupport::raw_manifest(records_for(0601));
  raw["AppData"] = Value(Dictionary{
      {"app.one", Value(Dictionary{{"Manifest", Value(records_for(0602))}})},
      {"app.bare", Value(Dictionary{{"Container", Value("/x")}})},
      {"app.odd", Value("not an entry")},
  });
  raw["GroupData"] = Value(Dictionary{{"group.one", Value(records_for(0603))}});
  raw["ExtensionData"] = Value(Dictionary{{"ext.one", Value(records_for(0604))}});
  sign(raw);

  struct Case {
    std::optional<std::string> type;
    std::optional<std::string> identifier;
    mode_t mode;  // 0: refused, the mode left as it was
    std::string message;
  };
  const std::vector<Case> cases = {
      {std::nullopt, std::nullopt, 0601, ""},
      {std::nullopt, "app.one", 0601, ""},
      {"AppData", std::nullopt, 0601, ""},
      {"GroupData", std::nullopt, 0601, ""},
      {"Unknown", std::nullopt, 0601, ""},
      {"AppData", "app.one", 0602, ""},
      {"GroupData", "group.one", 0603, ""},
      {"ExtensionData", "ext.one", 0604, ""},
      {"AppData", "app.none", 0, "Couldn't load container data for AppData/app.none"},
      {"AppData", "app.bare", 0, "Couldn't load manifest dict for AppData/app.bare"},
      {"AppData", "app.odd", 0, "Couldn't load manifest dict for AppData/app.odd"},
      // A group entry is the record dictionary itself: no "Manifest" inside.
      {"GroupData", "app.one", 0, "Couldn't load manifest dict for GroupData/app.one"},
      {"GroupData", "group.none", 0, "Couldn't load manifest dict for GroupData/group.none"},
      {"ExtensionData", "group.one", 0, "Couldn't load manifest dict for ExtensionData/group.one"},
      {"appdata", "app.one", 0, "Couldn't load manifest dict for appdata/app.one"},
      {"Backup", "app.one", 0, "Couldn't load manifest dict for Backup/app.one"},
      {"", "app.one", 0, "Couldn't load manifest dict for /app.one"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.type.value_or("(none)") + "/" + c.identifier.value_or("(none)"));
    ::chmod((staging_ + "/f").c_str(), 0600);
    const bool restored =
        restore(c.type ? &*c.type : nullptr, c.identifier ? &*c.identifier : nullptr);
    EXPECT_EQ(restored, c.mode != 0);
    EXPECT_EQ(mode_of(staging_ + "/f"), c.mode != 0 ? c.mode : 0600);
    std::vector<std::string> expected = {kLoading, kStrong, kPassed};
    if (!c.message.empty()) expected.push_back(c.message);
    EXPECT_EQ(log(), expected);
  }
}

TEST_F(RestoreTest, EmptyRecordSetsAndMissingContainerLists) {
  // No record at all: nothing to restore, and done.
  sign(testsupport::raw_manifest(Dictionary{}));
  EXPECT_TRUE(restore(nullptr, nullptr));
  EXPECT_EQ(mode_of(staging_ + "/f"), 0600u);
  // The group and extension lists are optional: without them no container is found.
  const std::string id = "x";
  for (const std::string type : {"GroupData", "ExtensionData"}) {
    EXPECT_FALSE(restore(&type, &id));
    EXPECT_EQ(log().back(), "Couldn't load manifest dict for " + type + "/x");
  }
}

TEST_F(RestoreTest, ARejectedManifestIsClosedAndLogsNothingOfTheRestore) {
  sign(testsupport::raw_manifest(records_for(0601)));
  // One byte of the payload changed: the signature no longer holds.
  std::optional<vtl::Value> envelope = vtl::read_plist_file(manifest_path_);
  ASSERT_TRUE(envelope);
  vtl::Data& payload = *std::get_if<vtl::Data>(&(*envelope->dictionary())["Payload"].storage());
  payload[payload.size() / 2] ^= 0x04;
  ASSERT_EQ(vtl::write_file_atomically(manifest_path_, testsupport::binary_plist(*envelope)), 0);

  const std::size_t before = open_descriptors();
  EXPECT_FALSE(restore(nullptr, nullptr));
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_EQ(log(), (std::vector<std::string>{kLoading, kStrong}));
  EXPECT_EQ(mode_of(staging_ + "/f"), 0600u);
}

TEST_F(RestoreTest, AManifestThatCannotBeOpenedAsAStream) {
  const std::string missing = dir_ / "missing.plist";
  const std::string directory = dir_.path();
  const std::string fifo = dir_ / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string* path :
       {&missing, &directory, &fifo, static_cast<const std::string*>(nullptr)}) {
    SCOPED_TRACE(path ? *path : "(null)");
    // A FIFO must not block the helper: nobody will ever write to it.
    EXPECT_FALSE(restore_from(&staging_, path));
    const std::string why = path != nullptr ? " " + *path + ": " : ": no path was given";
    const std::vector<std::string> lines = log();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0], kLoading);
    EXPECT_EQ(lines[1], "Cannot open manifest file.");
    EXPECT_TRUE(lines[2].starts_with("Cannot open manifest file" + why)) << lines[2];
  }
}

// Every item ends up with the owner, group, mode, extended attributes and
// protection class of its record, whatever it had before.
TEST_F(RestoreTest, EveryStagedItemMatchesItsRecord) {
  const std::string source = dir_ / "source";
  fs::create_directories(source + "/Library/Preferences");
  fs::create_directories(source + "/Documents/empty");
  struct Item {
    const char* path;
    mode_t mode;
    uid_t uid;
    gid_t gid;
    const char* protection;
    std::vector<std::pair<const char*, std::string>> xattrs;
  };
  const std::vector<Item> items = {
      {"/Library/Preferences/a.plist", 0600, 501, 501, "C", {{"user.kind", "prefs"}}},
      {"/Library/Preferences/b.bin",
       0640,
       501,
       0,
       "A",
       {{"user.one", std::string("\0\1\2", 3)}, {"user.two", ""}}},
      {"/Documents/tool", 04755, 0, 501, "None", {}},
      {"/Documents/plain", 0444, 501, 501, nullptr, {{"user.big", std::string(3000, 'x')}}},
  };
  for (const Item& item : items) {
    const std::string path = source + item.path;
    std::ofstream(path) << item.path;
    ASSERT_EQ(::chown(path.c_str(), item.uid, item.gid), 0);
    ASSERT_EQ(::chmod(path.c_str(), item.mode), 0);
    for (const auto& [name, value] : item.xattrs) {
      ASSERT_EQ(::setxattr(path.c_str(), name, value.data(), value.size(), 0), 0);
    }
    if (item.protection != nullptr) {
      ASSERT_EQ(classes_->set(path, item.protection), 0);
    }
  }
  ASSERT_EQ(::chown((source + "/Library").c_str(), 501, 501), 0);
  ASSERT_EQ(::chown((source + "/Library/Preferences").c_str(), 501, 0), 0);
  ASSERT_EQ(::chmod((source + "/Library/Preferences").c_str(), 0750), 0);
  ASSERT_EQ(::chmod(source.c_str(), 0711), 0);
  ASSERT_EQ(::chmod((source + "/Documents/empty").c_str(), 0700), 0);
  ASSERT_EQ(classes_->set(source + "/Documents", "B"), 0);
  fs::create_symlink("Preferences/a.plist", source + "/Library/link");
  ASSERT_EQ(::lchown((source + "/Library/link").c_str(), 501, 501), 0);

  vtl::VTLManifest recorded(platform_->base.files());
  ASSERT_TRUE(recorded.addFilesFromPath_relativeTo_skip_inclusive(source, source, {}, true));
  const Dictionary records = recorded.dict();
  ASSERT_EQ(records.size(), 10u);  // the items, 4 directories and the root itself

  // The staged copy: the same tree, everything root's, plain modes, no
  // attributes, no classes.
  fs::remove_all(staging_);
  fs::copy(source, staging_, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  for (const auto& entry : fs::recursive_directory_iterator(staging_)) {
    ASSERT_EQ(::lchown(entry.path().c_str(), 0, 0), 0);
    if (!entry.is_symlink()) ::chmod(entry.path().c_str(), entry.is_directory() ? 0755 : 0644);
  }
  ASSERT_EQ(::chmod(staging_.c_str(), 0755), 0);
  for (const auto& [relative, record] : records) {
    EXPECT_NE(compared(staging_ + relative, *record.dictionary()), std::pair(6, true))
        << relative << " already matches: the test would prove nothing";
  }

  sign(testsupport::raw_manifest(records));
  EXPECT_TRUE(restore(nullptr, nullptr));
  for (const auto& [relative, record] : records) {
    const std::string path = relative == "/" ? staging_ : staging_ + relative;
    EXPECT_EQ(compared(path, *record.dictionary()), std::pair(6, true)) << relative;
  }
  // A restore may be repeated: it sets the same again.
  EXPECT_TRUE(restore(nullptr, nullptr));
  EXPECT_EQ(compared(staging_ + "/Documents/tool", *records.at("/Documents/tool").dictionary()),
            std::pair(6, true));
}

TEST_F(RestoreTest, ARecordThatIsNotADictionaryFailsSilently) {
  sign(testsupport::raw_manifest(Dictionary{{"/f", Value("not a record")}}));
  EXPECT_FALSE(restore(nullptr, nullptr));
  EXPECT_EQ(log(), (std::vector<std::string>{kLoading, kStrong, kPassed}));
}

TEST_F(RestoreTest, NoPathLeavesTheStagingRootThroughALinkOrDots) {
  const std::string outside = dir_ / "outside";
  fs::create_directories(outside);
  std::ofstream(outside + "/target") << "root's";
  ASSERT_EQ(::chmod((outside + "/target").c_str(), 0600), 0);
  // The client owns the staging tree and puts a link where a directory was.
  fs::create_directory_symlink(outside, staging_ + "/Library");
  const std::string method =
      "-[VTLHOperations restoreAttributesUnder:fromManifest:containerType:identifier:]";

  for (const char* relative : {"/Library/target", "/../outside/target", "/./f"}) {
    SCOPED_TRACE(relative);
    sign(testsupport::raw_manifest(Dictionary{{relative, Value(file_record(0666, 501, 501))}}));
    EXPECT_FALSE(restore(nullptr, nullptr));
    EXPECT_EQ(log().back(), method + ": Refusing " + relative +
                                ": it is not a plain path under the staging root.");
    EXPECT_EQ(mode_of(outside + "/target"), 0600u);
  }
  // The link as the item itself: whatever its record says, what it points to
  // is never changed.
  ASSERT_EQ(::chmod(outside.c_str(), 0700), 0);
  sign(testsupport::raw_manifest(Dictionary{{"/Library", Value(file_record(0777, 501, 501))}}));
  static_cast<void>(restore(nullptr, nullptr));
  struct stat st {};
  ASSERT_EQ(::stat(outside.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0700u);
  EXPECT_EQ(st.st_uid, 0u);
}

TEST_F(RestoreTest, TheFirstFailureEndsTheWalkAndIsAllThatIsLogged) {
  // Three hundred records, one in ten staged (the names sort them among the
  // others): on several threads, many files fail at once beside files that
  // restore, and the log still shows one walk that stopped at its first
  // failure and logged nothing after it.
  Dictionary records;
  for (int i = 0; i < 300; ++i) {
    const std::string name = "/" + std::to_string(i) + (i % 10 == 0 ? "staged" : "absent");
    if (i % 10 == 0) std::ofstream(staging_ + name) << name;
    records[name] = Value(file_record(0644));
  }
  sign(testsupport::raw_manifest(records));
  for (int run = 0; run < 10; ++run) {
    SCOPED_TRACE(run);
    EXPECT_FALSE(restore(nullptr, nullptr));
    const std::vector<std::string> lines = log();
    ASSERT_EQ(lines.size(), 4u) << testing::PrintToString(lines);
    EXPECT_TRUE(lines.back().starts_with("Could not set file attributs at " + staging_ + "/") &&
                lines.back().find("absent with error - ") != std::string::npos)
        << lines.back();
  }
}

TEST_F(RestoreTest, WithoutAStagingRootARecordHasNoPathAndItsFailureSaysWhy) {
  auto restore_without_root = [&](const Dictionary& records) {
    sign(testsupport::raw_manifest(records));
    return restore_from(nullptr, &manifest_path_);
  };
  EXPECT_FALSE(restore_without_root(records_for(0601)));
  EXPECT_EQ(
      log().back(),
      "Could not set file attributs at (null) with error - no staging root path was given, "
      "attributes = { GroupOwnerAccountID = 0; OwnerAccountID = 0; PosixPermissions = 385; }");
  EXPECT_EQ(mode_of(staging_ + "/f"), 0600u);

  // Nothing of a link is checked but its extended attributes.
  Dictionary link = file_record(0777);
  link["VTLManifestFileAttributes"].dictionary()->insert_or_assign("FileType",
                                                                   Value("SymbolicLink"));
  EXPECT_TRUE(restore_without_root(Dictionary{{"/l", Value(link)}}));
  link["VTLManifestFileExtendedAttributes"] = Value(Dictionary{{"user.tag", Value(vtl::Data{1})}});
  EXPECT_FALSE(restore_without_root(Dictionary{{"/l", Value(link)}}));
  EXPECT_EQ(log().back(), "Could not set extended attributes on (null)");
}

}  // namespace
