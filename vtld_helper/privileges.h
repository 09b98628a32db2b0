// The root powers the helper keeps once it serves. It changes owners, modes,
// flags and extended attributes of files anywhere on the data volume, links
// and moves staged trees, writes NVRAM, resizes the data partition and its
// file system, restarts the device, and identifies its clients by reading
// /proc/PID/exe of processes of other users:
//   CAP_CHOWN            give files to "mobile" and to a record's owner
//   CAP_FOWNER           set modes, dates and attributes on others' files
//   CAP_FSETID           keep set-id bits a record restores
//   CAP_DAC_OVERRIDE     write and remove in folders of any owner
//   CAP_DAC_READ_SEARCH  read every file a manifest records
//   CAP_LINUX_IMMUTABLE  set and clear the immutable and append-only flags
//   CAP_SETFCAP          restore a file's "security.capability" attribute
//   CAP_SYS_ADMIN        "trusted." attributes (protection classes), BLKPG,
//                        the file-system resize
//   CAP_SYS_BOOT         reboot
//   CAP_SYS_PTRACE       read /proc/PID/exe of a client of another user
// Everything else (chroot, setuid, mknod, the network, modules, raw I/O...)
// is dropped from the bounding, permitted and effective sets, and no program
// the helper might start could gain anything (no_new_privs).
#pragma once

#include <cstdint>

namespace vtl {

// The kept capabilities as the kernel prints them (CapEff in
// /proc/PID/status).
std::uint64_t kept_capabilities();

// Drops everything but the kept capabilities and sets no_new_privs. Call it
// once everything is opened and the helper is confined. A process without
// the powers to drop (not root) has nothing to drop: that is not an error.
void drop_privileges();

}  // namespace vtl
