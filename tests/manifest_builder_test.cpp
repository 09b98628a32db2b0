// The manifest builder on temporary trees: what a walk records and skips, the
// inclusive flag, relative paths (with the reuse of the previous key), progress
// by bytes, enumeration errors, early ends, the parallel walk against the
// one-at-a-time walk, and the written property list.
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <memory>
#include <random>
#include <set>

#include <gtest/gtest.h>

#include "base/plist.h"
#include "manifest/VTLManifest.h"
#include "manifest/tree_walk.h"
#include "platform/platform.h"
#include "platform/protection_classes.h"
#include "service/VTLProgressUpdater.h"
#include "tests/support/capture.h"
#include "tests/support/daemon.h"
#include "tests/support/file_tree.h"

namespace {

using testsupport::make_dir;
using testsupport::write_file;
using vtl::Dictionary;
using vtl::Value;
using vtl::VTLFileMetadata;
using vtl::VTLManifest;

constexpr const char* kCollect =
    "-[VTLManifest enumerateAndCollectMetaData:relativeTo:skip:inclusive:handler:]";
constexpr const char* kTotal = "-[VTLManifest calculateTotalFileSize:skipPaths:]";

std::set<std::string> keys_of(const VTLManifest& m) {
  const auto paths = m.pathSet();
  return std::set<std::string>(paths.begin(), paths.end());
}

// Values equal, dates to the microsecond (what a property list keeps).
bool same_to_the_microsecond(const Value& a, const Value& b) {
  if (const vtl::Date* da = a.date()) {
    const vtl::Date* db = b.date();
    return db != nullptr && std::llabs((*da - *db).count()) <= 1000;
  }
  if (const Dictionary* da = a.dictionary()) {
    const Dictionary* db = b.dictionary();
    if (db == nullptr || da->size() != db->size()) return false;
    for (const auto& [k, v] : *da) {
      auto it = db->find(k);
      if (it == db->end() || !same_to_the_microsecond(v, it->second)) return false;
    }
    return true;
  }
  return a == b;
}

// As on a kernel before Linux 6.13: setxattrat, getxattrat and listxattrat
// (463 to 465 on every architecture) answer ENOSYS in this process.
void refuse_xattrat_calls() {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, 463, 0, 2),
      BPF_JUMP(BPF_JMP | BPF_JGT | BPF_K, 465, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog program{static_cast<unsigned short>(std::size(filter)), filter};
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
    std::_Exit(2);
  }
}

class ManifestTest : public ::testing::Test, protected testsupport::AccountsDevice {
 protected:
  ManifestTest() { make_dir(root_); }

  std::string at(const std::string& rel) const { return root_ + "/" + rel; }
  bool logged(const std::string& line) const { return platform_.log.contains(line); }
  std::vector<std::string> lines_starting(const std::string& prefix) const {
    std::vector<std::string> out;
    for (const std::string& l : platform_.log.lines()) {
      if (l.starts_with(prefix)) out.push_back(l);
    }
    return out;
  }

  // Walks with a handler and returns (key, path) in the order the handler saw them.
  std::vector<std::pair<std::string, std::string>> handled(const std::string& path,
                                                           const std::string& base, bool inclusive,
                                                           bool* result = nullptr) {
    std::vector<std::pair<std::string, std::string>> seen;
    VTLManifest m(platform_.files());
    const bool ok = m.enumerateAndCollectMetaData_relativeTo_skip_inclusive_handler(
        path, base, {}, inclusive, [&](const VTLFileMetadata& r, const std::string& key) {
          seen.emplace_back(key, *r.getFileType());
          return true;
        });
    if (result != nullptr) *result = ok;
    return seen;
  }

  std::string root_ = device_.path() + "/private/var/tree";
};

