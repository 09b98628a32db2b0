#include <sys/xattr.h>

#include <array>
#include <cerrno>

#include "platform/protection_classes.h"

namespace platform {
namespace {

constexpr const char* kAttributeName = "trusted.com.tessal.protection-class";
constexpr std::array<std::string_view, 5> kClassNames = {"None", "A", "B", "C", "D"};

class XattrProtectionClasses final : public ProtectionClasses {
 public:
  std::optional<std::string> get(const std::string& path) const override {
    // Class names are one to four bytes; anything longer is not one of ours.
    char buffer[8];
    const ssize_t n = ::lgetxattr(path.c_str(), kAttributeName, buffer, sizeof buffer);
    if (n < 0) return std::nullopt;
    std::string value(buffer, static_cast<std::size_t>(n));
    if (!is_protection_class_name(value)) return std::nullopt;
    return value;
  }

  int set_at(const ItemAt& item, std::string_view protection_class) const override {
    if (!is_protection_class_name(protection_class)) return EINVAL;
    return set_xattr(item, kAttributeName, protection_class.data(), protection_class.size());
  }

  bool hides_attribute(std::string_view name) const override { return name == kAttributeName; }
};

}  // namespace

bool is_protection_class_name(std::string_view name) {
  for (std::string_view known : kClassNames) {
    if (name == known) return true;
  }
  return false;
}

std::unique_ptr<ProtectionClasses> make_xattr_protection_classes() {
  return std::make_unique<XattrProtectionClasses>();
}

}  // namespace platform
