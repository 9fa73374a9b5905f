// The TCS command scenario against the embedded libtpms TPM 1.2 of this process, which comes up
// manufactured (with an endorsement key) and waiting for TPM_Startup.
#include "commands_scenario.h"

namespace kesttcs::testing {
namespace {

TEST(CommandsScenarioTest, EmbeddedLibtpms) {
  TestCore core(CoreOptions().Backend("libtpms").NeedLog());
  ASSERT_NO_FATAL_FAILURE(StartFromPostInit(core));
  RunCommandsScenario(/*hasEk=*/true);
}

}  // namespace
}  // namespace kesttcs::testing
