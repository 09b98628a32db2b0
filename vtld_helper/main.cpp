// Process set-up: pick the platform, confine the helper to a simulated device
// when asked to, then hand over to the helper's entry.
//
//   vtld_helper                 serve the Linux host (/run/krx, or the socket
//                               the service manager hands over)
//   vtld_helper --root DIR      serve the simulated device laid out in DIR
//   vtld_helper --root DIR --syslog
//                               the same, with its system log sent to syslog
//                               inside the device (DIR/dev/log)
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/VTLLogModel.h"
#include "base/errors.h"
#include "krx/connection.h"
#include "platform/accounts.h"
#include "platform/certificate_services.h"
#include "platform/code_signing.h"
#include "platform/device_properties.h"
#include "platform/device_registry.h"
#include "platform/fault_injection.h"
#include "platform/filesystem_resize.h"
#include "platform/mounted_volumes.h"
#include "platform/platform.h"
#include "platform/power.h"
#include "platform/protection_classes.h"
#include "platform/raw_disk.h"
#include "platform/service_manager.h"
#include "platform/system_log.h"
#include "service/service_setup.h"
#include "vtl_paths.h"
#include "vtl_version.h"
#include "vtld_helper/privileges.h"
#include "vtld_helper/vtld_helper.h"

namespace {

constexpr const char* kUsage =
    "usage: vtld_helper [--root DIR [--syslog] [--host-disks]] | --version\n"
    "  --root DIR   serve the simulated device laid out in DIR (see `vtldctl sim create`);\n"
    "               the helper confines itself to DIR before it serves\n"
    "  --syslog     with --root: send the system log to the device's syslog socket\n"
    "               (DIR/dev/log) instead of standard error\n"
    "  --host-disks with --root: the data partition is the host's: DIR/dev/rdisk0s1 is a\n"
    "               block device node, the data volume a file system mounted in DIR\n"
    "  --socket-group NAME\n"
    "               the socket is mode 0660 and belongs to group NAME (on a simulated\n"
    "               device, a group of DIR/etc/group); on a host the group \"vtld\" is\n"
    "               taken when it exists\n";

// Where a host's configuration is read (vtl_paths.h): "/" unless the build
// named another sysconfdir.
constexpr std::string_view kHostConfigurationRoot = VTL_CONFIGURATION_ROOT;

[[noreturn]] void fail(const std::string& message) {
  static_cast<void>(std::fprintf(stderr, "vtld_helper: %s\n", message.c_str()));
  std::exit(1);
}

// Everything the helper needs from outside the device is opened here, before
// chroot: the host's /proc (to identify clients by their executables) and the
// zone information (log file names use the local date).
//
// The /proc descriptor is the one door out of the device the helper keeps.
// It is only ever used with a process id the kernel gave (a peer's
// credentials) and the fixed names "exe" beneath it; no path from a request
// is resolved against it or against anything but the device's own root.
void confine_to(const std::string& root, int* proc_fd) {
  if (::geteuid() != 0) fail("must run as root: it confines itself to " + root + " with chroot");
  *proc_fd = ::open("/proc", O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (*proc_fd < 0) fail(std::string("cannot open /proc: ") + vtl::error_description(errno));
  ::tzset();
  if (::chdir(root.c_str()) != 0)
    fail("cannot enter " + root + ": " + vtl::error_description(errno));
  if (::chroot(".") != 0) fail("cannot confine to " + root + ": " + vtl::error_description(errno));
  if (::chdir("/") != 0)
    fail(std::string("cannot enter the device root: ") + vtl::error_description(errno));
}

// Who may connect to the socket the helper binds itself: the members of a
// dedicated group (mode 0660) where there is one: the group named on the
// command line, else on a host the group "vtld" the package creates. Without
// one, every local user may connect. Either way the entitlement check
// decides every request. A socket handed over by a service manager keeps the
// mode and group its unit gives it.
void restrict_socket(const platform::Accounts& accounts, bool simulated, const std::string& named) {
  constexpr const char* kHostGroup = "vtld";
  const std::string name = named.empty() && !simulated ? kHostGroup : named;
  if (name.empty()) return;
  const std::optional<gid_t> gid = accounts.group_id(name);
  if (gid) {
    krx::set_socket_access(0660, *gid);
  } else if (!named.empty()) {
    fail("no group " + named + (simulated ? " in the device's /etc/group" : ""));
  }
}

// Descriptors inherited from whoever started the helper are not its own and
// must not outlive the start: all go but the standard streams and the
// sockets a service manager hands over (LISTEN_FDS of them, from 3, when
// LISTEN_PID names this process).
void close_inherited_descriptors() {
  unsigned first = 3;
  const char* listen_pid = std::getenv("LISTEN_PID");
  const char* listen_fds = std::getenv("LISTEN_FDS");
  if (listen_pid != nullptr && listen_fds != nullptr &&
      std::strtol(listen_pid, nullptr, 10) == ::getpid()) {
    first += static_cast<unsigned>(std::strtoul(listen_fds, nullptr, 10));
  }
  static_cast<void>(::close_range(first, ~0U, 0));
}

// Each client connection holds two descriptors (its socket and a pidfd):
// room for the facility's cap on connections and more, within what the
// system allows.
void raise_descriptor_limit() {
  constexpr rlim_t kWanted = 4096;
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= kWanted) return;
  limit.rlim_cur = std::min(kWanted, limit.rlim_max);
  static_cast<void>(::setrlimit(RLIMIT_NOFILE, &limit));
}

}  // namespace

