// The simulated device's system log: standard error, one whole line per
// message.
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/system_log.h"
#include "tests/support/stderr_capture.h"

namespace {

using testsupport::StderrCapture;

TEST(StderrSystemLog, OneLinePerMessageVerbatim) {
  StderrCapture capture;
  auto log = platform::make_stderr_system_log();
  log->write("VTLH: started");
  log->write("100% %s %@ kept as written");
  log->write("");
  EXPECT_EQ(capture.text(), "VTLH: started\n100% %s %@ kept as written\n\n");
}

TEST(StderrSystemLog, ConcurrentMessagesStayWhole) {
  StderrCapture capture;
  auto log = platform::make_stderr_system_log();
  constexpr int kThreads = 8;
  constexpr int kMessages = 300;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&log, t] {
      for (int i = 0; i < kMessages; ++i) {
        log->write("t" + std::to_string(t) + "-" + std::to_string(i) + " " +
                   std::string(static_cast<std::size_t>(100 + i), 'y'));
      }
    });
  }
  for (std::thread& th : threads) th.join();
  std::istringstream in(capture.text());
  std::set<std::string> seen;
  std::string line;
  while (std::getline(in, line)) {
    const std::size_t blank = line.find(' ');
    ASSERT_NE(blank, std::string::npos) << line;
    const int i = std::stoi(line.substr(line.find('-') + 1));
    EXPECT_EQ(line.substr(blank + 1), std::string(static_cast<std::size_t>(100 + i), 'y'));
    EXPECT_TRUE(seen.insert(line.substr(0, blank)).second) << line;
  }
  EXPECT_EQ(seen.size(), static_cast<std::size_t>(kThreads * kMessages));
}

}  // namespace
