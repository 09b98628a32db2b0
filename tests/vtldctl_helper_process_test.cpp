// Starting the helper: a program that cannot be run is reported by the
// start itself, with the system's reason, rather than as a helper that ended.
#include <gtest/gtest.h>

#include "tests/support/daemon.h"
#include "vtldctl/helper_process.h"

namespace {

TEST(HelperProcess, AProgramThatCannotRunIsReportedAtTheStart) {
  testsupport::TempDir dir;
  vtldctl::HelperStart how;
  how.program = dir / "no-such-helper";
  std::string error;
  EXPECT_FALSE(vtldctl::HelperProcess::start(how, &error));
  EXPECT_EQ(error, "cannot start " + how.program + ": No such file or directory");
}

}  // namespace
