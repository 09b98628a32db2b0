// Device manifests against the tools a user would otherwise reach for, side by
// side in one run:
//
//   ours (helper)    one "createDeviceManifest:" request to vtld_helper on a
//                    simulated device (walk, hash, write the property list)
//   ours (1 core)    the same with every thread of the helper on one core
//   ours (library)   the same walk and write as a library call, in a child
//   mtree            mtree -c -K sha1,uid,gid,mode,link,size -p TREE
//   bsdtar mtree     bsdtar --format=mtree with sha1, uid, gid, mode, link,
//                    size, type
//   sha1deep         sha1deep -r -o f TREE (regular files only: without -o f
//                    it opens the tree's FIFO and waits for a writer forever)
//
// on two trees: a generated corpus (deterministic: 100,000 items by default,
// mostly small files with a few large ones, extended attributes, protection
// classes, symbolic links, hard links and a FIFO) and a copy of /usr/share.
// Each tool runs warm (the tree in the page cache) and cold (caches dropped
// before every run); the cold floor of the machine is every regular file of
// the tree read once by eight parallel readers (see read_tree), the warm one
// every regular file opened, looked at and hashed on every core with nothing
// recorded (see hash_floor). Then one large
// file hashed against `openssl speed sha1`, and 1,000,000 manifest records
// written against libplist (plist_to_bin, quadratic: measured at sizes it
// finishes) and Python's plistlib.
//
//   manifest_bench [--items N] [--runs R] [--dir DIR] [--records N]
//                  [--plistlib-records N] [--no-usr-share] [--no-cold]
//                  [--helper PATH]
//
// --helper: the vtld_helper to measure (default: the one beside this
// program), so that an earlier build is measured the same way.
//
// Prints medians, items/s, MB/s (regular-file bytes), peak resident memory
// and the ratio of each tool's time to ours (above 1: ours is faster); under
// each table ours against the floor run by run, the speed-up from one core
// to all, and our CPU time and one-core wall time against mtree's. The
// corpus, the /usr/share copy and the large file are made once under DIR
// (default /var/tmp/vtl-manifest-bench) and reused. Needs root (the helper
// confines itself with chroot; dropping caches), mtree-netbsd,
// libarchive-tools, hashdeep and python3 (scripts/install-deps --bench).
#include <fcntl.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <openssl/evp.h>

#include "base/VTLLogModel.h"
#include "base/plist.h"
#include "bench/cpu_time.h"
#include "krx/value.h"
#include "manifest/VTLFileMetadata.h"
#include "manifest/VTLManifest.h"
#include "manifest/manifest_store.h"
#include "manifest/record_codec.h"
#include "platform/accounts.h"
#include "platform/platform.h"
#include "platform/protection_classes.h"
#include "platform/system_log.h"
#include "vtldctl/helper_process.h"
#include "vtldctl/sim.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr const char* kCorpusDevicePath = "/private/var/mobile/BenchCorpus";
constexpr const char* kUsrShareDevicePath = "/private/var/mobile/UsrShare";
constexpr const char* kWorkContainer = "/private/var/VTLWorkContainer";
constexpr std::uint64_t kLargeFileBytes = std::uint64_t{1} << 30;

struct Options {
  int items = 100000;
  int runs = 3;
  std::string dir = "/var/tmp/vtl-manifest-bench";
  int records = 1000000;
  int plistlib_records = 1000000;
  bool usr_share = true;
  bool cold = true;
  std::string helper;  // default: the vtld_helper beside this program
};

struct Measure {
  double seconds = 0;      // wall time
  double cpu_seconds = 0;  // user and system time of every thread
  long peak_kib = 0;
  bool ok = true;
};

double median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  const std::size_t n = v.size();
  return n % 2 == 1 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

void note(const std::string& text) { fmt::print(stderr, "manifest_bench: {}\n", text); }

// --- Processes -----------------------------------------------------------------

// Waits for the child `pid`, started at `start`: wall time, CPU time, peak
// resident memory and whether it exited with 0.
Measure wait_for(pid_t pid, Clock::time_point start) {
  int status = 0;
  rusage usage{};
  ::wait4(pid, &status, 0, &usage);
  Measure m;
  m.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  m.cpu_seconds = bench::cpu_seconds(usage);
  m.peak_kib = usage.ru_maxrss;
  m.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  return m;
}

// Runs `argv` with standard output to `out` (or /dev/null); wall time and the
// child's peak resident memory.
Measure run_program(const std::vector<std::string>& argv, const std::string& out) {
  const auto start = Clock::now();
  const pid_t pid = ::fork();
  if (pid == 0) {
    const int fd = ::open(out.empty() ? "/dev/null" : out.c_str(),
                          O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd >= 0) ::dup2(fd, 1);
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null >= 0) ::dup2(null, 2);
    std::vector<char*> args;
    args.reserve(argv.size() + 1);
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    ::execvp(args[0], args.data());
    ::_exit(127);
  }
  return wait_for(pid, start);
}

