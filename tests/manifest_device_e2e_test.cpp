// The device manifest and hard-link staging through the real helper on a
// simulated device: every record against the item on disk, the file read by
// libplist and by Python's plistlib, progress of the whole-data-area walk, a
// file removed while the walk runs, and staging trees of hard links.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "base/plist.h"
#include "manifest/VTLManifest.h"
#include "tests/support/daemon.h"
#include "tests/support/file_tree.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testsupport::Device;
using testsupport::make_dir;
using testsupport::request;
using testsupport::write_file;
using vtl::Data;
using vtl::Dictionary;
using vtl::Value;

constexpr const char* kManifestFile = "/private/var/VTLWorkContainer/DeviceManifest.plist";
constexpr const char* kProtectionName = "trusted.com.tessal.protection-class";

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

// What the record of the item at `path` must say, read here independently.
void expect_record_matches(const Value& record, const std::string& path) {
  SCOPED_TRACE(path);
  const struct stat st = testsupport::lstat_of(path);
  const Value* attributes = record.find("VTLManifestFileAttributes");
  ASSERT_NE(attributes, nullptr);
  const char* type = S_ISREG(st.st_mode)   ? "Regular"
                     : S_ISDIR(st.st_mode) ? "Directory"
                     : S_ISLNK(st.st_mode) ? "SymbolicLink"
                                           : "other";
  EXPECT_EQ(*attributes->find("FileType"), Value(type));
  EXPECT_EQ(*attributes->find("FileSize"), Value(static_cast<std::int64_t>(st.st_size)));
  EXPECT_EQ(*attributes->find("OwnerAccountID"), Value(static_cast<std::int64_t>(st.st_uid)));
  EXPECT_EQ(*attributes->find("GroupOwnerAccountID"), Value(static_cast<std::int64_t>(st.st_gid)));
  EXPECT_EQ(*attributes->find("PosixPermissions"),
            Value(static_cast<std::int64_t>(st.st_mode & 07777)));
  EXPECT_EQ(*attributes->find("SystemFileNumber"), Value(static_cast<std::int64_t>(st.st_ino)));

  char klass[16];
  const ssize_t klass_length = ::lgetxattr(path.c_str(), kProtectionName, klass, sizeof klass);
  if (klass_length > 0) {
    EXPECT_EQ(*attributes->find("ProtectionClass"),
              Value(std::string(klass, static_cast<std::size_t>(klass_length))));
  } else {
    EXPECT_EQ(attributes->find("ProtectionClass"), nullptr);
  }

  Dictionary xattrs;
  char names[65536];
  const ssize_t n = ::llistxattr(path.c_str(), names, sizeof names);
  ASSERT_GE(n, 0);
  for (ssize_t at = 0; at < n;) {
    const std::string name(names + at);
    at += static_cast<ssize_t>(name.size()) + 1;
    if (name == kProtectionName) continue;
    std::vector<std::uint8_t> value(65536);
    const ssize_t v = ::lgetxattr(path.c_str(), name.c_str(), value.data(), value.size());
    ASSERT_GE(v, 0);
    value.resize(static_cast<std::size_t>(v));
    xattrs.emplace(name, Value(value));
  }
  EXPECT_EQ(*record.find("VTLManifestFileExtendedAttributes"), Value(xattrs));

  const Data hash = S_ISREG(st.st_mode) ? testsupport::sha1(testsupport::read_file(path)) : Data{};
  EXPECT_EQ(*record.find("VTLManifestFileHash"), Value(hash));
  std::string target;
  if (S_ISLNK(st.st_mode)) target = fs::read_symlink(path).string();
  EXPECT_EQ(*record.find("VTLManifestSymbolicLinkTargetFile"), Value(target));
}

