#include "manifest/file_hash.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
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

// cachestat (Linux 6.5): how many pages of a range are in the page cache.
// The C library of this system does not wrap it yet; its number is the same
// on every architecture.
constexpr long kSysCachestat = 451;
struct CachestatRange {
  std::uint64_t offset;
  std::uint64_t length;
};
struct Cachestat {
  std::uint64_t cache;
  std::uint64_t dirty;
  std::uint64_t writeback;
  std::uint64_t evicted;
  std::uint64_t recently_evicted;
};

// Whether every page of [offset, offset + length) within a file of `size`
// bytes is cached. False when the kernel cannot tell.
bool range_cached(int fd, std::uint64_t offset, std::uint64_t length, std::uint64_t size) {
  static const auto page = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
  if (offset >= size) return true;
  const std::uint64_t end = std::min(size, offset + length);
  const std::uint64_t pages = (end + page - 1) / page - offset / page;
  const CachestatRange range{offset, end - offset};
  Cachestat stat{};
  if (::syscall(kSysCachestat, fd, &range, &stat, 0) != 0) return false;
  return stat.cache >= pages;
}

// Chunks looked at ahead of the read position: 8 MiB, beyond the largest
// read-ahead window the kernel opens on its own.
constexpr std::uint64_t kResidencyLead = 32;
constexpr std::size_t kResidencyRing = 64;  // > kResidencyLead, a power of two

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

  // Which chunks were all in the page cache before this hasher read them:
  // those stay cached, the others are dropped once hashed. Each chunk is
  // looked at kResidencyLead chunks ahead of the read position, farther than
  // the kernel's read-ahead reaches, so that what the hasher's own reads
  // bring in is never taken for somebody else's cache. A file found whole in
  // the cache (the common warm case) costs one look in all.
  const auto size = static_cast<std::uint64_t>(st.st_size);
  const bool all_cached = range_cached(descriptor, 0, size, size);
  std::array<bool, kResidencyRing> was_cached{};
  auto look = [&](std::uint64_t chunk) {
    was_cached[chunk % kResidencyRing] =
        range_cached(descriptor, chunk * kHashChunkSize, kHashChunkSize, size);
  };
  if (!all_cached) {
    for (std::uint64_t c = 0; c < kResidencyLead; ++c) look(c);
  }
  bool dropped_any = false;
  off_t offset = 0;
  for (;;) {
    const auto chunk = static_cast<std::uint64_t>(offset) / kHashChunkSize;
    if (!all_cached) look(chunk + kResidencyLead);
    ssize_t n = 0;
    do {
      n = ::pread(fd.get(), buffer_.get(), kHashChunkSize, offset);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
      log.log(kCannotReadData, path);
      return std::nullopt;
    }
    if (n == 0) break;
    if (EVP_DigestUpdate(context_, buffer_.get(), static_cast<std::size_t>(n)) != 1) {
      log.log(kCannotReadData, path);
      return std::nullopt;
    }
    if (!all_cached && !was_cached[chunk % kResidencyRing]) {
      ::posix_fadvise(fd.get(), offset, n, POSIX_FADV_DONTNEED);
      dropped_any = true;
    }
    offset += n;
  }
  // A file that grew while it was read: what lies beyond its old end was
  // read-ahead of ours.
  if (dropped_any && static_cast<std::uint64_t>(offset) > size) {
    ::posix_fadvise(fd.get(), static_cast<off_t>(size), 0, POSIX_FADV_DONTNEED);
  }

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
