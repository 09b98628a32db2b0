// What reading and restoring a file's record asks of the platform: the
// device's accounts (owner and group names, and ids for names) and its
// protection classes. Handed down by whoever starts the work; a role left out
// reads as a platform without it (no names, no classes; a restore that needs
// one fails).
#pragma once

namespace platform {
class Accounts;
class ProtectionClasses;
}  // namespace platform

namespace vtl {

struct FileRoles {
  const platform::Accounts* accounts = nullptr;
  const platform::ProtectionClasses* protection_classes = nullptr;
};

}  // namespace vtl
