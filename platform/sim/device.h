// The simulated device: a directory laid out like the handset, served by
// `vtld_helper --root DIR`, which confines itself to it.
//
//   DIR/etc/passwd, DIR/etc/group          root 0:0, mobile 501:501
//   DIR/etc/krx/entitlements.d/            client entitlements
//   DIR/etc/vtld/trust/{production,test}/  signer anchors and policies
//   DIR/private/var/                       the data volume; DIR/var -> private/var
//   DIR/private/var/logs/vtld/             the helper's daily log files
//   DIR/var/root/Library/Preferences/      holds a sample "com.tessal.Vantrel.plist"
//   DIR/var/mobile/Library/Preferences/
//   DIR/run/krx/                           service sockets
//   DIR/sim/                               device state as readable property lists
//   DIR/sim/test-signer/                   the device's test manifest signer
//                                          (key and certificate; test_signer.h)
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "base/value.h"

namespace platform::sim {

inline constexpr const char* kRunDirectory = "/run/krx";
inline constexpr uid_t kMobileId = 501;

struct DeviceOptions {
  // Programs to entitle as the helper's client (absolute paths as the kernel
  // reports them, e.g. the running vtldctl). Each gets an entitlements file
  // granting "com.tessal.private.vantrel.vantreld", bound to its path.
  std::vector<std::string> entitled_clients;
};

// Lays out a device in `dir`, which must not exist or be empty. Returns an
// empty string on success, else what went wrong.
std::string create_device(const std::string& dir, const DeviceOptions& options);

// Writes an entitlements file `name` (".plist" appended) under the device's
// entitlements directory, binding `entitlements` to `executable` (and to its
// content when `sha256` is not empty). Returns an empty string or the error.
std::string write_entitlements_file(const std::string& dir, const std::string& name,
                                    const std::string& executable, const std::string& sha256,
                                    const vtl::Dictionary& entitlements);

// The entitlement a client of the helper must hold.
inline constexpr const char* kClientEntitlement = "com.tessal.private.vantrel.vantreld";

// The socket path of a service on the device.
std::string service_socket_path(const std::string& dir, const std::string& service_name);

}  // namespace platform::sim
