#include "vtldctl/demo.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <system_error>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "platform/accounts.h"
#include "platform/sim/device.h"
#include "vtldctl/commands.h"
#include "vtldctl/describe.h"
#include "vtldctl/exchange.h"
#include "vtldctl/exit_status.h"
#include "vtldctl/helper_process.h"
#include "vtldctl/reply_printer.h"
#include "vtldctl/sim.h"

namespace vtldctl {
namespace {

namespace fs = std::filesystem;

constexpr auto kStartLimit = std::chrono::seconds(10);
constexpr auto kStopLimit = std::chrono::seconds(10);
constexpr uid_t kRootId = 0;
constexpr uid_t kMobileId = platform::sim::kMobileId;
constexpr const char* kLogDirectory = "/private/var/logs/vtld";

// The device as the steps see it. Steps speak in device paths (what the
// helper sees under its confinement); they are looked up under the root.
class DemoDevice {
 public:
  explicit DemoDevice(std::string root)
      : root_(std::move(root)), accounts_(platform::make_passwd_accounts(root_)) {}
  const std::string& root() const { return root_; }
  std::string host_path(const std::string& device_path) const { return root_ + device_path; }
  std::string user(uid_t uid) const {
    return accounts_->user_name(uid).value_or(std::to_string(uid));
  }
  std::string group(gid_t gid) const {
    return accounts_->group_name(gid).value_or(std::to_string(gid));
  }

