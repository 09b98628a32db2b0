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
    static_cast<void>(
        std::fputs("platform::current() called before platform::install()\n", stderr));
    std::abort();
  }
  return *g_current;
}

void install(Platform* p) { g_current = p; }

std::string under_root(std::string_view root, std::string_view path) {
  while (!root.empty() && root.back() == '/') root.remove_suffix(1);
  std::string out(root);
  out.append(path);
  return out;
}

}  // namespace platform
