// The TCS command layer against a TPM that answers anything once the core is up (start-up itself
// is answered as a plain TPM 1.2 would; fuzz_req_mgr feeds the start-up sequence): every keyless
// operation, the session openers and the commands that carry sessions (their response trailers
// and the session table's bookkeeping), the audit digest and its report, the vendor commands and
// sequence, NV storage, counters, maintenance, the revocable endorsement key, field upgrade
// and redirection, the data-protection and signing commands (with zero, one and two sessions),
// the transport sessions, the secret changes and the identities, delegation, DAA, migration and
// certified migration, key loading and creation, the metrics (every path the answers lead to), the
// vendor classifier and key eviction parse whatever comes back without crashing or reading past the
// response. The input's first byte picks the family of commands that runs; the rest are the
// answers.
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "commands/capability.h"
#include "commands/tcsip_attest.h"
#include "commands/tcsip_audit.h"
#include "commands/tcsip_change_auth.h"
#include "commands/tcsip_cmk.h"
#include "commands/tcsip_counters.h"
#include "commands/tcsip_daa.h"
#include "commands/tcsip_delegation.h"
#include "commands/tcsip_endorsement.h"
#include "commands/tcsip_identity.h"
#include "commands/tcsip_key_control.h"
#include "commands/tcsip_keyless.h"
#include "commands/tcsip_keys.h"
#include "commands/tcsip_maintenance.h"
#include "commands/tcsip_migration.h"
#include "commands/tcsip_nv.h"
#include "commands/tcsip_owner.h"
#include "commands/tcsip_seal.h"
#include "commands/tcsip_sessions.h"
#include "commands/tcsip_transport.h"
#include "commands/tcsip_vendor_features.h"
#include "commands/tpm_metrics.h"
#include "commands/vendor_commands.h"
#include "contexts/contexts.h"
#include "core_fixture.h"
#include "fuzz_home.h"
#include "keys/key_eviction.h"
#include "keys/key_loading.h"
#include "keys/mem_cache.h"
#include "storage/persistent_storage.h"
#include "storage/ps_format.h"

namespace kesttcs {
namespace {

// NV storage, counters, maintenance, the revocable endorsement key and field upgrade without
// sessions; their authorised forms run in RunSessionCommands.
void RunStorageAndMaintenanceCommands(TCS_CONTEXT_HANDLE h) {
  std::array<BYTE, 300> input{};
  UINT32 size = 16;
  BYTE* out = nullptr;
  TPM_DIGEST digest{};
  TPM_NONCE nonce{};
  static_cast<void>(
      Tcsip_NV_DefineOrReleaseSpace_Internal(h, 47, input.data(), TPM_ENCAUTH{}, nullptr));
  static_cast<void>(Tcsip_NV_WriteValue_Internal(h, 0x1000, 0, 8, input.data(), nullptr));
  static_cast<void>(Tcsip_NV_ReadValue_Internal(h, 0x1000, 0, &size, nullptr, &out));
  static_cast<void>(Tcsip_LoadManuMaintPub_Internal(h, nonce, 28, input.data(), &digest));
  static_cast<void>(Tcsip_ReadManuMaintPub_Internal(h, nonce, &digest));
  static_cast<void>(Tcsip_CreateRevocableEndorsementKeyPair_Internal(
      h, nonce, 24, input.data(), 1, &digest, &size, &out, &digest));
  static_cast<void>(Tcsip_RevokeEndorsementKeyPair_Internal(h, digest));
  static_cast<void>(Tcsip_FieldUpgrade_Internal(h, 4, input.data(), nullptr, &size, &out));
}

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
  TPM_COUNTER_VALUE counter{};
  TSS_COUNTER_ID id = 0;
  UINT32 archiveSize = 0;
  BYTE* archive = nullptr;
  static_cast<void>(
      Tcsip_NV_DefineOrReleaseSpace_Internal(h, 47, input.data(), TPM_ENCAUTH{}, &auth));
  static_cast<void>(Tcsip_NV_WriteValue_Internal(h, 0x1000, 0, 8, input.data(), &auth));
  static_cast<void>(Tcsip_NV_WriteValueAuth_Internal(h, 0x1000, 0, 8, input.data(), &auth));
  size = 16;
  static_cast<void>(Tcsip_NV_ReadValue_Internal(h, 0x1000, 0, &size, &auth, &out));
  size = 16;
  static_cast<void>(Tcsip_NV_ReadValueAuth_Internal(h, 0x1000, 0, &size, &auth, &out));
  static_cast<void>(
      Tcsip_CreateCounter_Internal(h, 4, input.data(), TPM_ENCAUTH{}, &auth, &id, &counter));
  static_cast<void>(Tcsip_IncrementCounter_Internal(h, id, &auth, &counter));
  static_cast<void>(Tcsip_ReleaseCounter_Internal(h, id, &auth));
  static_cast<void>(Tcsip_ReleaseCounterOwner_Internal(h, id, &auth));
  static_cast<void>(
      Tcsip_CreateMaintenanceArchive_Internal(h, 1, &auth, &size, &out, &archiveSize, &archive));
  static_cast<void>(Tcsip_LoadMaintenanceArchive_Internal(h, 8, input.data(), &auth, &size, &out));
  static_cast<void>(Tcsip_KillMaintenanceFeature_Internal(h, &auth));
  static_cast<void>(Tcsip_FieldUpgrade_Internal(h, 4, input.data(), &auth, &size, &out));
  static_cast<void>(Tcsip_SetRedirection_Internal(h, kSrkKeyHandle, 1, 4, input.data(), &auth));
  TPM_AUTH second = OpenSession(h);
  static_cast<void>(Tcsip_VendorCommand2_Internal(h, 2, 4, input.data(), &second));

