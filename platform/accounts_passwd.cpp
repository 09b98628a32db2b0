// Accounts read straight from the device's passwd and group files with the
// reentrant stream readers, which need no NSS module (none can be loaded once
// the helper is confined to the device).
#include <grp.h>
#include <pwd.h>

#include <array>
#include <cstdio>
#include <functional>
#include <memory>

#include "platform/accounts.h"
#include "platform/platform.h"

namespace platform {
namespace {

struct FileCloser {
  void operator()(FILE* f) const { static_cast<void>(std::fclose(f)); }
};
using File = std::unique_ptr<FILE, FileCloser>;

// Calls `visit` for every well-formed entry until it returns true.
template <typename Entry, typename Reader>
void scan(const std::string& path, Reader reader, const std::function<bool(const Entry&)>& visit) {
  File file(std::fopen(path.c_str(), "re"));
  if (!file) return;
  Entry entry{};
  Entry* result = nullptr;
  std::array<char, 4096> buffer{};
  for (;;) {
    int rc = reader(file.get(), &entry, buffer.data(), buffer.size(), &result);
    if (rc != 0 || result == nullptr) {
      // ERANGE: a line too long for the buffer; skip it rather than give up on
      // the whole file. Anything else is the end.
      if (rc == ERANGE) continue;
      return;
    }
    if (visit(entry)) return;
  }
}

class PasswdAccounts final : public Accounts {
 public:
  explicit PasswdAccounts(const std::string& root)
      : passwd_(under_root(root, "/etc/passwd")), group_(under_root(root, "/etc/group")) {}

  std::optional<uid_t> user_id(std::string_view name) const override {
    std::optional<uid_t> id;
    scan<passwd>(passwd_, fgetpwent_r, [&](const passwd& pw) {
      if (name != pw.pw_name) return false;
      id = pw.pw_uid;
      return true;
    });
    return id;
  }

  std::optional<gid_t> group_id(std::string_view name) const override {
    std::optional<gid_t> id;
    scan<group>(group_, fgetgrent_r, [&](const group& gr) {
      if (name != gr.gr_name) return false;
      id = gr.gr_gid;
      return true;
    });
    return id;
  }

  std::optional<std::string> user_name(uid_t uid) const override {
    std::optional<std::string> name;
    scan<passwd>(passwd_, fgetpwent_r, [&](const passwd& pw) {
      if (pw.pw_uid != uid) return false;
      name = pw.pw_name;
      return true;
    });
    return name;
  }

  std::optional<std::string> group_name(gid_t gid) const override {
    std::optional<std::string> name;
    scan<group>(group_, fgetgrent_r, [&](const group& gr) {
      if (gr.gr_gid != gid) return false;
      name = gr.gr_name;
      return true;
    });
    return name;
  }

 private:
  std::string passwd_;
  std::string group_;
};

}  // namespace

std::unique_ptr<Accounts> make_passwd_accounts(const std::string& root) {
  return std::make_unique<PasswdAccounts>(root);
}

}  // namespace platform
