// The operation table's TPM ordinals against what the operations send: every operation the service
// implements is called through the internal-call dispatch of the RPC server, on a context of its
// own with zero arguments, against the scripted fake answering success and zero bytes. Each sends
// exactly the table's ordinal, or nothing when the table gives 0.
#include <gtest/gtest.h>

#include <cstddef>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "contexts/contexts.h"
#include "core_fixture.h"
#include "rpc/internal_calls.h"
#include "rpc/operations.h"
#include "rpc/stubs.h"

namespace kesttcs {
namespace {

// Enough zero bytes for every output an operation reads from its response.
constexpr size_t kResponseBytes = 512;

bool TakesContext(const rpc::Operation& op) {
  return !op.params.empty() && op.params[0].type == "TCS_CONTEXT_HANDLE" && op.params[0].is_input();
}

TEST(OperationOrdinalsTest, EveryImplementedOperationSendsTheOrdinalOfTheTable) {
  testing::TestCore core;
  ASSERT_EQ(core.Start(), TSS_SUCCESS);
  int implemented = 0;
  for (const rpc::Operation& op : rpc::kOperations) {
    rpc::CallFrame frame(op);
    if (TakesContext(op)) {
      TCS_CONTEXT_HANDLE hContext = 0;
      ASSERT_EQ(Tcsi_OpenContext_Internal(&hContext), TSS_SUCCESS);
      frame.set_scalar(0, hContext);
    }
    core.fake().Respond(TPM_SUCCESS, std::vector<BYTE>(kResponseBytes, 0));
    const size_t before = core.OrdinalsAfterStart().size();
    if (CallInternalFunction(op.opnum, frame) == TCS_E_NOTIMPL) continue;
    ++implemented;

    const std::vector<UINT32> all = core.OrdinalsAfterStart();
    const std::vector<UINT32> sent(all.begin() + static_cast<std::ptrdiff_t>(before), all.end());
    const UINT32 ordinal = op.tpm_ordinal.value;
    const std::vector<UINT32> expected =
        ordinal == 0 ? std::vector<UINT32>{} : std::vector<UINT32>{ordinal};
    EXPECT_EQ(sent, expected) << op.name;
  }
  EXPECT_GT(implemented, 0);
  EXPECT_TRUE(core.fake().Mismatches().empty());
}

}  // namespace
}  // namespace kesttcs
