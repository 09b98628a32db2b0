// The real helper on a simulated device under attack and under sudden death:
// random and mutated frames over its live socket, and SIGKILL at random
// moments of the commands that write or move files. `make test` runs each
// for a couple of seconds; `make torture` for VTL_TORTURE_SECONDS each.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "base/plist.h"
#include "krx/codec.h"
#include "tests/support/daemon.h"
#include "tests/support/file_tree.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using testsupport::Device;
using testsupport::request;

using testsupport::dict;

const krx::Value kTrue = dict({{"Response", true}});

std::chrono::seconds budget() {
  const char* text = std::getenv("VTL_TORTURE_SECONDS");
  const long seconds = text != nullptr ? std::strtol(text, nullptr, 10) : 0;
  return std::chrono::seconds(seconds > 0 ? seconds : 2);
}

std::uint64_t seed() {
  const char* text = std::getenv("VTL_TORTURE_SEED");
  const std::uint64_t value =
      text != nullptr ? static_cast<std::uint64_t>(std::strtoull(text, nullptr, 10))
                      : static_cast<std::uint64_t>(Clock::now().time_since_epoch().count()) ^
                            static_cast<std::uint64_t>(::getpid());
  std::cout << "seed " << value << " (VTL_TORTURE_SEED repeats the run)\n";
  return value;
}

// The helper is built as the tests are. Under AddressSanitizer freed memory
// waits in its quarantine, so resident memory says nothing about growth.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kMemoryMeasured = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kMemoryMeasured = false;
#else
constexpr bool kMemoryMeasured = true;
#endif
#else
constexpr bool kMemoryMeasured = true;
#endif

// A field of the helper's /proc/<pid>/status, in kB ("VmRSS", "VmHWM").
long status_kib(pid_t pid, const std::string& field) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);) {
    if (line.starts_with(field + ":"))
      return std::strtol(line.c_str() + field.size() + 1, nullptr, 10);
  }
  return -1;
}

std::size_t open_descriptors(pid_t pid) {
  std::size_t n = 0;
  for ([[maybe_unused]] const auto& e :
       fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd"))
    ++n;
  return n;
}

// A request that changes nothing and answers true: the well-behaved
// client's probe.
const krx::Value kHarmless =
    dict({{"removeWorkContainer:", "/private/var/VTLWorkContainer/absent"}});

// --- Wire fuzzing -------------------------------------------------------------

class FrameMaker {
 public:
  explicit FrameMaker(std::uint64_t seed) : rng_(seed) {
    const krx::Value seeds[] = {
        kHarmless,
        dict({{"prepareLogContainer:", "/tmp/elsewhere"}}),
        dict({{"deleteNvram:", "fuzz-absent"}}),
        dict({{"createDeviceManifest:",
               dict({{"Path", "/private/var/mobile/Library"}, {"Inclusive", true}})}}),
        dict({{"fuzz:", krx::Array{krx::Value(std::uint64_t{7}), krx::Value(2.5), krx::Value(),
                                   krx::Value(krx::Uuid{}), krx::Value(krx::Date{42}),
                                   krx::Value(krx::Data{0, 1, 2}), krx::Value(krx::Fd{0})}}}),
    };
    for (const krx::Value& v : seeds) seeds_.push_back(krx::encode_frame(v));
  }

  // Frames too deep or with bad text are refused by the decoder as any other
  // malformed frame (krx_codec_test.cpp, the corpus): random and mutated
  // bytes reach the same paths here.
  enum class Kind { kRandom, kMutated, kOversize, kWithDescriptor, kCount };

  Kind kind() { return static_cast<Kind>(below(static_cast<std::size_t>(Kind::kCount))); }

  std::vector<std::uint8_t> frame(Kind kind) {
    switch (kind) {
      case Kind::kRandom: {
        std::vector<std::uint8_t> bytes(below(4096));
        for (auto& b : bytes) b = static_cast<std::uint8_t>(rng_());
        if (below(2) == 0 && bytes.size() >= 4) std::memcpy(bytes.data(), "KRX1", 4);
        return bytes;
      }
      case Kind::kMutated: {
        std::vector<std::uint8_t> bytes = seeds_[below(seeds_.size())];
        for (std::size_t n = 1 + below(8); n > 0; --n) {
          bytes[below(bytes.size())] ^= static_cast<std::uint8_t>(1U << below(8));
        }
        if (below(4) == 0) bytes.resize(below(bytes.size()));
        return bytes;
      }
      case Kind::kOversize: {
        // A header that announces far more than will ever come.
        const std::uint32_t length = below(2) == 0 ? 0xFFFFFFFFU : (16U << 20) + 1;
        std::vector<std::uint8_t> bytes = {'K', 'R', 'X', '1'};
        for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<std::uint8_t>(length >> (8 * i)));
        bytes.resize(bytes.size() + below(1024), 0x0B);
        return bytes;
      }
      case Kind::kWithDescriptor:
      case Kind::kCount:
        break;
    }
    return seeds_[below(seeds_.size())];
  }

  std::size_t below(std::size_t n) { return n == 0 ? 0 : static_cast<std::size_t>(rng_() % n); }

 private:
  std::mt19937_64 rng_;
  std::vector<std::vector<std::uint8_t>> seeds_;
};

