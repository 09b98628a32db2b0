// The shared logger: system-log copies, the day's file, and the expiry of old
// entries in the log directory, driven through its public operations with a
// clock set to the second and a captured system log.
#include "base/VTLLogModel.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "base/description.h"
#include "platform/system_log.h"
#include "tests/support/capture.h"
#include "tests/support/daemon.h"
#include "tests/support/file_tree.h"

namespace vtl {
namespace {

namespace fs = std::filesystem;
using std::chrono::hours;
using std::chrono::seconds;

constexpr std::int64_t kDay = 86400;

class FakeClock final : public Clock {
 public:
  Date now() const override { return now_.load(); }
  void set(Date d) { now_.store(d); }

 private:
  std::atomic<Date> now_{Date{}};
};

using testsupport::read_file;
using testsupport::write_file;

// The creation date as the kernel reports it: birth time, or status-change
// time where the file system keeps no birth time.
Date creation_of(const std::string& path) {
  struct statx stx {};
  EXPECT_EQ(::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME | STATX_CTIME, &stx),
            0);
  const statx_timestamp& ts = (stx.stx_mask & STATX_BTIME) != 0 ? stx.stx_btime : stx.stx_ctime;
  return Date(seconds(ts.tv_sec)) + std::chrono::nanoseconds(ts.tv_nsec);
}

// 2026-11-16 12:00:00 UTC: the 16th in every time zone from -11 to +11 hours.
const Date kNoon16November2026 = Date(seconds(1794830400));

// The logger is one per process: every test points it at its own clock, sink
// and directory, and puts the defaults back afterwards. Streams the logger
// opened are closed here, after it has let go of them.
class LogModelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    model().setLogFP(nullptr);
    model().setClock(&clock_);
    model().setSystemLog(&log_);
    clock_.set(kNoon16November2026);
  }
  void TearDown() override {
    remember_stream();
    model().setLogFP(nullptr);
    model().setClock(nullptr);
    model().setSystemLog(nullptr);
    for (FILE* fp : streams_) static_cast<void>(std::fclose(fp));
  }
  static VTLLogModel& model() { return VTLLogModel::sharedInstance(); }
  void remember_stream() {
    FILE* fp = model().logFP();
    if (fp != nullptr && std::find(streams_.begin(), streams_.end(), fp) == streams_.end()) {
      streams_.push_back(fp);
    }
  }

  testsupport::TempDir dir_;
  FakeClock clock_;
  testsupport::CapturedLog log_;
  std::vector<FILE*> streams_;
};

TEST_F(LogModelTest, WithoutFileLoggingMessagesReachOnlyTheSystemLog) {
  EXPECT_FALSE(model().logToFileEnabled());
  VTLLog("%s started", "/usr/libexec/vtld_helper");
  EXPECT_EQ(log_.lines(), std::vector<std::string>{"/usr/libexec/vtld_helper started"});
}

TEST_F(LogModelTest, FileLinesCarryTheDateAndTheSystemLogTheBareMessage) {
  const std::string path = dir_ / "day.log";
  ASSERT_TRUE(model().enableLogToFile(path));
  remember_stream();
  EXPECT_TRUE(model().logToFileEnabled());
  clock_.set(Date(seconds(1794810746)) + std::chrono::milliseconds(900));  // 06:32:26.9
  VTLLog("Entering %s with parameter: %@", "-[VTLHMessageResponder createHardLink:]",
         Value(Dictionary{{"Path", Value("/private/var")}}));
  model().logMessage("a message with %@ and %d in it");
  EXPECT_EQ(read_file(path),
            "2026-11-16 06:32:26 +0000 Entering -[VTLHMessageResponder createHardLink:] with "
            "parameter: { Path = \"/private/var\"; }\n"
            "2026-11-16 06:32:26 +0000 a message with %@ and %d in it\n");
  EXPECT_EQ(log_.lines(),
            (std::vector<std::string>{"Entering -[VTLHMessageResponder createHardLink:] with "
                                      "parameter: { Path = \"/private/var\"; }",
                                      "a message with %@ and %d in it"}));
}

