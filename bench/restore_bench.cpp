// Attribute restore through the helper, against the tools a user would
// otherwise reach for: `mtree -U` for owner, group and mode, and
// `setfattr --restore` for extended attributes (the protection class, kept
// in a trusted.* attribute, included), side by side in one run.
//
//   restore_bench [--files N] [--runs R] [--dir DIR] [--helper PATH]
//
// Lays out a simulated device, a source tree of N files (default 50000) in
// directories of 100 with varied owners, groups, modes, two or three
// extended attributes each and a protection class, and its records as a
// signed manifest (the device's test signer). The staging copy under the
// device is reset before every timed run: everything owned by mobile, mode
// 0644 or 0755, no extended attributes, no class. Each run then restores it
// once with the helper (one "restoreAttributes:" request) and once with
// mtree plus setfattr, in alternating order, and checks the result of each
// against the source. Reports the medians, their ratio and the helper's
// peak memory. Needs root, mtree-netbsd and attr (scripts/install-deps
// --bench).
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "base/VTLLogModel.h"
#include "base/plist.h"
#include "bench/cpu_time.h"
#include "krx/value.h"
#include "manifest/VTLManifest.h"
#include "manifest/binary_plist_writer.h"
#include "manifest/manifest_signer.h"
#include "platform/accounts.h"
#include "platform/platform.h"
#include "platform/protection_classes.h"
#include "platform/sim/test_signer.h"
#include "platform/system_log.h"
#include "vtldctl/helper_process.h"
#include "vtldctl/sim.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr const char* kStagingDevicePath = "/private/var/mobile/Staging";
constexpr const char* kManifestDevicePath = "/private/var/mobile/bench.signedmanifest";

struct Options {
  int files = 50000;
  int runs = 5;
  std::string dir;
  std::string helper;
};

[[noreturn]] void die(const std::string& message) {
  fmt::print(stderr, "restore_bench: {}\n", message);
  std::exit(1);
}

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const std::size_t n = v.size();
  return n % 2 == 1 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// Runs a shell command in `dir`, its output discarded; dies when it fails.
void run_in(const std::string& dir, const std::string& command) {
  // The braces keep the command's own redirections (a spec written to a
  // file) and discard only what it prints besides.
  const std::string line = "cd '" + dir + "' && { " + command + "; } >/dev/null 2>&1";
  const int status = std::system(line.c_str());
  if (status != 0) die("failed (" + std::to_string(status) + "): " + command);
}

void make_source(const std::string& root, int files, const platform::ProtectionClasses& classes) {
  static const char* const kClasses[] = {"A", "B", "C", "D", "None"};
  const int per_dir = 100;
  for (int f = 0; f < files; ++f) {
    const std::string dir = fmt::format("{}/Container{}/Library", root, f / per_dir);
    if (f % per_dir == 0) {
      fs::create_directories(dir);
      if (::chown(dir.c_str(), 501, 501) != 0 ||
          ::chown(fs::path(dir).parent_path().c_str(), 501, 501) != 0) {
        die("cannot give " + dir + " to mobile");
      }
    }
    const std::string path = fmt::format("{}/item{}.dat", dir, f);
    std::ofstream(path) << "bench " << f;
    if (::chown(path.c_str(), f % 3 == 0 ? 0 : 501, f % 2 == 0 ? 501 : 0) != 0) {
      die("cannot set the owner of " + path);
    }
    ::chmod(path.c_str(), f % 2 == 0 ? 0640 : 0600);
    const std::string tag = fmt::format("com.example.tag-{}", f);
    ::setxattr(path.c_str(), "user.com.example.tag", tag.data(), tag.size(), 0);
    const std::string origin(24, static_cast<char>('a' + f % 26));
    ::setxattr(path.c_str(), "user.com.example.origin", origin.data(), origin.size(), 0);
    if (f % 4 == 0) ::setxattr(path.c_str(), "user.com.example.flag", "1", 1, 0);
    if (classes.set(path, kClasses[f % 5]) != 0) die("cannot set a protection class on " + path);
  }
}