  // Owner-held keys: 16 zero bytes are the smallest well-formed TPM_PUBKEY.
  TPM_AUTH owner = OpenSession(h);
  TSS_UUID uuid{};
  static_cast<void>(Tcsip_KeyControlOwner_Internal(h, 0x40000000, 16, input.data(),
                                                   TPM_KEY_CONTROL_OWNER_EVICT, 1, &owner, &uuid));
}

// The data-protection and signing commands on the SRK, cached as resident so that no load comes
// first: without sessions, then with one and two.
void RunKeyedCommands(TCS_CONTEXT_HANDLE h) {
  static_cast<void>(
      add_mem_cache_entry(kSrkKeyHandle, kSrkKeyHandle, TPM_KEY{}, kSrkUuid, kNoTcsKeyHandle));
  const TCS_KEY_HANDLE k = kSrkKeyHandle;
  const std::array<BYTE, 12> stored{};  // an empty TPM_STORED_DATA
  const std::array<BYTE, 5> selection = {0, 3, 1, 0, 0};
  std::array<BYTE, 64> input{};
  const TPM_NONCE nonce{};
  const TPM_DIGEST digest{};
  UINT32 a = 0, b = 0, c = 0;
  BYTE *pa = nullptr, *pb = nullptr, *pc = nullptr;
  TPM_VERSION version{};
  TPM_AUTH first{};
  TPM_AUTH second{};
  for (int sessions = 0; sessions < 3; ++sessions) {
    if (sessions > 0) first = OpenSession(h);
    if (sessions > 1) second = OpenSession(h);
    TPM_AUTH* one = sessions > 0 ? &first : nullptr;
    TPM_AUTH* two = sessions > 1 ? &second : nullptr;
    static_cast<void>(
        Tcsip_Seal_Internal(h, k, TPM_ENCAUTH{}, 0, nullptr, 8, input.data(), one, &a, &pa));
    static_cast<void>(
        Tcsip_Sealx_Internal(h, k, TPM_ENCAUTH{}, 0, nullptr, 8, input.data(), one, &a, &pa));
    static_cast<void>(
        Tcsip_UnSeal_Internal(h, k, UINT32(stored.size()), stored.data(), one, two, &a, &pa));
    static_cast<void>(Tcsip_Unbind_Internal(h, k, 8, input.data(), one, &a, &pa));
    static_cast<void>(Tcsip_Sign_Internal(h, k, 20, input.data(), one, &a, &pa));
    static_cast<void>(Tcsip_Quote_Internal(h, k, nonce, UINT32(selection.size()), selection.data(),
                                           one, &a, &pa, &b, &pb));
    static_cast<void>(Tcsip_Quote2_Internal(h, k, nonce, UINT32(selection.size()), selection.data(),
                                            1, one, &a, &pa, &b, &pb, &c, &pc));
    static_cast<void>(Tcsip_CertifyKey_Internal(h, k, k, nonce, one, two, &a, &pa, &b, &pb));
    static_cast<void>(
        Tcsip_CertifyKey2_Internal(h, k, k, digest, nonce, one, two, &a, &pa, &b, &pb));
    static_cast<void>(Tcsip_GetCapabilitySigned_Internal(h, k, nonce, 5, 4, input.data(), one,
                                                         &version, &a, &pa, &b, &pb));
    static_cast<void>(Tcsip_CertifySelfTest_Internal(h, k, nonce, one, &a, &pa));
    static_cast<void>(Tcsip_TickStampBlob_Internal(h, k, nonce, digest, one, &a, &pa, &b, &pb));
  }
}

// Key loading (35 zero bytes are the smallest well-formed TPM_KEY), key creation and use under the
// cached SRK, and the owner's commands without parameters of their own.
void RunKeyAndOwnerCommands(TCS_CONTEXT_HANDLE h) {
  std::array<BYTE, 300> input{};
  const TCS_KEY_HANDLE k = kSrkKeyHandle;
  const TPM_NONCE nonce{};
  TPM_DIGEST digest{};
  UINT32 a = 0, b = 0;
  BYTE *pa = nullptr, *pb = nullptr;
  TCS_KEY_HANDLE loaded = 0;
  TCS_KEY_HANDLE hmacKey = 0;
  TPM_AUTH auth = OpenSession(h);
  static_cast<void>(Tcsip_LoadKeyByBlob_Internal(h, k, 35, input.data(), &auth, &loaded, &hmacKey));
  static_cast<void>(Tcsip_LoadKey2ByBlob_Internal(h, k, 35, input.data(), nullptr, &loaded));
  static_cast<void>(Tcsip_LoadKeyByUUID_Internal(h, kSrkUuid, nullptr, &loaded));
  static_cast<void>(Tcsip_LoadKeyByUUID_Internal(h, TSS_UUID{1, 0, 0, 0, 0, {}}, nullptr, &loaded));
  auth = OpenSession(h);
  static_cast<void>(Tcsip_CreateWrapKey_Internal(h, k, TPM_ENCAUTH{}, TPM_ENCAUTH{}, 35,
                                                 input.data(), &auth, &a, &pa));
  static_cast<void>(Tcsip_GetPubKey_Internal(h, k, nullptr, &a, &pa));
  auth = OpenSession(h);
  static_cast<void>(Tcsip_GetAuditDigestSigned_Internal(h, k, 1, nonce, &auth, &a, &pa, &digest,
                                                        &digest, &b, &pb));
  auth = OpenSession(h);
  static_cast<void>(Tcsip_ChangeAuthOwner_Internal(h, 0x0001, TPM_ENCAUTH{}, 0x0002, &auth));
  auth = OpenSession(h);
  static_cast<void>(Tcsip_OwnerSetDisable_Internal(h, 1, &auth));
  auth = OpenSession(h);
  static_cast<void>(Tcsip_DisableOwnerClear_Internal(h, &auth));
  auth = OpenSession(h);
  static_cast<void>(Tcsip_DisablePubekRead_Internal(h, &auth));
  auth = OpenSession(h);
  static_cast<void>(Tcsip_ResetLockValue_Internal(h, &auth));
  static_cast<void>(Tcsip_SetOperatorAuth_Internal(h, TPM_SECRET{}));
}

// Transport sessions (the one the TPM's answer established, with a wrapped command that names the
// SRK and carries a session), secret changes and identities.
void RunTransportAndIdentityCommands(TCS_CONTEXT_HANDLE h) {
  std::array<BYTE, 300> input{};
  // TPM_TRANSPORT_PUBLIC: tag, attributes (log, exclusive), algorithm, scheme.
  const std::array<BYTE, 12> transPublic = {0, 0x0E, 0, 0, 0, 6, 0, 0, 0, 0, 0, 0};
  TPM_NONCE nonce{};
  TPM_DIGEST digest{};
  UINT32 size = 0;
  BYTE* out = nullptr;
  UINT32 ticksSize = 0;
  BYTE* ticks = nullptr;
  TPM_MODIFIER_INDICATOR locality = 0;
  TCS_HANDLE transHandle = 0;
  TPM_AUTH transAuth{};
  static_cast<void>(Tcsip_EstablishTransport_Internal(
      h, 1, TPM_KH_TRANSPORT, UINT32(transPublic.size()), transPublic.data(), 20, input.data(),
      nullptr, &locality, &transHandle, &ticksSize, &ticks, &nonce));
  transAuth.AuthHandle = transHandle;
  transAuth.fContinueAuthSession = 1;
  TPM_AUTH wrappedAuth = OpenSession(h);
  std::array<TCS_HANDLE, 2> handles = {0x40000000, 0x40000001};
  TCS_HANDLE* handleList = handles.data();
  UINT32 handleCount = UINT32(handles.size());
  UINT64 currentTicks = 0;
  TPM_RESULT wrappedCode = 0;
  static_cast<void>(Tcsip_ExecuteTransport_Internal(
      h, 0x46, 4, input.data(), &handleCount, &handleList, &wrappedAuth, nullptr, &transAuth,
      &currentTicks, &locality, &wrappedCode, &size, &out));
  static_cast<void>(Tcsip_ReleaseTransportSigned_Internal(
      h, 0x40000000, nonce, nullptr, &transAuth, &locality, &ticksSize, &ticks, &size, &out));
  TPM_AUTH first = OpenSession(h);
  TPM_AUTH second = OpenSession(h);
  static_cast<void>(Tcsip_ChangeAuth_Internal(h, 0x40000000, 4, TPM_ENCAUTH{}, 5, 20, input.data(),
                                              &first, &second, &size, &out));
  // 12 zero bytes are the smallest well-formed TPM_KEY_PARMS.
  TCS_KEY_HANDLE ephemeral = 0;
  UINT32 certifySize = 0;
  BYTE* certify = nullptr;
  UINT32 sigSize = 0;
  BYTE* sig = nullptr;
  static_cast<void>(Tcsip_ChangeAuthAsymStart_Internal(h, 0x40000000, nonce, 12, input.data(),
                                                       nullptr, &size, &out, &certifySize, &certify,
                                                       &sigSize, &sig, &ephemeral));
  static_cast<void>(Tcsip_ChangeAuthAsymFinish_Internal(h, 0x40000000, ephemeral, 5, digest, 20,
                                                        input.data(), 20, input.data(), nullptr,
                                                        &size, &out, &nonce, &digest));
  TPM_AUTH owner = OpenSession(h);
  std::array<UINT32, 5> sizes{};
  std::array<BYTE*, 5> outs{};
  static_cast<void>(Tcsip_MakeIdentity_Internal(
      h, TPM_ENCAUTH{}, digest, 35, input.data(), nullptr, &owner, &sizes[0], &outs[0], &sizes[1],
      &outs[1], &sizes[2], &outs[2], &sizes[3], &outs[3], &sizes[4], &outs[4]));
  owner = OpenSession(h);
  static_cast<void>(Tcsip_ActivateTPMIdentity_Internal(h, 0x40000000, 20, input.data(), nullptr,
                                                       &owner, &size, &out));
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
  // The first byte picks the family, so that every family's answers come from the start of the
  // input and no input pays for the families it does not reach.
  using Family = void (*)(TCS_CONTEXT_HANDLE);
  static constexpr std::array<Family, 7> kFamilies = {
      RunEveryCommand,        RunStorageAndMaintenanceCommands, RunSessionCommands,
      RunKeyedCommands,       RunTransportAndIdentityCommands,  RunMigrationFamilyCommands,
      RunKeyAndOwnerCommands,
  };
  if (size == 0) return 0;
  const Family family = kFamilies[data[0] % kFamilies.size()];
  static testing::FuzzHome home;
  testing::TestCore core(
      testing::CoreOptions().Home(home.Emptied()).Fuzz(std::span<const BYTE>(data + 1, size - 1)));
  if (core.Start() != TSS_SUCCESS) return 0;
  TCS_CONTEXT_HANDLE hContext = 0;
  if (Tcsi_OpenContext_Internal(&hContext) == TSS_SUCCESS) family(hContext);
  return 0;
}
