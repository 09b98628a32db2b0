// Assembles the service: hands each shared instance the platform's roles it
// uses and what else it needs, once, at start-up. The helper calls it before
// it listens; in-process tests of the dispatcher call it in their fixtures.
#pragma once

#include "manifest/VTLSignedManifest.h"
#include "manifest/file_roles.h"
#include "platform/platform.h"

namespace vtl {

// The roles each layer is handed, taken from the platform's table.
FileRoles file_roles(const platform::Platform& platform);
VTLSignedManifest::Roles signing_roles(const platform::Platform& platform);

// The logger writes to the platform's system log; the responder identifies
// clients through its code signing and resizes through its storage; the
// operations get their roles, report progress through the shared
// VTLProgressUpdater (so that it reaches the client as "Progress" messages)
// and hold the helper alive through KRX transactions. `platform` must
// outlive the service.
void set_up_service(const platform::Platform& platform);

}  // namespace vtl
