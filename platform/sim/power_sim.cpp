// Restarting a simulated device: the request is recorded, then the helper is
// ended the way a restart ends it.
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "base/plist.h"
#include "platform/platform.h"
#include "platform/power.h"

namespace platform {
namespace {

class SimPower final : public Power {
 public:
  explicit SimPower(const std::string& root) : path_(under_root(root, "/sim/reboots.plist")) {}

  void reboot(int howto) override {
    vtl::Array reboots;
    if (std::optional<vtl::Value> old = vtl::read_plist_file(path_); old && old->array()) {
      reboots = *old->array();
    }
    vtl::Dictionary record;
    record.emplace("Date", vtl::Value(std::chrono::time_point_cast<std::chrono::nanoseconds>(
                               std::chrono::system_clock::now())));
    record.emplace("Howto", vtl::Value(std::int64_t{howto}));
    reboots.emplace_back(std::move(record));
    const std::string xml = vtl::plist_to_xml(vtl::Value(std::move(reboots)));
    // A restart that cannot be recorded does not happen: the caller learns
    // that the way it learns of any failed restart, by being returned to.
    if (vtl::write_file_atomically(
            path_, {reinterpret_cast<const std::uint8_t*>(xml.data()), xml.size()}) != 0) {
      return;
    }
    ::kill(::getpid(), SIGKILL);
    ::pause();
  }

 private:
  std::string path_;
};

}  // namespace

std::unique_ptr<Power> make_sim_power(const std::string& root) {
  return std::make_unique<SimPower>(root);
}

}  // namespace platform
