#include "rpc/internal_calls.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include <kesttcs/tcs_results.h>

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
#include "commands/vendor_commands.h"
#include "contexts/context_memory.h"
#include "contexts/contexts.h"
#include "keys/key_eviction.h"
#include "keys/key_loading.h"
#include "rpc/c_layout.h"
#include "rpc/name_of.h"
#include "rpc/operations.h"
#include "storage/event_log.h"
#include "storage/registered_keys.h"

namespace kesttcs {
namespace {

using rpc::Form;
using rpc::kOperations;

using rpc::CallFrame;
using rpc::CSize;

using InternalCall = TSS_RESULT (*)(CallFrame&);

template <typename T>
using Bare = std::remove_cvref_t<T>;

// Whether a C++ object of type T can stand for one element of the parameter: same size, or bytes
// viewing a byte array.
template <typename T>
constexpr bool FitsElement(const rpc::Param& p) {
  return sizeof(T) == CSize(p.kind);
}

void Release(TCS_CONTEXT_HANDLE hContext, const void* block) {
  if (block != nullptr) (void)ctx_ReleaseMemory(hContext, block);
}

// Releases an output block and the blocks behind the embedded pointers of its structures, newest
// first: internal functions allocate the array before its elements' data, and the context's memory
// finds the newest blocks fastest, so even an event log of 100 000 records goes back in linear
// time.
void ReleaseOutput(TCS_CONTEXT_HANDLE hContext, rpc::Kind kind, const void* block, size_t count) {
  if (kind == rpc::Kind::kPcrEvent) {
    const auto* events = static_cast<const TSS_PCR_EVENT*>(block);
    for (size_t i = count; i-- > 0;) {
      Release(hContext, events[i].rgbEvent);
      Release(hContext, events[i].rgbPcrValue);
    }
  } else if (kind == rpc::Kind::kKeyInfo) {
    const auto* infos = static_cast<const TSS_KM_KEYINFO*>(block);
    for (size_t i = count; i-- > 0;) Release(hContext, infos[i].rgbVendorData);
  }
  Release(hContext, block);
}

// One argument of operation `Op` while its internal function runs: holds the C form of the frame's
// value, hands it over as the function's parameter type A, and afterwards turns outputs back into
// frame values. Output blocks the function allocated in the context's memory are released once
// copied into the frame: the response carries its own copy.
template <uint16_t Op, size_t I, typename A>
class Holder {
  static constexpr rpc::Param p = kOperations[Op].params[I];

 public:
  Holder(CallFrame& frame) : frame_(frame) {  // NOLINT: built in place inside a tuple
    const rpc::Arg& arg = frame.arg(I);
    if constexpr (p.form == Form::kValue || p.form == Form::kRef || p.form == Form::kUnique) {
      if (p.is_input() && arg.present) rpc::SingleToC(p.kind, arg.value, buf_);
    } else if constexpr (p.form == Form::kArray) {
      c_ = rpc::ArrayToC(p.kind, arg.value);
    } else if constexpr (p.form == Form::kArrayPtr) {
      if (p.is_input() && arg.present) {
        c_ = rpc::ArrayToC(p.kind, arg.value);
        out_ = c_.data();
      }
    }
  }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;

  A get() {
    if constexpr (p.form == Form::kValue) {
      if constexpr (std::is_reference_v<A>) {
        static_assert(FitsElement<Bare<A>>(p), "by-reference argument of the wrong size");
        return *reinterpret_cast<Bare<A>*>(buf_);
      } else {
        static_assert(std::is_trivially_copyable_v<A> && FitsElement<A>(p),
                      "by-value argument of the wrong type");
        A v;
        std::memcpy(&v, buf_, sizeof(A));
        return v;
      }
    } else if constexpr (p.form == Form::kRef || p.form == Form::kUnique) {
      static_assert(std::is_pointer_v<A> && FitsElement<Bare<std::remove_pointer_t<A>>>(p),
                    "pointer argument of the wrong type");
      if (p.form == Form::kUnique && !frame_.arg(I).present) return nullptr;
      return reinterpret_cast<A>(buf_);
    } else if constexpr (p.form == Form::kArray) {
      static_assert(std::is_pointer_v<A> && FitsElement<Bare<std::remove_pointer_t<A>>>(p),
                    "array argument of the wrong type");
      // An empty array still gets a valid pointer, as a ref pointer of size 0 does.
      return reinterpret_cast<A>(c_.empty() ? buf_ : c_.data());
    } else {
      using Pointee = std::remove_pointer_t<A>;
      static_assert(std::is_pointer_v<A> && std::is_pointer_v<Pointee> &&
                        FitsElement<Bare<std::remove_pointer_t<Pointee>>>(p),
                    "output pointer argument of the wrong type");
      if (p.form == Form::kOptPtr && !frame_.arg(I).requested) return nullptr;
      return reinterpret_cast<A>(&out_);
    }
  }

