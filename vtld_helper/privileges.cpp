#include "vtld_helper/privileges.h"

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>

namespace vtl {
namespace {

constexpr std::array kKept = {
    CAP_CHOWN,           CAP_FOWNER,  CAP_FSETID,    CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH,
    CAP_LINUX_IMMUTABLE, CAP_SETFCAP, CAP_SYS_ADMIN, CAP_SYS_BOOT,     CAP_SYS_PTRACE,
};

}  // namespace

std::uint64_t kept_capabilities() {
  std::uint64_t mask = 0;
  for (int cap : kKept) mask |= std::uint64_t{1} << cap;
  return mask;
}

void drop_privileges() {
  const std::uint64_t kept = kept_capabilities();
  // The bounding set first, while CAP_SETPCAP is still effective; the kernel
  // answers EINVAL past its last capability.
  for (int cap = 0; cap < 64; ++cap) {
    if ((kept >> cap & 1) != 0) continue;
    if (::prctl(PR_CAPBSET_READ, cap, 0, 0, 0) < 0) break;
    static_cast<void>(::prctl(PR_CAPBSET_DROP, cap, 0, 0, 0));
  }
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  // Version 3 takes the 64 capability bits as two 32-bit words, low first.
  const std::array<std::uint32_t, 2> words = {static_cast<std::uint32_t>(kept),
                                              static_cast<std::uint32_t>(kept >> 32)};
  std::array<__user_cap_data_struct, 2> data{};
  for (std::size_t i = 0; i < data.size(); ++i) {
    data[i].effective = words[i];
    data[i].permitted = words[i];
    data[i].inheritable = 0;
  }
  static_cast<void>(::syscall(SYS_capset, &header, data.data()));
  static_cast<void>(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0));
}

}  // namespace vtl
