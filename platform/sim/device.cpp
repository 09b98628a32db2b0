#include "platform/sim/device.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "base/errors.h"
#include "base/path.h"
#include "base/plist.h"
#include "platform/code_signing.h"
#include "platform/sim/storage_device.h"
#include "platform/sim/test_signer.h"

namespace platform::sim {
namespace {

namespace fs = std::filesystem;

constexpr const char* kPasswd =
    "root:x:0:0:System Administrator:/var/root:/bin/sh\n"
    "mobile:x:501:501:Mobile User:/var/mobile:/bin/sh\n";
constexpr const char* kGroup =
    "root:x:0:\n"
    "mobile:x:501:\n";

std::string write_file(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  out.close();
  if (!out) return "cannot write " + path + ": " + vtl::error_description(errno);
  return {};
}

std::string make_dirs(const std::string& path, uid_t owner = 0) {
  std::error_code ec;
  fs::create_directories(path, ec);
  if (ec) return "cannot create " + path + ": " + ec.message();
  if (::chown(path.c_str(), owner, owner) != 0 && owner != 0) {
    return "cannot give " + path + " to uid " + std::to_string(owner) + ": " +
           vtl::error_description(errno);
  }
  return {};
}

}  // namespace

std::string service_socket_path(const std::string& dir, const std::string& service_name) {
  return vtl::join(dir + kRunDirectory, service_name);
}

std::string write_entitlements_file(const std::string& dir, const std::string& name,
                                    const std::string& executable, const std::string& sha256,
                                    const vtl::Dictionary& entitlements) {
  vtl::Dictionary file;
  file.emplace("Executable", executable);
  if (!sha256.empty()) file.emplace("SHA256", sha256);
  file.emplace("Entitlements", entitlements);
  const std::string folder = dir + std::string(kEntitlementsDirectory);
  const std::string path = vtl::join(folder, name + ".plist");
  if (std::string err = write_file(path, vtl::plist_to_xml(vtl::Value(std::move(file))));
      !err.empty()) {
    return err;
  }
  // The helper reads only what root alone may write, whatever the mask of
  // whoever laid the device out.
  if (::chmod(folder.c_str(), 0755) != 0 || ::chmod(path.c_str(), 0644) != 0) {
    return "cannot set the mode of " + path + ": " + vtl::error_description(errno);
  }
  return {};
}

std::string create_device(const std::string& dir, const DeviceOptions& options) {
  std::error_code ec;
  if (fs::exists(dir, ec) && !fs::is_empty(dir, ec)) {
    return dir + " exists and is not empty";
  }
  const std::string root = fs::absolute(dir, ec).lexically_normal().string();
  for (const char* sub : {"/etc/krx/entitlements.d", "/etc/vtld/trust/production",
                          "/etc/vtld/trust/test", "/private/var/logs/vtld",
                          "/private/var/root/Library/Preferences", "/run/krx", "/sim", "/dev"}) {
    if (std::string err = make_dirs(root + sub); !err.empty()) return err;
  }
  for (const char* sub : {"/private/var/mobile", "/private/var/mobile/Library",
                          "/private/var/mobile/Library/Preferences"}) {
    if (std::string err = make_dirs(root + sub, kMobileId); !err.empty()) return err;
  }
  // /var is the data volume's familiar name on the handset.
  fs::create_directory_symlink("private/var", root + "/var", ec);
  if (ec) return "cannot link " + root + "/var: " + ec.message();

  if (std::string err = write_file(root + "/etc/passwd", kPasswd); !err.empty()) return err;
  if (std::string err = write_file(root + "/etc/group", kGroup); !err.empty()) return err;

  // A preferences file as the provisioning daemon leaves it in root's folder
  // before its first migration.
  vtl::Dictionary prefs;
  prefs.emplace("EnrollmentState", "Staged");
  prefs.emplace("LastCheckIn", vtl::Value(vtl::Date{}));
  prefs.emplace("Version", vtl::Value(std::int64_t{1}));
  if (std::string err =
          write_file(root + "/private/var/root/Library/Preferences/com.tessal.Vantrel.plist",
                     vtl::plist_to_xml(vtl::Value(std::move(prefs))));
      !err.empty()) {
    return err;
  }

  // Development hardware: manifests signed under the test policy are
  // accepted, as on an unfused handset.
  vtl::Dictionary properties;
  if (std::optional<vtl::Value> old = vtl::read_plist_file(root + "/sim/device-properties.plist");
      old && old->dictionary() != nullptr) {
    properties = *old->dictionary();
  }
  properties.insert_or_assign("SigningFuse", vtl::Value(false));
  if (std::string err = write_file(root + "/sim/device-properties.plist",
                                   vtl::plist_to_xml(vtl::Value(std::move(properties))));
      !err.empty()) {
    return err;
  }

  if (std::string err = create_storage(root); !err.empty()) return err;
  if (std::string err = install_test_signer(root); !err.empty()) return err;

  int n = 0;
  for (const std::string& client : options.entitled_clients) {
    vtl::Dictionary entitlements;
    entitlements.emplace(kClientEntitlement, true);
    std::string name = fs::path(client).filename().string();
    if (n++ > 0) name += "-" + std::to_string(n);
    if (std::string err = write_entitlements_file(root, name, client, "", entitlements);
        !err.empty()) {
      return err;
    }
  }
  return {};
}

}  // namespace platform::sim