  void Finish(TCS_CONTEXT_HANDLE hContext) {
    if constexpr (p.is_output()) {
      rpc::Arg& arg = frame_.arg(I);
      if constexpr (p.form == Form::kRef || p.form == Form::kUnique) {
        if (arg.present) arg.value = rpc::SingleFromC(p.kind, buf_);
      } else if constexpr (p.form == Form::kPtr || p.form == Form::kOptPtr) {
        arg.present = false;
        if (out_ != nullptr) {
          frame_.SetOutput(I, rpc::SingleFromC(p.kind, out_));
          ReleaseOutput(hContext, p.kind, out_, 1);
        }
      } else if constexpr (p.form == Form::kArrayPtr) {
        const std::optional<size_t> size = rpc::SizeParamIndex(kOperations[Op], I);
        size_t count = size ? frame_.u32(*size) : 0;
        if (out_ == nullptr) {
          arg.present = false;
        } else if (!c_.empty() && out_ == c_.data()) {
          count = std::min(count, c_.size() / CSize(p.kind));
          frame_.SetOutput(I, rpc::ArrayFromC(p.kind, out_, count));
        } else {
          frame_.SetOutput(I, rpc::ArrayFromC(p.kind, out_, count));
          ReleaseOutput(hContext, p.kind, out_, count);
        }
      }
    }
  }

