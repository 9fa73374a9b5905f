// The TCS command scenario against a swtpm process that waits for TPM_Startup and has no
// endorsement key: over its Unix sockets, and through a TDDL library that forwards to it.
#include <cstdlib>

#include "commands_scenario.h"
#include "swtpm_process.h"

namespace kesttcs::testing {
namespace {

class CommandsSwtpmTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!SwtpmInstalled()) GTEST_SKIP() << "swtpm is not installed";
  }
};

TEST_F(CommandsSwtpmTest, UnixSockets) {
  SwtpmProcess swtpm(/*startupClear=*/false);
  ASSERT_TRUE(swtpm.WaitReady());
  TestCore core(CoreOptions().Backend(swtpm.UnixConfig()).NeedLog());
  ASSERT_NO_FATAL_FAILURE(StartFromPostInit(core));
  RunCommandsScenario(/*hasEk=*/false);
}

TEST_F(CommandsSwtpmTest, TddlLibraryForwardingToSwtpm) {
  SwtpmProcess swtpm(/*startupClear=*/false);
  ASSERT_TRUE(swtpm.WaitReady());
  ::setenv("KESTTCS_TDDL_SWTPM_DATA", swtpm.data_path().c_str(), 1);
  ::setenv("KESTTCS_TDDL_SWTPM_CTRL", swtpm.ctrl_path().c_str(), 1);
  TestCore core(CoreOptions().Backend(std::string("tddl:") + KESTTCS_TDDL_SWTPM).NeedLog());
  ASSERT_NO_FATAL_FAILURE(StartFromPostInit(core));
  RunCommandsScenario(/*hasEk=*/false);
}

}  // namespace
}  // namespace kesttcs::testing
