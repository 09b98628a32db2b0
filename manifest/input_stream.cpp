#include "manifest/input_stream.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

namespace vtl {
namespace {

constexpr std::size_t kReadChunk = std::size_t{1} << 20;

}  // namespace

std::unique_ptr<FileInputStream> FileInputStream::inputStreamWithFileAtPath(const std::string& path,
                                                                            int* error) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) {
    *error = errno;
    return nullptr;
  }
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    *error = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
    ::close(fd);
    return nullptr;
  }
  return std::unique_ptr<FileInputStream>(
      new FileInputStream(fd, static_cast<std::uint64_t>(st.st_size)));
}

FileInputStream::~FileInputStream() { close(); }

void FileInputStream::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

long FileInputStream::read(std::span<std::uint8_t> buffer, int* error) {
  if (fd_ < 0) {
    *error = EBADF;
    return -1;
  }
  for (;;) {
    const ssize_t n = ::read(fd_, buffer.data(), std::min(buffer.size(), std::size_t{INT_MAX}));
    if (n >= 0) {
      offset_ += static_cast<std::uint64_t>(n);
      return static_cast<long>(n);
    }
    if (errno == EINTR) continue;
    *error = errno;
    return -1;
  }
}

std::optional<std::uint64_t> FileInputStream::remaining() const {
  // The size seen at open; a file that grows since is still read to its end.
  return size_ > offset_ ? size_ - offset_ : 0;
}

long DataInputStream::read(std::span<std::uint8_t> buffer, int* /*error*/) {
  const std::size_t n = std::min(buffer.size(), bytes_.size() - offset_);
  if (n == 0) return 0;  // an empty source may have no storage at all
  std::memcpy(buffer.data(), bytes_.data() + offset_, n);
  offset_ += n;
  return static_cast<long>(n);
}

StreamContents read_whole_stream(InputStream& stream, std::size_t max_bytes) {
  StreamContents out;
  if (std::optional<std::uint64_t> left = stream.remaining()) {
    if (*left > max_bytes) {
      out.error = EFBIG;
      return out;
    }
    // Room for the whole file and the one byte that shows its end.
    out.bytes.reserve(static_cast<std::size_t>(*left) + 1);
  }
  std::size_t used = 0;
  for (;;) {
    // One byte beyond the limit tells a stream that is too long from one
    // that ends exactly there. Reads fill what is reserved before growing.
    const std::size_t room = out.bytes.capacity() > used ? out.bytes.capacity() - used : kReadChunk;
    const std::size_t want = std::min(room, max_bytes + 1 - used);
    out.bytes.resize(used + want);
    int error = 0;
    const long n = stream.read(std::span(out.bytes).subspan(used, want), &error);
    if (n < 0) {
      out.bytes.clear();
      out.error = error;
      return out;
    }
    used += static_cast<std::size_t>(n);
    out.bytes.resize(used);
    if (used > max_bytes) {
      out.bytes.clear();
      out.error = EFBIG;
      return out;
    }
    if (n == 0) return out;
  }
}

}  // namespace vtl
