#include "vtldctl/demo.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
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

#include "base/errors.h"
#include "base/path.h"
#include "base/plist.h"
#include "manifest/VTLFileMetadata.h"
#include "manifest/manifest_signer.h"
#include "platform/accounts.h"
#include "platform/protection_classes.h"
#include "platform/sim/device.h"
#include "platform/sim/storage_device.h"
#include "platform/sim/storage_state.h"
#include "platform/sim/test_signer.h"
#include "vtldctl/commands.h"
#include "vtldctl/describe.h"
#include "vtldctl/disk_show.h"
#include "vtldctl/exchange.h"
#include "vtldctl/exit_status.h"
#include "vtldctl/helper_process.h"
#include "vtldctl/manifest_tools.h"
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
      fact.wrong = vtl::error_description(error);
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
    return "cannot set the mode of " + path + ": " + vtl::error_description(errno);
  }
  return "";
}

// Gives the file at `host_path` (on this machine) to the device's mobile user.
std::string give_to_mobile(const std::string& host_path) {
  if (::chown(host_path.c_str(), kMobileId, kMobileId) != 0) {
    return "cannot give " + host_path + " to mobile: " + vtl::error_description(errno);
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

// One step of the demo, written with designated initialisers; a step that
// needs nothing on the device first leaves `prepare` out.
struct Step {
  std::string title;
  std::string story;  // what is about to happen, and why
  // Places what the step needs on the device; returns an error or "".
  std::function<std::string(const DemoDevice&)> prepare = nullptr;
  std::string command;                      // a row of the command table
  std::vector<std::string> arguments = {};  // its positional parameters
  bool expected_answer = true;              // every "Response" true, or not
  std::string outcome;                      // what the answer means
  // What the device holds afterwards, each checked against what it should.
  std::function<std::vector<Fact>(const DemoDevice&)> facts;
};

constexpr const char* kRootPreferences = "/var/root/Library/Preferences/com.tessal.Vantrel.plist";
constexpr const char* kMobilePreferences =
    "/var/mobile/Library/Preferences/com.tessal.Vantrel.plist";
constexpr const char* kWorkContainer = "/private/var/VTLWorkContainer";
constexpr const char* kLogContainer = "/private/var/logs/vtld-client";
constexpr const char* kRefusedLogPath = "/tmp/x";

// The data volume's size as the simulated device's mounts record it; -1
// when they do not say.
std::int64_t data_volume_bytes(const DemoDevice& d) {
  std::int64_t volume = -1;
  const std::optional<vtl::Value> mounts =
      platform::sim::read_state(d.root(), platform::sim::kMountsStatePath);
  if (!mounts || mounts->array() == nullptr) return volume;
  for (const vtl::Value& m : *mounts->array()) {
    const std::string* on = m.find_string("MountedOn");
    const vtl::Value* size = m.find("Size");
    if (on != nullptr && *on == "/private/var" && size != nullptr && size->integer()) {
      volume = *size->integer();
    }
  }
  return volume;
}

// The partition map as the disk now has it, one fact per entry, and the
// data volume's size against its partition's: wrong where the volume is
// larger than its partition or the partition is not `data_bytes`.
std::vector<Fact> partition_facts(const DemoDevice& d, std::uint64_t data_bytes) {
  std::string error;
  const std::optional<DiskMap> map = read_disk_map(d.host_path("/dev/rdisk0s1"), &error);
  if (!map) return {Fact{"/dev/rdisk0s1", error}};
  const auto mib = [](std::uint64_t bytes) { return static_cast<double>(bytes) / (1 << 20); };
  std::vector<Fact> facts;
  std::uint64_t partition = 0;
  for (const DiskEntry& e : map->entries) {
    const std::uint64_t bytes = e.blocks() * map->block_size;
    if (e.name == "Data") partition = bytes;
    facts.push_back(Fact{fmt::format("GPT {} {:<7} LBA {:>6} to {:>6} {:>7.1f} MiB", e.index,
                                     e.name, e.first_lba, e.last_lba, mib(bytes)),
                         e.name == "Data" && bytes != data_bytes
                             ? fmt::format("should be {:.1f} MiB", mib(data_bytes))
                             : ""});
  }
  facts.push_back(Fact{
      fmt::format("free           {:>24.1f} MiB", mib(map->free_blocks * map->block_size)), ""});
  const std::int64_t volume = data_volume_bytes(d);
  facts.push_back(
      Fact{fmt::format("data volume /private/var {:>14.1f} MiB",
                       mib(static_cast<std::uint64_t>(std::max<std::int64_t>(volume, 0)))),
           static_cast<std::uint64_t>(volume) != partition ? "should be as large as its partition"
                                                           : ""});
  return facts;
}

// --- Installing content: staging, attribute restore, promotion ---------------

constexpr const char* kDownloads = "/private/var/mobile/Downloads/Notes";
constexpr const char* kStaging = "/private/var/mobile/Staging";
constexpr const char* kSignedManifest = "/private/var/mobile/Notes.signedmanifest";
constexpr const char* kBackup = "/private/var/backup";

// What the signed manifest prescribes for each staged item.
struct Prescribed {
  const char* path;  // relative to the staging root
  bool directory;
  mode_t mode;
  uid_t owner;
  gid_t group;
  const char* protection;                                   // nullptr: none recorded
  std::vector<std::pair<std::string, std::string>> xattrs;  // name, value
};

const std::vector<Prescribed>& prescribed_items() {
  static const std::vector<Prescribed> items = {
      {"/", true, 0755, kRootId, kMobileId, nullptr, {}},
      {"/Library", true, 0750, kMobileId, kMobileId, "C", {}},
      {"/Library/notes.db",
       false,
       0600,
       kMobileId,
       kMobileId,
       "A",
       {{"user.com.tessal.origin", "store"}}},
      {"/Library/settings.plist",
       false,
       0640,
       kRootId,
       kMobileId,
       "C",
       {{"user.com.tessal.origin", "store"}, {"user.com.tessal.backup", "exclude"}}},
      {"/Media", true, 0755, kMobileId, kMobileId, "None", {}},
      {"/Media/cover.jpg", false, 0444, kMobileId, kMobileId, "None", {}},
  };
  return items;
}

// The file metadata record of one prescribed item.
vtl::Dictionary record_of(const Prescribed& item) {
  vtl::Dictionary attributes = {
      {"FileType", vtl::Value(item.directory ? "Directory" : "Regular")},
      {"OwnerAccountID", vtl::Value(std::int64_t{item.owner})},
      {"GroupOwnerAccountID", vtl::Value(std::int64_t{item.group})},
      {"PosixPermissions", vtl::Value(std::int64_t{item.mode})},
  };
  if (item.protection != nullptr) attributes.emplace("ProtectionClass", item.protection);
  vtl::Dictionary xattrs;
  for (const auto& [name, value] : item.xattrs) {
    xattrs.emplace(name, vtl::Value(vtl::Data(value.begin(), value.end())));
  }
  return {{"VTLManifestFileAttributes", vtl::Value(std::move(attributes))},
          {"VTLManifestFileExtendedAttributes", vtl::Value(std::move(xattrs))},
          {"VTLManifestFileHash", vtl::Value(vtl::Data{})},
          {"VTLManifestSymbolicLinkTargetFile", vtl::Value("")}};
}

// One item of the client's download, and its staged name: a new directory,
// or a hard link to the downloaded file (as the client stages what it owns).
std::string download_and_stage(const DemoDevice& d, const Prescribed& item) {
  const std::string download = d.host_path(std::string(kDownloads) + item.path);
  const std::string staged = d.host_path(std::string(kStaging) + item.path);
  if (item.directory) {
    std::error_code ec;
    fs::create_directories(download, ec);
    fs::create_directories(staged, ec);
    if (ec) return "cannot create " + staged + ": " + ec.message();
    if (std::string error = give_to_mobile(staged); !error.empty()) return error;
  } else {
    if (std::string error = make_file(d, std::string(kDownloads) + item.path, item.path);
        !error.empty()) {
      return error;
    }
    static_cast<void>(::chmod(download.c_str(), 0644));
    if (::link(download.c_str(), staged.c_str()) != 0) {
      return "cannot link " + staged + ": " + vtl::error_description(errno);
    }
  }
  return give_to_mobile(download);
}

// The signed manifest of the download, from the device's own test signer.
std::string write_signed_manifest(const DemoDevice& d) {
  vtl::Dictionary records;
  for (const Prescribed& item : prescribed_items()) records.emplace(item.path, record_of(item));
  vtl::Dictionary raw = {
      {"Version", vtl::Value(3)},
      {"Info", vtl::Value(vtl::Dictionary{{"Name", vtl::Value("Notes")}})},
      {"Backup", vtl::Value(std::move(records))},
      {"App", vtl::Value(vtl::Array{})},
      {"AppData", vtl::Value(vtl::Dictionary{})},
  };
  const std::string keep = d.host_path(std::string(platform::sim::kTestSignerDirectory)) + "/";
  std::string error;
  std::optional<vtl::ManifestSigner> signer = vtl::ManifestSigner::load(
      keep + std::string(platform::sim::kTestSignerKeyFile),
      {keep + std::string(platform::sim::kTestSignerCertificateFile)}, &error);
  if (!signer) return error;
  std::optional<vtl::Dictionary> envelope =
      signer->envelope(vtl::plist_to_binary(vtl::Value(std::move(raw))));
  if (!envelope) return "cannot sign the manifest";
  if (vtl::write_file_atomically(d.host_path(kSignedManifest),
                                 vtl::plist_to_binary(vtl::Value(std::move(*envelope)))) != 0) {
    return std::string("cannot write ") + kSignedManifest;
  }
  return "";
}

// The client's download, staged, and its signed manifest.
std::string stage_and_sign(const DemoDevice& d) {
  for (const Prescribed& item : prescribed_items()) {
    if (std::string error = download_and_stage(d, item); !error.empty()) return error;
  }
  return write_signed_manifest(d);
}

// The extended attributes of the item at `host` (name, value), sorted by
// name; those that hold the protection class are left out.
std::vector<std::pair<std::string, std::string>> extended_attributes(
    const platform::ProtectionClasses& classes, const std::string& host) {
  std::vector<std::pair<std::string, std::string>> found;
  char names[1024];
  const ssize_t n = ::llistxattr(host.c_str(), names, sizeof names);
  for (ssize_t at = 0; at > -1 && at < n;) {
    const std::string name(names + at);
    at += static_cast<ssize_t>(name.size()) + 1;
    if (classes.hides_attribute(name)) continue;
    char value[256];
    const ssize_t length = ::lgetxattr(host.c_str(), name.c_str(), value, sizeof value);
    found.emplace_back(name,
                       std::string(value, static_cast<std::size_t>(std::max<ssize_t>(length, 0))));
  }
  std::sort(found.begin(), found.end());
  return found;
}

// The extended attributes and protection class of the item at `path`, and
// what is wrong with them against `item`.
Fact attribute_fact(const DemoDevice& d, const std::string& path, const Prescribed& item) {
  static const auto classes = platform::make_xattr_protection_classes();
  const std::string host = d.host_path(path);
  const std::vector<std::pair<std::string, std::string>> found =
      extended_attributes(*classes, host);
  std::string text = "    class " + classes->get(host).value_or("(none)") + ";";
  for (const auto& [name, value] : found) {
    text += ' ';
    text += name;
    text += '=';
    text += value;
  }
  if (found.empty()) text += " no extended attributes";
  auto wanted = item.xattrs;
  std::sort(wanted.begin(), wanted.end());
  std::string wrong;
  if (found != wanted) wrong = "extended attributes differ from the manifest";
  if (item.protection != nullptr &&
      classes->get(host) != std::optional<std::string>(item.protection)) {
    wrong += (wrong.empty() ? "" : ", ") + std::string("class should be ") + item.protection;
  }
  return Fact{text, wrong};
}

std::vector<Fact> prescribed_facts(const DemoDevice& d, const std::string& root) {
  std::vector<Fact> facts;
  for (const Prescribed& item : prescribed_items()) {
    const std::string path = std::string(item.path) == "/" ? root : root + item.path;
    facts.push_back(look(d, path, Expect{true, item.mode, item.owner, item.group}));
    facts.push_back(attribute_fact(d, path, item));
  }
  return facts;
}

// --- The device manifest and staging by hard links ---

constexpr const char* kNotes = "/private/var/mobile/Library/Notes";
constexpr const char* kDeviceManifest = "/private/var/VTLWorkContainer/DeviceManifest.plist";
constexpr const char* kStagedNotes = "/private/var/VTLWorkContainer/VTL_staging/Notes";
constexpr const char* kStagedTodo = "/private/var/VTLWorkContainer/VTL_staging/todo.txt";

std::string make_notes(const DemoDevice& d) {
  const std::string lib = "/private/var/mobile/Library";
  for (const std::string& error :
       {make_directory(d, std::string(kNotes) + "/archive", 0755),
        make_directory(d, lib + "/.Trash", 0755),
        make_file(d, std::string(kNotes) + "/todo.txt", "buy milk\nwrite the manifest\n"),
        make_file(d, std::string(kNotes) + "/archive/2025.txt", "a year of notes\n"),
        make_file(d, lib + "/.Trash/old.txt", "thrown away\n")}) {
    if (!error.empty()) return error;
  }
  const std::string todo = d.host_path(std::string(kNotes) + "/todo.txt");
  if (std::string error = give_to_mobile(todo); !error.empty()) return error;
  static_cast<void>(::lsetxattr(todo.c_str(), "user.color", "blue", 4, 0));
  static_cast<void>(platform::make_xattr_protection_classes()->set(todo, "C"));
  std::error_code ec;
  fs::create_symlink("todo.txt", d.host_path(std::string(kNotes) + "/latest"), ec);
  if (ec) return "cannot link latest: " + ec.message();
  make_directory(d, "/private/var/VTLWorkContainer/VTL_staging", 0755);
  return "";
}

// A record of the device manifest shown as `vtldctl manifest show` shows
// it, checked against the item itself: type, size, owner and group, mode,
// the content's SHA-1 and a link's target.
Fact record_fact(const DemoDevice& d, const vtl::Dictionary& manifest, const std::string& key,
                 const std::string& item) {
  auto it = manifest.find(key);
  if (it == manifest.end()) return Fact{key, "not in the manifest"};
  Fact fact{record_line(key, it->second), ""};
  struct stat st {};
  const std::string host = d.host_path(item);
  if (::lstat(host.c_str(), &st) != 0) return Fact{fact.text, "the item is gone"};
  const vtl::Value* attributes = it->second.find("VTLManifestFileAttributes");
  const vtl::Value* size = attributes == nullptr ? nullptr : attributes->find("FileSize");
  const vtl::Value* owner = attributes == nullptr ? nullptr : attributes->find("OwnerAccountID");
  const vtl::Value* mode = attributes == nullptr ? nullptr : attributes->find("PosixPermissions");
  if (size == nullptr || !(*size == vtl::Value(static_cast<std::int64_t>(st.st_size))) ||
      owner == nullptr || !(*owner == vtl::Value(static_cast<std::int64_t>(st.st_uid))) ||
      mode == nullptr || !(*mode == vtl::Value(static_cast<std::int64_t>(st.st_mode & 07777)))) {
    fact.wrong = "size, owner or mode differ from the item's";
  }
  if (S_ISREG(st.st_mode)) {
    const std::optional<vtl::Data> hash = vtl::VTLFileMetadata::fileHashWithPath(host);
    const vtl::Value* recorded = it->second.find("VTLManifestFileHash");
    if (recorded == nullptr || !hash || !(*recorded == vtl::Value(*hash))) {
      fact.wrong = "the SHA-1 differs from the content's";
    }
  }
  return fact;
}

std::vector<Fact> manifest_facts(const DemoDevice& d) {
  std::string error;
  const std::optional<vtl::Dictionary> manifest =
      read_manifest(d.host_path(kDeviceManifest), &error);
  if (!manifest) return {Fact{kDeviceManifest, error}};
  std::vector<Fact> facts = {
      Fact{fmt::format("{}: {} records, among them:", kDeviceManifest, manifest->size()), ""}};
  const std::string lib = "/private/var/mobile/Library";
  for (const char* key :
       {"/Notes", "/Notes/todo.txt", "/Notes/latest", "/Notes/archive/2025.txt"}) {
    facts.push_back(record_fact(d, *manifest, key, lib + key));
  }
  facts.push_back(
      Fact{"/.Trash and what is in it: not recorded (a hidden entry of the walked folder)",
           manifest->contains("/.Trash") || manifest->contains("/.Trash/old.txt")
               ? "it is in the manifest"
               : ""});
  return facts;
}

Fact shares_inode(const DemoDevice& d, const std::string& original, const std::string& staged) {
  struct stat a {};
  struct stat b {};
  if (::lstat(d.host_path(original).c_str(), &a) != 0 ||
      ::lstat(d.host_path(staged).c_str(), &b) != 0) {
    return Fact{staged, "missing"};
  }
  return Fact{fmt::format("{:<10}  inode {:<9} {}", mode_string(b.st_mode), b.st_ino, staged),
              a.st_ino == b.st_ino && a.st_dev == b.st_dev ? "" : "not the original's inode"};
}

// The staged copy of the notes: new directories, the originals' files.
std::vector<Fact> staged_notes_facts(const DemoDevice& d) {
  const std::string notes = kNotes;
  const std::string staged = kStagedNotes;
  std::vector<Fact> facts = {look(d, staged, there())};
  for (const char* item : {"/todo.txt", "/latest", "/archive/2025.txt"}) {
    facts.push_back(shares_inode(d, notes + item, staged + item));
  }
  return facts;
}

// The preferences' move from root's folder to the mobile user's.
void add_preference_steps(std::vector<Step>& steps) {
  steps.push_back(Step{
      .title = "Migrate the preferences",
      .story = "The provisioning daemon's preferences start in root's folder. The helper moves\n"
               "com.tessal.Vantrel.plist into the mobile user's folder and gives it to mobile.",
      .command = "migrate-preferences",
      .outcome = "Moved, and owned by mobile now:",
      .facts =
          [](const DemoDevice& d) {
            return std::vector<Fact>{
                look(d, kRootPreferences, gone()),
                look(d, kMobilePreferences, owned_by(kMobileId, kMobileId)),
            };
          },
  });
  steps.push_back(Step{
      .title = "Migrate again",
      .story = "Nothing is left in root's folder, and the helper never overwrites the mobile\n"
               "user's copy: a second migration is reported as a failure.",
      .command = "migrate-preferences",
      .expected_answer = false,
      .outcome = "False, as it should be: the file was already moved. The mobile user's copy is "
                 "untouched:",
      .facts =
          [](const DemoDevice& d) {
            return std::vector<Fact>{look(d, kMobilePreferences, owned_by(kMobileId, kMobileId))};
          },
  });
}

// A leftover work container with a half-full staging folder in it.
std::string make_interrupted_work_container(const DemoDevice& d) {
  const std::string work = kWorkContainer;
  for (const std::string& error :
       {make_directory(d, work, 0755), make_directory(d, work + "/VTL_staging", 0755),
        make_file(d, work + "/VTL_staging/half-staged.bin", "partial"),
        make_file(d, work + "/notes.txt", "kept")}) {
    if (!error.empty()) return error;
  }
  return "";
}

// A log folder with one of the client's logs and one of someone else's.
std::string make_log_container(const DemoDevice& d) {
  const std::string logs = kLogContainer;
  for (const std::string& error :
       {make_directory(d, logs, 0755), make_file(d, logs + "/vtld-1.log", "day one\n"),
        make_file(d, logs + "/other.log", "not the client's\n")}) {
    if (!error.empty()) return error;
  }
  return "";
}

// The work container opened to the mobile user, its staging discarded.
void add_work_container_steps(std::vector<Step>& steps) {
  const std::string work = kWorkContainer;
  steps.push_back(Step{
      .title = "Prepare a work container",
      .story = "An interrupted staging left " + work +
               " behind,\n"
               "its VTL_staging still half full. Preparing the container opens it to the mobile\n"
               "user (group and others gain read, write and search) and discards VTL_staging, so\n"
               "the next staging starts clean; everything else in the container stays.",
      .prepare = make_interrupted_work_container,
      .command = "prepare-work-container",
      .arguments = {work},
      .outcome = "Opened to mobile, staging discarded, the rest kept:",
      .facts =
          [work](const DemoDevice& d) {
            return std::vector<Fact>{
                look(d, work, with_mode(0777, kRootId)),
                look(d, work + "/VTL_staging", gone()),
                look(d, work + "/notes.txt", there()),
            };
          },
  });
}

// The log container opened to the mobile user, and one outside the log
// roots refused.
void add_log_container_steps(std::vector<Step>& steps) {
  const std::string logs = kLogContainer;
  steps.push_back(Step{
      .title = "Prepare a log container",
      .story = "The client keeps its logs in " + logs +
               ". Preparing it opens\n"
               "the folder to mobile and hands mobile every entry whose name begins with "
               "\"vtld-\";\n"
               "other entries keep their owner.",
      .prepare = make_log_container,
      .command = "prepare-log-container",
      .arguments = {logs},
      .outcome = "vtld-1.log now belongs to mobile; other.log still to root:",
      .facts =
          [logs](const DemoDevice& d) {
            return std::vector<Fact>{
                look(d, logs, with_mode(0777, kRootId)),
                look(d, logs + "/vtld-1.log", owned_by(kMobileId, kMobileId)),
                look(d, logs + "/other.log", owned_by(kRootId, kRootId)),
            };
          },
  });
  steps.push_back(Step{
      .title = "Refuse a log folder outside the log roots",
      .story = "Log folders must lie under /private/var/logs or /var/logs; anything else is\n"
               "refused before the helper touches the disk.",
      .command = "prepare-log-container",
      .arguments = {kRefusedLogPath},
      .expected_answer = false,
      .outcome = "False, as it should be, and nothing was created:",
      .facts =
          [](const DemoDevice& d) { return std::vector<Fact>{look(d, kRefusedLogPath, gone())}; },
  });
}

// What the device already has, recorded.
void add_manifest_steps(std::vector<Step>& steps) {
  steps.push_back(Step{
      .title = "Record a device manifest",
      .story = "Before staging anything the client wants to know what is already on the device.\n"
               "The helper walks a folder as root, hashes every file on every core, and writes\n"
               "each item's type, size, owner, mode, protection class, extended attributes,\n"
               "SHA-1 and link target to " +
               std::string(kDeviceManifest) +
               ",\n"
               "a binary property list the client can read. Hidden entries of the folder itself\n"
               "are left out; /private/var/ would record the whole data area, with progress.",
      .prepare = make_notes,
      .command = "create-device-manifest",
      .arguments = {"/private/var/mobile/Library"},
      .outcome = "Written; a few of its records (as `vtldctl manifest show` prints them), each\n"
                 "checked against the item on disk:",
      .facts = manifest_facts,
  });
}

// What the device has, staged by hard links instead of copies; and the work
// container removed once done.
void add_hard_link_steps(std::vector<Step>& steps) {
  const std::string todo = std::string(kNotes) + "/todo.txt";
  steps.push_back(Step{
      .title = "Stage a file by hard link",
      .story = "A file the device already has need not be copied into the staging area: the\n"
               "helper links it there, so both names share one inode and no data moves.",
      .command = "create-hard-link",
      .arguments = {todo, kStagedTodo},
      .outcome = "The staged name is the same file:",
      .facts =
          [todo](const DemoDevice& d) {
            return std::vector<Fact>{shares_inode(d, todo, kStagedTodo)};
          },
  });
  steps.push_back(Step{
      .title = "Stage a directory by hard links",
      .story = "A directory becomes a new directory tree in the staging area whose files (and\n"
               "links) are hard links to the originals.",
      .command = "create-hard-link",
      .arguments = {kNotes, kStagedNotes},
      .outcome = "New directories, the same files:",
      .facts = staged_notes_facts,
  });
  steps.push_back(Step{
      .title = "Refuse to stage over an existing path",
      .story = "The staging path must be new: linking onto one that exists fails, and what is\n"
               "there stays as it was.",
      .command = "create-hard-link",
      .arguments = {std::string(kNotes) + "/archive/2025.txt", kStagedTodo},
      .expected_answer = false,
      .outcome = "False, as it should be; the staged todo.txt is still the original's:",
      .facts =
          [todo](const DemoDevice& d) {
            return std::vector<Fact>{shares_inode(d, todo, kStagedTodo)};
          },
  });
  steps.push_back(Step{
      .title = "Remove the work container",
      .story = "When the client is done with its work container, the helper removes it with\n"
               "everything in it.",
      .command = "remove-work-container",
      .arguments = {kWorkContainer},
      .outcome = "Gone:",
      .facts =
          [](const DemoDevice& d) { return std::vector<Fact>{look(d, kWorkContainer, gone())}; },
  });
}

// The data partition shrunk and expanded, its volume with it.
void add_partition_steps(std::vector<Step>& steps) {
  using platform::sim::kSimBlockSize;
  // Everything usable but System and Update (the disk's first and last
  // usable blocks are 6 and 131066).
  constexpr std::uint64_t kAllFree =
      (131061 - (platform::sim::kSimSystemBytes + platform::sim::kSimUpdateBytes) / kSimBlockSize) *
      kSimBlockSize;
  steps.push_back(Step{
      .title = "Shrink the data partition",
      .story =
          "The device's disk (/dev/rdisk0s1) holds System 64 MiB, Data 256 MiB and Update\n"
          "64 MiB, then 128 MiB free. The data volume uses 96 MiB of its 256. Shrinking keeps\n"
          "what is used and half of what is free: 176 MiB. The file system shrinks first, then\n"
          "the map is written, so the volume never outgrows its partition; Update moves down.",
      .command = "shrink-data-partition",
      .outcome = "The map now, and the volume as large as its partition:",
      .facts = [](const DemoDevice& d) { return partition_facts(d, 176 << 20); },
  });
  steps.push_back(Step{
      .title = "Expand the data partition",
      .story = "Expanding gives Data every block no other partition uses. This time the map is\n"
               "written and synced first, then the file system grows into the larger partition.",
      .command = "expand-data-partition",
      .outcome = "Data takes all free space, Update moved to the end, the volume grown with it:",
      .facts = [](const DemoDevice& d) { return partition_facts(d, kAllFree); },
  });
}

// Downloaded content given its attributes from a signed manifest, then
// moved to its final place.
void add_install_steps(std::vector<Step>& steps) {
  steps.push_back(Step{
      .title = "Restore attributes from a signed manifest",
      .story = "The client downloaded an app's content into " + std::string(kDownloads) +
               " and staged it by\n"
               "hard links into " +
               kStaging +
               ": every file is mobile's, mode 0644, without extended\n"
               "attributes or protection class. The content's signed manifest, signed by this\n"
               "device's test signer (accepted while \"SigningFuse\" is false), records what each\n"
               "item must have. The helper checks the signature and gives every staged item its\n"
               "owner, group, mode, extended attributes and protection class.",
      .prepare = stage_and_sign,
      .command = "restore-attributes",
      .arguments = {kStaging, kSignedManifest},
      .outcome =
          "Each staged item now as its record says (owner, group, mode; class and attributes):",
      .facts = [](const DemoDevice& d) { return prescribed_facts(d, kStaging); },
  });
  steps.push_back(Step{
      .title = "Promote the staging tree",
      .story = "The staged content is complete. The helper moves the whole tree to " +
               std::string(kBackup) +
               "\n"
               "in one rename, replacing whatever was there.",
      .command = "move-staging-to-final",
      .arguments = {kStaging},
      .outcome =
          "The tree is in its final place, its attributes with it; the staging path is gone:",
      .facts =
          [](const DemoDevice& d) {
            std::vector<Fact> facts = {look(d, kStaging, gone())};
            for (Fact& f : prescribed_facts(d, kBackup)) facts.push_back(std::move(f));
            return facts;
          },
  });
}

// The story, in order. A later command joins the demo as one more step.
std::vector<Step> demo_steps() {
  std::vector<Step> steps;
  add_preference_steps(steps);
  add_work_container_steps(steps);
  add_log_container_steps(steps);
  add_manifest_steps(steps);
  add_hard_link_steps(steps);
  add_partition_steps(steps);
  add_install_steps(steps);
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

// The request the step's command sends: its arguments, every flag off.
krx::Value step_request(const Command& command, const Step& step) {
  Arguments arguments;
  arguments.positionals = step.arguments;
  for (const Parameter& parameter : command.parameters) {
    if (parameter.kind == Parameter::Kind::kFlag) arguments.flags.push_back(false);
  }
  return build_request(command, arguments);
}

// The step as a user would type it.
std::string command_line(const DemoDevice& device, const Command& command, const Step& step) {
  std::string line = fmt::format("$ vtldctl --root {} {}", device.root(), command.name);
  for (const std::string& argument : step.arguments) line += " " + argument;
  return line;
}

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
  const krx::Value request = step_request(*command, step);
  story.say("\n" + command_line(device, *command, step));
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
  return vtl::join(kLogDirectory, *std::max_element(names.begin(), names.end()));
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
    *error = fmt::format("cannot create a temporary directory {}: {}", pattern,
                         vtl::error_description(errno));
    return "";
  }
  return pattern;
}

// Why the demo cannot run here (not root, no helper to run), or "" with
// `helper` set to the one to run.
std::string why_it_cannot_run(const DemoOptions& options, std::string* helper) {
  if (::geteuid() != 0) {
    return "must run as root: the helper confines itself to the simulated device with chroot "
           "(try: sudo vtldctl demo)";
  }
  *helper = options.helper_path;
  if (helper->empty()) {
    *helper = (fs::path(own_executable()).parent_path() / "vtld_helper").string();
  }
  if (::access(helper->c_str(), X_OK) != 0) {
    return fmt::format("no helper to run at {}: {} (build it, or give --helper PATH)", *helper,
                       vtl::error_description(errno));
  }
  return "";
}

int local_failure(std::FILE* err, const std::string& message) {
  fmt::print(err, "vtldctl demo: {}\n", message);
  return kExitLocalFailure;
}

// Runs every step in order; false when the helper could no longer be
// talked to, which ends the steps.
bool run_steps(const DemoDevice& device, krx::Client& client, const DemoOptions& options,
               Story& story) {
  ExchangeOptions exchange_options;
  exchange_options.idle = options.idle;
  int number = 0;
  for (const Step& step : demo_steps()) {
    if (!run_step(++number, step, device, client, exchange_options, story)) return false;
  }
  return true;
}

void show_log(const DemoDevice& device, Story& story) {
  story.heading("The helper's log");
  if (auto log = find_log_file(device)) {
    story.say(*log + ":");
    std::string content = read_file(device.host_path(*log));
    if (content.ends_with('\n')) content.pop_back();
    story.say(content);
  } else {
    story.wrong(fmt::format("no log file in {}", kLogDirectory));
  }
}

void stop_helper(HelperProcess& process, Story& story) {
  story.heading("Stopping the helper");
  story.say(fmt::format("SIGTERM to pid {}, as the service launcher stops it.", process.pid()));
  const auto status = process.stop(kStopLimit);
  if (!status) {
    story.wrong(
        fmt::format("the helper did not end within {} s; it was killed", kStopLimit.count()));
  } else if (!WIFEXITED(*status) || WEXITSTATUS(*status) != 0) {
    story.wrong("the helper " + wait_status_text(*status) + "; it should exit with status 0");
  } else {
    story.say("The helper " + wait_status_text(*status) + ".");
  }
}

// The verdict, and the exit status that goes with it. `kept_root`: the
// device's root when it is kept, else "".
int tell_result(Story& story, bool went_wrong, const std::string& kept_root) {
  story.heading("Result");
  if (!kept_root.empty()) {
    story.say(fmt::format("The device is kept in {}: serve it again with vtld_helper --root {}",
                          kept_root, kept_root));
  }
  if (went_wrong) {
    story.say(fmt::format("The demo did not go as told: {} thing(s) went otherwise.",
                          std::max(story.wrong_count(), 1)));
    return kExitFailed;
  }
  story.say("Every step went as told.");
  return kExitSuccess;
}

}  // namespace