 private:
  std::string root_;
  std::unique_ptr<platform::Accounts> accounts_;
};

// What a step expects to find at a path afterwards.
struct Expect {
  bool present = true;
  std::optional<mode_t> mode;  // permission bits, mode & 07777
  std::optional<uid_t> owner;
  std::optional<gid_t> group;
};

Expect gone() { return Expect{false, std::nullopt, std::nullopt, std::nullopt}; }
Expect there() { return Expect{true, std::nullopt, std::nullopt, std::nullopt}; }
Expect owned_by(uid_t owner, gid_t group) { return Expect{true, std::nullopt, owner, group}; }
Expect with_mode(mode_t mode, uid_t owner) { return Expect{true, mode, owner, std::nullopt}; }

// One line of `ls -l`-like output, and what is wrong with it (empty: as told).
struct Fact {
  std::string text;
  std::string wrong;
};

std::string mode_string(mode_t mode) {
  std::string s = "?---------";
  if (S_ISDIR(mode)) s[0] = 'd';
  if (S_ISREG(mode)) s[0] = '-';
  if (S_ISLNK(mode)) s[0] = 'l';
  constexpr mode_t kBits[] = {S_IRUSR, S_IWUSR, S_IXUSR, S_IRGRP, S_IWGRP,
                              S_IXGRP, S_IROTH, S_IWOTH, S_IXOTH};
  for (std::size_t i = 0; i < 9; ++i) {
    if ((mode & kBits[i]) != 0) s[i + 1] = "rwx"[i % 3];
  }
  if ((mode & S_ISUID) != 0) s[3] = (mode & S_IXUSR) != 0 ? 's' : 'S';
  if ((mode & S_ISGID) != 0) s[6] = (mode & S_IXGRP) != 0 ? 's' : 'S';
  if ((mode & S_ISVTX) != 0) s[9] = (mode & S_IXOTH) != 0 ? 't' : 'T';
  return s;
}

Fact look(const DemoDevice& device, const std::string& path, const Expect& expect) {
  struct stat st {};
  if (::lstat(device.host_path(path).c_str(), &st) != 0) {
    const int error = errno;
    Fact fact{fmt::format("{:<10}  {:<6} {:<6}  {}", error == ENOENT ? "absent" : "unreadable", "",
                          "", path),
              ""};
    if (error != ENOENT) {
      fact.wrong = std::strerror(error);
    } else if (expect.present) {
      fact.wrong = "it should be there";
    }
    return fact;
  }
  Fact fact{fmt::format("{}  {:<6} {:<6}  {}", mode_string(st.st_mode), device.user(st.st_uid),
                        device.group(st.st_gid), path),
            ""};
  std::vector<std::string> wrong;
  if (!expect.present) wrong.emplace_back("it should be gone");
  if (expect.mode && (st.st_mode & 07777) != *expect.mode) {
    wrong.push_back(fmt::format("mode should be {:04o}", *expect.mode));
  }
  if (expect.owner && st.st_uid != *expect.owner) {
    wrong.push_back("owner should be " + device.user(*expect.owner));
  }
  if (expect.group && st.st_gid != *expect.group) {
    wrong.push_back("group should be " + device.group(*expect.group));
  }
  for (const std::string& w : wrong) fact.wrong += (fact.wrong.empty() ? "" : ", ") + w;
  return fact;
}

// Leftovers the steps place on the device before the helper meets them.
std::string make_directory(const DemoDevice& device, const std::string& path, mode_t mode) {
  std::error_code ec;
  fs::create_directories(device.host_path(path), ec);
  if (ec) return "cannot create " + path + ": " + ec.message();
  // Exact bits, whatever the umask, so that the widening is plain to see.
  if (::chmod(device.host_path(path).c_str(), mode) != 0) {
    return "cannot set the mode of " + path + ": " + std::strerror(errno);
  }
  return "";
}

std::string make_file(const DemoDevice& device, const std::string& path,
                      const std::string& content) {
  std::ofstream file(device.host_path(path), std::ios::binary | std::ios::trunc);
  file << content;
  file.close();
  if (!file) return "cannot write " + path;
  return "";
}

struct Step {
  std::string title;
  std::string story;  // what is about to happen, and why
  // Places what the step needs on the device; returns an error or "".
  std::function<std::string(const DemoDevice&)> prepare;
  std::string command;  // a row of the command table
  std::vector<std::string> arguments;
  bool expected_answer = true;
  std::string outcome;  // what the answer means
  std::function<std::vector<Fact>(const DemoDevice&)> facts;
};

constexpr const char* kRootPreferences = "/var/root/Library/Preferences/com.tessal.Vantrel.plist";
constexpr const char* kMobilePreferences =
    "/var/mobile/Library/Preferences/com.tessal.Vantrel.plist";
constexpr const char* kWorkContainer = "/private/var/VTLWorkContainer";
constexpr const char* kLogContainer = "/private/var/logs/vtld-client";
constexpr const char* kRefusedLogPath = "/tmp/x";

// The story, in order. A later command joins the demo as one more step.
std::vector<Step> demo_steps() {
  const std::string work = kWorkContainer;
  const std::string logs = kLogContainer;
  std::vector<Step> steps;

  steps.push_back(
      Step{"Migrate the preferences",
           "The provisioning daemon's preferences start in root's folder. The helper moves\n"
           "com.tessal.Vantrel.plist into the mobile user's folder and gives it to mobile.",
           nullptr,
           "migrate-preferences",
           {},
           true,
           "Moved, and owned by mobile now:",
           [](const DemoDevice& d) {
             return std::vector<Fact>{
                 look(d, kRootPreferences, gone()),
                 look(d, kMobilePreferences, owned_by(kMobileId, kMobileId)),
             };
           }});

  steps.push_back(
      Step{"Migrate again",
           "Nothing is left in root's folder, and the helper never overwrites the mobile\n"
           "user's copy: a second migration is reported as a failure.",
           nullptr,
           "migrate-preferences",
           {},
           false,
           "False, as it should be: the file was already moved. The mobile user's copy is "
           "untouched:",
           [](const DemoDevice& d) {
             return std::vector<Fact>{look(d, kMobilePreferences, owned_by(kMobileId, kMobileId))};
           }});

  steps.push_back(
      Step{"Prepare a work container",
           "An interrupted staging left " + work +
               " behind,\n"
               "its VTL_staging still half full. Preparing the container opens it to the mobile\n"
               "user (group and others gain read, write and search) and discards VTL_staging, so\n"
               "the next staging starts clean; everything else in the container stays.",
           [work](const DemoDevice& d) {
             for (const std::string& error :
                  {make_directory(d, work, 0755), make_directory(d, work + "/VTL_staging", 0755),
                   make_file(d, work + "/VTL_staging/half-staged.bin", "partial"),
                   make_file(d, work + "/notes.txt", "kept")}) {
               if (!error.empty()) return error;
             }
             return std::string();
           },
           "prepare-work-container",
           {work},
           true,
           "Opened to mobile, staging discarded, the rest kept:",
           [work](const DemoDevice& d) {
             return std::vector<Fact>{
                 look(d, work, with_mode(0777, kRootId)),
                 look(d, work + "/VTL_staging", gone()),
                 look(d, work + "/notes.txt", there()),
             };
           }});

  steps.push_back(Step{
      "Prepare a log container",
      "The client keeps its logs in " + logs +
          ". Preparing it opens\n"
          "the folder to mobile and hands mobile every entry whose name begins with \"vtld-\";\n"
          "other entries keep their owner.",
      [logs](const DemoDevice& d) {
        for (const std::string& error :
             {make_directory(d, logs, 0755), make_file(d, logs + "/vtld-1.log", "day one\n"),
              make_file(d, logs + "/other.log", "not the client's\n")}) {
          if (!error.empty()) return error;
        }
        return std::string();
      },
      "prepare-log-container",
      {logs},
      true,
      "vtld-1.log now belongs to mobile; other.log still to root:",
      [logs](const DemoDevice& d) {
        return std::vector<Fact>{
            look(d, logs, with_mode(0777, kRootId)),
            look(d, logs + "/vtld-1.log", owned_by(kMobileId, kMobileId)),
            look(d, logs + "/other.log", owned_by(kRootId, kRootId)),
        };
      }});

  steps.push_back(Step{
      "Refuse a log folder outside the log roots",
      "Log folders must lie under /private/var/logs or /var/logs; anything else is\n"
      "refused before the helper touches the disk.",
      nullptr,
      "prepare-log-container",
      {kRefusedLogPath},
      false,
      "False, as it should be, and nothing was created:",
      [](const DemoDevice& d) { return std::vector<Fact>{look(d, kRefusedLogPath, gone())}; }});

  steps.push_back(
      Step{"Remove the work container",
           "When the client is done with its work container, the helper removes it with\n"
           "everything in it.",
           nullptr,
           "remove-work-container",
           {work},
           true,
           "Gone:",
           [work](const DemoDevice& d) { return std::vector<Fact>{look(d, work, gone())}; }});

  return steps;
}

class Story {
 public:
  Story(std::FILE* out, std::FILE* err) : out_(out), printer_(out, err) {}