TEST_F(LogModelTest, EnableLogToFileCreatesMissingParentsAndAppends) {
  const std::string path = dir_ / "a/b/c/x.log";
  write_file(dir_ / "unrelated", "");
  ASSERT_TRUE(model().enableLogToFile(path));
  remember_stream();
  struct stat st {};
  ASSERT_EQ(::stat((dir_ / "a/b").c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  model().logMessage("one");
  // A second open of the same file appends after what is there.
  ASSERT_TRUE(model().enableLogToFile(path));
  remember_stream();
  model().logMessage("two");
  EXPECT_EQ(read_file(path), "2026-11-16 12:00:00 +0000 one\n2026-11-16 12:00:00 +0000 two\n");
  EXPECT_NE(::fcntl(fileno(model().logFP()), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(LogModelTest, ASecondStreamReplacesTheFirstWithoutClosingIt) {
  ASSERT_TRUE(model().enableLogToFile(dir_ / "first.log"));
  FILE* first = model().logFP();
  remember_stream();
  ASSERT_TRUE(model().enableLogToFile(dir_ / "second.log"));
  remember_stream();
  EXPECT_NE(model().logFP(), first);
  model().logMessage("to the second");
  EXPECT_EQ(read_file(dir_ / "first.log"), "");
  EXPECT_EQ(read_file(dir_ / "second.log"), "2026-11-16 12:00:00 +0000 to the second\n");
  // The first stream is still open and usable.
  EXPECT_NE(::fcntl(fileno(first), F_GETFD), -1);
  EXPECT_GE(std::fputs("still open\n", first), 0);
  EXPECT_EQ(std::fflush(first), 0);
  EXPECT_EQ(read_file(dir_ / "first.log"), "still open\n");
}

TEST_F(LogModelTest, ParentThatCannotBeCreatedLeavesTheStreamAsItWas) {
  ASSERT_TRUE(model().enableLogToFile(dir_ / "kept.log"));
  FILE* kept = model().logFP();
  remember_stream();
  write_file(dir_ / "plain", "");
  EXPECT_FALSE(model().enableLogToFile(dir_ / "plain/sub/x.log"));
  EXPECT_EQ(model().logFP(), kept);
}

TEST_F(LogModelTest, AFileThatCannotBeOpenedTurnsFileLoggingOff) {
  ASSERT_TRUE(model().enableLogToFile(dir_ / "kept.log"));
  remember_stream();
  ASSERT_EQ(::mkdir((dir_ / "adir").c_str(), 0755), 0);
  EXPECT_FALSE(model().enableLogToFile(dir_ / "adir"));
  EXPECT_EQ(model().logFP(), nullptr);
  model().logMessage("system log only");
  EXPECT_TRUE(log_.contains("system log only"));
}

TEST_F(LogModelTest, NeverAppendsThroughALinkOrToAFifo) {
  write_file(dir_ / "target", "precious\n");
  ASSERT_EQ(::symlink((dir_ / "target").c_str(), (dir_ / "link.log").c_str()), 0);
  EXPECT_FALSE(model().enableLogToFile(dir_ / "link.log"));
  model().logMessage("must not land in target");
  EXPECT_EQ(read_file(dir_ / "target"), "precious\n");

  ASSERT_EQ(::mkfifo((dir_ / "fifo.log").c_str(), 0644), 0);
  EXPECT_FALSE(model().enableLogToFile(dir_ / "fifo.log"));  // and does not block
}

TEST_F(LogModelTest, TurningOnCreatesTheDirectoryAndOpensTodaysFile) {
  const std::string logs = dir_ / "private/var/logs/vtld";
  ASSERT_TRUE(model().enableLogToFilesUnder_prefix_expireDays(logs, "vtld_helper", 5));
  remember_stream();
  model().logMessage("first line");
  EXPECT_EQ(read_file(logs + "/vtld_helper-20261116.log"),
            "2026-11-16 12:00:00 +0000 first line\n");
  // The writability probe is gone again.
  EXPECT_FALSE(fs::exists(logs + "/testWritability.log"));
}

// Expiry is tested against each entry's real creation date: the clock is set
// relative to it, to the second.
TEST_F(LogModelTest, EntriesExpireStrictlyAfterTheGivenDays) {
  const std::string logs = dir_ / "logs";
  ASSERT_EQ(::mkdir(logs.c_str(), 0755), 0);
  const std::string old_log = logs + "/vtld_helper-20261110.log";
  write_file(old_log, "old\n");
  const Date created = creation_of(old_log);

  struct Step {
    Date now;
    bool kept;
  };
  const Step steps[] = {
      {created + hours(4 * 24 + 23), true},  // 4 days 23 hours: kept
      {created + seconds(5 * kDay), true},   // exactly 5 days: not yet earlier
      {created + seconds(5 * kDay + 1), false},
  };
  for (const Step& step : steps) {
    clock_.set(step.now);
    ASSERT_TRUE(model().enableLogToFilesUnder_prefix_expireDays(logs, "vtld_helper", 5));
    remember_stream();
    EXPECT_EQ(fs::exists(old_log), step.kept) << date_description(step.now);
    const std::string cutoff = date_description(step.now - seconds(5 * kDay));
    std::string checking = "Checking existing log file (full path) ";
    checking.append(old_log).append(" against ").append(cutoff);
    EXPECT_TRUE(log_.contains(checking));
  }
  EXPECT_TRUE(log_.contains("Removing " + old_log + " whose creation date is " +
                            date_description(created) + "."));
}

TEST_F(LogModelTest, EveryKindOfEntryExpiresAndLinksAreNotFollowed) {
  const std::string logs = dir_ / "logs";
  const std::string outside = dir_ / "outside";
  ASSERT_EQ(::mkdir(logs.c_str(), 0755), 0);
  ASSERT_EQ(::mkdir(outside.c_str(), 0755), 0);
  write_file(outside + "/keep.txt", "keep");
  write_file(logs + "/notes.txt", "not a log");
  ASSERT_EQ(::mkdir((logs + "/subdir").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir((logs + "/subdir/deeper").c_str(), 0755), 0);
  write_file(logs + "/subdir/deeper/f", "x");
  ASSERT_EQ(::symlink(outside.c_str(), (logs + "/link").c_str()), 0);
  ASSERT_EQ(::symlink((outside + "/keep.txt").c_str(), (logs + "/filelink").c_str()), 0);

  // Six days after the newest entry was made.
  clock_.set(creation_of(logs + "/filelink") + seconds(6 * kDay));
  ASSERT_TRUE(model().enableLogToFilesUnder_prefix_expireDays(logs, "vtld_helper", 5));
  remember_stream();

  std::vector<std::string> left;
  for (const auto& entry : fs::directory_iterator(logs)) left.push_back(entry.path().filename());
  // Only today's file, opened after the expiry pass.
  ASSERT_EQ(left.size(), 1U);
  EXPECT_TRUE(left[0].starts_with("vtld_helper-")) << left[0];
  EXPECT_EQ(read_file(outside + "/keep.txt"), "keep");
  EXPECT_EQ(log_.count_starting_with("Removing "), 4U);
  EXPECT_EQ(log_.count_starting_with("Checking existing log file (full path) "), 4U);
}

TEST_F(LogModelTest, FailedWritabilityProbeDeletesNothing) {
  const std::string logs = dir_ / "logs";
  ASSERT_EQ(::mkdir(logs.c_str(), 0755), 0);
  write_file(logs + "/old.log", "old");
  // A directory in the probe's place makes the probe fail, also for root,
  // whom permission bits would not stop.
  ASSERT_EQ(::mkdir((logs + "/testWritability.log").c_str(), 0755), 0);
  write_file(logs + "/testWritability.log/inside", "");
  clock_.set(creation_of(logs + "/old.log") + seconds(30 * kDay));

  EXPECT_FALSE(model().enableLogToFilesUnder_prefix_expireDays(logs, "vtld_helper", 5));
  EXPECT_FALSE(model().logToFileEnabled());
  EXPECT_TRUE(fs::exists(logs + "/old.log"));
  EXPECT_TRUE(fs::exists(logs + "/testWritability.log/inside"));
  EXPECT_EQ(log_.count_starting_with("Removing "), 0U);
  model().logMessage("still logged");
  EXPECT_TRUE(log_.contains("still logged"));
}

TEST_F(LogModelTest, DirectoryThatCannotBeCreatedFails) {
  write_file(dir_ / "plain", "");
  EXPECT_FALSE(model().enableLogToFilesUnder_prefix_expireDays(dir_ / "plain/logs", "p", 5));
  EXPECT_FALSE(model().logToFileEnabled());
}

TEST_F(LogModelTest, ConcurrentLinesNeverInterleave) {
  const std::string path = dir_ / "busy.log";
  ASSERT_TRUE(model().enableLogToFile(path));
  remember_stream();
  constexpr int kThreads = 8;
  constexpr int kLines = 400;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kLines; ++i) {
        VTLLog("thread %d line %d %@", t, i, std::string(static_cast<std::size_t>(i % 97), 'x'));
      }
    });
  }
  for (std::thread& th : threads) th.join();

  std::istringstream in(read_file(path));
  std::string line;
  std::vector<int> next(kThreads, 0);
  int total = 0;
  while (std::getline(in, line)) {
    ASSERT_TRUE(line.starts_with("2026-11-16 12:00:00 +0000 thread ")) << line;
    int t = -1;
    int i = -1;
    ASSERT_EQ(std::sscanf(line.c_str() + 33, "%d line %d", &t, &i), 2) << line;
    ASSERT_TRUE(t >= 0 && t < kThreads) << line;
    // Each thread's lines appear whole and in its own order.
    EXPECT_EQ(i, next[static_cast<std::size_t>(t)]++);
    const std::string tail = " " + std::string(static_cast<std::size_t>(i % 97), 'x');
    EXPECT_TRUE(line.ends_with(tail) || i % 97 == 0) << line;
    ++total;
  }
  EXPECT_EQ(total, kThreads * kLines);
  EXPECT_EQ(log_.lines().size(), static_cast<std::size_t>(kThreads * kLines));
}

}  // namespace
}  // namespace vtl
