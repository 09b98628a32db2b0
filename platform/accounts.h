// Accounts: user and group names to ids and back, from the device's own
// /etc/passwd and /etc/group. Read directly (not through NSS), so it works the
// same inside the helper's confinement, where no NSS modules can be loaded.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

class Accounts {
 public:
  virtual ~Accounts() = default;
  virtual std::optional<uid_t> user_id(std::string_view name) const = 0;
  virtual std::optional<gid_t> group_id(std::string_view name) const = 0;
  virtual std::optional<std::string> user_name(uid_t uid) const = 0;
  virtual std::optional<std::string> group_name(gid_t gid) const = 0;
};

// Reads <root>/etc/passwd and <root>/etc/group afresh on every lookup, so an
// edit takes effect at once. `root` is "/" inside the helper.
std::unique_ptr<Accounts> make_passwd_accounts(const std::string& root);

}  // namespace platform
