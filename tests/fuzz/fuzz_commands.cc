// The TCS command layer against a TPM that answers anything once the core is up (start-up itself
// is answered as a plain TPM 1.2 would; fuzz_req_mgr feeds the start-up sequence): every keyless
// operation, the session openers and the commands that carry sessions (their response trailers
// and the session table's bookkeeping), the audit digest and its report, the vendor commands and
// sequence, delegation, DAA, migration and certified migration, the metrics (every path the
// answers lead to), the vendor classifier and key eviction parse whatever comes back without
// crashing or reading past the response.
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "commands/capability.h"
#include "commands/tcsip_audit.h"
#include "commands/tcsip_cmk.h"
#include "commands/tcsip_daa.h"
#include "commands/tcsip_delegation.h"
#include "commands/tcsip_keyless.h"
#include "commands/tcsip_migration.h"
#include "commands/tcsip_owner.h"
#include "commands/tcsip_sessions.h"
#include "commands/tpm_metrics.h"
#include "commands/vendor_commands.h"
#include "contexts/contexts.h"
#include "core_fixture.h"
#include "keys/key_eviction.h"

namespace kesttcs {
namespace {

void RunEveryCommand(TCS_CONTEXT_HANDLE h) {
  std::array<BYTE, 300> input{};
  UINT32 size = 16;
  BYTE* out = nullptr;
  TPM_DIGEST digest{};
  TPM_NONCE nonce{};
  TPM_COUNTER_VALUE counter;
  TPM_AUTH auth{};
  tpm_metrics metrics;
  static_cast<void>(get_tpm_metrics(&metrics));
  static_cast<void>(getTpmVendorClass());
  static_cast<void>(Tcsip_GetRandom_Internal(h, &size, &out));
  static_cast<void>(Tcsip_StirRandom_Internal(h, 8, input.data()));
  static_cast<void>(Tcsip_PcrRead_Internal(h, 1, &digest));
  static_cast<void>(Tcsip_Extend_Internal(h, 1, digest, &digest));
  static_cast<void>(Tcsip_PcrReset_Internal(h, 5, input.data()));
  static_cast<void>(
      Tcsip_GetCapability_Internal(h, TPM_CAP_PROPERTY, 4, input.data(), &size, &out));
  static_cast<void>(Tcsip_SelfTestFull_Internal(h));
  static_cast<void>(Tcsip_ContinueSelfTest_Internal(h));
  static_cast<void>(Tcsip_GetTestResult_Internal(h, &size, &out));
  static_cast<void>(Tcsip_ReadPubek_Internal(h, nonce, &size, &out, &digest));
  static_cast<void>(Tcsip_TPM_ReadCurrentTicks_Internal(h, &size, &out));
  static_cast<void>(Tcsip_ReadCounter_Internal(h, 1, &counter));
  static_cast<void>(Tcsip_DirRead_Internal(h, 0, &digest));
  static_cast<void>(Tcsip_PhysicalPresence_Internal(h, 0x20));
  static_cast<void>(Tcsip_PhysicalEnable_Internal(h));
  static_cast<void>(Tcsip_PhysicalDisable_Internal(h));
  static_cast<void>(Tcsip_PhysicalSetDeactivated_Internal(h, 1));
  static_cast<void>(Tcsip_SetTempDeactivated_Internal(h));
  static_cast<void>(
      Tcsip_CreateEndorsementKeyPair_Internal(h, nonce, 24, input.data(), &size, &out, &digest));
  static_cast<void>(Tcsip_ForceClear_Internal(h));
  static_cast<void>(Tcsip_DisableForceClear_Internal(h));
  static_cast<void>(Tcsip_SetOwnerInstall_Internal(h, 1));
  static_cast<void>(Tcsip_VendorCommand1_Internal(h, 1, 4, input.data()));
  static_cast<void>(Tcsip_VendorCommand2_Internal(h, 2, 4, input.data(), &auth));
  static_cast<void>(Tcsip_VendorCommand3_Internal(h, 3, 4, input.data(), &size, &out));
  static_cast<void>(vendor_seq_open(h, 1, 0, nullptr, &auth));
  static_cast<void>(vendor_seq_continue(h, 1, 0, nullptr));
  static_cast<void>(vendor_seq_end(h, 1, 0, nullptr));
  static_cast<void>(EvictTpmKey(0x01000000));
  TSS_BOOL more = 0;
  UINT32* ordinals = nullptr;
  UINT32 ordinalCount = 0;
  static_cast<void>(
      Tcsip_GetAuditDigest_Internal(h, 0, &digest, &size, &out, &more, &ordinalCount, &ordinals));
  static_cast<void>(audit_reportDigest());
}

// A session of `h` as the TPM opened it (handle 0, which no command gets past the session check,
// when the answer was no session).
TPM_AUTH OpenSession(TCS_CONTEXT_HANDLE h) {
  TPM_AUTH auth{};
  if (Tcsip_OIAP_Internal(h, &auth.AuthHandle, &auth.NonceEven) != TSS_SUCCESS) auth.AuthHandle = 0;
  auth.fContinueAuthSession = 1;
  return auth;
}

void RunSessionCommands(TCS_CONTEXT_HANDLE h) {
  std::array<BYTE, 300> input{};
  TPM_NONCE nonce{};
  TCS_AUTHHANDLE handle = 0;
  UINT32 size = 0;
  BYTE* out = nullptr;
  TPM_VERSION version{};
  UINT32 flags[2] = {};
  static_cast<void>(Tcsip_OSAP_Internal(h, 2, 0, nonce, &handle, &nonce, &nonce));
  static_cast<void>(Tcsip_DSAP_Internal(h, 7, 0, nonce, 20, input.data(), &handle, &nonce, &nonce));
  static_cast<void>(Tcsip_TerminateHandle_Internal(h, handle));
  TPM_AUTH auth = OpenSession(h);
  static_cast<void>(Tcsip_GetCapabilityOwner_Internal(h, &auth, &version, &flags[0], &flags[1]));
  static_cast<void>(Tcsip_OwnerReadPubek_Internal(h, &auth, &size, &out));
  // 35 zero bytes are the smallest well-formed TPM_KEY.
  static_cast<void>(Tcsip_TakeOwnership_Internal(h, 5, 20, input.data(), 20, input.data(), 35,
                                                 input.data(), &auth, &size, &out));
  static_cast<void>(Tcsip_SetCapability_Internal(h, 1, 4, input.data(), 1, input.data(), &auth));
  static_cast<void>(Tcsip_DirWriteAuth_Internal(h, 0, TPM_DIRVALUE{}, &auth));
  static_cast<void>(Tcsip_SetTempDeactivated2_Internal(h, &auth));
  static_cast<void>(Tcsip_SetOrdinalAuditStatus_Internal(h, &auth, 0x46, 1));
  static_cast<void>(Tcsip_OwnerClear_Internal(h, &auth));
  TPM_AUTH second = OpenSession(h);
  static_cast<void>(Tcsip_VendorCommand2_Internal(h, 2, 4, input.data(), &second));
}

// Delegation, DAA, migration and certified migration, naming the SRK where a key is needed; the
// structures are the smallest well-formed ones (zeros: a TPM_PUBKEY is 16 bytes, a
// TPM_MIGRATIONKEYAUTH 38, a TPM_DELEGATE_PUBLIC 48, a TPM_KEY 35).
void RunMigrationFamilyCommands(TCS_CONTEXT_HANDLE h) {
  constexpr TCS_KEY_HANDLE kSrk = 0x40000000;
  std::array<BYTE, 300> input{};
  BYTE* in = input.data();
  UINT32 size = 0;
  BYTE* out = nullptr;
  UINT32 size2 = 0;
  BYTE* out2 = nullptr;
  TPM_DIGEST digest{};
  const TPM_ENCAUTH encAuth{};
  const TPM_CMK_AUTH ticket{};
  TPM_AUTH auth = OpenSession(h);
  TPM_AUTH second = OpenSession(h);
  static_cast<void>(Tcsip_Delegate_Manage_Internal(h, 1, 1, 4, in, &auth, &size, &out));
  static_cast<void>(
      Tcsip_Delegate_CreateKeyDelegation_Internal(h, kSrk, 48, in, encAuth, &auth, &size, &out));
  static_cast<void>(
      Tcsip_Delegate_CreateOwnerDelegation_Internal(h, 1, 48, in, encAuth, &auth, &size, &out));
  static_cast<void>(Tcsip_Delegate_LoadOwnerDelegation_Internal(h, 0, 8, in, &auth));
  static_cast<void>(Tcsip_Delegate_UpdateVerificationCount_Internal(h, 4, in, &auth, &size, &out));
  static_cast<void>(Tcsip_Delegate_VerifyDelegation_Internal(h, 8, in));
  static_cast<void>(Tcsip_Delegate_ReadTable_Internal(h, &size, &out, &size2, &out2));
  static_cast<void>(Tcsip_TPM_DAA_Join_Internal(h, 0, 0, 4, in, 4, in, &auth, &size, &out));
  static_cast<void>(Tcsip_TPM_DAA_Sign_Internal(h, 0, 0, 4, in, 4, in, &auth, &size, &out));
  static_cast<void>(Tcsip_CreateMigrationBlob_Internal(h, kSrk, 1, 38, in, 8, in, &auth, &second,
                                                       &size, &out, &size2, &out2));
  static_cast<void>(Tcsip_ConvertMigrationBlob_Internal(h, kSrk, 8, in, 8, in, &auth, &size, &out));
  static_cast<void>(Tcsip_AuthorizeMigrationKey_Internal(h, 1, 16, in, &auth, &size, &out));
  static_cast<void>(Tcsip_MigrateKey_Internal(h, kSrk, 16, in, 8, in, &auth, &size, &out));
  static_cast<void>(Tcsip_CMK_SetRestrictions_Internal(h, 1, &auth));
  static_cast<void>(Tcsip_CMK_ApproveMA_Internal(h, digest, &auth, &digest));
  std::array<BYTE, 35> keyTemplate{};
  BYTE* keyData = keyTemplate.data();
  UINT32 keySize = keyTemplate.size();
  static_cast<void>(
      Tcsip_CMK_CreateKey_Internal(h, kSrk, encAuth, digest, digest, &keySize, &keyData, &auth));
  static_cast<void>(Tcsip_CMK_CreateTicket_Internal(h, 16, in, digest, 8, in, &auth, &digest));
  static_cast<void>(Tcsip_CMK_CreateBlob_Internal(h, kSrk, 4, 38, in, digest, 24, in, 0, nullptr, 0,
                                                  nullptr, 8, in, &auth, &size, &out, &size2,
                                                  &out2));
  static_cast<void>(Tcsip_CMK_ConvertMigration_Internal(h, kSrk, ticket, digest, 35, in, 24, in, 8,
                                                        in, &auth, &size, &out));
}

}  // namespace
}  // namespace kesttcs

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kesttcs;
  testing::TestCore core(testing::CoreOptions().Fuzz(std::span<const BYTE>(data, size)));
  if (core.Start() != TSS_SUCCESS) return 0;
  TCS_CONTEXT_HANDLE hContext = 0;
  if (Tcsi_OpenContext_Internal(&hContext) == TSS_SUCCESS) {
    RunEveryCommand(hContext);
    RunSessionCommands(hContext);
    RunMigrationFamilyCommands(hContext);
  }
  return 0;
}