 private:
  CallFrame& frame_;
  alignas(8) uint8_t buf_[rpc::kMaxCSize]{};
  std::vector<uint8_t> c_;
  void* out_ = nullptr;
};

template <size_t>
CallFrame& Same(CallFrame& frame) {
  return frame;
}

template <uint16_t Op, typename... A, size_t... I>
TSS_RESULT Apply(TSS_RESULT (*fn)(A...), CallFrame& frame, std::index_sequence<I...>) {
  std::tuple<Holder<Op, I, A>...> holders(Same<I>(frame)...);
  const TSS_RESULT result = fn(std::get<I>(holders).get()...);
  const TCS_CONTEXT_HANDLE hContext =
      kOperations[Op].params[0].is_input() ? frame.u32(0) : TCS_CONTEXT_HANDLE{0};
  (std::get<I>(holders).Finish(hContext), ...);
  return result;
}

template <uint16_t Op, auto Fn>
TSS_RESULT Invoke(CallFrame& frame) {
  return []<typename... A>(TSS_RESULT (*fn)(A...), CallFrame& f) {
    static_assert(sizeof...(A) == kOperations[Op].params.size(),
                  "internal function and operation differ in their parameter count");
    return Apply<Op>(fn, f, std::index_sequence_for<A...>{});
  }(Fn, frame);
}

struct Binding {
  uint16_t opnum;
  InternalCall call;
};

// The operation an internal function belongs to: the one its name ("<operation>_Internal") names.
// A function named after no operation does not compile.
template <auto Fn>
consteval uint16_t OpnumOfInternal() {
  constexpr std::string_view kSuffix = "_Internal";
  constexpr std::string_view name = rpc::NameOf<Fn>();
  static_assert(name.ends_with(kSuffix), "an internal function's name ends in _Internal");
  return rpc::OpnumOf(name.substr(0, name.size() - kSuffix.size()));
}

template <auto Fn>
constexpr Binding Bind() {
  constexpr uint16_t kOpnum = OpnumOfInternal<Fn>();
  return Binding{kOpnum, &Invoke<kOpnum, Fn>};
}

// Every internal function the service has, in opnum order (a second binding of an operation does
// not compile).
constexpr Binding kBindings[] = {
    Bind<&Tcsip_VendorCommand3_Internal>(),
    Bind<&Tcsip_VendorCommand2_Internal>(),
    Bind<&Tcsip_VendorCommand1_Internal>(),
    Bind<&Tcsi_OpenContext_Internal>(),
    Bind<&Tcsi_CloseContext_Internal>(),
    Bind<&Tcsi_FreeMemory_Internal>(),
    Bind<&Tcsi_GetCapability_Internal>(),
    Bind<&Tcsi_RegisterKey_Internal>(),
    Bind<&Tcsip_UnregisterKey_Internal>(),
    Bind<&Tcsip_KeyControlOwner_Internal>(),
    Bind<&Tcsi_EnumRegisteredKeys_Internal>(),
    Bind<&Tcsi_GetRegisteredKey_Internal>(),
    Bind<&Tcsi_GetRegisteredKeyBlob_Internal>(),
    Bind<&Tcsip_GetRegisteredKeyByPublicInfo_Internal>(),
    Bind<&Tcsip_LoadKeyByBlob_Internal>(),
    Bind<&Tcsip_LoadKey2ByBlob_Internal>(),
    Bind<&Tcsip_LoadKeyByUUID_Internal>(),
    Bind<static_cast<TSS_RESULT (*)(TCS_CONTEXT_HANDLE, TCS_KEY_HANDLE)>(
        &Tcsip_EvictKey_Internal)>(),
    Bind<&Tcsip_CreateWrapKey_Internal>(),
    Bind<&Tcsip_GetPubKey_Internal>(),
    Bind<&Tcsi_LogPcrEvent_Internal>(),
    Bind<&Tcsi_GetPcrEvent_Internal>(),
    Bind<&Tcsi_GetPcrEventsByPcr_Internal>(),
    Bind<&Tcsi_GetPcrEventLog_Internal>(),
    Bind<&Tcsip_SetOwnerInstall_Internal>(),
    Bind<&Tcsip_TakeOwnership_Internal>(),
    Bind<&Tcsip_OIAP_Internal>(),
    Bind<&Tcsip_OSAP_Internal>(),
    Bind<&Tcsip_DSAP_Internal>(),
    Bind<&Tcsip_ChangeAuthOwner_Internal>(),
    Bind<&Tcsip_TerminateHandle_Internal>(),
    Bind<&Tcsip_Extend_Internal>(),
    Bind<&Tcsip_PcrRead_Internal>(),
    Bind<&Tcsip_DirWriteAuth_Internal>(),
    Bind<&Tcsip_DirRead_Internal>(),
    Bind<&Tcsip_SetOperatorAuth_Internal>(),
    Bind<&Tcsip_GetRandom_Internal>(),
    Bind<&Tcsip_StirRandom_Internal>(),
    Bind<&Tcsip_GetCapability_Internal>(),
    Bind<&Tcsip_GetCapabilityOwner_Internal>(),
    Bind<&Tcsip_CreateEndorsementKeyPair_Internal>(),
    Bind<&Tcsip_ReadPubek_Internal>(),
    Bind<&Tcsip_DisablePubekRead_Internal>(),
    Bind<&Tcsip_OwnerReadPubek_Internal>(),
    Bind<&Tcsip_SelfTestFull_Internal>(),
    Bind<&Tcsip_ContinueSelfTest_Internal>(),
    Bind<&Tcsip_GetTestResult_Internal>(),
    Bind<&Tcsip_OwnerSetDisable_Internal>(),
    Bind<&Tcsip_OwnerClear_Internal>(),
    Bind<&Tcsip_DisableOwnerClear_Internal>(),
    Bind<&Tcsip_ForceClear_Internal>(),
    Bind<&Tcsip_DisableForceClear_Internal>(),
    Bind<&Tcsip_PhysicalDisable_Internal>(),
    Bind<&Tcsip_PhysicalEnable_Internal>(),
    Bind<&Tcsip_PhysicalSetDeactivated_Internal>(),
    Bind<&Tcsip_SetTempDeactivated_Internal>(),
    Bind<&Tcsip_SetTempDeactivated2_Internal>(),
    Bind<&Tcsip_PhysicalPresence_Internal>(),
    Bind<&Tcsip_PcrReset_Internal>(),
    Bind<&Tcsip_ReadCounter_Internal>(),
    Bind<&Tcsip_TPM_ReadCurrentTicks_Internal>(),
    Bind<&Tcsip_SetCapability_Internal>(),
    Bind<&Tcsip_GetAuditDigest_Internal>(),
    Bind<&Tcsip_GetAuditDigestSigned_Internal>(),
    Bind<&Tcsip_SetOrdinalAuditStatus_Internal>(),
    Bind<&Tcsip_ResetLockValue_Internal>(),
    // NV storage, counters, maintenance, the revocable endorsement key, field upgrade, redirection.
    Bind<&Tcsip_FieldUpgrade_Internal>(),
    Bind<&Tcsip_SetRedirection_Internal>(),
    Bind<&Tcsip_NV_DefineOrReleaseSpace_Internal>(),
    Bind<&Tcsip_NV_WriteValue_Internal>(),
    Bind<&Tcsip_NV_WriteValueAuth_Internal>(),
    Bind<&Tcsip_NV_ReadValue_Internal>(),
    Bind<&Tcsip_NV_ReadValueAuth_Internal>(),
    Bind<&Tcsip_CreateMaintenanceArchive_Internal>(),
    Bind<&Tcsip_LoadMaintenanceArchive_Internal>(),
    Bind<&Tcsip_KillMaintenanceFeature_Internal>(),
    Bind<&Tcsip_LoadManuMaintPub_Internal>(),
    Bind<&Tcsip_ReadManuMaintPub_Internal>(),
    Bind<&Tcsip_CreateRevocableEndorsementKeyPair_Internal>(),
    Bind<&Tcsip_RevokeEndorsementKeyPair_Internal>(),
    Bind<&Tcsip_CreateCounter_Internal>(),
    Bind<&Tcsip_IncrementCounter_Internal>(),
    Bind<&Tcsip_ReleaseCounter_Internal>(),
    Bind<&Tcsip_ReleaseCounterOwner_Internal>(),
    // Data protection, signing and attestation.
    Bind<&Tcsip_Seal_Internal>(),
    Bind<&Tcsip_Sealx_Internal>(),
    Bind<&Tcsip_UnSeal_Internal>(),
    Bind<&Tcsip_Unbind_Internal>(),
    Bind<&Tcsip_Sign_Internal>(),
    Bind<&Tcsip_Quote_Internal>(),
    Bind<&Tcsip_Quote2_Internal>(),
    Bind<&Tcsip_CertifyKey_Internal>(),
    Bind<&Tcsip_CertifyKey2_Internal>(),
    Bind<&Tcsip_GetCapabilitySigned_Internal>(),
    Bind<&Tcsip_CertifySelfTest_Internal>(),
    Bind<&Tcsip_TickStampBlob_Internal>(),
    // Transport sessions, secret changes and identities.
    Bind<&Tcsip_MakeIdentity_Internal>(),
    Bind<&Tcsip_ChangeAuth_Internal>(),
    Bind<&Tcsip_ChangeAuthAsymStart_Internal>(),
    Bind<&Tcsip_ChangeAuthAsymFinish_Internal>(),
    Bind<&Tcsip_ActivateTPMIdentity_Internal>(),
    Bind<&Tcsip_EstablishTransport_Internal>(),
    Bind<&Tcsip_ExecuteTransport_Internal>(),
    Bind<&Tcsip_ReleaseTransportSigned_Internal>(),
    // Delegation, DAA, migration and certified migration.
    Bind<&Tcsip_CreateMigrationBlob_Internal>(),
    Bind<&Tcsip_ConvertMigrationBlob_Internal>(),
    Bind<&Tcsip_AuthorizeMigrationKey_Internal>(),
    Bind<&Tcsip_Delegate_Manage_Internal>(),
    Bind<&Tcsip_Delegate_CreateKeyDelegation_Internal>(),
    Bind<&Tcsip_Delegate_CreateOwnerDelegation_Internal>(),
    Bind<&Tcsip_Delegate_LoadOwnerDelegation_Internal>(),
    Bind<&Tcsip_Delegate_UpdateVerificationCount_Internal>(),
    Bind<&Tcsip_Delegate_VerifyDelegation_Internal>(),
    Bind<&Tcsip_Delegate_ReadTable_Internal>(),
    Bind<&Tcsip_TPM_DAA_Join_Internal>(),
    Bind<&Tcsip_TPM_DAA_Sign_Internal>(),
    Bind<&Tcsip_MigrateKey_Internal>(),
    Bind<&Tcsip_CMK_SetRestrictions_Internal>(),
    Bind<&Tcsip_CMK_ApproveMA_Internal>(),
    Bind<&Tcsip_CMK_CreateKey_Internal>(),
    Bind<&Tcsip_CMK_CreateTicket_Internal>(),
    Bind<&Tcsip_CMK_CreateBlob_Internal>(),
    Bind<&Tcsip_CMK_ConvertMigration_Internal>(),
};

constexpr std::array<InternalCall, rpc::kOperationCount> MakeTable() {
  std::array<InternalCall, rpc::kOperationCount> table{};
  for (const Binding& b : kBindings) table[b.opnum] = b.call;
  return table;
}

constexpr bool EachOpnumBoundOnce() {
  for (size_t i = 0; i < std::size(kBindings); ++i) {
    if (kBindings[i].opnum >= rpc::kOperationCount) return false;
    for (size_t j = 0; j < i; ++j) {
      if (kBindings[j].opnum == kBindings[i].opnum) return false;
    }
  }
  return true;
}
static_assert(EachOpnumBoundOnce());

constexpr std::array<InternalCall, rpc::kOperationCount> kTable = MakeTable();

}  // namespace

bool HasInternalFunction(uint16_t opnum) {
  return opnum < kTable.size() && kTable[opnum] != nullptr;
}

TSS_RESULT CallInternalFunction(uint16_t opnum, rpc::CallFrame& frame) {
  if (!HasInternalFunction(opnum)) return TCS_E_NOTIMPL;
  return kTable[opnum](frame);
}

}  // namespace kesttcs