// Whether the helper would end on purpose for `bytes`: a well-formed frame
// whose value is not a dictionary ends the process by design.
bool ends_the_helper(const std::vector<std::uint8_t>& bytes) {
  std::span<const std::uint8_t> rest(bytes);
  while (!rest.empty()) {
    const krx::DecodeResult result = krx::decode_frame(rest);
    const auto* frame = std::get_if<krx::Decoded>(&result);
    if (frame == nullptr) return false;
    if (frame->value.type() != krx::Type::Dictionary) return true;
    rest = rest.subspan(frame->frame_size);
  }
  return false;
}

TEST(WireFuzz, TheHelperKeepsServingAWellBehavedClientAndStaysFlat) {
  Device device;
  device.start();
  krx::Client good = device.connect();
  ASSERT_EQ(request(good, kHarmless), std::vector{kTrue});
  FrameMaker maker(seed());
  std::size_t cases = 0;
  std::size_t skipped = 0;
  auto one_case = [&] {
    const FrameMaker::Kind kind = maker.kind();
    const std::vector<std::uint8_t> bytes = maker.frame(kind);
    if (ends_the_helper(bytes)) {
      ++skipped;
      return;
    }
    krx::Client fuzz = device.connect();
    if (kind == FrameMaker::Kind::kWithDescriptor) {
      const int passed = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
      static_cast<void>(testsupport::send_with_descriptor(fuzz.fd(), bytes, passed));
      ::close(passed);
    } else {
      static_cast<void>(fuzz.send_raw(bytes.data(), bytes.size()));
    }
    // Sometimes wait for what comes back; mostly hang up at once.
    if (maker.below(4) == 0) static_cast<void>(fuzz.receive(std::chrono::milliseconds(20)));
    ++cases;
  };
  // A first round before the baseline, so that what the allocator keeps
  // after its first large buffers is not counted as growth.
  for (int i = 0; i < 100; ++i) one_case();
  ASSERT_EQ(request(good, kHarmless), std::vector{kTrue});
  const long rss_before = status_kib(device.pid(), "VmRSS");
  const std::size_t fds_before = open_descriptors(device.pid());

  const auto deadline = Clock::now() + budget();
  while (Clock::now() < deadline) {
    one_case();
    if (cases % 25 == 0) {
      ASSERT_EQ(request(good, kHarmless), std::vector{kTrue}) << "after " << cases << " cases";
    }
  }
  ASSERT_TRUE(device.running()) << device.system_log().substr(0, 4096);
  EXPECT_EQ(request(good, kHarmless), std::vector{kTrue});
  // Connections the helper has not yet seen close may still hold theirs.
  const auto settle = Clock::now() + std::chrono::seconds(5);
  while (open_descriptors(device.pid()) > fds_before && Clock::now() < settle) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_LE(open_descriptors(device.pid()), fds_before);
  const long rss_after = status_kib(device.pid(), "VmRSS");
  if (kMemoryMeasured) {
    EXPECT_LT(rss_after, rss_before + 16 * 1024) << "kB before " << rss_before;
  } else {
    std::cout << "memory not held to a bound: AddressSanitizer keeps freed memory\n";
  }
  std::cout << cases << " cases sent (" << skipped
            << " frames that end the helper by design left out); RSS " << rss_before
            << " kB before, " << rss_after << " kB after, peak "
            << status_kib(device.pid(), "VmHWM") << " kB\n";
  // SIGTERM ends the helper cleanly, however much it was put through (its
  // closing log line: helper_units_test.cpp).
  EXPECT_EQ(device.terminate(), 0);
}

// --- Crash points ------------------------------------------------------------------

constexpr const char* kWork = "/private/var/VTLWorkContainer";
constexpr int kFiles = 3000;
constexpr int kDirs = 30;
constexpr std::size_t kEntries = kFiles + kDirs;

// A command killed at a random moment, again and again: whatever it leaves
// behind, the helper started afterwards serves, and `intact` holds.
struct CrashPoint {
  const char* name;
  std::function<void(Device&)> prepare;  // before each run, helper stopped
  std::function<krx::Value()> command;
  std::function<void(Device&)> intact;  // after the kill, helper stopped
};

