// Joining paths, the one way the helper does it.
#pragma once

#include <string>
#include <string_view>

namespace vtl {

// `dir` and `name` with exactly one "/" between them: trailing slashes of
// `dir` and leading slashes of `name` are dropped first ("/" stays "/").
std::string join(std::string_view dir, std::string_view name);

}  // namespace vtl