TEST_F(DeviceManifestTest, EveryRecordAgreesWithTheItemOnDisk) {
  const std::string data = device_.path("/private/var/mobile/Data");
  write_file(data + "/empty", "");
  write_file(data + "/small.txt", "hello");
  std::string big(700000, '\0');
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7 + (i >> 11));
  write_file(data + "/Library/big.bin", big);
  write_file(data + "/Library/Prefs/p.plist", "<plist/>");
  testsupport::set_xattr(data + "/small.txt", "user.tag", "blue");
  testsupport::set_xattr(data + "/small.txt", "user.binary", std::string("\0\xff\x01", 3));
  testsupport::set_xattr(data + "/Library", "trusted.dir", "d");
  testsupport::set_xattr(data + "/Library/big.bin", kProtectionName, "C");
  testsupport::set_xattr(data + "/empty", kProtectionName, "None");
  ASSERT_EQ(::chown((data + "/Library/Prefs/p.plist").c_str(), 501, 501), 0);
  ASSERT_EQ(::chmod((data + "/Library/Prefs/p.plist").c_str(), 0600), 0);
  testsupport::make_link("Library/big.bin", data + "/link");
  testsupport::make_link("/nowhere", data + "/dangling");
  testsupport::make_fifo(data + "/Library/fifo");
  write_file(data + "/.cache/skipped", "hidden");
  write_file(data + "/.hidden-file", "hidden");

  EXPECT_EQ(manifest_of("/private/var/mobile/Data", true), std::vector{kTrue});
  const Dictionary manifest = read_manifest();
  EXPECT_EQ(keys(manifest), (std::set<std::string>{
                                "/", "/empty", "/small.txt", "/Library", "/Library/big.bin",
                                "/Library/Prefs", "/Library/Prefs/p.plist", "/link", "/dangling"}));
  for (const auto& [key, record] : manifest) {
    expect_record_matches(record, key == "/" ? data : data + key);
  }
  EXPECT_TRUE(device_.wait_for_log("Device manifest created (for /private/var/mobile/Data)"));
  EXPECT_TRUE(device_.wait_for_log(
      "/private/var/mobile/Data/Library/fifo is special file. Leave it along"));
  EXPECT_TRUE(device_.wait_for_log(
      "Entering -[VTLHMessageResponder createDeviceManifest:] with parameter: { Inclusive = 1; "
      "Path = \"/private/var/mobile/Data\"; }"));
  // The client can read it.
  EXPECT_EQ(testsupport::lstat_of(device_.path(kManifestFile)).st_mode & 0777, 0644u);
}

TEST_F(DeviceManifestTest, PythonsPlistlibReadsTheManifest) {
  if (std::system("command -v python3 >/dev/null 2>&1") != 0) GTEST_SKIP() << "no python3";
  const std::string data = device_.path("/private/var/mobile/Py");
  for (int i = 0; i < 300; ++i)
    write_file(data + "/d" + std::to_string(i % 7) + "/f" + std::to_string(i), std::to_string(i));
  write_file(data + "/caf\xc3\xa9 \xf0\x9f\x98\x80", "unicode name");
  testsupport::make_link("d1", data + "/l");
  ASSERT_EQ(manifest_of("/private/var/mobile/Py", std::nullopt), std::vector{kTrue});
  const Dictionary manifest = read_manifest();

  const std::string script =
      "import plistlib, sys, hashlib\n"
      "d = plistlib.load(open(sys.argv[1], 'rb'))\n"
      "for k in sorted(d):\n"
      "    r = d[k]\n"
      "    a = r['VTLManifestFileAttributes']\n"
      "    print(k, a['FileType'], a['FileSize'], r['VTLManifestFileHash'].hex(),\n"
      "          r['VTLManifestSymbolicLinkTargetFile'], a['ModificationDate'].year, sep='|')\n";
  const std::string command = "python3 -c \"$SCRIPT\" '" + device_.path(kManifestFile) + "'";
  ::setenv("SCRIPT", script.c_str(), 1);
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command.c_str(), "r"), ::pclose);
  ASSERT_TRUE(pipe);
  std::string output;
  char buffer[4096];
  while (std::size_t n = std::fread(buffer, 1, sizeof buffer, pipe.get())) output.append(buffer, n);

  std::string expected;
  std::vector<std::string> sorted_keys;
  for (const auto& [k, v] : manifest) sorted_keys.push_back(k);
  // Python sorts by code point, which for UTF-8 is byte order: the same.
  for (const std::string& k : sorted_keys) {
    const Value& r = manifest.at(k);
    const Value& a = *r.find("VTLManifestFileAttributes");
    std::string hex;
    for (std::uint8_t b : *r.find("VTLManifestFileHash")->data()) {
      char two[3];
      static_cast<void>(std::snprintf(two, sizeof two, "%02x", b));
      hex += two;
    }
    const auto days = std::chrono::floor<std::chrono::days>(*a.find("ModificationDate")->date());
    expected.append(k).append("|").append(*a.find("FileType")->string()).append("|");
    expected.append(std::to_string(*a.find("FileSize")->integer())).append("|");
    expected.append(hex).append("|");
    expected.append(*r.find("VTLManifestSymbolicLinkTargetFile")->string()).append("|");
    expected.append(std::to_string(static_cast<int>(std::chrono::year_month_day(days).year())));
    expected.append("\n");
  }
  EXPECT_EQ(output, expected);
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