  void heading(const std::string& title) {
    printer_.finish_bar();
    fmt::print(out_, "\n== {} ==\n", title);
  }
  void say(const std::string& text) { printer_.line(text); }
  void fact(const Fact& fact) {
    if (fact.wrong.empty()) {
      say("  ok     " + fact.text);
    } else {
      say("  WRONG  " + fact.text + "  <- " + fact.wrong);
      ++wrong_;
    }
  }
  void wrong(const std::string& text) {
    say("  WRONG  " + text);
    ++wrong_;
  }
  int wrong_count() const { return wrong_; }
  ReplyPrinter& printer() { return printer_; }

 private:
  std::FILE* out_;
  ReplyPrinter printer_;
  int wrong_ = 0;
};

// Runs one step; false when the helper can no longer be talked to.
bool run_step(int number, const Step& step, const DemoDevice& device, krx::Client& client,
              const ExchangeOptions& options, Story& story) {
  story.heading(fmt::format("{}. {}", number, step.title));
  story.say(step.story);
  if (step.prepare) {
    if (const std::string error = step.prepare(device); !error.empty()) {
      story.wrong("cannot prepare the device: " + error);
      return true;
    }
  }
  const Command* command = find_command(step.command);
  if (command == nullptr) {
    story.wrong("vtldctl has no command " + step.command);
    return true;
  }
  Arguments arguments;
  arguments.positionals = step.arguments;
  const krx::Value request = build_request(*command, arguments);
  std::string command_line = fmt::format("$ vtldctl --root {} {}", device.root(), command->name);
  for (const std::string& argument : step.arguments) command_line += " " + argument;
  story.say("\n" + command_line);
  story.say("  (sends " + describe(request) + ")");

  const ExchangeResult result = exchange(client, request, options, story.printer());
  if (const std::string message = failure_message(result, options.idle); !message.empty()) {
    story.wrong(message);
    return false;
  }
  if (result.all_true != step.expected_answer) {
    story.wrong(fmt::format("the answer should have been Response: {}", step.expected_answer));
  }
  story.say(step.outcome);
  for (const Fact& fact : step.facts(device)) story.fact(fact);
  return true;
}

// Today's log file (local date, as the helper names it); failing that, the
// newest one, in case the day turned while the demo ran.
std::optional<std::string> find_log_file(const DemoDevice& device) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  ::localtime_r(&now, &local);
  const std::string today = fmt::format("{}/vtld_helper-{:04}{:02}{:02}.log", kLogDirectory,
                                        local.tm_year + 1900, local.tm_mon + 1, local.tm_mday);
  std::error_code ec;
  if (fs::is_regular_file(device.host_path(today), ec)) return today;
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(device.host_path(kLogDirectory), ec)) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with("vtld_helper-") && name.ends_with(".log")) names.push_back(name);
  }
  if (names.empty()) return std::nullopt;
  return std::string(kLogDirectory) + "/" + *std::max_element(names.begin(), names.end());
}

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

// A temporary device directory is removed when the demo ends, however it ends.
class DirectoryRemover {
 public:
  DirectoryRemover() = default;
  DirectoryRemover(const DirectoryRemover&) = delete;
  DirectoryRemover& operator=(const DirectoryRemover&) = delete;
  ~DirectoryRemover() {
    if (path_.empty()) return;
    std::error_code ec;
    fs::remove_all(path_, ec);
  }
  void arm(std::string path) { path_ = std::move(path); }

