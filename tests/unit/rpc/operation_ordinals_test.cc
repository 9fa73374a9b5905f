// The operation table's TPM ordinals against what the operations send: every operation the service
// implements is called through the internal-call dispatch of the RPC server, on a context of its
// own with zero arguments, against the scripted fake answering success and zero bytes. Each sends
// exactly the table's ordinal, or nothing when the table gives 0. An operation that carries a
// session finds session 0 (the handle of a zeroed TPM_AUTH) opened for its context first.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "commands/tcsip_sessions.h"
#include "contexts/contexts.h"
#include "core_fixture.h"
#include "keys/auth_mgr.h"
#include "rpc/internal_calls.h"
#include "rpc/operations.h"
#include "rpc/stubs.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {
namespace {

// Enough zero bytes for every output an operation reads from its response.
constexpr size_t kResponseBytes = 512;

bool TakesContext(const rpc::Operation& op) {
  return !op.params.empty() && op.params[0].type == "TCS_CONTEXT_HANDLE" && op.params[0].is_input();
}

bool CarriesSession(const rpc::Operation& op) {
  for (const rpc::Param& p : op.params) {
    if (p.type == "TPM_AUTH" && p.is_input()) return true;
  }
  return false;
}

// Keeps `n` answers (success and zero bytes) queued: an operation that sent nothing leaves its
// answer for the next command.
void QueueAnswers(testing::TestCore& core, size_t n) {
  while (core.fake().Unanswered() < n) {
    core.fake().Respond(TPM_SUCCESS, std::vector<BYTE>(kResponseBytes, 0));
  }
}

// Closes hContext if the operation left it open, answering the flush of each session it holds.
void CloseIfOpen(testing::TestCore& core, TCS_CONTEXT_HANDLE hContext) {
  if (ctx_ValidateContext(hContext) != TSS_SUCCESS) return;
  const AuthTableSnapshot table = auth_mgr_snapshot();
  QueueAnswers(core, static_cast<size_t>(std::count_if(table.entries.begin(), table.entries.end(),
                                                       [&](const auth_session& e) {
                                                         return e.inUse && e.hContext == hContext;
                                                       })));
  ASSERT_EQ(Tcsi_CloseContext_Internal(hContext), TSS_SUCCESS);
}

// Operations that zero arguments refuse before they send anything: entity type 0 is no delegation
// entity; an empty srkInfo, keyInfo, template, transport public, public key, delegation public or
// migration key authorisation is no structure; key handle 0 names no cached key; transport session
// 0 was established by no context; a counter's label is 4 bytes. What these send is checked with
// well-formed arguments in the commands' own tests.
constexpr std::string_view kRefusedBeforeSending[] = {
    "Tcsip_DSAP",
    "Tcsip_TakeOwnership",
    "Tcsip_GetAuditDigestSigned",
    "Tcsip_KeyControlOwner",
    "Tcsip_EvictKey",
    "Tcsip_CreateWrapKey",
    "Tcsip_GetPubKey",
    "Tcsip_CreateCounter",
    "Tcsip_SetRedirection",
    "Tcsip_Seal",
    "Tcsip_Sealx",
    "Tcsip_UnSeal",
    "Tcsip_Unbind",
    "Tcsip_Sign",
    "Tcsip_Quote",
    "Tcsip_Quote2",
    "Tcsip_CertifyKey",
    "Tcsip_CertifyKey2",
    "Tcsip_GetCapabilitySigned",
    "Tcsip_CertifySelfTest",
    "Tcsip_TickStampBlob",
    "Tcsip_MakeIdentity",
    "Tcsip_ChangeAuth",
    "Tcsip_ChangeAuthAsymStart",
    "Tcsip_ChangeAuthAsymFinish",
    "Tcsip_ActivateTPMIdentity",
    "Tcsip_EstablishTransport",
    "Tcsip_ExecuteTransport",
    "Tcsip_ReleaseTransportSigned",
    "Tcsip_Delegate_CreateKeyDelegation",
    "Tcsip_Delegate_CreateOwnerDelegation",
    "Tcsip_CreateMigrationBlob",
    "Tcsip_ConvertMigrationBlob",
    "Tcsip_AuthorizeMigrationKey",
    "Tcsip_MigrateKey",
    "Tcsip_CMK_CreateKey",
    "Tcsip_CMK_CreateTicket",
    "Tcsip_CMK_CreateBlob",
    "Tcsip_CMK_ConvertMigration",
};

// Operations whose zero arguments, or this TPM 1.2, make them send something else than the
// table's ordinal.
std::optional<std::vector<UINT32>> SentInstead(std::string_view name) {
  if (std::ranges::find(kRefusedBeforeSending, name) != std::end(kRefusedBeforeSending)) {
    return std::vector<UINT32>{};
  }
  // A TPM 1.2 ends sessions with TPM_FlushSpecific and reads the endorsement key with
  // TPM_OwnerReadInternalPub.
  if (name == "Tcsip_TerminateHandle") return std::vector<UINT32>{TPM_ORD_FlushSpecific};
  if (name == "Tcsip_OwnerReadPubek") return std::vector<UINT32>{TPM_ORD_OwnerReadInternalPub};
  // Refused before the load: an empty blob is no key, and the failure releases the session that
  // came with it.
  if (name == "Tcsip_LoadKeyByBlob" || name == "Tcsip_LoadKey2ByBlob") {
    return std::vector<UINT32>{TPM_ORD_FlushSpecific};
  }
  return std::nullopt;
}

TEST(OperationOrdinalsTest, EveryImplementedOperationSendsTheOrdinalOfTheTable) {
  testing::TestCore core;
  ASSERT_EQ(core.Start(), TSS_SUCCESS);
  int implemented = 0;
  for (const rpc::Operation& op : rpc::kOperations) {
    rpc::CallFrame frame(op);
    TCS_CONTEXT_HANDLE hContext = 0;
    if (TakesContext(op)) {
      ASSERT_EQ(Tcsi_OpenContext_Internal(&hContext), TSS_SUCCESS);
      frame.set_scalar(0, hContext);
      if (CarriesSession(op) || op.name == "Tcsip_TerminateHandle") {
        QueueAnswers(core, 1);
        TCS_AUTHHANDLE session = 0;
        TPM_NONCE nonceEven;
        ASSERT_EQ(Tcsip_OIAP_Internal(hContext, &session, &nonceEven), TSS_SUCCESS);
      }
    }
    QueueAnswers(core, 1);
    const size_t before = core.OrdinalsAfterStart().size();
    const TSS_RESULT result = CallInternalFunction(op.opnum, frame);
    const std::vector<UINT32> all = core.OrdinalsAfterStart();
    if (hContext != 0) {
      ASSERT_NO_FATAL_FAILURE(CloseIfOpen(core, hContext));
    }
    if (result == TCS_E_NOTIMPL) continue;
    ++implemented;

    const std::vector<UINT32> sent(all.begin() + static_cast<std::ptrdiff_t>(before), all.end());
    const UINT32 ordinal = op.tpm_ordinal.value;
    const std::vector<UINT32> expected = SentInstead(op.name).value_or(
        ordinal == 0 ? std::vector<UINT32>{} : std::vector<UINT32>{ordinal});
    EXPECT_EQ(sent, expected) << op.name;
  }
  EXPECT_GT(implemented, 0);
  EXPECT_TRUE(core.fake().Mismatches().empty());
}

}  // namespace
}  // namespace kesttcs