// Everything mobile's, plain modes, no extended attributes (the class's
// storage included).
void reset(const std::string& root) {
  std::vector<char> names(4096);
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    const char* path = entry.path().c_str();
    if (::lchown(path, 501, 501) != 0) die(std::string("cannot give ") + path + " to mobile");
    ::chmod(path, entry.is_directory() ? 0755 : 0644);
    const ssize_t n = ::llistxattr(path, names.data(), names.size());
    for (ssize_t at = 0; at < n;) {
      const std::string name(names.data() + at);
      ::lremovexattr(path, name.c_str());
      at += static_cast<ssize_t>(name.size()) + 1;
    }
  }
}

// Whether every item under `staging` has the owner, group, mode and
// extended attributes of its twin under `source`.
bool same_as(const std::string& source, const std::string& staging, std::string* first) {
  std::vector<char> a(4096);
  std::vector<char> b(4096);
  for (const auto& entry : fs::recursive_directory_iterator(source)) {
    const std::string relative = entry.path().string().substr(source.size());
    const std::string twin = staging + relative;
    struct stat s {};
    struct stat t {};
    if (::lstat(entry.path().c_str(), &s) != 0 || ::lstat(twin.c_str(), &t) != 0 ||
        s.st_uid != t.st_uid || s.st_gid != t.st_gid || s.st_mode != t.st_mode) {
      *first = relative + ": owner, group or mode";
      return false;
    }
    const ssize_t na = ::llistxattr(entry.path().c_str(), a.data(), a.size());
    const ssize_t nb = ::llistxattr(twin.c_str(), b.data(), b.size());
    std::vector<std::string> la;
    std::vector<std::string> lb;
    for (ssize_t at = 0; at < na; at += static_cast<ssize_t>(la.back().size()) + 1) {
      la.emplace_back(a.data() + at);
    }
    for (ssize_t at = 0; at < nb; at += static_cast<ssize_t>(lb.back().size()) + 1) {
      lb.emplace_back(b.data() + at);
    }
    std::sort(la.begin(), la.end());
    std::sort(lb.begin(), lb.end());
    if (la != lb) {
      *first = relative + ": extended attribute names";
      return false;
    }
    for (const std::string& name : la) {
      char va[256];
      char vb[256];
      const ssize_t x = ::lgetxattr(entry.path().c_str(), name.c_str(), va, sizeof va);
      const ssize_t y = ::lgetxattr(twin.c_str(), name.c_str(), vb, sizeof vb);
      if (x != y || (x > 0 && std::memcmp(va, vb, static_cast<std::size_t>(x)) != 0)) {
        *first = relative;
        *first += ": ";
        *first += name;
        return false;
      }
    }
  }
  return true;
}

std::int64_t status_kib(pid_t pid, const std::string& field) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.starts_with(field + ":")) return std::stoll(line.substr(field.size() + 1));
  }
  return -1;
}

bool restore_with_helper(krx::Client& client) {
  krx::Dictionary parameters = {{"StagingRootPath", krx::Value(kStagingDevicePath)},
                                {"ManifestPath", krx::Value(kManifestDevicePath)}};
  if (!client.send(krx::make_dictionary("restoreAttributes:", krx::Value(parameters))))
    return false;
  for (;;) {
    krx::Client::Received r = client.receive(std::chrono::minutes(10));
    auto* m = std::get_if<krx::Client::Message>(&r);
    if (m == nullptr) return false;
    if (const krx::Value* response = m->value.find("Response")) {
      const bool* ok = response->get<bool>();
      return ok != nullptr && *ok;
    }
  }
}

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) die(arg + " wants a value");
      return argv[++i];
    };
    if (arg == "--files") {
      o.files = std::stoi(value());
    } else if (arg == "--runs") {
      o.runs = std::stoi(value());
    } else if (arg == "--dir") {
      o.dir = value();
    } else if (arg == "--helper") {
      o.helper = value();
    } else {
      die("usage: restore_bench [--files N] [--runs R] [--dir DIR] [--helper PATH]");
    }
  }
  return o;
}

}  // namespace

