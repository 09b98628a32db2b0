// Long operations hold the helper alive: an order to end waits until the
// device manifest is written (or its walk has failed).
#include <gtest/gtest.h>

#include <string>

#include "operations/VTLHOperations.h"
#include "tests/support/capture.h"
#include "tests/support/daemon.h"

namespace {

class CountingKeepAlive final : public vtl::KeepAlive {
 public:
  void hold() override { ++holds; }
  void release() override { ++releases; }
  int holds = 0;
  int releases = 0;
};

TEST(KeepAliveTest, TheDeviceManifestIsMadeInsideOneHold) {
  testsupport::TempDir dir;
  testsupport::TestPlatform platform(dir.path());
  CountingKeepAlive keep_alive;
  vtl::VTLHOperations& ops = vtl::VTLHOperations::sharedInstance();
  vtl::VTLHOperations::Environment environment;
  environment.files = platform.files();
  environment.keep_alive = &keep_alive;
  ops.setUp(environment);
  // A missing path walked inclusive fails before anything is written.
  const std::string missing = dir / "missing";
  EXPECT_FALSE(ops.createDeviceManifest_inclusive(&missing, true));
  EXPECT_EQ(keep_alive.holds, 1);
  EXPECT_EQ(keep_alive.releases, 1);
}

}  // namespace
