#include "service/service_setup.h"

#include "base/VTLLogModel.h"
#include "krx/connection.h"
#include "operations/VTLHOperations.h"
#include "service/VTLHMessageResponder.h"
#include "service/VTLProgressUpdater.h"

namespace vtl {
namespace {

// An open KRX transaction: termination-imminent waits until it is closed.
class TransactionKeepAlive final : public KeepAlive {
 public:
  void hold() override { krx::transaction_begin(); }
  void release() override { krx::transaction_end(); }
};

StorageRoles storage_roles(const platform::Platform& platform) {
  return {.raw_disks = platform.raw_disks,
          .mounted_volumes = platform.mounted_volumes,
          .filesystem_resize = platform.filesystem_resize,
          .device_properties = platform.device_properties};
}

}  // namespace

FileRoles file_roles(const platform::Platform& platform) {
  return {.accounts = platform.accounts, .protection_classes = platform.protection_classes};
}

VTLSignedManifest::Roles signing_roles(const platform::Platform& platform) {
  return {.certificate_services = platform.certificate_services,
          .device_properties = platform.device_properties};
}

void set_up_service(const platform::Platform& platform) {
  VTLLogModel::sharedInstance().setSystemLog(platform.system_log);
  VTLHMessageResponder::sharedInstance().setUp({.code_signing = platform.code_signing,
                                                .storage = storage_roles(platform),
                                                .service_manager = platform.service_manager});
  // Never destroyed: the helper ends by exit() from inside a request.
  static TransactionKeepAlive* const keep_alive = new TransactionKeepAlive();
  VTLHOperations::sharedInstance().setUp({.files = file_roles(platform),
                                          .signing = signing_roles(platform),
                                          .device_registry = platform.device_registry,
                                          .power = platform.power,
                                          .progress = &VTLProgressUpdater::sharedInstance(),
                                          .keep_alive = keep_alive});
}

}  // namespace vtl
