#include "tests/support/capture.h"

#include "base/VTLLogModel.h"

namespace testsupport {

TestPlatform::TestPlatform(const std::string& device_root)
    : accounts_(platform::make_passwd_accounts(device_root)) {
  platform_.system_log = &log;
  platform_.accounts = accounts_.get();
  platform_.code_signing = &signing;
  platform::install(&platform_);
  vtl::VTLLogModel::sharedInstance().setSystemLog(&log);
  vtl::VTLLogModel::sharedInstance().setLogFP(nullptr);
}

TestPlatform::~TestPlatform() {
  vtl::VTLLogModel::sharedInstance().setSystemLog(nullptr);
  platform::install(nullptr);
}

}  // namespace testsupport