TEST_F(ManifestTest, RecordsEveryItemAndLeavesSpecialFilesAlone) {
  write_file(at("a.txt"), "alpha");
  write_file(at("b/c.txt"), "gamma");
  testsupport::set_xattr(at("b"), "user.folder", "own");
  testsupport::make_link("../a.txt", at("b/link"));
  write_file(at(".hidden"), "");
  testsupport::make_fifo(at("fifo"));
  testsupport::make_socket(at("sock"));

  const auto check = [&] {
    VTLManifest m(platform_.files());
    ASSERT_TRUE(m.addFilesFromPath_relativeTo_skip_inclusive(root_, root_, {}, false));
    EXPECT_EQ(keys_of(m),
              (std::set<std::string>{"/.hidden", "/a.txt", "/b", "/b/c.txt", "/b/link"}));
    EXPECT_TRUE(logged(at("fifo") + " is special file. Leave it along"));
    EXPECT_TRUE(logged(at("sock") + " is special file. Leave it along"));
    // Each entry is the item's record.
    const Dictionary dict = m.dict();
    for (const auto& [key, value] : dict) {
      const auto record = VTLFileMetadata::fileMetadatatWithPath(root_ + key, platform_.files());
      ASSERT_TRUE(record) << key;
      EXPECT_EQ(value, Value(record->dict())) << key;
      EXPECT_EQ(m.metadataForFile(key)->dict(), record->dict()) << key;
    }
    EXPECT_EQ(*m.metadataForFile("/b/link")->getTargetFile(), "../a.txt");
    EXPECT_EQ(m.rootPath(), root_);
  };
  check();
  // Where the kernel has no *xattrat calls, the same by path.
  EXPECT_EXIT(
      {
        refuse_xattrat_calls();
        check();
        std::_Exit(HasFailure() ? 1 : 0);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(ManifestTest, AFolderOfManyReadsIsRecordedWhole) {
  // Enough entries to take the kernel several reads of the listing.
  std::set<std::string> expected = {"/many"};
  for (int i = 0; i < 400; ++i) {
    const std::string key = "/many/" + std::string(200, 'n') + std::to_string(i);
    write_file(at(key.substr(1)), "");
    expected.insert(key);
  }
  VTLManifest m(platform_.files());
  ASSERT_TRUE(m.addFilesFromPath_relativeTo_skip_inclusive(root_, root_, {}, false));
  EXPECT_EQ(keys_of(m), expected);
}

TEST_F(ManifestTest, InclusiveRecordsThePathItselfLast) {
  write_file(at("x/y"), "1");
  write_file(at("z"), "2");
  bool ok = false;
  EXPECT_EQ(handled(root_, root_, true, &ok),
            (std::vector<std::pair<std::string, std::string>>{
                {"/x", "Directory"}, {"/x/y", "Regular"}, {"/z", "Regular"}, {"/", "Directory"}}));
  EXPECT_TRUE(ok);
  EXPECT_EQ(handled(root_, root_, false).size(), 3u);
}

TEST_F(ManifestTest, OneAddPerManifest) {
  write_file(at("a"), "1");
  VTLManifest m(platform_.files());
  ASSERT_TRUE(m.addFilesFromPath_relativeTo_skip_inclusive(root_, root_, {}, false));
  write_file(at("b"), "2");
  EXPECT_FALSE(m.addFilesFromPath_relativeTo_skip_inclusive(root_, root_, {}, false));
  EXPECT_EQ(keys_of(m), std::set<std::string>{"/a"});
  // A manifest made from a dictionary has had no add yet.
  VTLManifest copy(platform_.files(), m.dict());
  EXPECT_FALSE(copy.rootPath());
  EXPECT_TRUE(copy.addFilesFromPath_relativeTo_skip_inclusive(root_, root_, {}, false));
  EXPECT_EQ(keys_of(copy), (std::set<std::string>{"/a", "/b"}));
}

TEST(FolderContains, PrefixRules) {
  struct Case {
    std::vector<std::string> folders;
    std::string path;
    bool expected;
  };
  const Case cases[] = {
      {{"/a"}, "/a", true},
      {{"/a"}, "/a/b", true},
      {{"/a"}, "/a/b/c", true},
      {{"/a"}, "/ab", false},
      {{"/a"}, "/b/a", false},
      {{"/a/"}, "/a/b", true},
      {{"/a/"}, "/a", false},
      {{"/a"}, "/a//b", false},
      {{""}, "/a", false},
      {{"/x", "/a"}, "/a/b", true},
      {{}, "/a", false},
      {{"/private/var/mobile/Containers"}, "/private/var/mobile/Containers/Data", true},
      {{"/private/var/mobile/Containers"}, "/private/var/mobile/ContainersX", false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(VTLManifest::folder_contains(c.folders, c.path), c.expected) << c.path;
  }
}

TEST_F(ManifestTest, WhatAWalkRecordsUnderItsBase) {
  write_file(at("a/b"), "1");
  write_file(at("a/deep/er"), "2");
  write_file(at("ab/c"), "3");
  write_file(at("w/a/w/b"), "4");
  write_file(at("w/a/wx"), "5");
  write_file(at("caf\xe9"), "latin-1");
  // A skipped folder is left out with what is beneath it.
  VTLManifest skipping(platform_.files());
  ASSERT_TRUE(
      skipping.addFilesFromPath_relativeTo_skip_inclusive(root_, root_, {at("a"), at("w")}, false));
  EXPECT_EQ(keys_of(skipping), (std::set<std::string>{"/ab", "/ab/c"}));
  // "/w" occurs further in than position 0: what follows its first
  // occurrence is kept, with every later occurrence removed.
  VTLManifest cut(platform_.files());
  ASSERT_TRUE(cut.addFilesFromPath_relativeTo_skip_inclusive(at("w"), "/w", {}, false));
  EXPECT_EQ(keys_of(cut), (std::set<std::string>{"/a", "/a/b", "/ax"}));
  // A name that is not UTF-8 is reported, by the count and by the walk, not
  // recorded.
  for (const char* routine : {kTotal, kCollect}) {
    EXPECT_TRUE(logged(std::string(routine) + ": Could not enumerate " + at("caf\xe9") +
                       ", url=file://" + at("caf%E9") +
                       ", error=Invalid or incomplete multibyte or wide character"))
        << routine;
  }
}

TEST_F(ManifestTest, PathsWithoutTheBaseReuseThePreviousKey) {
  write_file(at("a"), "1");
  write_file(at("b"), "2");
  make_dir(at("c"));
  // The base occurs in no path: the first item has no previous key and
  // becomes "/", and every later one reuses it, the last one winning.
  VTLManifest m(platform_.files());
  ASSERT_TRUE(m.addFilesFromPath_relativeTo_skip_inclusive(root_, "/elsewhere", {}, false));
  EXPECT_EQ(keys_of(m), std::set<std::string>{"/"});
  EXPECT_EQ(*m.metadataForFile("/")->getFileType(), "Directory");

  // A base with a trailing "/" gives keys without a leading one, and the path
  // itself (which lacks that "/") takes the key of the item before it.
  const auto seen = handled(root_, root_ + "/", true);
  EXPECT_EQ(seen, (std::vector<std::pair<std::string, std::string>>{
                      {"a", "Regular"}, {"b", "Regular"}, {"c", "Directory"}, {"c", "Directory"}}));
}

TEST_F(ManifestTest, ProgressIsByBytesInWalkOrder) {
  for (const char* name : {"f1", "f2", "f3", "f4"}) write_file(at(name), std::string(100, 'x'));
  VTLManifest m(platform_.files());
  m.setProgressUpdater(&vtl::VTLProgressUpdater::sharedInstance());
  ASSERT_TRUE(m.addFilesFromPath_relativeTo_skip_inclusive(root_, root_, {}, false));
  EXPECT_TRUE(logged("Initializing percent with total 400"));
  EXPECT_EQ(
      lines_starting("Percentage increased to "),
      (std::vector<std::string>{"Percentage increased to 25", "Percentage increased to 50",
                                "Percentage increased to 75", "Percentage increased to 100"}));

  platform_.log.clear();
  VTLManifest quiet(platform_.files());
  ASSERT_TRUE(quiet.addFilesFromPath_relativeTo_skip_inclusive(root_, root_, {}, false));
  EXPECT_TRUE(lines_starting("Initializing percent").empty());
  EXPECT_TRUE(lines_starting("Percentage").empty());
}

TEST_F(ManifestTest, TotalCountsRegularFilesOutsideTheSkipList) {
  write_file(at("a"), std::string(10, 'x'));
  write_file(at("d/b"), std::string(20, 'x'));
  write_file(at("skipped/c"), std::string(1000, 'x'));
  testsupport::make_link("a", at("link"));
  testsupport::make_fifo(at("fifo"));
  EXPECT_EQ(VTLManifest::calculateTotalFileSize_skipPaths(root_, {at("skipped")}), 30u);
  EXPECT_EQ(VTLManifest::calculateTotalFileSize_skipPaths(at("missing"), {}), 0u);
  EXPECT_EQ(VTLManifest::fileSizeToAdjustPercentage(at("link")), 1u);
  EXPECT_EQ(VTLManifest::fileSizeToAdjustPercentage(at("missing")), 0u);
}

TEST_F(ManifestTest, AVanishedFileEndsTheWalkWithTheEarlierRecordsKept) {
  for (const char* name : {"a", "b", "c", "d", "e", "f"}) write_file(at(name), name);
  VTLManifest m(platform_.files());
  m.set_before_record_for_testing([&](const std::string& path) {
    if (path == at("d")) std::filesystem::remove(path);
  });
  EXPECT_TRUE(m.addFilesFromPath_relativeTo_skip_inclusive(root_, root_, {}, false));
  EXPECT_EQ(keys_of(m), (std::set<std::string>{"/a", "/b", "/c"}));
  const auto tail = platform_.log.lines();
  ASSERT_GE(tail.size(), 3u);
  EXPECT_EQ(
      std::vector<std::string>(tail.end() - 3, tail.end()),
      (std::vector<std::string>{
          "Get file attributes failed for " + at("d") + " with error - No such file or directory",
          "Cannot get file attribute for " + at("d"), "Couldn't get meta data for " + at("d")}));
}

// Each file is opened through the directory the walk listed it in: a directory
// swapped for a link after the listing does not lead the read elsewhere, and
// no more directories are held open than the walk's bound, however many
// records wait to be built.
TEST_F(ManifestTest, FilesAreReadThroughTheDirectoriesTheWalkListedThemIn) {
  constexpr std::uint32_t kHeld = vtl::manifest::TreeWalk::kMaxOpenDirectories;
  for (std::uint32_t d = 0; d < 3 * kHeld; ++d) {
    write_file(at("d" + std::to_string(1000 + d) + "/f"), "listed " + std::to_string(d));
  }
  write_file(at("decoy/f"), "decoy");
  const auto open_descriptors = [] {
    std::size_t n = 0;
    for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator("/proc/self/fd")) ++n;
    return n;
  };
  const std::size_t before = open_descriptors();
  std::atomic<std::size_t> most{0};
  VTLManifest m(platform_.files());
  m.set_before_record_for_testing([&](const std::string& path) {
    if (path == at("d1000/f")) {
      // In one step, so that the directory's own record, built meanwhile on
      // another thread, finds something there.
      testsupport::make_link("decoy", at("moved"));
      ASSERT_EQ(::renameat2(AT_FDCWD, at("moved").c_str(), AT_FDCWD, at("d1000").c_str(),
                            RENAME_EXCHANGE),
                0);
    }
    const std::size_t now = open_descriptors();
    for (std::size_t seen = most; now > seen && !most.compare_exchange_weak(seen, now);) {
    }
  });
  ASSERT_TRUE(m.addFilesFromPath_relativeTo_skip_inclusive(root_, root_, {}, false));
  const std::optional<VTLFileMetadata> swapped = m.metadataForFile("/d1000/f");
  ASSERT_TRUE(swapped.has_value());
  ASSERT_NE(swapped->getHash(), nullptr);
  EXPECT_EQ(*swapped->getHash(), *VTLFileMetadata::fileHashWithPath(at("moved/f")));
  // Each builder also holds the file it reads, and the count its own listing.
  const std::size_t builders = VTLManifest::worker_count() + VTLManifest::cold_worker_count();
  EXPECT_LE(most.load(), before + kHeld + builders + 2);
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(ManifestTest, AHandlerRefusalFailsTheWalk) {
  for (const char* name : {"a", "b", "c"}) write_file(at(name), name);
  VTLManifest m(platform_.files());
  int calls = 0;
  EXPECT_FALSE(m.enumerateAndCollectMetaData_relativeTo_skip_inclusive_handler(
      root_, root_, {}, false, [&](const VTLFileMetadata&, const std::string& key) {
        ++calls;
        return key != "/b";
      }));
  EXPECT_EQ(calls, 2);
  EXPECT_TRUE(logged("Couldn't run handler against " + at("b")));
}

TEST_F(ManifestTest, UnreadableDirectoriesAreReportedAndPassed) {
  write_file(at("locked/inside"), "x");
  write_file(at("open/file"), "y");
  ASSERT_EQ(::chmod(at("locked").c_str(), 0), 0);
  ASSERT_EQ(::chown(at("locked").c_str(), 4242, 4242), 0);
  VTLManifest m(platform_.files());
  {
    testsupport::WithoutFileOverride as_anyone;
    EXPECT_TRUE(m.addFilesFromPath_relativeTo_skip_inclusive(root_, root_, {}, false));
  }
  EXPECT_EQ(keys_of(m), (std::set<std::string>{"/locked", "/open", "/open/file"}));
  // The count's message, then the walk's: the count runs beside the first
  // records but is over before anything of the walk is logged.
  const std::string url = "file://" + at("locked");
  const std::string tail =
      ": Could not enumerate " + at("locked") + ", url=" + url + ", error=Permission denied";
  const std::vector<std::string> lines = platform_.log.lines();
  const auto count_line = std::find(lines.begin(), lines.end(), kTotal + tail);
  const auto walk_line = std::find(lines.begin(), lines.end(), kCollect + tail);
  ASSERT_NE(count_line, lines.end());
  ASSERT_NE(walk_line, lines.end());
  EXPECT_LT(count_line, walk_line);
}

TEST_F(ManifestTest, ParallelWalkRecordsWhatTheOneAtATimeWalkRecords) {
  std::mt19937 random(7);
  for (int d = 0; d < 20; ++d) {
    for (int f = 0; f < 60; ++f) {
      const std::string path = at("d" + std::to_string(d) + "/f" + std::to_string(f));
      const std::size_t size = (random() % 20 == 0) ? random() % 600000 : random() % 3000;
      write_file(path, std::string(size, static_cast<char>('a' + random() % 26)));
      if (random() % 5 == 0) testsupport::set_xattr(path, "user.n", std::to_string(random()));
      if (random() % 7 == 0) {
        ASSERT_EQ(classes_->set(path, "D"), 0);
      }
      if (random() % 9 == 0) testsupport::make_link("f" + std::to_string(f), path + ".l");
    }
  }
  Dictionary sequential;
  VTLManifest one_at_a_time(platform_.files());
  ASSERT_TRUE(one_at_a_time.enumerateAndCollectMetaData_relativeTo_skip_inclusive_handler(
      root_, root_, {}, true, [&](const VTLFileMetadata& r, const std::string& key) {
        sequential.insert_or_assign(key, Value(r.dict()));
        return true;
      }));
  EXPECT_GT(sequential.size(), 1220u);
  // Warm, and with every file out of the page cache, where the walk builds on
  // more threads.
  for (const bool cold : {false, true}) {
    SCOPED_TRACE(cold ? "cold" : "warm");
    if (cold) {
      for (const auto& entry : std::filesystem::recursive_directory_iterator(root_)) {
        if (!entry.is_regular_file() || entry.is_symlink()) continue;
        const int fd = ::open(entry.path().c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::fdatasync(fd), 0);
        ASSERT_EQ(::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED), 0);
        ::close(fd);
      }
    }
    VTLManifest parallel(platform_.files());
    ASSERT_TRUE(parallel.addFilesFromPath_relativeTo_skip_inclusive(root_, root_, {}, true));
    EXPECT_TRUE(parallel.dict() == sequential);
  }
}

TEST_F(ManifestTest, WrittenPropertyListHoldsTheDictionary) {
  write_file(at("a"), "1");
  testsupport::set_xattr(at("a"), "user.\xc3\xa9t\xc3\xa9", std::string("\0\1", 2));
  write_file(at("\xe2\x9c\x93 unicode/\xf0\x9f\x98\x80"), "2");
  testsupport::make_link("\xf0\x9f\x98\x80", at("emoji-link"));
  ASSERT_EQ(classes_->set(at("a"), "None"), 0);
  VTLManifest m(platform_.files());
  ASSERT_TRUE(m.addFilesFromPath_relativeTo_skip_inclusive(root_, root_, {}, true));
  const std::string out = device_.path() + "/manifest.plist";
  write_file(out, "an older manifest");
  ASSERT_EQ(m.writeBinaryPropertyListToFile(out), 0);
  EXPECT_EQ(testsupport::lstat_of(out).st_mode & 07777, 0644u);
  const std::optional<Value> read = vtl::read_plist_file(out);
  ASSERT_TRUE(read);
  EXPECT_TRUE(same_to_the_microsecond(*read, Value(m.dict())));
  // Nothing but the file is left in the directory.
  int entries = 0;
  for (const auto& e : std::filesystem::directory_iterator(device_.path())) {
    entries += e.path().filename().string().starts_with(".manifest.plist") ? 1 : 0;
  }
  EXPECT_EQ(entries, 0);
  // A file that cannot be written is reported, and nothing is left behind.
  EXPECT_EQ(m.writeBinaryPropertyListToFile(device_.path() + "/no/such/dir/m.plist"), ENOENT);
}

TEST_F(ManifestTest, ImmediateHiddenFiles) {
  write_file(at(".a"), "");
  make_dir(at(".b"));
  write_file(at(".b/.c"), "");
  write_file(at("d"), "");
  EXPECT_EQ(VTLManifest::immediateHiddenFilesUnderPath(root_),
            (std::vector<std::string>{at(".a"), at(".b")}));
  EXPECT_EQ(VTLManifest::immediateHiddenFilesUnderPath(root_ + "/"),
            (std::vector<std::string>{at(".a"), at(".b")}));
  EXPECT_TRUE(VTLManifest::immediateHiddenFilesUnderPath(at("missing")).empty());
}

}  // namespace
