// Errors inside the helper. One convention for internal functions: a function
// that can fail returns 0 or an errno value (int), or an empty optional with
// the errno value left in `errno` where it stands for a system call that does
// the same; it does not log. Its caller decides what the failure means and
// logs it once, in the system's own words. Text for an errno value comes from
// here alone.
#pragma once

#include <string>

namespace vtl {

// The system's text for an errno value, e.g. "No such file or directory".
std::string error_description(int error);

}  // namespace vtl
