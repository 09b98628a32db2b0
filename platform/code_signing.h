// Code signing: which entitlements the program on the other end of a
// connection holds.
//
// Identity comes from the kernel only (the connection's audit token: peer
// credentials and a pidfd), never from anything the client sends, and is bound
// to the client's executable: its path as the kernel reports it and, when an
// entitlements file names one, the SHA-256 of its content. A reused process id
// or a copied binary gains nothing.
//
// Entitlements files are property lists (XML or binary) in
// <root>/etc/krx/entitlements.d/, any name ending in ".plist":
//   Executable    string  absolute path of the client program, as the kernel reports it
//   SHA256        string  optional: lower-case hex digest the program's file must have
//   Entitlements  dict    entitlement name -> value
// They are read when a message is checked, so a change applies to the next
// message. Files are tried in name order; the first whose Executable (and
// SHA256, when given) match decides. No match means no entitlement: deny.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "krx/connection.h"
#include "service/value.h"

namespace platform {

class CodeSigning {
 public:
  // The client program behind one audit token.
  class Task {
   public:
    virtual ~Task() = default;
    // The entitlement's value, or nullopt when the program holds none.
    virtual std::optional<vtl::Value> copy_value_for_entitlement(std::string_view name) = 0;
  };

  virtual ~CodeSigning() = default;
  // nullptr when the peer cannot be identified (it has gone, or its executable
  // cannot be read).
  virtual std::unique_ptr<Task> task_from_audit_token(const krx::AuditToken& token) = 0;
};

// Entitlements files under <root>/etc/krx/entitlements.d/. `proc_dir_fd` is an
// open descriptor of the host's /proc, taken before any confinement (the
// helper keeps it across its chroot); it is borrowed, not owned.
std::unique_ptr<CodeSigning> make_entitlement_files(const std::string& root, int proc_dir_fd);

// Where entitlement files live, relative to the device root.
inline constexpr std::string_view kEntitlementsDirectory = "/etc/krx/entitlements.d";

}  // namespace platform
