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
#include <memory>
#include <string>
#include <vector>

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

// The entitlements files of `dir`, parsed, in name order. Only files that
// root alone could have written are read; the others are named in `notes`.
std::vector<vtl::Value> read_entitlement_files(const std::string& dir,
                                               std::vector<std::string>* notes) {
  std::vector<vtl::Value> files;
  const vtl::UniqueFd directory(
      ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat st {};
  if (directory.get() < 0 || ::fstat(directory.get(), &st) != 0) return files;
  if (!only_root_writes(st)) {
    notes->push_back(dir + " is ignored: it is not owned by root, or others may write to it");
    return files;
  }
  std::vector<std::string> names;
  const int listing = ::openat(directory.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* entries = listing >= 0 ? ::fdopendir(listing) : nullptr;
  if (entries == nullptr) {
    if (listing >= 0) ::close(listing);
    return files;
  }
  while (const dirent* e = ::readdir(entries)) {
    const std::string_view name = e->d_name;
    if (name.size() > 6 && name.ends_with(".plist")) names.emplace_back(name);
  }
  ::closedir(entries);
  std::sort(names.begin(), names.end());

  for (const std::string& name : names) {
    vtl::UniqueFd file(::openat(directory.get(), name.c_str(),
                                O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (file.get() < 0 || ::fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode) ||
        !only_root_writes(st)) {
      std::string note = dir;
      note.append("/").append(name).append(
          " is ignored: it is not a regular file owned by root that only root may write");
      notes->push_back(std::move(note));
      continue;
    }
    if (static_cast<std::size_t>(st.st_size) > kMaxEntitlementsFile) continue;
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(st.st_size));
    std::size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t n = ::read(file.get(), bytes.data() + done, bytes.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      done += static_cast<std::size_t>(n);
    }
    bytes.resize(done);
    if (std::optional<vtl::Value> plist = vtl::plist_from_bytes(bytes)) {
      files.push_back(std::move(*plist));
    }
  }
  return files;
}

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
  ExecutableTask(std::string entitlements_dir, const krx::AuditToken& token, int proc,
                 const Accounts* accounts)
      : dir_(std::move(entitlements_dir)), token_(token), proc_(proc), accounts_(accounts) {}

  std::optional<vtl::Value> copy_value_for_entitlement(std::string_view name,
                                                       std::vector<std::string>* notes) override {
    for (const vtl::Value& plist : read_entitlement_files(dir_, notes)) {
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

  std::string dir_;
  const krx::AuditToken token_;
  int proc_;
  const Accounts* accounts_;
  bool digest_done_ = false;
  std::string digest_cache_;
};

class EntitlementFiles final : public CodeSigning {
 public:
  EntitlementFiles(const std::string& root, int proc_dir_fd, const Accounts* accounts)
      : dir_(under_root(root, kEntitlementsDirectory)), proc_(proc_dir_fd), accounts_(accounts) {}

  std::unique_ptr<Task> task_from_audit_token(const krx::AuditToken& token,
                                              std::string* why) override {
    const std::string client = "the client (pid " + std::to_string(token.pid) + ")";
    if (token.pid <= 0 || proc_ < 0 || token.executable.empty()) {
      *why = "the program " + client + " ran when it connected could not be read";
      return nullptr;
    }
    const int pidfd = token.pidfd ? *token.pidfd : -1;
    if (pidfd >= 0 && !process_alive(pidfd)) {
      *why = client + " has ended";
      return nullptr;
    }
    // The program the process runs now must be the one it connected as:
    // exec keeps the pid and the pidfd, and the socket.
    const std::string exe = std::to_string(token.pid) + "/exe";
    struct stat now {};
    const bool same = ::fstatat(proc_, exe.c_str(), &now, 0) == 0 &&
                      now.st_dev == token.executable_device && now.st_ino == token.executable_inode;
    if (!same || (pidfd >= 0 && !process_alive(pidfd))) {
      *why = client + " no longer runs " + token.executable + ", the program it connected as";
      return nullptr;
    }
    // Without a pidfd (kernels before 5.3) a pid reused in the meantime is
    // caught only by its different program; the facility supplies one
    // wherever the kernel can.
    return std::make_unique<ExecutableTask>(dir_, token, proc_, accounts_);
  }

 private:
  std::string dir_;
  int proc_;
  const Accounts* accounts_;
};

}  // namespace

std::unique_ptr<CodeSigning> make_entitlement_files(const std::string& root, int proc_dir_fd,
                                                    const Accounts* accounts) {
  return std::make_unique<EntitlementFiles>(root, proc_dir_fd, accounts);
}

}  // namespace platform