std::atomic<bool> g_lease_broken{false};
void on_lease_break(int) { g_lease_broken = true; }

TEST_F(DeviceManifestTest, AFileRemovedDuringTheWalkEndsItEarlyWithTheEarlierRecordsKept) {
  // The walk is held at its first file by a lease, taken here: the helper's
  // open waits until the lease is released. Meanwhile it builds at most
  // kLookAhead records ahead, so a file further on can be removed before its
  // record is built, and everything observable is fixed.
  const std::string dir = device_.path("/private/var/mobile/Gate");
  write_file(dir + "/a_gate", "held");
  const std::size_t between = vtl::VTLManifest::kLookAhead + 100;
  char name[32];
  for (std::size_t i = 0; i < between; ++i) {
    static_cast<void>(std::snprintf(name, sizeof name, "/b_%05zu", i));
    write_file(dir + name, "");
  }
  write_file(dir + "/c_victim", "removed");
  write_file(dir + "/d_after", "never reached");

  struct sigaction action {};
  struct sigaction previous {};
  action.sa_handler = on_lease_break;
  ASSERT_EQ(::sigaction(SIGIO, &action, &previous), 0);
  g_lease_broken = false;
  const int fd = ::open((dir + "/a_gate").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::fcntl(fd, F_SETLEASE, F_WRLCK), 0) << std::strerror(errno);

  krx::Dictionary parameters{{"Path", "/private/var/mobile/Gate"}};
  ASSERT_TRUE(client_->send(dict({{"createDeviceManifest:", krx::Value(parameters)}})));
  const auto deadline = std::chrono::steady_clock::now() + 30s;
  while (!g_lease_broken && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(1ms);
  }
  const bool broken = g_lease_broken;
  ASSERT_EQ(::unlink((dir + "/c_victim").c_str()), 0);
  ::fcntl(fd, F_SETLEASE, F_UNLCK);
  ::close(fd);
  ::sigaction(SIGIO, &previous, nullptr);
  ASSERT_TRUE(broken) << "the helper never opened the first file";

  std::vector<krx::Value> messages;
  for (;;) {
    krx::Client::Received r = client_->receive(60s);
    auto* m = std::get_if<krx::Client::Message>(&r);
    ASSERT_NE(m, nullptr);
    messages.push_back(m->value);
    if (m->value.find("Response") != nullptr) break;
  }
  EXPECT_EQ(messages, std::vector{kTrue});
  const Dictionary manifest = read_manifest();
  EXPECT_EQ(manifest.size(), between + 1);
  EXPECT_TRUE(manifest.contains("/a_gate"));
  static_cast<void>(std::snprintf(name, sizeof name, "/b_%05zu", between - 1));
  EXPECT_TRUE(manifest.contains(name));
  EXPECT_FALSE(manifest.contains("/c_victim"));
  EXPECT_FALSE(manifest.contains("/d_after"));
  EXPECT_TRUE(device_.wait_for_log("Couldn't get meta data for /private/var/mobile/Gate/c_victim"));
  EXPECT_EQ(*manifest.at("/a_gate").find("VTLManifestFileHash"), Value(testsupport::sha1("held")));
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
