// Socket chores shared by the facility and the client.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace krx {

// recv() that also takes whatever descriptors rode along with the bytes
// (SCM_RIGHTS) and closes them at once: KRX never uses a descriptor a peer
// sends, and one left open would be a leak the peer controls. Same return
// value and errno as recv().
ssize_t receive_closing_descriptors(int fd, void* buffer, std::size_t size, int flags);

}  // namespace krx