int main(int argc, char** argv) {
  Options options = parse(argc, argv);
  if (::geteuid() != 0) die("run as root: the helper confines itself with chroot");
  // The comparison is the whole point: without its tools, no run at all.
  const std::pair<const char*, const char*> tools[] = {
      {"mtree", "mtree-netbsd"}, {"setfattr", "attr"}, {"getfattr", "attr"}};
  for (const auto& [tool, package] : tools) {
    if (std::system(fmt::format("command -v {} >/dev/null", tool).c_str()) != 0) {
      die(
          fmt::format("{} is missing: install it with `scripts/install-deps --bench` (Debian "
                      "package {})",
                      tool, package));
    }
  }
  if (options.helper.empty()) {
    options.helper = (fs::path(vtldctl::own_executable()).parent_path() / "vtld_helper").string();
  }
  std::string work = options.dir;
  if (work.empty()) {
    char pattern[] = "/var/tmp/restore-bench-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) die("cannot make a work directory");
    work = pattern;
  }
  const std::string source = work + "/source";
  std::string device;
  if (std::string error = vtldctl::create_simulated_device(work + "/device", &device);
      !error.empty()) {
    die(error);
  }
  const std::string staging = device + kStagingDevicePath;

  // The tool's own roles, to record the source as the helper's walk does.
  std::unique_ptr<platform::SystemLog> log = platform::make_stderr_system_log();
  std::unique_ptr<platform::Accounts> accounts = platform::make_passwd_accounts(device);
  std::unique_ptr<platform::ProtectionClasses> classes = platform::make_xattr_protection_classes();
  vtl::VTLLogModel::sharedInstance().setSystemLog(log.get());

  Clock::time_point start = Clock::now();
  make_source(source, options.files, *classes);
  fmt::print("source tree: {} files in {:.1f} s\n", options.files, seconds_since(start));
  static_cast<void>(std::fflush(stdout));
  start = Clock::now();
  vtl::Dictionary records;
  {
    vtl::VTLManifest manifest({.accounts = accounts.get(), .protection_classes = classes.get()});
    if (!manifest.addFilesFromPath_relativeTo_skip_inclusive(source, source, {}, true)) {
      die("cannot record the source tree");
    }
    records = manifest.dict();
  }
  vtl::Dictionary raw = {{"Version", vtl::Value(3)},
                         {"Info", vtl::Value(vtl::Dictionary{})},
                         {"Backup", vtl::Value(std::move(records))},
                         {"App", vtl::Value(vtl::Array{})},
                         {"AppData", vtl::Value(vtl::Dictionary{})}};
  const std::string keep = device + std::string(platform::sim::kTestSignerDirectory) + "/";
  std::string error;
  std::optional<vtl::ManifestSigner> signer = vtl::ManifestSigner::load(
      keep + std::string(platform::sim::kTestSignerKeyFile),
      {keep + std::string(platform::sim::kTestSignerCertificateFile)}, &error);
  if (!signer) die(error);
  std::optional<vtl::Dictionary> envelope =
      signer->envelope(vtl::bplist::to_binary(vtl::Value(std::move(raw))));
  const vtl::Data envelope_bytes = vtl::bplist::to_binary(vtl::Value(std::move(*envelope)));
  if (vtl::write_file_atomically(device + kManifestDevicePath, envelope_bytes) != 0) {
    die("cannot write the signed manifest");
  }
  fmt::print("signed manifest: {:.1f} MiB in {:.1f} s\n",
             static_cast<double>(envelope_bytes.size()) / (1 << 20), seconds_since(start));

  fs::copy(source, staging, fs::copy_options::recursive);
  // What the other tools restore from: an mtree specification of owner,
  // group and mode, and getfattr's dump of every extended attribute.
  run_in(source, "mtree -c -k uid,gid,mode -p . > " + work + "/spec");
  run_in(source, "getfattr -R -h -d -m - -e hex . > " + work + "/xattrs");

  std::optional<vtldctl::HelperProcess> helper =
      vtldctl::HelperProcess::start(options.helper, device, &error);
  if (!helper) die(error);
  std::optional<krx::Client> client = helper->wait_until_serving(
      vtldctl::device_socket_path(device), std::chrono::seconds(30), &error);
  if (!client) die(error);
  const std::int64_t idle_kib = status_kib(helper->pid(), "VmRSS");

  std::vector<double> ours;
  std::vector<double> mtree;
  std::vector<double> setfattr;
  std::vector<double> theirs;
  std::vector<double> ours_cpu;    // CPU time of every helper thread
  std::vector<double> theirs_cpu;  // of both tools (and their shells)
  for (int run = 0; run < options.runs; ++run) {
    for (int turn = 0; turn < 2; ++turn) {
      const bool helper_turn = (run + turn) % 2 == 0;
      reset(staging);
      std::string first;
      if (same_as(source, staging, &first)) die("the reset left the staging tree restored");
      ::sync();
      if (helper_turn) {
        const double cpu = bench::process_cpu_seconds(helper->pid());
        start = Clock::now();
        if (!restore_with_helper(*client)) die("the helper answered false:\n" + helper->output());
        ours.push_back(seconds_since(start));
        ours_cpu.push_back(bench::process_cpu_seconds(helper->pid()) - cpu);
      } else {
        const double cpu = bench::children_cpu_seconds();
        start = Clock::now();
        run_in(staging, "mtree -U -e -p . -f " + work + "/spec");
        const double m = seconds_since(start);
        run_in(staging, "setfattr -h --restore=" + work + "/xattrs");
        theirs.push_back(seconds_since(start));
        theirs_cpu.push_back(bench::children_cpu_seconds() - cpu);
        mtree.push_back(m);
        setfattr.push_back(theirs.back() - m);
      }
      if (!same_as(source, staging, &first)) {
        die(fmt::format("{} left a difference: {}", helper_turn ? "the helper" : "mtree+setfattr",
                        first));
      }
    }
    fmt::print("run {}: helper {:.3f} s, mtree -U {:.3f} s + setfattr --restore {:.3f} s\n",
               run + 1, ours.back(), mtree.back(), setfattr.back());
  }
  const std::int64_t peak_kib = status_kib(helper->pid(), "VmHWM");
  static_cast<void>(helper->stop(std::chrono::seconds(10)));

  const double ours_median = median(ours);
  const double theirs_median = median(theirs);
  // Every file, each container's two folders, and the staging root.
  const int items = options.files + options.files / 100 * 2 + 1;
  fmt::print("\nattribute restore of {} files ({} items with directories), {} runs, medians:\n",
             options.files, items, options.runs);
  fmt::print("  vtld_helper restoreAttributes:   {:8.3f} s  ({:.0f} files/s)\n", ours_median,
             options.files / ours_median);
  fmt::print("  mtree -U                          {:8.3f} s\n", median(mtree));
  fmt::print("  setfattr --restore                {:8.3f} s\n", median(setfattr));
  fmt::print("  mtree -U + setfattr --restore     {:8.3f} s  ({:.0f} files/s)\n", theirs_median,
             options.files / theirs_median);
  fmt::print("  ratio (mtree + setfattr) / helper {:8.2f}x\n", theirs_median / ours_median);
  fmt::print("CPU time per item, medians: helper {:.1f} us, mtree + setfattr {:.1f} us ({:.2f}x)\n",
             median(ours_cpu) * 1e6 / static_cast<double>(items),
             median(theirs_cpu) * 1e6 / static_cast<double>(items),
             median(ours_cpu) / median(theirs_cpu));
  fmt::print("helper memory: {:.1f} MiB idle, {:.1f} MiB peak (signed manifest {:.1f} MiB)\n",
             static_cast<double>(idle_kib) / 1024, static_cast<double>(peak_kib) / 1024,
             static_cast<double>(envelope_bytes.size()) / (1 << 20));
  if (options.dir.empty()) fs::remove_all(work);
  return 0;
}
