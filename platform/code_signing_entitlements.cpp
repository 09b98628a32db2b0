// Entitlements bound to the client's executable. See code_signing.h for the
// file format and the rules.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/plist.h"
#include "base/unique_fd.h"
#include "platform/accounts.h"
#include "platform/code_signing.h"
#include "platform/platform.h"

namespace platform {
namespace {

// Entitlements files are small; anything larger is not one of ours.
constexpr std::size_t kMaxEntitlementsFile = std::size_t{1} << 20;

// Whether the process a pidfd pins is still there. While it is, its pid
// cannot have been handed to another process. Signal 0 only asks; EPERM (a
// process of another user, where the helper may not signal) is an answer
// too: the process is there.
bool process_alive(int pidfd) {
  return ::syscall(SYS_pidfd_send_signal, pidfd, 0, nullptr, 0) == 0 || errno == EPERM;
}

std::string hex(const unsigned char* bytes, unsigned size) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(size * 2);
  for (unsigned i = 0; i < size; ++i) {
    out.push_back(kDigits[bytes[i] >> 4]);
    out.push_back(kDigits[bytes[i] & 0xF]);
  }
  return out;
}

// SHA-256 of everything readable from `fd`, lower-case hex; empty on error.
std::string sha256_of(int fd) {
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) != 1) return {};
  std::vector<unsigned char> buffer(std::size_t{1} << 16);
  off_t offset = 0;
  for (;;) {
    ssize_t n = ::pread(fd, buffer.data(), buffer.size(), offset);
    if (n < 0) {
      if (errno == EINTR) continue;
      return {};
    }
    if (n == 0) break;
    if (EVP_DigestUpdate(ctx.get(), buffer.data(), static_cast<std::size_t>(n)) != 1) return {};
    offset += n;
  }
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  if (EVP_DigestFinal_ex(ctx.get(), digest.data(), &size) != 1) return {};
  return hex(digest.data(), size);
}

// Whether root alone could have written what `st` describes.
bool only_root_writes(const struct stat& st) { return st.st_uid == 0 && (st.st_mode & 022) == 0; }

// What tells one version of a file from another: a change to its content,
// owner or mode, or another file put in its place, changes at least one.
struct Version {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  uid_t owner = 0;
  mode_t mode = 0;
  vtl::Date modified;
  vtl::Date changed;
  bool operator==(const Version&) const = default;
};

Version version_of(const struct stat& st) {
  return {st.st_dev,
          st.st_ino,
          st.st_size,
          st.st_uid,
          st.st_mode,
          vtl::date_from_unix(st.st_mtim.tv_sec, st.st_mtim.tv_nsec),
          vtl::date_from_unix(st.st_ctim.tv_sec, st.st_ctim.tv_nsec)};
}

// Whether `version`, read at `read_at`, differs from every later one. A file's
// times advance in ticks of the clock, so a change made in the same tick as a
// read could leave them all as they were; two seconds outlast any tick. A
// file changed more recently, or dated in the future, is read again each time.
bool settled(const Version& version, vtl::Date read_at) {
  return std::max(version.modified, version.changed) + std::chrono::seconds(2) <= read_at;
}

// Whether what `now` describes is still `version`, read at `read_at`, and
// settled: what was kept from that read stands for it.
bool still(const Version& version, vtl::Date read_at, const struct stat& now) {
  return version == version_of(now) && settled(version, read_at);
}

// The names of the entitlements files in `directory`, in name order.
std::vector<std::string> list_names(int directory) {
  std::vector<std::string> names;
  const int listing = ::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* entries = listing >= 0 ? ::fdopendir(listing) : nullptr;
  if (entries == nullptr) {
    if (listing >= 0) ::close(listing);
    return names;
  }
  while (const dirent* e = ::readdir(entries)) {
    const std::string_view name = e->d_name;
    if (name.size() > 6 && name.ends_with(".plist")) names.emplace_back(name);
  }
  ::closedir(entries);
  std::sort(names.begin(), names.end());
  return names;
}

// The property list in `file` (already checked), or nullptr when it holds none.
std::shared_ptr<const vtl::Value> parse_file(int file, const struct stat& st) {
  if (static_cast<std::size_t>(st.st_size) > kMaxEntitlementsFile) return nullptr;
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(st.st_size));
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::read(file, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<std::size_t>(n);
  }
  bytes.resize(done);
  std::optional<vtl::Value> plist = vtl::plist_from_bytes(bytes);
  return plist ? std::make_shared<const vtl::Value>(std::move(*plist)) : nullptr;
}