// After a whole run: only the manifest itself in the work container, no
// leftover of a write that was killed.
void only_the_manifest_left(const Device& device) {
  std::vector<std::string> names;
  for (const auto& e : fs::directory_iterator(device.path(kWork)))
    names.push_back(e.path().filename());
  EXPECT_EQ(names, std::vector<std::string>{"DeviceManifest.plist"});
}

// kFiles files in kDirs directories under `dir`.
void many_files(const std::string& dir, const std::string& content) {
  for (int i = 0; i < kFiles; ++i) {
    const std::string sub = dir + "/d" + std::to_string(i % kDirs);
    if (i < kDirs) fs::create_directories(sub);
    std::ofstream(sub + "/f" + std::to_string(i)) << content << i;
  }
}

std::size_t count_files(const std::string& dir) {
  std::error_code ec;
  std::size_t n = 0;
  for (fs::recursive_directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) ++n;
  return n;
}

constexpr const char* kStaging = "/private/var/mobile/Staging";
constexpr const char* kBackup = "/private/var/backup";

std::vector<CrashPoint> crash_points() {
  return {
      {"device manifest write",
       [](Device& d) {
         if (!fs::exists(d.path("/private/var/mobile/Media"))) {
           many_files(d.path("/private/var/mobile/Media"), "media ");
         }
         fs::create_directories(d.path(kWork));
       },
       [] {
         return dict({{"createDeviceManifest:", dict({{"Path", "/private/var/mobile/Media"}})}});
       },
       [](Device& d) {
         // The manifest under its final name is absent or whole.
         const std::string manifest = d.path(std::string(kWork) + "/DeviceManifest.plist");
         if (fs::exists(manifest)) {
           std::optional<vtl::Value> read = vtl::read_plist_file(manifest, std::size_t{1} << 30);
           ASSERT_TRUE(read && read->dictionary() != nullptr);
           EXPECT_GE(read->dictionary()->size(), kEntries);
         }
       }},
      {"promotion",
       [](Device& d) {
         // A new staging tree each time, and an old backup to replace.
         fs::remove_all(d.path(kStaging));
         many_files(d.path(kStaging), "new ");
         if (!fs::exists(d.path(kBackup))) many_files(d.path(kBackup), "old ");
       },
       [] {
         return dict({{"moveStagingToFinal:", kStaging}});
       },
       [](Device& d) {
         // The new tree is whole in one of its two places: never lost,
         // never half moved.
         const bool staged = fs::exists(d.path(kStaging));
         EXPECT_EQ(count_files(d.path(staged ? kStaging : kBackup)), kEntries);
       }},
  };
}

TEST(CrashPoints, AHelperKilledMidCommandLeavesNothingHalfDoneAndServesOnRestart) {
  std::mt19937_64 rng(seed());
  const auto per_point = std::chrono::milliseconds(budget()) / 3 + std::chrono::milliseconds(500);
  for (const CrashPoint& point : crash_points()) {
    SCOPED_TRACE(point.name);
    Device device;
    // An undisturbed run first: how long the command takes, and that it
    // succeeds at all.
    point.prepare(device);
    device.start();
    krx::Client first = device.connect();
    const auto began = Clock::now();
    ASSERT_EQ(request(first, point.command(), 1, std::chrono::seconds(60)), std::vector{kTrue})
        << device.system_log().substr(0, 4096);
    const auto took = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - began);
    EXPECT_EQ(device.terminate(), 0);

    int kills = 0;
    const auto deadline = Clock::now() + per_point;
    while (Clock::now() < deadline) {
      point.prepare(device);
      ::unlink(device.socket_path().c_str());
      device.start();
      krx::Client client = device.connect();
      ASSERT_TRUE(client.send(point.command()));
      std::this_thread::sleep_for(std::chrono::microseconds(
          static_cast<long>(rng() % static_cast<std::uint64_t>(took.count() + 1))));
      ::kill(device.pid(), SIGKILL);
      ASSERT_TRUE(device.wait_exit(std::chrono::seconds(10)).has_value());
      ++kills;
      point.intact(device);
      if (::testing::Test::HasFailure()) break;
    }
    // Started once more, the helper does the whole command.
    point.prepare(device);
    ::unlink(device.socket_path().c_str());
    device.start();
    krx::Client last = device.connect();
    EXPECT_EQ(request(last, point.command(), 1, std::chrono::seconds(60)), std::vector{kTrue});
    EXPECT_EQ(request(last, kHarmless), std::vector{kTrue});
    if (std::string(point.name) == "device manifest write") only_the_manifest_left(device);
    std::cout << point.name << ": " << kills << " kills within " << took.count()
              << " us of the command's start\n";
  }
}

}  // namespace
