// The one owner of a file descriptor: closes it when the owner goes, hands
// it over on a move, and lets go of it only when told (release).
#pragma once

#include <unistd.h>

#include <utility>

namespace vtl {

class UniqueFd {
 public:
  UniqueFd() = default;
  // Takes `fd` (-1 for none).
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  // The descriptor, no longer owned.
  int release() { return std::exchange(fd_, -1); }
  // Closes what is held and takes `fd`. A failed close is not reported: the
  // descriptor is gone either way, and nothing written through it here waits
  // on the close to be durable.
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

}  // namespace vtl
