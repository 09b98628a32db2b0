// A streaming writer of binary property lists ("bplist00", format 1.0).
//
// Why our own: libplist 2.2's plist_to_bin is quadratic in the number of
// objects and holds a node tree several times the size of the data (10,000
// device-manifest records take 0.35 s, 100,000 take 45 s and 830 MB). A device
// manifest of half a million files must be written in seconds, so this writer
// is linear in time and holds nothing per object but its 8-byte offset.
// libplist stays the XML reader and writer.
//
// Objects are written as they are added, children before the containers that
// refer to them, and numbered in that order; the offset table and the trailer
// follow at finish(). The trailer names the top object, so it need not come
// first. Object references are sized from a bound on the object count given
// up front; offsets are sized at the end. References and offsets take 1, 2, 4
// or 8 bytes, the sizes every reader accepts.
//
// Encodings:
//   integer  the smallest of 1, 2, 4 bytes for non-negative values below
//            2^32; 8 bytes (signed) otherwise
//   string   ASCII as bytes; anything else as UTF-16BE, with malformed UTF-8
//            sequences replaced by U+FFFD (the format holds only Unicode)
//   date     8-byte double, seconds since 2001-01-01 00:00:00 UTC
//   real     8-byte double
// Callers may refer to one leaf object (a string, a number) from many places;
// containers are written once per place, as readers expect.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/value.h"

namespace vtl::bplist {

// Buffered output to memory or to a descriptor, through one 1 MiB buffer.
// Written to a file from its start, each buffer's writeback is started as
// soon as it is written (sync_file_range), so a later fsync has little left
// to wait for.
class ByteSink {
 public:
  // Appends to `*memory`.
  explicit ByteSink(std::vector<std::uint8_t>* memory);
  // Writes to `fd` (not owned).
  explicit ByteSink(int fd);
  ~ByteSink();
  ByteSink(const ByteSink&) = delete;
  ByteSink& operator=(const ByteSink&) = delete;

  void put(std::uint8_t byte) {
    if (used_ == kBufferSize) drain();
    buffer_[used_++] = byte;
  }
  void write(const void* bytes, std::size_t n);
  // Room for `n` bytes (at most the buffer's size) to be written at the
  // returned pointer, then committed with commit(n).
  std::uint8_t* reserve(std::size_t n) {
    if (kBufferSize - used_ < n) drain();
    return buffer_.get() + used_;
  }
  void commit(std::size_t n) { used_ += n; }
  // Bytes accepted so far.
  std::uint64_t position() const { return drained_ + used_; }
  // Writes out what is buffered. 0 or the first errno value met.
  int flush();

  static constexpr std::size_t kBufferSize = std::size_t{1} << 20;

 private:
  void drain();

  std::vector<std::uint8_t>* memory_ = nullptr;
  int fd_ = -1;
  int error_ = 0;
  std::uint64_t drained_ = 0;
  std::unique_ptr<std::uint8_t[]> buffer_;
  std::size_t used_ = 0;
};

class ObjectWriter {
 public:
  using Ref = std::uint64_t;

  // Writes the header. `object_bound`: no fewer than the objects that will be
  // added (it sizes the references).
  ObjectWriter(ByteSink& sink, std::uint64_t object_bound);

  Ref string(std::string_view utf8);
  Ref integer(std::int64_t value);
  Ref real(double value);
  Ref date(Date value);
  Ref boolean(bool value);
  Ref data(std::span<const std::uint8_t> bytes);
  Ref array(std::span<const Ref> items);
  Ref dictionary(std::span<const Ref> keys, std::span<const Ref> values);

  // Writes the offset table and the trailer naming `top`, and flushes.
  // 0 or the first errno value met on the way.
  int finish(Ref top);

  std::uint64_t objects() const { return offsets_.size(); }

 private:
  Ref begin_object();
  void put_marker(std::uint8_t type, std::uint64_t count);
  void put_refs(std::span<const Ref> refs);
  void put_big_endian(std::uint64_t value, unsigned width);

  ByteSink& sink_;
  unsigned ref_size_;
  std::vector<std::uint64_t> offsets_;
  std::u16string utf16_;  // scratch
};

// A whole value as a binary property list. Strings, numbers and booleans that
// repeat are written once.
std::vector<std::uint8_t> to_binary(const Value& value);
// The same, to a descriptor. 0 or an errno value.
int write_binary(const Value& value, int fd);

// Replaces `path` whole with what `produce` writes: a temporary beside it,
// created exclusively (a name planted in the directory is never opened),
// fsynced, renamed over `path`, and the directory fsynced, so that a reader
// sees the old file or the new one, never half of one. `produce` returns 0 or
// an errno value; on any failure the temporary is removed and `path` is left
// as it was. Returns 0 or an errno value.
//
// A writer that is killed cannot remove its temporary, so each writer holds
// an exclusive lock (flock) on its own from creation to rename, and every
// write first removes the temporaries of the same name whose lock it can
// take: their writers are gone.
template <typename Produce>
int replace_file(const std::string& path, unsigned mode, Produce produce);

int replace_file_with(const std::string& path, unsigned mode, int (*produce)(int fd, void* context),
                      void* context);

template <typename Produce>
int replace_file(const std::string& path, unsigned mode, Produce produce) {
  return replace_file_with(
      path, mode, [](int fd, void* context) { return (*static_cast<Produce*>(context))(fd); },
      &produce);
}

}  // namespace vtl::bplist