 private:
  std::string path_;
};

std::string make_temporary_directory(std::string* error) {
  const char* tmpdir = std::getenv("TMPDIR");
  std::string pattern =
      std::string(tmpdir != nullptr && *tmpdir != '\0' ? tmpdir : "/tmp") + "/vtldctl-demo-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) {
    *error =
        fmt::format("cannot create a temporary directory {}: {}", pattern, std::strerror(errno));
    return "";
  }
  return pattern;
}

}  // namespace

int run_demo(const DemoOptions& options, std::FILE* out, std::FILE* err) {
  if (::geteuid() != 0) {
    fmt::print(err,
               "vtldctl demo: must run as root: the helper confines itself to the simulated "
               "device with chroot (try: sudo vtldctl demo)\n");
    return kExitLocalFailure;
  }
  std::string helper = options.helper_path;
  if (helper.empty()) helper = (fs::path(own_executable()).parent_path() / "vtld_helper").string();
  if (::access(helper.c_str(), X_OK) != 0) {
    fmt::print(err, "vtldctl demo: no helper to run at {}: {} (build it, or give --helper PATH)\n",
               helper, std::strerror(errno));
    return kExitLocalFailure;
  }

  // Declared before the helper: the directory goes only after the helper
  // serving it has ended.
  DirectoryRemover remover;
  std::string dir = options.dir;
  const bool temporary = dir.empty();
  if (temporary) {
    std::string error;
    dir = make_temporary_directory(&error);
    if (dir.empty()) {
      fmt::print(err, "vtldctl demo: {}\n", error);
      return kExitLocalFailure;
    }
    remover.arm(dir);
  }
  std::string root;
  if (std::string error = create_simulated_device(dir, &root); !error.empty()) {
    fmt::print(err, "vtldctl demo: cannot create a simulated device in {}: {}\n", dir, error);
    return kExitLocalFailure;
  }

  Story story(out, err);
  story.say("vtldctl demo: the helper's commands on a simulated device");
  story.say(fmt::format("Device: {}{}", root,
                        temporary ? " (temporary: removed at the end)" : " (kept at the end)"));

  std::string error;
  auto process = HelperProcess::start(helper, root, &error);
  if (!process) {
    fmt::print(err, "vtldctl demo: {}\n", error);
    return kExitLocalFailure;
  }
  const std::string socket = device_socket_path(root);
  auto client = process->wait_until_serving(socket, kStartLimit, &error);
  if (!client) {
    fmt::print(err, "vtldctl demo: {}\n", error);
    return kExitLocalFailure;
  }
  story.say(fmt::format("Helper: {} --root {} (pid {}), serving {}", helper, root, process->pid(),
                        socket));

  const DemoDevice device(root);
  ExchangeOptions exchange_options;
  exchange_options.idle = options.idle;
  int number = 0;
  bool connected = true;
  for (const Step& step : demo_steps()) {
    if (!run_step(++number, step, device, *client, exchange_options, story)) {
      connected = false;
      break;
    }
  }
  client.reset();

  story.heading("The helper's log");
  if (auto log = find_log_file(device)) {
    story.say(*log + ":");
    std::string content = read_file(device.host_path(*log));
    if (content.ends_with('\n')) content.pop_back();
    story.say(content);
  } else {
    story.wrong(fmt::format("no log file in {}", kLogDirectory));
  }

  story.heading("Stopping the helper");
  story.say(fmt::format("SIGTERM to pid {}, as the service launcher stops it.", process->pid()));
  const auto status = process->stop(kStopLimit);
  if (!status) {
    story.wrong(
        fmt::format("the helper did not end within {} s; it was killed", kStopLimit.count()));
  } else if (!WIFEXITED(*status) || WEXITSTATUS(*status) != 0) {
    story.wrong("the helper " + wait_status_text(*status) + "; it should exit with status 0");
  } else {
    story.say("The helper " + wait_status_text(*status) + ".");
  }
  if (!connected || story.wrong_count() > 0) {
    story.say("What the helper wrote to standard error (its system log):\n" + process->output());
  }

  story.heading("Result");
  if (!temporary) {
    story.say(fmt::format("The device is kept in {}: serve it again with vtld_helper --root {}",
                          root, root));
  }
  if (!connected || story.wrong_count() > 0) {
    story.say(fmt::format("The demo did not go as told: {} thing(s) went otherwise.",
                          std::max(story.wrong_count(), 1)));
    return kExitFailed;
  }
  story.say("Every step went as told.");
  return kExitSuccess;
}

}  // namespace vtldctl
