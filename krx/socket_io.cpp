#include "krx/socket_io.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace krx {
namespace {

// The kernel passes at most this many descriptors in one message (SCM_MAX_FD).
constexpr std::size_t kMaxPassedDescriptors = 253;

}  // namespace

ssize_t receive_closing_descriptors(int fd, void* buffer, std::size_t size, int flags) {
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxPassedDescriptors)];
  iovec iov{buffer, size};
  msghdr msg{};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control;
  msg.msg_controllen = sizeof control;
  // MSG_CMSG_CLOEXEC: a descriptor must not slip into a child between here
  // and the close below.
  const ssize_t n = recvmsg(fd, &msg, flags | MSG_CMSG_CLOEXEC);
  if (n < 0) return n;
  const int saved_errno = errno;
  for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
    if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
    const std::size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t i = 0; i < count; ++i) {
      int passed = -1;
      std::memcpy(&passed, CMSG_DATA(c) + i * sizeof(int), sizeof passed);
      if (passed >= 0) close(passed);
    }
  }
  errno = saved_errno;
  return n;
}

}  // namespace krx
