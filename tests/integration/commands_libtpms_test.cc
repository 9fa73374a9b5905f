// The TCS command scenario against the embedded libtpms TPM 1.2 of this process, which comes up
// manufactured (with an endorsement key) and waiting for TPM_Startup.
#include "commands_scenario.h"
#include "swtpm_process.h"

namespace kesttcs::testing {
namespace {

TEST_F(CommandsScenarioTest, EmbeddedLibtpms) {
  TempDir dir;
  driver_configure("libtpms:" + dir.path() + "/tpm", dir.path());
  StartFromPostInit();
  RunCommandsScenario(/*hasEk=*/true);
}

}  // namespace
}  // namespace kesttcs::testing
