// The platform the helper runs on: one interface per role, chosen once at
// start-up (a simulated device or the Linux host) and handed down from there:
// each routine that touches the platform is given the roles it uses by its
// caller. Code outside platform/ never names a backend.
#pragma once

#include <string>
#include <string_view>

namespace vtl {
class SystemLog;
}

namespace platform {

// `path` (absolute, as on the handset) under a device root: the root itself
// when the helper already runs confined to it ("/"), else a directory that
// holds a simulated device (tests and tools that look at one from outside).
std::string under_root(std::string_view root, std::string_view path);

using vtl::SystemLog;
class Accounts;
class CodeSigning;
class DeviceRegistry;
class DeviceProperties;
class Power;
class ProtectionClasses;
class RawDisks;
class MountedVolumes;
class FileSystemResize;
class CertificateServices;
class ServiceManager;

// Every role, as the helper assembles them at start-up. Not owned.
struct Platform {
  SystemLog* system_log = nullptr;
  Accounts* accounts = nullptr;
  CodeSigning* code_signing = nullptr;
  DeviceRegistry* device_registry = nullptr;
  Power* power = nullptr;
  DeviceProperties* device_properties = nullptr;
  ProtectionClasses* protection_classes = nullptr;
  RawDisks* raw_disks = nullptr;
  MountedVolumes* mounted_volumes = nullptr;
  FileSystemResize* filesystem_resize = nullptr;
  CertificateServices* certificate_services = nullptr;
  ServiceManager* service_manager = nullptr;  // none: nobody is told how the helper does
};

}  // namespace platform