// Runs `body` in a child; its exit status is body's result.
Measure run_child(const std::function<bool()>& body) {
  const auto start = Clock::now();
  const pid_t pid = ::fork();
  if (pid == 0) ::_exit(body() ? 0 : 1);
  return wait_for(pid, start);
}

// The regular files of `tree`, as a walk that does not follow links finds
// them.
std::vector<std::string> regular_files(const std::string& tree, std::error_code& error) {
  std::vector<std::string> files;
  for (fs::recursive_directory_iterator it(tree, error), end; !error && it != end;
       it.increment(error)) {
    if (it->is_regular_file(error) && !it->is_symlink(error)) files.push_back(it->path());
  }
  return files;
}

// Runs `each(file)` for every file of `files` on `count` threads.
void for_each_file(const std::vector<std::string>& files, unsigned count,
                   const std::function<void(const std::string&)>& each) {
  std::atomic<std::size_t> next{0};
  std::vector<std::thread> threads;
  threads.reserve(count);
  for (unsigned t = 0; t < count; ++t) {
    threads.emplace_back([&] {
      for (std::size_t i = next++; i < files.size(); i = next++) each(files[i]);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// The machine's floor for reading a tree: the walk, then every regular file
// opened, read to its end in 256 KiB reads and closed by eight threads, in a
// child. Nothing is hashed or recorded, so no tool that reads every byte can
// be faster. (find | xargs -P8 -n64 cat was the first floor, but there the
// processes are the cost: warm, 20,000 files took 4.7 s that way and 0.14 s
// on eight threads, slower than the tools it was to bound.)
Measure read_tree(const std::string& tree) {
  return run_child([&] {
    std::error_code error;
    const std::vector<std::string> files = regular_files(tree, error);
    std::atomic<bool> good{!error};
    for_each_file(files, 8, [&](const std::string& file) {
      thread_local std::vector<char> buffer(256 * 1024);
      const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
      if (fd < 0) {
        good = false;
        return;
      }
      while (::read(fd, buffer.data(), buffer.size()) > 0) {
      }
      ::close(fd);
    });
    return good.load();
  });
}

// The floor of any manifest with SHA-1 of a warm tree on this machine, in
// seconds: every regular file opened, looked at with the calls every such
// tool makes of a file (statx and flistxattr on the descriptor), read and
// hashed to its end and closed, on one thread per core. The walk is made
// before the clock starts and nothing is recorded or written, so no tool
// that hashes one file at a time can be faster. In a child, like every
// other measure, so that its memory is not in the next child's peak.
double hash_floor(const std::string& tree) {
  int pipe_fds[2];
  if (::pipe(pipe_fds) != 0) return 0;
  const pid_t pid = ::fork();
  if (pid < 0) {
    ::close(pipe_fds[0]);
    ::close(pipe_fds[1]);
    return 0;
  }
  if (pid != 0) {
    ::close(pipe_fds[1]);
    double seconds = 0;
    if (::read(pipe_fds[0], &seconds, sizeof seconds) != sizeof seconds) seconds = 0;
    ::close(pipe_fds[0]);
    ::waitpid(pid, nullptr, 0);
    return seconds;
  }
  std::error_code error;
  const std::vector<std::string> files = regular_files(tree, error);
  const auto start = Clock::now();
  for_each_file(files, std::max(1U, std::thread::hardware_concurrency()),
                [](const std::string& file) {
                  thread_local std::vector<unsigned char> buffer(256 * 1024);
                  thread_local std::vector<char> names(64 * 1024);
                  const int fd = ::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
                  if (fd < 0) return;
                  struct statx sx {};
                  ::statx(fd, "", AT_EMPTY_PATH, STATX_BASIC_STATS, &sx);
                  static_cast<void>(::flistxattr(fd, names.data(), names.size()));
                  EVP_MD_CTX* context = EVP_MD_CTX_new();
                  EVP_DigestInit_ex2(context, EVP_sha1(), nullptr);
                  ssize_t n = 0;
                  while ((n = ::read(fd, buffer.data(), buffer.size())) > 0) {
                    EVP_DigestUpdate(context, buffer.data(), static_cast<std::size_t>(n));
                  }
                  unsigned char digest[EVP_MAX_MD_SIZE];
                  EVP_DigestFinal_ex(context, digest, nullptr);
                  EVP_MD_CTX_free(context);
                  ::close(fd);
                });
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  const bool sent = ::write(pipe_fds[1], &seconds, sizeof seconds) == sizeof seconds;
  ::_exit(sent ? 0 : 1);
}

void drop_caches() {
  ::sync();
  std::ofstream("/proc/sys/vm/drop_caches") << "3\n";
}

// Whether `program` is on the path. A comparison tool that is not gets no
// row: say so loudly, with the Debian package that has it, rather than let a
// shorter table pass for the whole comparison.
bool have(const std::string& program) {
  if (std::system(("command -v " + program + " >/dev/null 2>&1").c_str()) == 0) return true;
  static const std::map<std::string, std::string> kPackages = {{"mtree", "mtree-netbsd"},
                                                               {"bsdtar", "libarchive-tools"},
                                                               {"sha1deep", "hashdeep"},
                                                               {"python3", "python3"}};
  const auto package = kPackages.find(program);
  fmt::print(stderr,
             "manifest_bench: MISSING {}: its rows are left out of this run. Install it with "
             "`scripts/install-deps --bench` (Debian package {}).\n",
             program, package != kPackages.end() ? package->second : program);
  return false;
}

// --- The trees -------------------------------------------------------------------

struct TreeStats {
  std::uint64_t items = 0;  // every entry under the root
  std::uint64_t bytes = 0;  // bytes of regular files
};

TreeStats stats_of(const std::string& root) {
  TreeStats s;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(root, fs::directory_options::none, ec);
       it != fs::recursive_directory_iterator(); it.increment(ec)) {
    ++s.items;
    if (it->is_regular_file(ec) && !it->is_symlink(ec)) s.bytes += it->file_size(ec);
  }
  return s;
}

// A deterministic tree of `items` entries. Sizes follow what a device's data
// area holds: most files small, a few large ones carrying most of the bytes.
void make_corpus(const std::string& root, int items) {
  std::mt19937_64 random(20261122);
  auto chance = [&](double p) { return std::uniform_real_distribution<double>(0, 1)(random) < p; };
  auto between = [&](std::uint64_t lo, std::uint64_t hi) {
    return std::uniform_int_distribution<std::uint64_t>(lo, hi)(random);
  };
  const auto classes = platform::make_xattr_protection_classes();
  std::vector<char> buffer(std::size_t{4} << 20);
  std::vector<std::string> files;
  fs::create_directories(root);
  int made = 0;
  std::string current_dir;
  for (int i = 0; made < items; ++i) {
    const std::string top = root + fmt::format("/d{:03}", i / 2000);
    const std::string dir = top + fmt::format("/s{:02}", (i / 100) % 20);
    if (dir != current_dir) {
      if (!fs::exists(top)) ++made;
      fs::create_directories(dir);
      ++made;
      current_dir = dir;
    }
    const std::string path = dir + fmt::format("/f{:06}", i);
    if (chance(0.025)) {
      const std::string target =
          chance(0.9) ? fmt::format("../s{:02}/f{:06}", between(0, 19), between(0, 99999))
                      : "/nonexistent/target";
      fs::create_symlink(target, path);
    } else if (chance(0.01) && !files.empty()) {
      fs::create_hard_link(files[between(0, files.size() - 1)], path);
    } else {
      std::uint64_t size = 0;
      if (chance(0.001)) {
        size = between(1 << 20, 4 << 20);
      } else if (chance(0.03)) {
        size = between(64 << 10, 256 << 10);
      } else if (chance(0.2)) {
        size = between(4 << 10, 32 << 10);
      } else {
        size = between(0, 4 << 10);
      }
      for (std::size_t k = 0; k < size; k += 8) {
        const std::uint64_t w = random();
        std::memcpy(buffer.data() + k, &w, std::min<std::size_t>(8, size - k));
      }
      const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
      if (fd < 0 || ::write(fd, buffer.data(), size) != static_cast<ssize_t>(size)) {
        throw std::runtime_error("cannot write " + path);
      }
      ::close(fd);
      if (chance(0.2)) {
        const std::string origin(between(16, 64), static_cast<char>('a' + between(0, 25)));
        ::lsetxattr(path.c_str(), "user.vtl.origin", origin.data(), origin.size(), 0);
        if (chance(0.25)) ::lsetxattr(path.c_str(), "user.vtl.quarantine", "0081;1", 6, 0);
      }
      if (chance(0.1)) static_cast<void>(classes->set(path, chance(0.5) ? "C" : "D"));
      if (chance(0.7) && ::chown(path.c_str(), 501, 501) != 0) {
        throw std::runtime_error("cannot give " + path + " to mobile");
      }
      if (chance(0.05)) static_cast<void>(::chmod(path.c_str(), 0600));
      files.push_back(path);
    }
    ++made;
  }
  ::mkfifo((root + "/pipe").c_str(), 0644);
}

std::string device_path_of(const std::string& device, const std::string& path) {
  return path.substr(device.size());
}

// --- The tools -------------------------------------------------------------------

struct Tool {
  std::string name;
  std::function<Measure(const std::string& tree)> run;
};

// Every thread of `pid` on the first core the bench may use.
void pin_to_first_core(pid_t pid) {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  if (::sched_getaffinity(0, sizeof allowed, &allowed) != 0) throw std::runtime_error("affinity");
  std::size_t first = 0;
  while (first < std::size_t{CPU_SETSIZE} && !CPU_ISSET(first, &allowed)) ++first;
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(first, &one);
  for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    const pid_t tid = std::stoi(task.path().filename().string());
    if (::sched_setaffinity(tid, sizeof one, &one) != 0) {
      throw std::runtime_error("cannot pin the helper's thread " + std::to_string(tid));
    }
  }
}

class Helper {
 public:
  Helper(std::string helper_path, std::string device)
      : helper_(std::move(helper_path)), device_(std::move(device)) {}

  // One request on a fresh helper (so that its peak memory is this walk's).
  // `one_core`: the helper runs on the first core only, as on a one-core
  // device (its threads are pinned before the request; those it starts
  // inherit that).
  Measure manifest(const std::string& tree, bool one_core = false) {
    std::string error;
    auto process = vtldctl::HelperProcess::start(helper_, device_, &error);
    if (!process) throw std::runtime_error(error);
    auto client = process->wait_until_serving(vtldctl::device_socket_path(device_),
                                              std::chrono::seconds(20), &error);
    if (!client) throw std::runtime_error(error);
    if (one_core) pin_to_first_core(process->pid());
    krx::Dictionary parameters{{"Path", device_path_of(device_, tree)}};
    const auto start = Clock::now();
    client->send(krx::make_dictionary("createDeviceManifest:", krx::Value(parameters)));
    Measure m;
    for (;;) {
      auto received = client->receive(std::chrono::minutes(10));
      auto* message = std::get_if<krx::Client::Message>(&received);
      if (message == nullptr) {
        m.ok = false;
        break;
      }
      if (const krx::Value* response = message->value.find("Response")) {
        m.ok = response->get<bool>() != nullptr && *response->get<bool>();
        break;
      }
    }
    m.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    // A helper that could not serve (another one already serves this device)
    // ends at once, and the request went to the other one: its figures
    // would be somebody else's.
    if (!process->running()) {
      throw std::runtime_error(
          "the helper started for this run has ended; is another one serving " + device_ + "? " +
          process->output());
    }
    std::ifstream status("/proc/" + std::to_string(process->pid()) + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with("VmHWM:")) m.peak_kib = std::stol(line.substr(6));
    }
    m.cpu_seconds = bench::process_cpu_seconds(process->pid());
    process->stop(std::chrono::seconds(20));
    return m;
  }

 private:
  std::string helper_;
  std::string device_;
};

class DiscardLog final : public platform::SystemLog {
 public:
  void write(std::string_view /*message*/) override {}
};

// The library call as a program of the platform would make it.
Measure library_manifest(const std::string& device, const std::string& tree,
                         const std::string& out) {
  return run_child([&] {
    DiscardLog log;
    auto accounts = platform::make_passwd_accounts(device);
    auto classes = platform::make_xattr_protection_classes();
    vtl::VTLLogModel::sharedInstance().setSystemLog(&log);
    vtl::VTLManifest manifest({.accounts = accounts.get(), .protection_classes = classes.get()});
    const auto skip = vtl::VTLManifest::immediateHiddenFilesUnderPath(tree);
    if (!manifest.addFilesFromPath_relativeTo_skip_inclusive(tree, tree, skip, false)) return false;
    return manifest.writeBinaryPropertyListToFile(out) == 0;
  });
}

// --- Reporting -------------------------------------------------------------------

struct Row {
  std::string tool;
  std::vector<double> seconds;
  std::vector<double> cpu_seconds;
  long peak_kib = 0;
  bool ok = true;
};

// `floor_name`: what `floor_seconds` measured (see read_tree).
// `floors`: the floor measured in each run, beside that run's tools.
void print_table(const std::string& title, const TreeStats& stats, const std::vector<Row>& rows,
                 const char* floor_name, const std::vector<double>& floors, std::FILE* out) {
  const std::optional<double> floor_seconds =
      floors.empty() ? std::nullopt : std::optional<double>(median(floors));
  fmt::print(out, "\n{}: {} items, {:.1f} MB in regular files\n", title, stats.items,
             static_cast<double>(stats.bytes) / 1e6);
  fmt::print(out, "  {:<16} {:>9} {:>11} {:>9} {:>11} {:>12} {:>9} {:>11}\n", "tool", "median s",
             "items/s", "MB/s", "peak RSS MB", "time / ours", "CPU s", "CPU / ours");
  const double ours = rows.empty() ? 0 : median(rows[0].seconds);
  const double ours_cpu = rows.empty() ? 0 : median(rows[0].cpu_seconds);
  for (const Row& row : rows) {
    const double t = median(row.seconds);
    const double c = median(row.cpu_seconds);
    fmt::print(
        out, "  {:<16} {:>9.3f} {:>11.0f} {:>9.1f} {:>11.1f} {:>12.2f} {:>9.3f} {:>11.2f}{}\n",
        row.tool, t, static_cast<double>(stats.items) / t,
        static_cast<double>(stats.bytes) / 1e6 / t, static_cast<double>(row.peak_kib) / 1024.0,
        t / ours, c, c / ours_cpu, row.ok ? "" : "  (FAILED)");
  }
  if (floor_seconds) {
    fmt::print(out,
               "  {:<16} {:>9.3f} {:>11.0f} {:>9.1f} {:>11} {:>12.2f}   (ours / floor {:.2f})\n",
               floor_name, *floor_seconds, static_cast<double>(stats.items) / *floor_seconds,
               static_cast<double>(stats.bytes) / 1e6 / *floor_seconds, "-", *floor_seconds / ours,
               ours / *floor_seconds);
    // Run by run, ours against the floor measured in the same run.
    if (!rows.empty() && rows[0].seconds.size() == floors.size()) {
      double best = 0;
      double worst = 0;
      for (std::size_t r = 0; r < floors.size(); ++r) {
        const double ratio = rows[0].seconds[r] / floors[r];
        best = r == 0 ? ratio : std::min(best, ratio);
        worst = r == 0 ? ratio : std::max(worst, ratio);
      }
      fmt::print(out, "  ours / floor, run by run: {:.2f} to {:.2f}\n", best, worst);
    }
  }
  // Ours are the first three rows: the helper on every core, on one core, and
  // the library call.
  const auto row_named = [&](std::string_view name) -> const Row* {
    for (const Row& row : rows) {
      if (row.tool == name) return &row;
    }
    return nullptr;
  };
  const Row* one_core = row_named("ours (1 core)");
  if (one_core != nullptr && ours > 0) {
    fmt::print(out, "  scaling, one core to {}: {:.2f}x\n", std::thread::hardware_concurrency(),
               median(one_core->seconds) / ours);
  }
  if (const Row* mtree = row_named("mtree")) {
    fmt::print(out, "  against mtree: CPU {:.2f}x; on one core, wall time {:.2f}x\n",
               ours_cpu / median(mtree->cpu_seconds),
               one_core != nullptr ? median(one_core->seconds) / median(mtree->seconds) : 0.0);
  }
  static_cast<void>(std::fflush(out));  // a report line lost to a full disk is no error here
}

// --- The tree benchmarks ----------------------------------------------------------

void bench_tree(const Options& o, const std::string& title, const std::string& device,
                const std::string& tree, Helper& helper, std::FILE* out) {
  const TreeStats stats = stats_of(tree);
  const std::string results = o.dir + "/out";
  fs::create_directories(results);
  std::vector<Tool> tools = {
      {"ours (helper)", [&](const std::string& t) { return helper.manifest(t); }},
      {"ours (1 core)", [&](const std::string& t) { return helper.manifest(t, true); }},
      {"ours (library)",
       [&](const std::string& t) {
         return library_manifest(device, t, results + "/library.plist");
       }},
  };
  if (have("mtree")) {
    tools.push_back({"mtree", [&](const std::string& t) {
                       return run_program(
                           {"mtree", "-c", "-K", "sha1,uid,gid,mode,link,size", "-p", t},
                           results + "/mtree.txt");
                     }});
  }
  if (have("bsdtar")) {
    tools.push_back({"bsdtar mtree", [&](const std::string& t) {
                       return run_program(
                           {"bsdtar", "-c", "-f", results + "/bsdtar.mtree", "--format=mtree",
                            "--options=!all,sha1,uid,gid,mode,link,size,type", "-C", t, "."},
                           "");
                     }});
  }
  if (have("sha1deep")) {
    tools.push_back(
        {"sha1deep", [&](const std::string& t) {
           return run_program({"sha1deep", "-r", "-o", "f", t}, results + "/sha1deep.txt");
         }});
  }
  for (const bool cold : {false, true}) {
    if (cold && !o.cold) continue;
    std::vector<Row> rows(tools.size());
    std::vector<double> floors;
    for (int r = 0; r < o.runs; ++r) {
      // A different tool goes first in each run.
      for (std::size_t k = 0; k < tools.size(); ++k) {
        const std::size_t i = (k + static_cast<std::size_t>(r)) % tools.size();
        // Warm means warm for every tool: the tree is read just before each
        // run (a kernel that reclaims idle page cache, as DAMON does, would
        // otherwise cool it between runs).
        if (cold) {
          drop_caches();
        } else {
          read_tree(tree);
        }
        note(fmt::format("{} {} run {}: {}", title, cold ? "cold" : "warm", r + 1, tools[i].name));
        const Measure m = tools[i].run(tree);
        rows[i].tool = tools[i].name;
        rows[i].seconds.push_back(m.seconds);
        rows[i].cpu_seconds.push_back(m.cpu_seconds);
        rows[i].peak_kib = std::max(rows[i].peak_kib, m.peak_kib);
        rows[i].ok = rows[i].ok && m.ok;
      }
      if (cold) {
        drop_caches();
        floors.push_back(read_tree(tree).seconds);
      } else {
        read_tree(tree);
        floors.push_back(hash_floor(tree));
      }
    }
    print_table(fmt::format("{} ({}, {} runs)", title, cold ? "cold" : "warm", o.runs), stats, rows,
                cold ? "read floor" : "hash floor", floors, out);
  }
}

// --- One large file ----------------------------------------------------------------

void bench_large_file(const Options& o, std::FILE* out) {
  const std::string path = o.dir + "/large.bin";
  if (!fs::exists(path) || fs::file_size(path) != kLargeFileBytes) {
    note("writing a 1 GiB file");
    std::mt19937_64 random(1);
    std::vector<std::uint64_t> chunk(1 << 17);
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    for (std::uint64_t done = 0; done < kLargeFileBytes; done += chunk.size() * 8) {
      for (auto& w : chunk) w = random();
      file.write(reinterpret_cast<const char*>(chunk.data()),
                 static_cast<std::streamsize>(chunk.size() * 8));
    }
  }
  run_program({"cat", path}, "");  // warm
  std::vector<double> ours_wall, ours_cpu, tool_wall, tool_cpu;
  for (int r = 0; r < o.runs; ++r) {
    const Measure m = run_child([&] {
      const auto digest = vtl::VTLFileMetadata::fileHashWithPath(path);
      return digest && digest->size() == 20;
    });
    ours_wall.push_back(m.seconds);
    ours_cpu.push_back(m.cpu_seconds);
    const Measure t = run_program({"openssl", "sha1", path}, "");
    tool_wall.push_back(t.seconds);
    tool_cpu.push_back(t.cpu_seconds);
  }
  // OpenSSL's own single-core figure, for 256 KiB blocks (our chunk size).
  double speed = 0;
  if (FILE* pipe =
          ::popen("openssl speed -evp sha1 -bytes 262144 -seconds 3 -mr 2>/dev/null", "r")) {
    char line[512];
    while (std::fgets(line, sizeof line, pipe) != nullptr) {
      const std::string s = line;
      if (s.starts_with("+F:")) speed = std::stod(s.substr(s.rfind(':') + 1));
    }
    ::pclose(pipe);
  }
  const auto rate = [](double seconds) {
    return static_cast<double>(kLargeFileBytes) / seconds / 1e6;
  };
  fmt::print(out, "\nOne 1 GiB file, warm, SHA-1 ({} runs; MB/s by wall time, and by CPU time)\n",
             o.runs);
  fmt::print(out, "  ours (fileHashWithPath)   {:8.1f} MB/s  {:8.1f} MB/s of CPU\n",
             rate(median(ours_wall)), rate(median(ours_cpu)));
  fmt::print(out, "  openssl sha1 FILE         {:8.1f} MB/s  {:8.1f} MB/s of CPU\n",
             rate(median(tool_wall)), rate(median(tool_cpu)));
  fmt::print(out,
             "  openssl speed -evp sha1   {:8.1f} MB/s  (256 KiB blocks, in memory, one core)\n",
             speed / 1e6);
  if (speed > 0) {
    fmt::print(out, "  ours / openssl speed      {:8.2f} by wall time, {:.2f} by CPU time\n",
               rate(median(ours_wall)) * 1e6 / speed, rate(median(ours_cpu)) * 1e6 / speed);
  }
  static_cast<void>(std::fflush(out));  // a report line lost to a full disk is no error here
}

// --- Writing records -------------------------------------------------------------------

// A record shaped like those of a walk: a regular file of a data area.
void encode_record(vtl::manifest::RecordEncoder& e, std::uint64_t i) {
  using vtl::manifest::Known;
  e.begin_dictionary(4);
  e.key(Known::kFileAttributes);
  e.begin_dictionary(14);
  e.key(Known::kFileType);
  e.string(Known::kTypeRegular);
  e.key(Known::kFileSize);
  e.integer(static_cast<std::int64_t>((i * 7919) % 300000));
  e.key(Known::kOwnerAccountID);
  e.integer(501);
  e.key(Known::kGroupOwnerAccountID);
  e.integer(501);
  e.key(Known::kOwnerAccountName);
  e.string(std::string_view("mobile"));
  e.key(Known::kGroupOwnerAccountName);
  e.string(std::string_view("mobile"));
  e.key(Known::kPosixPermissions);
  e.integer(0644);
  e.key(Known::kCreationDate);
  e.date(vtl::Date(std::chrono::seconds(1700000000) + std::chrono::microseconds(i * 1337)));
  e.key(Known::kModificationDate);
  e.date(vtl::Date(std::chrono::seconds(1700000000) + std::chrono::microseconds(i * 7331)));
  e.key(Known::kReferenceCount);
  e.integer(1);
  e.key(Known::kSystemNumber);
  e.integer(2049);
  e.key(Known::kSystemFileNumber);
  e.integer(static_cast<std::int64_t>(1000000 + i));
  e.key(Known::kImmutable);
  e.boolean(false);
  e.key(Known::kAppendOnly);
  e.boolean(false);
  e.key(Known::kFileExtendedAttributes);
  e.begin_dictionary(0);
  e.key(Known::kFileHash);
  std::uint8_t hash[20];
  for (int k = 0; k < 20; ++k)
    hash[k] = static_cast<std::uint8_t>((i * 31 + static_cast<std::uint64_t>(k) * 17) & 0xFF);
  e.data(hash);
  e.key(Known::kSymbolicLinkTargetFile);
  e.string(Known::kEmpty);
}

std::string record_path(std::uint64_t i) {
  return fmt::format("/mobile/Library/Data/d{:03}/s{:02}/file-{:07}.dat", i / 5000, (i / 100) % 50,
                     i);
}

void bench_records(const Options& o, std::FILE* out) {
  const std::string path = o.dir + "/out/records.plist";
  fs::create_directories(o.dir + "/out");
  const auto n = static_cast<std::uint64_t>(o.records);
  // Ours: build the compact records, then stream them out, in a child so
  // that its peak memory is the manifest's.
  std::vector<double> build;
  std::vector<double> write;
  long peak = 0;
  for (int r = 0; r < o.runs; ++r) {
    const std::string timings = o.dir + "/out/timings";
    const Measure m = run_child([&] {
      vtl::manifest::ManifestStore store;
      vtl::manifest::RecordEncoder e(&store.strings());
      const auto t0 = Clock::now();
      for (std::uint64_t i = 0; i < n; ++i) {
        encode_record(e, i);
        store.set(record_path(i), e.take());
      }
      const auto t1 = Clock::now();
      const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
      vtl::bplist::ByteSink sink(fd);
      const int error = store.write_binary(sink);
      ::fsync(fd);
      ::close(fd);
      const auto t2 = Clock::now();
      std::ofstream(timings) << std::chrono::duration<double>(t1 - t0).count() << " "
                             << std::chrono::duration<double>(t2 - t1).count() << "\n";
      return error == 0;
    });
    double b = 0;
    double w = 0;
    std::ifstream(timings) >> b >> w;
    build.push_back(b);
    write.push_back(w);
    peak = std::max(peak, m.peak_kib);
  }
  const auto file_bytes = fs::file_size(path);
  fmt::print(out, "\nWriting {} manifest records ({} runs)\n", n, o.runs);
  fmt::print(out,
             "  ours: build {:.3f} s, write {:.3f} s ({:.1f} MB file), peak RSS {:.1f} MB = {:.0f} "
             "bytes/record\n",
             median(build), median(write), static_cast<double>(file_bytes) / 1e6,
             static_cast<double>(peak) / 1024.0,
             static_cast<double>(peak) * 1024.0 / static_cast<double>(n));

  // libplist: the same records as a Value, through plist_to_bin. Quadratic,
  // so measured where it finishes in seconds.
  for (const std::uint64_t k : {std::uint64_t{10000}, std::uint64_t{20000}}) {
    const std::string timings = o.dir + "/out/libplist";
    const Measure m = run_child([&] {
      vtl::manifest::ManifestStore store;
      vtl::manifest::RecordEncoder e(&store.strings());
      for (std::uint64_t i = 0; i < k; ++i) {
        encode_record(e, i);
        store.set(record_path(i), e.take());
      }
      const vtl::Value value(store.to_dictionary());
      const auto t0 = Clock::now();
      const auto bytes = vtl::plist_to_binary(value);
      std::ofstream(timings) << std::chrono::duration<double>(Clock::now() - t0).count() << "\n";
      return !bytes.empty();
    });
    double t = 0;
    std::ifstream(timings) >> t;
    fmt::print(out, "  libplist plist_to_bin, {} records: {:.3f} s, peak RSS {:.1f} MB\n", k, t,
               static_cast<double>(m.peak_kib) / 1024.0);
  }

  if (have("python3") && o.plistlib_records > 0) {
    const std::string script =
        "import plistlib, time, resource, datetime, sys\n"
        "n = int(sys.argv[1])\n"
        "base = datetime.datetime(2023, 11, 14, 22, 13, 20)\n"
        "d = {}\n"
        "for i in range(n):\n"
        "    d['/mobile/Library/Data/d%03d/s%02d/file-%07d.dat' % (i // 5000, (i // 100) % 50, i)] "
        "= {\n"
        "        'VTLManifestFileAttributes': {'FileType': 'Regular', 'FileSize': (i * 7919) % "
        "300000,\n"
        "            'OwnerAccountID': 501, 'GroupOwnerAccountID': 501, 'OwnerAccountName': "
        "'mobile',\n"
        "            'GroupOwnerAccountName': 'mobile', 'PosixPermissions': 0o644,\n"
        "            'CreationDate': base + datetime.timedelta(microseconds=i * 1337),\n"
        "            'ModificationDate': base + datetime.timedelta(microseconds=i * 7331),\n"
        "            'ReferenceCount': 1, 'SystemNumber': 2049, 'SystemFileNumber': 1000000 + i,\n"
        "            'Immutable': False, 'AppendOnly': False},\n"
        "        'VTLManifestFileExtendedAttributes': {},\n"
        "        'VTLManifestFileHash': bytes(((i * 31 + k * 17) & 255) for k in range(20)),\n"
        "        'VTLManifestSymbolicLinkTargetFile': ''}\n"
        "t = time.perf_counter()\n"
        "data = plistlib.dumps(d, fmt=plistlib.FMT_BINARY)\n"
        "t = time.perf_counter() - t\n"
        "print(t, len(data), resource.getrusage(resource.RUSAGE_SELF).ru_maxrss)\n";
    const std::string script_path = o.dir + "/out/plistlib_bench.py";
    std::ofstream(script_path) << script;
    note(fmt::format("plistlib writing {} records", o.plistlib_records));
    const std::string command = fmt::format("python3 {} {}", script_path, o.plistlib_records);
    if (FILE* pipe = ::popen(command.c_str(), "r")) {
      double t = 0;
      long size = 0;
      long rss = 0;
      if (std::fscanf(pipe, "%lf %ld %ld", &t, &size, &rss) == 3) {
        fmt::print(out,
                   "  plistlib dumps(FMT_BINARY), {} records: {:.3f} s, peak RSS {:.1f} MB "
                   "(records built in Python included)\n",
                   o.plistlib_records, t, static_cast<double>(rss) / 1024.0);
      }
      ::pclose(pipe);
    }
  }
  static_cast<void>(std::fflush(out));  // a report line lost to a full disk is no error here
}

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) throw std::runtime_error(a + " needs a value");
      return argv[++i];
    };
    if (a == "--items") {
      o.items = std::stoi(value());
    } else if (a == "--runs") {
      o.runs = std::stoi(value());
    } else if (a == "--dir") {
      o.dir = value();
    } else if (a == "--records") {
      o.records = std::stoi(value());
    } else if (a == "--plistlib-records") {
      o.plistlib_records = std::stoi(value());
    } else if (a == "--no-usr-share") {
      o.usr_share = false;
    } else if (a == "--no-cold") {
      o.cold = false;
    } else if (a == "--helper") {
      o.helper = value();
    } else {
      throw std::runtime_error("unknown argument " + a);
    }
  }
  return o;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const Options o = parse(argc, argv);
    if (::geteuid() != 0) {
      fmt::print(stderr, "manifest_bench: must run as root (chroot, dropping caches)\n");
      return 2;
    }
    fs::create_directories(o.dir);
    const std::string device = o.dir + "/device";
    if (!fs::exists(device + "/etc/passwd")) {
      std::string absolute;
      fs::remove_all(device);
      if (std::string error = vtldctl::create_simulated_device(device, &absolute); !error.empty()) {
        throw std::runtime_error(error);
      }
    }
    fs::create_directories(device + kWorkContainer);
    const std::string helper =
        !o.helper.empty()
            ? o.helper
            : (fs::path(vtldctl::own_executable()).parent_path() / "vtld_helper").string();
    Helper helper_runner(helper, device);

    const std::string corpus = device + kCorpusDevicePath;
    const std::string stamp = o.dir + fmt::format("/corpus-{}.done", o.items);
    if (!fs::exists(stamp)) {
      note(fmt::format("generating a corpus of {} items", o.items));
      fs::remove_all(corpus);
      make_corpus(corpus, o.items);
      std::ofstream(stamp) << "done\n";
    }
    const std::string usr_share = device + kUsrShareDevicePath;
    if (o.usr_share && !fs::exists(o.dir + "/usr-share.done")) {
      note("copying /usr/share");
      fs::remove_all(usr_share);
      run_program({"cp", "-a", "/usr/share", usr_share}, "");
      std::ofstream(o.dir + "/usr-share.done") << "done\n";
    }

    std::FILE* out = stdout;
    fmt::print(out, "Device manifests on this machine ({} cores); medians of {} runs\n",
               std::thread::hardware_concurrency(), o.runs);
    bench_tree(o, "generated corpus", device, corpus, helper_runner, out);
    if (o.usr_share) bench_tree(o, "copy of /usr/share", device, usr_share, helper_runner, out);
    bench_large_file(o, out);
    bench_records(o, out);
    return 0;
  } catch (const std::exception& e) {
    fmt::print(stderr, "manifest_bench: {}\n", e.what());
    return 1;
  }
}