// The entitlements files of one directory, parsed, kept between messages. Each
// check still looks at the directory and at every file, and reads again what
// is not the version it read before, so a change applies to the next message
// as if nothing were kept; what did not change is only looked at.
class EntitlementsDirectory {
 public:
  EntitlementsDirectory(std::string dir, const vtl::Clock& clock)
      : dir_(std::move(dir)), clock_(clock) {}

  // The files' property lists, in name order. Only files that root alone
  // could have written are read; the others are named in `notes`.
  std::vector<std::shared_ptr<const vtl::Value>> read(std::vector<std::string>* notes) {
    const std::lock_guard lock(mutex_);
    std::vector<std::shared_ptr<const vtl::Value>> plists;
    if (unchanged()) {
      for (const std::string& name : listed_->names) take(name, &files_.at(name), &plists, notes);
      return plists;
    }
    const vtl::UniqueFd directory(
        ::open(dir_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st {};
    if (directory.get() < 0 || ::fstat(directory.get(), &st) != 0) return plists;
    if (!only_root_writes(st)) {
      notes->push_back(dir_ + " is ignored: it is not owned by root, or others may write to it");
      return plists;
    }
    if (!listed_ || !still(listed_->version, listed_->read_at, st)) {
      listed_ = Listing{version_of(st), clock_.now(), list_names(directory.get())};
      std::erase_if(files_, [this](const auto& entry) {
        return !std::binary_search(listed_->names.begin(), listed_->names.end(), entry.first);
      });
    }
    for (const std::string& name : listed_->names) {
      take(name, look_at(directory.get(), name), &plists, notes);
    }
    return plists;
  }

 private:
  struct Listing {
    Version version;
    vtl::Date read_at;
    std::vector<std::string> names;
  };
  struct File {
    Version version;
    vtl::Date read_at;
    bool ignored = false;                     // not a file root alone could have written
    std::shared_ptr<const vtl::Value> plist;  // nullptr: no property list in it
  };

  // Whether the directory and every file listed in it are still the settled
  // versions read before, by a look at each one's path: the usual message
  // then opens nothing. A version takes in the owner and the mode, so the
  // checks made when each was read still hold; anything else is left to the
  // look through the opened directory.
  bool unchanged() {
    struct stat st {};
    if (!listed_ || ::fstatat(AT_FDCWD, dir_.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
        !still(listed_->version, listed_->read_at, st)) {
      return false;
    }
    std::string path = dir_ + "/";
    for (const std::string& name : listed_->names) {
      const auto kept = files_.find(name);
      path.resize(dir_.size() + 1);
      path += name;
      if (kept == files_.end() ||
          ::fstatat(AT_FDCWD, path.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
          !still(kept->second.version, kept->second.read_at, st)) {
        return false;
      }
    }
    return true;
  }

  // Adds what `file` (nullptr: gone) gives for `name`: its property list, or
  // a note that it is ignored.
  void take(const std::string& name, const File* file,
            std::vector<std::shared_ptr<const vtl::Value>>* plists,
            std::vector<std::string>* notes) const {
    if (file == nullptr || file->ignored) {
      std::string note = dir_;
      note.append("/").append(name).append(
          " is ignored: it is not a regular file owned by root that only root may write");
      notes->push_back(std::move(note));
    } else if (file->plist) {
      plists->push_back(file->plist);
    }
  }

  // What `name` holds now: kept when it is the version read before, read
  // again otherwise; nullptr when it is gone.
  const File* look_at(int directory, const std::string& name) {
    struct stat st {};
    if (::fstatat(directory, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return nullptr;
    const auto kept = files_.find(name);
    if (kept != files_.end() && still(kept->second.version, kept->second.read_at, st)) {
      return &kept->second;
    }
    File file{version_of(st), clock_.now(), false, nullptr};
    if (!S_ISREG(st.st_mode) || !only_root_writes(st)) {
      file.ignored = true;
    } else {
      // Opened without following a link, and looked at again: another file
      // may have taken the name since.
      const vtl::UniqueFd opened(::openat(
          directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
      if (opened.get() < 0 || ::fstat(opened.get(), &st) != 0) return nullptr;
      file.version = version_of(st);
      file.ignored = !S_ISREG(st.st_mode) || !only_root_writes(st);
      if (!file.ignored) file.plist = parse_file(opened.get(), st);
    }
    return &(files_[name] = std::move(file));
  }

  const std::string dir_;
  const vtl::Clock& clock_;
  std::mutex mutex_;
  std::optional<Listing> listed_;
  std::map<std::string, File> files_;
};

// The program `token`'s process runs now, opened read-only through `proc`,
// if it is still the file it ran when it connected; -1 otherwise.
int open_executable(int proc, const krx::AuditToken& token) {
  const std::string exe = std::to_string(token.pid) + "/exe";
  const int fd = ::openat(proc, exe.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat st {};
  if (fd >= 0 && ::fstat(fd, &st) == 0 && st.st_dev == token.executable_device &&
      st.st_ino == token.executable_inode) {
    return fd;
  }
  if (fd >= 0) ::close(fd);
  return -1;
}

class ExecutableTask final : public CodeSigning::Task {
 public:
  ExecutableTask(EntitlementsDirectory& files, const krx::AuditToken& token, int proc,
                 const Accounts* accounts)
      : files_(files), token_(token), proc_(proc), accounts_(accounts) {}

  std::optional<vtl::Value> copy_value_for_entitlement(std::string_view name,
                                                       std::vector<std::string>* notes) override {
    for (const std::shared_ptr<const vtl::Value>& file : files_.read(notes)) {
      const vtl::Value& plist = *file;
      const std::string* executable = plist.find_string("Executable");
      if (executable == nullptr || *executable != token_.executable) continue;
      if (const vtl::Value* digest = plist.find("SHA256")) {
        if (digest->string() == nullptr || *digest->string() != digest_()) continue;
      }
      if (const vtl::Value* user = plist.find("User")) {
        const std::optional<uid_t> uid = user->string() != nullptr && accounts_ != nullptr
                                             ? accounts_->user_id(*user->string())
                                             : std::nullopt;
        if (uid != token_.uid) continue;
      }
      const vtl::Value* entitlements = plist.find("Entitlements");
      if (entitlements == nullptr) return std::nullopt;
      const vtl::Value* value = entitlements->find(name);
      if (value == nullptr) return std::nullopt;
      return *value;
    }
    return std::nullopt;
  }

 private:
  // The program's digest, computed once and only when a file asks for it,
  // from the file the client ran when it connected (a running program's
  // file cannot be written, so its inode holds the same bytes); empty when
  // that file cannot be read.
  const std::string& digest_() {
    if (!digest_done_) {
      const vtl::UniqueFd file(open_executable(proc_, token_));
      if (file.get() >= 0) digest_cache_ = sha256_of(file.get());
      digest_done_ = true;
    }
    return digest_cache_;
  }

  EntitlementsDirectory& files_;
  const krx::AuditToken token_;
  int proc_;
  const Accounts* accounts_;
  bool digest_done_ = false;
  std::string digest_cache_;
};

class EntitlementFiles final : public CodeSigning {
 public:
  EntitlementFiles(const std::string& root, int proc_dir_fd, const Accounts* accounts,
                   const vtl::Clock& clock)
      : files_(under_root(root, kEntitlementsDirectory), clock),
        proc_(proc_dir_fd),
        accounts_(accounts) {}

  std::unique_ptr<Task> task_from_audit_token(const krx::AuditToken& token,
                                              std::string* why) override {
    const std::string client = "the client (pid " + std::to_string(token.pid) + ")";
    if (token.pid <= 0 || proc_ < 0 || token.executable.empty()) {
      *why = "the program " + client + " ran when it connected could not be read";
      return nullptr;
    }
    // The program the process runs now must be the one it connected as:
    // exec keeps the pid and the pidfd, and the socket. The process is
    // looked for after its program: alive then, it was the pid's owner
    // throughout.
    const std::string exe = std::to_string(token.pid) + "/exe";
    struct stat now {};
    const bool same = ::fstatat(proc_, exe.c_str(), &now, 0) == 0 &&
                      now.st_dev == token.executable_device && now.st_ino == token.executable_inode;
    const int pidfd = token.pidfd ? *token.pidfd : -1;
    if (pidfd >= 0 && !process_alive(pidfd)) {
      *why = client + " has ended";
      return nullptr;
    }
    if (!same) {
      *why = client + " no longer runs " + token.executable + ", the program it connected as";
      return nullptr;
    }
    // Without a pidfd (kernels before 5.3) a pid reused in the meantime is
    // caught only by its different program; the facility supplies one
    // wherever the kernel can.
    return std::make_unique<ExecutableTask>(files_, token, proc_, accounts_);
  }

 private:
  EntitlementsDirectory files_;
  int proc_;
  const Accounts* accounts_;
};

}  // namespace

std::unique_ptr<CodeSigning> make_entitlement_files(const std::string& root, int proc_dir_fd,
                                                    const Accounts* accounts,
                                                    const vtl::Clock& clock) {
  return std::make_unique<EntitlementFiles>(root, proc_dir_fd, accounts, clock);
}

}  // namespace platform
