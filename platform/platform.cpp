#include "platform/platform.h"

#include <cstdio>
#include <cstdlib>

namespace platform {

namespace {
Platform* g_current = nullptr;
}

Platform& current() {
  if (g_current == nullptr) {
    // A programming error, not a runtime condition: say so loudly.
    std::fputs("platform::current() called before platform::install()\n", stderr);
    std::abort();
  }
  return *g_current;
}

void install(Platform* p) { g_current = p; }

}  // namespace platform