int main(int argc, char** argv) {
  close_inherited_descriptors();
  raise_descriptor_limit();
  std::string root;
  bool syslog_on_device = false;
  bool host_disks = false;
  std::string socket_group;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--root" && i + 1 < argc) {
      root = argv[++i];
    } else if (arg == "--syslog") {
      syslog_on_device = true;
    } else if (arg == "--socket-group" && i + 1 < argc) {
      socket_group = argv[++i];
    } else if (arg == "--host-disks") {
      host_disks = true;
    } else if (arg == "--version") {
      static_cast<void>(std::puts("vtld_helper " VTL_VERSION));
      return 0;
    } else if (arg == "--help" || arg == "-h") {
      static_cast<void>(std::fputs(kUsage, stdout));
      return 0;
    } else {
      static_cast<void>(std::fputs(kUsage, stderr));
      return 2;
    }
  }

  // Directories the helper makes are 0755 before any widening; nothing it
  // creates should inherit a caller's looser mask.
  ::umask(022);
  // A client that goes away mid-reply must not take the helper with it.
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));

  std::unique_ptr<platform::SystemLog> system_log;
  // Reached before any confinement: the manager's socket is outside the device.
  std::string notify_error;
  std::unique_ptr<platform::ServiceManager> service_manager =
      platform::make_notify_service_manager(&notify_error);
  if (!notify_error.empty()) {
    static_cast<void>(std::fprintf(stderr, "vtld_helper: %s\n", notify_error.c_str()));
  }
  int proc_fd = -1;
  const bool simulated = !root.empty();
  // The kernel's block devices and their nodes, for the partition GUIDs of
  // mounted volumes; opened before any confinement, like /proc, and only
  // where the host's disks are used. A simulated device's helper holds no
  // descriptor outside the device but /proc.
  const bool host_storage = !simulated || host_disks;
  const int sys_block_fd =
      host_storage ? ::open("/sys/class/block", O_PATH | O_DIRECTORY | O_CLOEXEC) : -1;
  const int dev_fd = host_storage ? ::open("/dev", O_PATH | O_DIRECTORY | O_CLOEXEC) : -1;
  if (simulated) {
    confine_to(root, &proc_fd);
    // Connected only now, so that it is the device's syslog socket.
    system_log = syslog_on_device ? platform::make_syslog_system_log("vtld_helper")
                                  : platform::make_stderr_system_log();
  } else {
    system_log = platform::make_host_system_log("vtld_helper");
    proc_fd = ::open("/proc", O_PATH | O_DIRECTORY | O_CLOEXEC);
  }

  // Inside the device (or on the host) every absolute path now means what it
  // means on the handset, so both backends read the same places.
  // Never destroyed: the helper ends by exit() from its event queue, and
  // nothing may be torn down under a request still being served.
  auto* the_platform = new platform::Platform();
  the_platform->system_log = system_log.release();
  the_platform->service_manager = service_manager.release();
  the_platform->accounts = platform::make_passwd_accounts("/").release();
  restrict_socket(*the_platform->accounts, simulated, socket_group);
  // Clients are identified through /proc when their connections are
  // accepted (krx) and when their messages are checked (code signing).
  krx::set_proc_directory(proc_fd);
  // Entitlements and signer policies live in the device's /etc; on a host,
  // in the sysconfdir the helper was built for (vtl_paths.h).
  const std::string configuration_root =
      simulated ? std::string("/") : std::string(kHostConfigurationRoot);
  the_platform->code_signing =
      platform::make_entitlement_files(configuration_root, proc_fd, the_platform->accounts)
          .release();
  // Both backends keep protection classes the same way (protection_classes.h).
  the_platform->protection_classes = platform::make_xattr_protection_classes().release();
  // Both backends read the signer policies from etc/vtld/trust, inside the
  // device or on the host (certificate_services.h).
  the_platform->certificate_services =
      platform::make_openssl_certificate_services(configuration_root).release();
  if (simulated) {
    the_platform->device_registry = platform::make_sim_registry("/").release();
    the_platform->power = platform::make_sim_power("/").release();
    the_platform->device_properties = platform::make_sim_device_properties("/").release();
  } else {
    the_platform->device_registry =
        platform::make_efivarfs_registry(std::string(platform::kEfivarsDirectory), true).release();
    the_platform->power = platform::make_linux_power().release();
    the_platform->device_properties = platform::make_linux_device_properties(
                                          std::string(platform::kEfivarsDirectory), "/private/var")
                                          .release();
  }
  if (simulated && !host_disks) {
    the_platform->raw_disks = platform::make_sim_raw_disks("/").release();
    the_platform->mounted_volumes = platform::make_sim_mounted_volumes("/").release();
    the_platform->filesystem_resize = platform::make_sim_filesystem_resize("/").release();
  } else {
    the_platform->raw_disks = platform::make_linux_raw_disks(the_platform->system_log).release();
    the_platform->mounted_volumes =
        platform::make_linux_mounted_volumes(proc_fd, sys_block_fd, dev_fd).release();
    the_platform->filesystem_resize = platform::make_btrfs_filesystem_resize().release();
    // The data volume's usage is the host file system's too.
    if (simulated) {
      the_platform->device_properties =
          platform::make_linux_device_properties("/private/var").release();
    }
  }
  if (simulated) {
    // A device directory carries its own fault plan (sim/), for drills against
    // a disk image and a host's disks alike.
    the_platform->raw_disks = platform::with_storage_faults(
                                  std::unique_ptr<platform::RawDisks>(the_platform->raw_disks), "/")
                                  .release();
    the_platform->filesystem_resize =
        platform::with_storage_faults(
            std::unique_ptr<platform::FileSystemResize>(the_platform->filesystem_resize), "/")
            .release();
    the_platform->device_registry =
        platform::with_registry_faults(
            std::unique_ptr<platform::DeviceRegistry>(the_platform->device_registry), "/")
            .release();
  }
  vtl::set_up_service(*the_platform);
  // Everything is open and the helper confined: from here on it holds only
  // the powers its commands use (privileges.h).
  vtl::drop_privileges();

  vtl::VTLH_main(argv[0]);
}
