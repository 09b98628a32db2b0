#include "tests/support/capture.h"

#include "base/VTLLogModel.h"
#include "service/service_setup.h"

namespace testsupport {

TestPlatform::TestPlatform(const std::string& device_root)
    : accounts_(platform::make_passwd_accounts(device_root)) {
  roles.system_log = &log;
  roles.accounts = accounts_.get();
  roles.code_signing = &signing;
  apply();
  vtl::VTLLogModel::sharedInstance().setLogFP(nullptr);
}

TestPlatform::~TestPlatform() { vtl::set_up_service(platform::Platform{}); }

void TestPlatform::apply() { vtl::set_up_service(roles); }

}  // namespace testsupport
