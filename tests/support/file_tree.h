// Test support for file trees: making files, links, FIFOs and extended
// attributes, and reading back what a record should say of them.
#pragma once

#include <fcntl.h>
#include <linux/capability.h>
#include <openssl/evp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/protection_classes.h"
#include "tests/support/capture.h"
#include "tests/support/daemon.h"

namespace testsupport {

inline void write_file(const std::string& path, const std::string& content) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  if (!out) throw std::runtime_error("cannot write " + path);
}

inline std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void make_dir(const std::string& path) { std::filesystem::create_directories(path); }

inline void make_link(const std::string& target, const std::string& path) {
  if (::symlink(target.c_str(), path.c_str()) != 0) throw std::runtime_error("symlink " + path);
}

inline void make_fifo(const std::string& path) {
  if (::mkfifo(path.c_str(), 0644) != 0) throw std::runtime_error("mkfifo " + path);
}

// A bound Unix socket left in the tree (the descriptor is closed at once; the
// node stays).
inline void make_socket(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) throw std::runtime_error("socket path too long");
  path.copy(address.sun_path, path.size());
  const int rc = ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  ::close(fd);
  if (rc != 0) throw std::runtime_error("bind " + path);
}

inline void set_xattr(const std::string& path, const std::string& name, const std::string& value) {
  if (::lsetxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0) != 0) {
    throw std::runtime_error("setxattr " + name + " on " + path);
  }
}

inline std::vector<std::uint8_t> bytes(const std::string& s) {
  return std::vector<std::uint8_t>(s.begin(), s.end());
}

inline std::vector<std::uint8_t> sha1(const std::string& content) {
  std::vector<std::uint8_t> digest(20);
  unsigned int length = 0;
  EVP_Digest(content.data(), content.size(), digest.data(), &length, EVP_sha1(), nullptr);
  return digest;
}

inline struct stat lstat_of(const std::string& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) throw std::runtime_error("lstat " + path);
  return st;
}

// While it lives, the process (root) is held to file permissions like anyone
// else: CAP_DAC_OVERRIDE and CAP_DAC_READ_SEARCH leave its effective set.
class WithoutFileOverride {
 public:
  WithoutFileOverride() {
    header_.version = _LINUX_CAPABILITY_VERSION_3;
    header_.pid = 0;
    if (::syscall(SYS_capget, &header_, saved_) != 0) throw std::runtime_error("capget");
    __user_cap_data_struct reduced[2] = {saved_[0], saved_[1]};
    reduced[0].effective &= ~((1U << CAP_DAC_OVERRIDE) | (1U << CAP_DAC_READ_SEARCH));
    if (::syscall(SYS_capset, &header_, reduced) != 0) throw std::runtime_error("capset");
  }
  ~WithoutFileOverride() { ::syscall(SYS_capset, &header_, saved_); }
  WithoutFileOverride(const WithoutFileOverride&) = delete;
  WithoutFileOverride& operator=(const WithoutFileOverride&) = delete;

 private:
  __user_cap_header_struct header_{};
  __user_cap_data_struct saved_[2]{};
};

// Runs `args` (the program first) through the shell, each argument quoted;
// its exit status, and its standard output and error together in *output.
inline int run(const std::vector<std::string>& args, std::string* output = nullptr) {
  std::string command;
  for (const std::string& a : args) {
    command += "'";
    for (char c : a) command += c == '\'' ? std::string("'\\''") : std::string(1, c);
    command += "' ";
  }
  FILE* pipe = ::popen((command + "2>&1").c_str(), "r");
  if (pipe == nullptr) return -1;
  std::string text;
  char buffer[4096];
  while (std::size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) text.append(buffer, n);
  const int status = ::pclose(pipe);
  if (output != nullptr) *output = text;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A temporary device root with the accounts root and mobile (501), and a
// test platform on it that keeps protection classes in extended attributes.
class AccountsDevice {
 protected:
  AccountsDevice() : platform_(device_.path()) {
    write_file(device_.path() + "/etc/passwd",
               "root:x:0:0::/var/root:/bin/sh\nmobile:x:501:501::/var/mobile:/bin/sh\n");
    write_file(device_.path() + "/etc/group", "root:x:0:\nmobile:x:501:\n");
    platform_.roles.protection_classes = classes_.get();
    platform_.apply();
  }

  TempDir device_;
  TestPlatform platform_;
  std::unique_ptr<platform::ProtectionClasses> classes_ = platform::make_xattr_protection_classes();
};

}  // namespace testsupport
