// Content hashes of files: the SHA-1 of a regular file's bytes.
//
// Reading follows the platform's "do not fill the buffer cache" rule. On the
// handset that is F_NOCACHE; Linux has no such flag, and its two stand-ins
// both fall short: O_DIRECT reads around the cache, but also around pages
// that are already there (a warm tree would be read from the disk again),
// needs aligned buffers and is refused by some file systems (tmpfs);
// POSIX_FADV_DONTNEED after every read drops the pages, but also pages that
// other processes had cached, so hashing a tree would evict the device's
// working set. So the hasher does what F_NOCACHE means rather than what
// either flag does: what is cached is used and left cached, and what it
// brings in it drops again. cachestat() (Linux 6.5) tells, chunk by chunk and
// a fixed distance (8 MiB) ahead of the read position, beyond what read-ahead
// reaches, whether a chunk was in the page cache before the hasher came (all
// of it but a few stray pages, at most an eighth, that the kernel evicted);
// a chunk that was not has its pages dropped (POSIX_FADV_DONTNEED) as soon
// as it is hashed. A file found whole in the cache costs one look; memory for
// the answers is a few bytes, whatever the file's size. A file of fewer than
// eight pages (most files of a tree) is instead read once with RWF_NOWAIT,
// which takes only what is cached: whole, it was cached; short, a page was
// missing, which for so few pages means not cached by the rule above. Larger
// files keep the look: a short read cannot say how many pages are missing,
// and one that fails starts read-ahead, so a look after it would count the
// hasher's own pages. Where the kernel has no cachestat every larger file
// counts as brought in: not growing the cache is the rule, a warm re-run the
// cost.
//
// Memory: one 256 KiB buffer per hasher, reused for every chunk of every
// file, and a ring of eight more once it has met a file of 8 MiB or more;
// nothing grows with file size.
//
// Threads: a hasher is used by one thread at a time; for a large file it
// starts a reader thread of its own and joins it before returning.
//
// Safety: the file is opened without following a link, without blocking
// (a FIFO put in a regular file's place must not hang the walk) and without
// updating its access time, and only a regular file is read: a device node
// is never read. A regular file under another process's lease is waited for,
// as any reader waits.
#pragma once

#include <openssl/evp.h>

#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "base/value.h"
#include "manifest/log_sink.h"

namespace vtl::manifest {

inline constexpr std::size_t kHashChunkSize = 262144;
inline constexpr std::size_t kSha1Length = 20;

// One per thread: owns the chunk buffer and the digest context.
class FileHasher {
 public:
  FileHasher();
  ~FileHasher();
  FileHasher(const FileHasher&) = delete;
  FileHasher& operator=(const FileHasher&) = delete;

  // The 20-byte SHA-1 of the file's contents. nullopt when it cannot be opened
  // or is not a regular file ("Cannot read file %@"), or when a read fails
  // ("Cannot read data from %@.").
  std::optional<Data> fileHash(const std::string& path, LogSink& log);

  // The two halves of fileHash, for callers that know the item is a regular
  // file and open it first: open() gives a descriptor or -1 (nothing logged);
  // hash() reads it (and closes it) and logs as fileHash does. `known_size`:
  // the size a statx of `fd` has just given, which also showed a regular
  // file (else hash() looks itself).
  static int open(const std::string& path);
  // open() of the entry `name` of the open directory `directory` (AT_FDCWD:
  // `name` is a path).
  static int open_at(int directory, const char* name);
  std::optional<Data> hash(int fd, const std::string& path, LogSink& log,
                           std::optional<std::uint64_t> known_size);

  // Whether the last file hashed was found in the page cache, as the rule
  // above counts it (a few stray pages may be missing); true also when none
  // was read.
  bool last_was_cached() const { return last_was_cached_; }

 private:
  class Residency;
  // What a read of a small file from the page cache alone found.
  enum class Probe : std::uint8_t { kHashed, kFailed, kNotCached, kUnanswered };
  // A file of fewer than eight pages read in one call that takes only
  // what the page cache holds and never waits for the disk: the whole file
  // there is hashed at once (kHashed, or kFailed if the digest fails). A page
  // missing means the file is not cached as range_cached counts it, since an
  // eighth of so few pages is less than one (kNotCached; the call may have
  // started reading it in, so the cache is not looked at afterwards).
  // kUnanswered when the file system cannot read that way, or the file is
  // not the size given. Saves the look at the cache before the read, a
  // system call, in most files of a warm tree.
  Probe probe_small(int fd, std::uint64_t size);
  // The digest of the file's chunks read one after the other by this thread;
  // false when a read fails. `not_cached`: the file is known not to be in the
  // cache (no look at it, every chunk dropped once hashed).
  bool hash_chunks(int fd, std::uint64_t size, bool not_cached = false);
  // The same with a second thread reading ahead: copying a chunk out of the
  // page cache costs about a fifth of hashing it, and overlaps it this way,
  // so that a large warm file hashes at the digest's own speed.
  bool hash_pipelined(int fd, std::uint64_t size);
  // Files from this size on are hashed pipelined: below it, starting the
  // reader costs more than the overlap gains.
  static constexpr std::uint64_t kPipelineThreshold = std::uint64_t{8} << 20;
  static constexpr std::uint32_t kRingChunks = 8;  // 2 MiB, even

  // Page-aligned, so freed with the alignment it was allocated with.
  struct PageAlignedDelete {
    void operator()(std::uint8_t* p) const { ::operator delete[](p, std::align_val_t{4096}); }
  };
  std::unique_ptr<std::uint8_t[], PageAlignedDelete> buffer_;
  std::unique_ptr<std::uint8_t[], PageAlignedDelete> ring_;  // made at the first large file
  EVP_MD_CTX* context_ = nullptr;
  EVP_MD* sha1_ = nullptr;
  bool last_was_cached_ = true;
};

// The file-URL extension of the platform: `fileHash` with a hasher of its own,
// and `directoryHash`, which has never hashed anything and returns nothing.
std::optional<Data> fileHash(const std::string& path);
std::optional<Data> directoryHash(const std::string& path);

}  // namespace vtl::manifest
