#include "platform/platform.h"

namespace platform {

std::string under_root(std::string_view root, std::string_view path) {
  while (!root.empty() && root.back() == '/') root.remove_suffix(1);
  std::string out(root);
  out.append(path);
  return out;
}

}  // namespace platform
