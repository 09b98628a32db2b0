// Simulated devices: `vtldctl sim create DIR` lays one out for
// `vtld_helper --root DIR` to serve, with this vtldctl entitled as a client.
#pragma once

#include <cstdio>
#include <string>

namespace vtldctl {

// This program's absolute path as the kernel reports it (/proc/self/exe):
// the helper identifies clients by exactly this path, so an entitlement
// written for any other spelling of it (a symbolic link, a relative path)
// would not match. Empty when it cannot be read.
std::string own_executable();

// Where the helper's service socket is on the device in `dir`.
std::string device_socket_path(const std::string& dir);

// Lays out a device in `dir` (which must not exist or be empty) with this
// program entitled. On success returns "" and sets `*absolute_dir`; else the
// reason.
std::string create_simulated_device(const std::string& dir, std::string* absolute_dir);

// `vtldctl sim create DIR`: creates the device, prints what it holds and how
// to serve it (with `json`, {"Device", "Socket", "EntitledClient"}). Returns
// the exit status.
int sim_create(const std::string& dir, bool json, std::FILE* out, std::FILE* err);

}  // namespace vtldctl
