// The simulated device's system log: standard error, one whole line per
// message.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/system_log.h"

namespace {

// Points standard error at a file for the lifetime of the object.
class StderrToFile {
 public:
  StderrToFile() {
    std::string pattern = "/tmp/vtl_system_log_XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    dir_ = pattern;
    static_cast<void>(std::fflush(stderr));
    saved_ = ::dup(STDERR_FILENO);
    const int fd =
        ::open((dir_ + "/stderr").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (saved_ < 0 || fd < 0 || ::dup2(fd, STDERR_FILENO) < 0) std::abort();
    ::close(fd);
  }
  ~StderrToFile() {
    ::dup2(saved_, STDERR_FILENO);
    ::close(saved_);
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  StderrToFile(const StderrToFile&) = delete;
  StderrToFile& operator=(const StderrToFile&) = delete;

  std::string contents() const {
    std::ifstream in(dir_ + "/stderr", std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
  }

 private:
  std::string dir_;
  int saved_ = -1;
};

TEST(StderrSystemLog, OneLinePerMessageVerbatim) {
  StderrToFile capture;
  auto log = platform::make_stderr_system_log();
  log->write("VTLH: started");
  log->write("100% %s %@ kept as written");
  log->write("");
  EXPECT_EQ(capture.contents(), "VTLH: started\n100% %s %@ kept as written\n\n");
}

TEST(StderrSystemLog, ConcurrentMessagesStayWhole) {
  StderrToFile capture;
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
  std::istringstream in(capture.contents());
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
