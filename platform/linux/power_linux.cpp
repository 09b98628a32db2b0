#include <sys/reboot.h>
#include <unistd.h>

#include "platform/power.h"

namespace platform {
namespace {

class LinuxPower final : public Power {
 public:
  void reboot(int howto) override {
    ::sync();
    static_cast<void>(::reboot(howto == 0 ? RB_AUTOBOOT : howto));
  }
};

}  // namespace

std::unique_ptr<Power> make_linux_power() { return std::make_unique<LinuxPower>(); }

}  // namespace platform
