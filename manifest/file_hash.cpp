#include "manifest/file_hash.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <new>
#include <thread>

#include "base/unique_fd.h"

namespace vtl::manifest {
namespace {

constexpr const char* kCannotRead = "Cannot read file %@";
constexpr const char* kCannotReadData = "Cannot read data from %@.";

// How long a file under another process's lease is waited for: longer than
// the kernel's own lease-break time (45 s by default), after which it breaks
// the lease itself.
constexpr auto kLeaseWait = std::chrono::seconds(60);

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

// Whether [offset, offset + length) within a file of `size` bytes is in the
// page cache: all of it but at most an eighth of its pages, since the kernel
// evicts a stray page of a warm file now and then, and a chunk that lost a
// few is still somebody's working set, not the hasher's to drop. False when
// the kernel cannot tell.
// A range counts as cached with one page in kStrayShare missing.
constexpr std::uint64_t kStrayShare = 8;
std::uint64_t page_size() {
  static const auto page = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
  return page;
}

bool range_cached(int fd, std::uint64_t offset, std::uint64_t length, std::uint64_t size) {
  const std::uint64_t page = page_size();
  if (offset >= size) return true;
  const std::uint64_t end = std::min(size, offset + length);
  const std::uint64_t pages = (end + page - 1) / page - offset / page;
  const CachestatRange range{offset, end - offset};
  Cachestat stat{};
  if (::syscall(kSysCachestat, fd, &range, &stat, 0) != 0) return false;
  return stat.cache + pages / kStrayShare >= pages;
}

// Chunks looked at ahead of the read position: 8 MiB, beyond the largest
// read-ahead window the kernel opens on its own.
constexpr std::uint64_t kResidencyLead = 32;
constexpr std::size_t kResidencyRing = 64;  // > kResidencyLead, a power of two

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

int FileHasher::open(const std::string& path) { return open_at(AT_FDCWD, path.c_str()); }

// Opens without blocking: the open never hangs on a FIFO, and a lease makes it
// fail with EWOULDBLOCK after starting the lease break, so it is simply tried
// again until the holder lets go.
int FileHasher::open_at(int directory, const char* name) {
  int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY | O_NOATIME;
  const auto deadline = std::chrono::steady_clock::now() + kLeaseWait;
  auto pause = std::chrono::milliseconds(1);
  for (;;) {
    const int fd = ::openat(directory, name, flags);
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

std::optional<Data> FileHasher::fileHash(const std::string& path, LogSink& log) {
  return hash(open(path), path, log, std::nullopt);
}

std::optional<Data> FileHasher::hash(int descriptor, const std::string& path, LogSink& log,
                                     std::optional<std::uint64_t> known_size) {
  UniqueFd fd(descriptor);
  last_was_cached_ = true;
  std::uint64_t size = 0;
  if (known_size) {
    size = *known_size;
  } else {
    struct stat st {};
    if (fd.get() < 0 || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
      log.log(kCannotRead, path);
      return std::nullopt;
    }
    size = static_cast<std::uint64_t>(st.st_size);
  }
  if (EVP_DigestInit_ex2(context_, sha1_, nullptr) != 1) {
    log.log(kCannotReadData, path);
    return std::nullopt;
  }
  bool read = false;
  switch (probe_small(fd.get(), size)) {
    case Probe::kHashed:
      read = true;
      break;
    case Probe::kFailed:
      break;
    case Probe::kNotCached:
      read = hash_chunks(fd.get(), size, /*not_cached=*/true);
      break;
    case Probe::kUnanswered:
      read =
          size >= kPipelineThreshold ? hash_pipelined(fd.get(), size) : hash_chunks(fd.get(), size);
      break;
  }
  Data digest(kSha1Length);
  unsigned int length = 0;
  if (!read || EVP_DigestFinal_ex(context_, digest.data(), &length) != 1 || length != kSha1Length) {
    log.log(kCannotReadData, path);
    return std::nullopt;
  }
  return digest;
}

// Which chunks were all in the page cache before this hasher read them:
// those stay cached, the others are dropped once hashed. Each chunk is looked
// at kResidencyLead chunks ahead of the read position, farther than the
// kernel's read-ahead reaches, so that what the hasher's own reads bring in is
// never taken for somebody else's cache. A file found whole in the cache (the
// common warm case) costs one look in all.
class FileHasher::Residency {
 public:
  // `not_cached`: known not to be in the cache; nothing is looked at and
  // every chunk is dropped.
  Residency(int fd, std::uint64_t size, bool not_cached = false)
      : fd_(fd),
        size_(size),
        all_cached_(!not_cached && range_cached(fd, 0, size, size)),
        not_cached_(not_cached) {
    if (!all_cached_ && !not_cached_) {
      for (std::uint64_t c = 0; c < kResidencyLead; ++c) look(c);
    }
  }
  // Before chunk `chunk` is read: looks at the one kResidencyLead ahead, and
  // says whether `chunk` is to be dropped once hashed.
  bool drop_after_reading(std::uint64_t chunk) {
    if (all_cached_) return false;
    if (not_cached_) return true;
    look(chunk + kResidencyLead);
    return !was_cached_[chunk % kResidencyRing];
  }
  bool all_cached() const { return all_cached_; }
  // After the last chunk, when any was dropped: what lies beyond the file's
  // old end (it grew while it was read) was read-ahead of ours.
  void finish(std::uint64_t end, bool dropped_any) const {
    if (dropped_any && end > size_) {
      ::posix_fadvise(fd_, static_cast<off_t>(size_), 0, POSIX_FADV_DONTNEED);
    }
  }

 private:
  void look(std::uint64_t chunk) {
    was_cached_[chunk % kResidencyRing] =
        range_cached(fd_, chunk * kHashChunkSize, kHashChunkSize, size_);
  }
  int fd_;
  std::uint64_t size_;
  bool all_cached_;
  bool not_cached_;
  std::array<bool, kResidencyRing> was_cached_{};
};

namespace {

// One chunk read at `offset` into `buffer`: the bytes read, 0 at the end, -1
// for a failed read.
ssize_t read_chunk(int fd, std::uint8_t* buffer, off_t offset) {
  ssize_t n = 0;
  do {
    n = ::pread(fd, buffer, kHashChunkSize, offset);
  } while (n < 0 && errno == EINTR);
  return n;
}

}  // namespace

FileHasher::Probe FileHasher::probe_small(int fd, std::uint64_t size) {
  // Below kStrayShare pages, no page may be missing from a cached file.
  if (size == 0 || size >= kStrayShare * page_size()) return Probe::kUnanswered;
  iovec into{buffer_.get(), kHashChunkSize};
  const ssize_t n = ::preadv2(fd, &into, 1, 0, RWF_NOWAIT);
  if (n < 0) return errno == EAGAIN ? Probe::kNotCached : Probe::kUnanswered;
  if (static_cast<std::uint64_t>(n) < size) return Probe::kNotCached;
  // Longer: the file grew since its size was taken, and is read as any other.
  if (static_cast<std::uint64_t>(n) > size) return Probe::kUnanswered;
  return EVP_DigestUpdate(context_, buffer_.get(), static_cast<std::size_t>(n)) == 1
             ? Probe::kHashed
             : Probe::kFailed;
}

bool FileHasher::hash_chunks(int fd, std::uint64_t size, bool not_cached) {
  Residency residency(fd, size, not_cached);
  last_was_cached_ = residency.all_cached();
  bool dropped_any = false;
  off_t offset = 0;
  for (;;) {
    const auto chunk = static_cast<std::uint64_t>(offset) / kHashChunkSize;
    const bool drop = residency.drop_after_reading(chunk);
    const ssize_t n = read_chunk(fd, buffer_.get(), offset);
    if (n < 0) return false;
    if (n == 0) break;
    if (EVP_DigestUpdate(context_, buffer_.get(), static_cast<std::size_t>(n)) != 1) return false;
    if (drop) {
      ::posix_fadvise(fd, offset, n, POSIX_FADV_DONTNEED);
      dropped_any = true;
    }
    offset += n;
    // A short read is the end of a regular file: no read for the zero that
    // would follow.
    if (static_cast<std::size_t>(n) < kHashChunkSize) break;
  }
  residency.finish(static_cast<std::uint64_t>(offset), dropped_any);
  return true;
}

bool FileHasher::hash_pipelined(int fd, std::uint64_t size) {
  if (!ring_) ring_.reset(new (std::align_val_t{4096}) std::uint8_t[kRingChunks * kHashChunkSize]);
  struct Slot {
    ssize_t length = 0;
    bool drop = false;
  };
  std::array<Slot, kRingChunks> slots{};
  // Chunks the reader has put into the ring, and chunks hashed and given back.
  std::atomic<std::uint32_t> filled{0};
  std::atomic<std::uint32_t> consumed{0};
  std::atomic<bool> stop{false};

  // The reader copies chunks out of the page cache (or waits for the disk)
  // ahead of this thread's hashing, at most the ring's size ahead, and ends
  // after the last chunk, a failed read, or when told to stop.
  std::thread reader([&] {
    Residency residency(fd, size);
    last_was_cached_ = residency.all_cached();  // read after the join
    for (std::uint32_t c = 0;; ++c) {
      for (std::uint32_t seen = consumed.load(); c - seen >= kRingChunks; seen = consumed.load()) {
        if (stop.load()) return;
        consumed.wait(seen);
      }
      if (stop.load()) return;
      Slot& slot = slots[c % kRingChunks];
      slot.drop = residency.drop_after_reading(c);
      slot.length = read_chunk(fd, ring_.get() + (c % kRingChunks) * kHashChunkSize,
                               static_cast<off_t>(std::uint64_t{c} * kHashChunkSize));
      filled.store(c + 1);
      filled.notify_one();
      if (slot.length <= 0 || static_cast<std::size_t>(slot.length) < kHashChunkSize) return;
    }
  });

  bool good = true;
  bool dropped_any = false;
  std::uint64_t offset = 0;
  for (std::uint32_t c = 0;; ++c) {
    for (std::uint32_t have = filled.load(); have == c; have = filled.load()) filled.wait(have);
    const Slot& slot = slots[c % kRingChunks];
    if (slot.length < 0) {
      good = false;
      break;
    }
    if (slot.length == 0) break;
    const auto n = static_cast<std::size_t>(slot.length);
    if (EVP_DigestUpdate(context_, ring_.get() + (c % kRingChunks) * kHashChunkSize, n) != 1) {
      good = false;
      break;
    }
    if (slot.drop) {
      ::posix_fadvise(fd, static_cast<off_t>(offset), static_cast<off_t>(n), POSIX_FADV_DONTNEED);
      dropped_any = true;
    }
    offset += n;
    // The reader is woken only when half the ring is free again, so that it
    // copies in bursts instead of once per chunk.
    consumed.store(c + 1);
    if ((c + 1) % (kRingChunks / 2) == 0) consumed.notify_one();
    if (n < kHashChunkSize) break;
  }
  // The reader may be waiting for room: a change of `consumed` wakes it to
  // see `stop`.
  stop.store(true);
  consumed.fetch_add(1);
  consumed.notify_one();
  reader.join();
  // What lies beyond the file's old end (it grew while it was read) was
  // read-ahead of ours.
  if (dropped_any && offset > size) {
    ::posix_fadvise(fd, static_cast<off_t>(size), 0, POSIX_FADV_DONTNEED);
  }
  return good;
}

std::optional<Data> fileHash(const std::string& path) {
  FileHasher hasher;
  LogSink log;
  return hasher.fileHash(path, log);
}

std::optional<Data> directoryHash(const std::string& /*path*/) { return std::nullopt; }

}  // namespace vtl::manifest
