#include "manifest/file_hash.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <new>
#include <thread>

namespace vtl::manifest {
namespace {

constexpr const char* kCannotRead = "Cannot read file %@";
constexpr const char* kCannotReadData = "Cannot read data from %@.";

// How long a file under another process's lease is waited for: longer than
// the kernel's own lease-break time (45 s by default), after which it breaks
// the lease itself.
constexpr auto kLeaseWait = std::chrono::seconds(60);

// Opens without blocking: the open never hangs on a FIFO, and a lease makes it
// fail with EWOULDBLOCK after starting the lease break, so it is simply tried
// again until the holder lets go.
int open_for_hashing(const std::string& path) {
  int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY | O_NOATIME;
  const auto deadline = std::chrono::steady_clock::now() + kLeaseWait;
  auto pause = std::chrono::milliseconds(1);
  for (;;) {
    const int fd = ::open(path.c_str(), flags);
    if (fd >= 0) return fd;
    if (errno == EPERM && (flags & O_NOATIME) != 0) {
      flags &= ~O_NOATIME;  // not ours to keep the access time of
      continue;
    }
    if (errno != EWOULDBLOCK || std::chrono::steady_clock::now() >= deadline) return -1;
    std::this_thread::sleep_for(pause);
    pause = std::min(pause * 2, std::chrono::milliseconds(50));
  }
}

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

}  // namespace

FileHasher::FileHasher()
    : buffer_(new (std::align_val_t{4096}) std::uint8_t[kHashChunkSize]),
      context_(EVP_MD_CTX_new()),
      sha1_(EVP_MD_fetch(nullptr, "SHA1", nullptr)) {
  if (context_ == nullptr || sha1_ == nullptr) throw std::bad_alloc();
}

FileHasher::~FileHasher() {
  EVP_MD_free(sha1_);
  EVP_MD_CTX_free(context_);
}

int FileHasher::open(const std::string& path) { return open_for_hashing(path); }

std::optional<Data> FileHasher::fileHash(const std::string& path, LogSink& log) {
  return hash(open_for_hashing(path), path, log);
}

std::optional<Data> FileHasher::hash(int descriptor, const std::string& path, LogSink& log) {
  Fd fd(descriptor);
  struct stat st {};
  if (fd.get() < 0 || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    log.log(kCannotRead, path);
    return std::nullopt;
  }
  if (EVP_DigestInit_ex2(context_, sha1_, nullptr) != 1) {
    log.log(kCannotReadData, path);
    return std::nullopt;
  }

  bool probe_cache = true;  // everything so far came from the page cache
  off_t cold_from = -1;     // first offset this hasher brought into the cache
  off_t offset = 0;
  for (;;) {
    ssize_t n = -1;
    const bool ours = !probe_cache;
    if (probe_cache) {
      iovec chunk{buffer_.get(), kHashChunkSize};
      n = ::preadv2(fd.get(), &chunk, 1, offset, RWF_NOWAIT);
      // EAGAIN: not cached. Any other error (EOPNOTSUPP where the file system
      // cannot tell) is met again, or not, by the normal read.
      const bool complete =
          n >= 0 && (n == static_cast<ssize_t>(kHashChunkSize) || offset + n >= st.st_size);
      if (!complete) {
        probe_cache = false;
        cold_from = offset + std::max<ssize_t>(n, 0);
        if (n <= 0) continue;  // read normally from here
      }
    } else {
      do {
        n = ::pread(fd.get(), buffer_.get(), kHashChunkSize, offset);
      } while (n < 0 && errno == EINTR);
      if (n < 0) {
        log.log(kCannotReadData, path);
        ::posix_fadvise(fd.get(), cold_from, 0, POSIX_FADV_DONTNEED);
        return std::nullopt;
      }
    }
    if (n == 0) break;
    if (EVP_DigestUpdate(context_, buffer_.get(), static_cast<std::size_t>(n)) != 1) {
      log.log(kCannotReadData, path);
      return std::nullopt;
    }
    if (ours) ::posix_fadvise(fd.get(), offset, n, POSIX_FADV_DONTNEED);
    offset += n;
  }
  if (cold_from >= 0) ::posix_fadvise(fd.get(), cold_from, 0, POSIX_FADV_DONTNEED);

  Data digest(kSha1Length);
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(context_, digest.data(), &length) != 1 || length != kSha1Length) {
    log.log(kCannotReadData, path);
    return std::nullopt;
  }
  return digest;
}

std::optional<Data> fileHash(const std::string& path) {
  FileHasher hasher;
  LogSink log;
  return hasher.fileHash(path, log);
}

std::optional<Data> directoryHash(const std::string& /*path*/) { return std::nullopt; }

}  // namespace vtl::manifest
