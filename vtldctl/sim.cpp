#include "vtldctl/sim.h"

#include <unistd.h>

#include <array>
#include <filesystem>
#include <system_error>

#include <fmt/format.h>

#include "base/service_name.h"
#include "platform/sim/device.h"
#include "vtldctl/exchange.h"
#include "vtldctl/exit_status.h"
#include "vtldctl/json_output.h"

namespace vtldctl {
namespace {

namespace fs = std::filesystem;

struct LayoutEntry {
  const char* path;
  const char* what;
};

// What a device is made of, as shown after creating one. Only entries that
// exist are shown, so the listing reports the device actually made.
constexpr std::array<LayoutEntry, 11> kLayout = {{
    {"/etc/passwd", "accounts: root 0:0, mobile 501:501 (and /etc/group)"},
    {"/etc/krx/entitlements.d", "client entitlements"},
    {"/etc/vtld/trust", "signer anchors and policies"},
    {"/private/var", "the data volume (/var links to it)"},
    {"/private/var/logs/vtld", "the helper's daily log files"},
    {"/var/root/Library/Preferences/com.tessal.Vantrel.plist", "preferences to migrate"},
    {"/var/mobile/Library/Preferences", "where migrated preferences go"},
    {"/dev/rdisk0s1", "the disk image"},
    {"/run/krx", "service sockets"},
    {"/sim", "device state (NVRAM, properties, mounts, recorded reboots)"},
    {"/sim/test-signer", "the device's test manifest signer: key and certificate"},
}};

}  // namespace

std::string own_executable() {
  std::error_code ec;
  fs::path path = fs::read_symlink("/proc/self/exe", ec);
  return ec ? std::string() : path.string();
}

std::string device_socket_path(const std::string& dir) {
  return platform::sim::service_socket_path(dir, vtl::kServiceName);
}

std::string create_simulated_device(const std::string& dir, std::string* absolute_dir) {
  std::error_code ec;
  const fs::path absolute = fs::absolute(dir, ec).lexically_normal();
  if (ec) return "cannot resolve " + dir + ": " + ec.message();
  // A trailing "/" normalises to an empty last component; drop it so that
  // the paths printed and the socket path read naturally.
  *absolute_dir = absolute.has_filename() ? absolute.string() : absolute.parent_path().string();
  // Refused before anything is made: its helper could not serve it.
  const std::string problem = socket_path_problem(device_socket_path(*absolute_dir));
  if (!problem.empty()) return problem + "; choose a shorter DIR";

  const std::string self = own_executable();
  if (self.empty()) return "cannot read this program's own path from /proc/self/exe";
  platform::sim::DeviceOptions options;
  options.entitled_clients.push_back(self);
  return platform::sim::create_device(*absolute_dir, options);
}

int sim_create(const std::string& dir, bool json, std::FILE* out, std::FILE* err) {
  std::string root;
  if (std::string error = create_simulated_device(dir, &root); !error.empty()) {
    fmt::print(err, "vtldctl: cannot create a simulated device in {}: {}\n", dir, error);
    return kExitLocalFailure;
  }
  if (json) {
    print_json_line(out, {{"Device", root},
                          {"Socket", device_socket_path(root)},
                          {"EntitledClient", own_executable()}});
    return kExitSuccess;
  }
  fmt::print(out, "Created a simulated device in {}:\n", root);
  for (const LayoutEntry& entry : kLayout) {
    std::error_code ec;
    if (fs::exists(fs::symlink_status(root + entry.path, ec))) {
      fmt::print(out, "  {:<56} {}\n", entry.path, entry.what);
    }
  }
  fmt::print(out, "Entitled client: {}\n", own_executable());
  fmt::print(out,
             "\nServe it (as root: the helper confines itself to the device with chroot):\n"
             "  vtld_helper --root {0}\n"
             "then, for example:\n"
             "  vtldctl --root {0} migrate-preferences\n",
             root);
  return kExitSuccess;
}

}  // namespace vtldctl
