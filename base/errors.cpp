#include "base/errors.h"

#include <cstring>

namespace vtl {

std::string error_description(int error) {
  char buffer[256];
  // The GNU strerror_r returns the text, which may or may not be `buffer`.
  return ::strerror_r(error, buffer, sizeof buffer);
}

}  // namespace vtl
