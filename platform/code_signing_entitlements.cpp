// Entitlements bound to the client's executable. See code_signing.h for the
// file format and the rules.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "platform/code_signing.h"
#include "platform/platform.h"
#include "service/plist.h"

namespace platform {
namespace {

struct DirCloser {
  void operator()(DIR* d) const { ::closedir(d); }
};

// Entitlements files are small; anything larger is not one of ours.
constexpr std::size_t kMaxEntitlementsFile = std::size_t{1} << 20;

class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : fd_(fd) {}
  ~UniqueFd() {
    if (fd_ >= 0) ::close(fd_);
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

// Whether the process a pidfd pins is still there. While it is, its pid
// cannot have been handed to another process.
bool process_alive(int pidfd) {
  return ::syscall(SYS_pidfd_send_signal, pidfd, 0, nullptr, 0) == 0;
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

std::vector<std::string> entitlement_files(const std::string& dir) {
  std::vector<std::string> names;
  std::unique_ptr<DIR, DirCloser> d(::opendir(dir.c_str()));
  if (!d) return names;
  while (const dirent* e = ::readdir(d.get())) {
    std::string_view name = e->d_name;
    if (name.size() > 6 && name.ends_with(".plist")) names.emplace_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

class ExecutableTask final : public CodeSigning::Task {
 public:
  ExecutableTask(std::string entitlements_dir, std::string executable, int exe_fd)
      : dir_(std::move(entitlements_dir)), executable_(std::move(executable)), exe_fd_(exe_fd) {}

  std::optional<vtl::Value> copy_value_for_entitlement(std::string_view name) override {
    for (const std::string& file : entitlement_files(dir_)) {
      std::optional<vtl::Value> plist =
          vtl::read_plist_file(dir_ + "/" + file, kMaxEntitlementsFile);
      if (!plist) continue;
      const std::string* executable = plist->find_string("Executable");
      if (executable == nullptr || *executable != executable_) continue;
      if (const vtl::Value* digest = plist->find("SHA256")) {
        if (digest->string() == nullptr || *digest->string() != digest_()) continue;
      }
      const vtl::Value* entitlements = plist->find("Entitlements");
      if (entitlements == nullptr) return std::nullopt;
      const vtl::Value* value = entitlements->find(name);
      if (value == nullptr) return std::nullopt;
      return *value;
    }
    return std::nullopt;
  }

 private:
  // The program's digest, computed once and only when a file asks for it.
  const std::string& digest_() {
    if (!digest_done_) {
      digest_cache_ = sha256_of(exe_fd_.get());
      digest_done_ = true;
    }
    return digest_cache_;
  }

  std::string dir_;
  std::string executable_;
  UniqueFd exe_fd_;
  bool digest_done_ = false;
  std::string digest_cache_;
};

class EntitlementFiles final : public CodeSigning {
 public:
  EntitlementFiles(const std::string& root, int proc_dir_fd)
      : dir_(under_root(root, kEntitlementsDirectory)), proc_(proc_dir_fd) {}

  std::unique_ptr<Task> task_from_audit_token(const krx::AuditToken& token) override {
    if (token.pid <= 0 || proc_ < 0) return nullptr;
    const int pidfd = token.pidfd ? *token.pidfd : -1;
    if (pidfd >= 0 && !process_alive(pidfd)) return nullptr;

    const std::string exe = std::to_string(token.pid) + "/exe";
    std::array<char, 4096> target{};
    ssize_t n = ::readlinkat(proc_, exe.c_str(), target.data(), target.size());
    if (n <= 0 || static_cast<std::size_t>(n) >= target.size()) return nullptr;
    int fd = ::openat(proc_, exe.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return nullptr;
    auto task = std::make_unique<ExecutableTask>(
        dir_, std::string(target.data(), static_cast<std::size_t>(n)), fd);
    // Checked again after reading: if the process was still there, the path
    // and file we read were its own. Without a pidfd (kernels before 5.3) a
    // pid reused in the meantime cannot be told apart; the facility supplies
    // one wherever the kernel can.
    if (pidfd >= 0 && !process_alive(pidfd)) return nullptr;
    return task;
  }

 private:
  std::string dir_;
  int proc_;
};

}  // namespace

std::unique_ptr<CodeSigning> make_entitlement_files(const std::string& root, int proc_dir_fd) {
  return std::make_unique<EntitlementFiles>(root, proc_dir_fd);
}

}  // namespace platform
