// Code signing: which entitlements the program on the other end of a
// connection holds.
//
// Identity comes from the kernel only (the connection's audit token: peer
// credentials, a pidfd and the program the peer ran when its connection was
// accepted), never from anything the client sends, and is fixed at accept:
// a process that has since become another program (by exec) is not
// identified at all, so a process cannot connect, then exec an entitled
// program and be served as it. The identity is bound to the client's
// executable: its path as the kernel reports it and, when an entitlements
// file names one, the SHA-256 of its content. A reused process id or a
// copied binary gains nothing.
//
// Entitlements files are property lists (XML or binary) in
// <root>/etc/krx/entitlements.d/, any name ending in ".plist":
//   Executable    string  absolute path of the client program, as the kernel reports it
//   SHA256        string  optional: lower-case hex digest the program's file must have
//   User          string  optional: the account the client must run as (its
//                         uid when it connected). Name it wherever the client
//                         has an account of its own: any process of the same
//                         user may trace or drive the client, and so borrow
//                         its entitlement; one of another user cannot. It also
//                         closes the one window the executable leaves, a
//                         process that execs between its connect and the
//                         helper's accept.
//   Entitlements  dict    entitlement name -> value
// They are looked at when a message is checked, so a change applies to the
// next message; a file is read again only when it is not the version read
// before (kept in memory, told apart by its inode, size, owner, mode and
// times). Files are tried in name order; the first whose Executable (and
// SHA256 and User, when given) match decides. No match means no entitlement:
// deny.
//
// Files that anyone but root could have written are never read: the
// directory and each file must be owned by root and writable by no one else,
// and neither may be a symbolic link (each is opened without following one).
// A file that fails this is ignored, and a directory that fails it is read as
// empty, with a note saying why.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/clock.h"
#include "base/value.h"
#include "krx/connection.h"

namespace platform {

class Accounts;

class CodeSigning {
 public:
  // The client program behind one audit token.
  class Task {
   public:
    virtual ~Task() = default;
    // The entitlement's value, or nullopt when the program holds none.
    // Entitlements files that were ignored are named in `notes`, with why.
    virtual std::optional<vtl::Value> copy_value_for_entitlement(
        std::string_view name, std::vector<std::string>* notes) = 0;
  };

  virtual ~CodeSigning() = default;
  // nullptr, with `why` set, when the peer cannot be identified: its program
  // was not taken when it connected, it has gone, or it now runs another
  // program than the one it connected as.
  virtual std::unique_ptr<Task> task_from_audit_token(const krx::AuditToken& token,
                                                      std::string* why) = 0;
};

// Entitlements files under <root>/etc/krx/entitlements.d/. `proc_dir_fd` is an
// open descriptor of the host's /proc, taken before any confinement (the
// helper keeps it across its chroot); `accounts` resolves "User". Both are
// borrowed, not owned. `clock` says when a file was read (tests set it).
std::unique_ptr<CodeSigning> make_entitlement_files(const std::string& root, int proc_dir_fd,
                                                    const Accounts* accounts,
                                                    const vtl::Clock& clock = vtl::Clock::system());

// Where entitlement files live, relative to the device root.
inline constexpr std::string_view kEntitlementsDirectory = "/etc/krx/entitlements.d";

}  // namespace platform
