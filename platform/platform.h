// The platform the helper runs on: one interface per role, chosen once at
// start-up (a simulated device or the Linux host). Code outside platform/
// reaches the platform only through here and never names a backend.
#pragma once

namespace platform {

class SystemLog;
class Accounts;
class CodeSigning;

struct Platform {
  SystemLog* system_log = nullptr;
  Accounts* accounts = nullptr;
  CodeSigning* code_signing = nullptr;
};

// REQUIRES: install() was called (the helper does it first thing; tests do it
// in their fixtures).
Platform& current();
// Makes `p` the current platform. Not owned; must outlive its use.
void install(Platform* p);

}  // namespace platform