int run_demo(const DemoOptions& options, std::FILE* out, std::FILE* err) {
  std::string helper;
  if (const std::string why = why_it_cannot_run(options, &helper); !why.empty()) {
    return local_failure(err, why);
  }
  // Declared before the helper: the directory goes only after the helper
  // serving it has ended.
  DirectoryRemover remover;
  const bool temporary = options.dir.empty();
  std::string error;
  const std::string dir = temporary ? make_temporary_directory(&error) : options.dir;
  if (dir.empty()) return local_failure(err, error);
  if (temporary) remover.arm(dir);
  std::string root;
  if (std::string why = create_simulated_device(dir, &root); !why.empty()) {
    return local_failure(err, fmt::format("cannot create a simulated device in {}: {}", dir, why));
  }

  Story story(out, err);
  story.say("vtldctl demo: the helper's commands on a simulated device");
  story.say(fmt::format("Device: {}{}", root,
                        temporary ? " (temporary: removed at the end)" : " (kept at the end)"));
  auto process = HelperProcess::start(helper, root, &error);
  if (!process) return local_failure(err, error);
  const std::string socket = device_socket_path(root);
  auto client = process->wait_until_serving(socket, kStartLimit, &error);
  if (!client) return local_failure(err, error);
  story.say(fmt::format("Helper: {} --root {} (pid {}), serving {}", helper, root, process->pid(),
                        socket));

  const DemoDevice device(root);
  const bool connected = run_steps(device, *client, options, story);
  client.reset();
  show_log(device, story);
  stop_helper(*process, story);
  const bool went_wrong = !connected || story.wrong_count() > 0;
  if (went_wrong) {
    story.say("What the helper wrote to standard error (its system log):\n" + process->output());
  }
  return tell_result(story, went_wrong, temporary ? "" : root);
}

}  // namespace vtldctl
