// Restarting the device.
#pragma once

#include <memory>
#include <string>

namespace platform {

class Power {
 public:
  virtual ~Power() = default;
  // Restarts the device with the given howto flags (0: an ordinary automatic
  // restart). Returns only when the restart did not happen.
  virtual void reboot(int howto) = 0;
};

// Simulated device: appends the request to <root>/sim/reboots.plist, then ends
// the helper the way a restart ends it: at once, by SIGKILL, with no reply and
// no clean-up.
std::unique_ptr<Power> make_sim_power(const std::string& root);
// Linux host: sync(2), then reboot(2) with RB_AUTOBOOT. Linux's reboot does
// not flush file systems itself (the handset's kernel does), so the sync is
// what makes this an ordinary restart rather than a power cut.
std::unique_ptr<Power> make_linux_power();

}  // namespace platform
