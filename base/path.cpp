#include "base/path.h"

namespace vtl {

std::string join(std::string_view dir, std::string_view name) {
  std::string out(dir);
  while (out.size() > 1 && out.back() == '/') out.pop_back();
  if (out.empty() || out.back() != '/') out.push_back('/');
  while (!name.empty() && name.front() == '/') name.remove_prefix(1);
  out.append(name);
  return out;
}

}  // namespace vtl
