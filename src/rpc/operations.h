// The 126 operations of the RPC interface as data, the one hand-written description of them: for
// each opnum the operation's name, the frame of its entry handler, the TPM ordinal it sends, its
// parameters (name, type, direction, how it is passed) and a note on why it is as it is. The
// server stubs, the handler frame, the internal-function bindings and the client proxies read this
// table when they are compiled; kesttcs_ifgen writes it out as src/rpc/kesttcs.idl, the
// declarations of <kesttcs/tcs_client.h>, the client proxies and docs/operations.md. The types
// the parameters name are declared in rpc/interface_types.h.
//
// How a parameter crosses the wire follows from its form and kind:
//   Form::kValue     [in] T name                                 a scalar or a structure by value
//   Form::kRef       [out] T* name / [in, out] T* name            never null
//   Form::kUnique    [in, unique] T* / [in, out, unique] T*       may be null (e.g. an optional
//                                                                authorisation record)
//   Form::kArray     [in, size_is(n)] T* name                     n elements; n is an earlier
//                                                                [in] UINT32 parameter
//   Form::kArrayPtr  [out] / [in, out], size_is(, *n)] T** name   *n elements behind a pointer
//                                                                that may come back null; n is
//                                                                an earlier UINT32* parameter
//   Form::kPtr       [out] T** name                              one element behind a pointer
//                                                                that may come back null
//   Form::kOptPtr    [in, out, unique] T** name                  as kPtr, but the caller may
//                                                                pass no pointer at all: then
//                                                                nothing comes back
// `size_is` names the size parameter of the two array forms; SizeParamIndex() turns it into an
// index. Kind says what one element is; the type name is one of rpc/interface_types.h.
#pragma once

#include <kesttcs/tcs_types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "commands/vendor_commands.h"
#include "rpc/interface_types.h"
#include "rpc/name_of.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs::rpc {

enum class Dir : uint8_t { kIn, kOut, kInOut };

enum class Form : uint8_t { kValue, kRef, kUnique, kArray, kArrayPtr, kPtr, kOptPtr };

// Where an entry handler holds the API serialisation lock.
enum class ApiLock : uint8_t {
  kNone,
  kAroundCall,        // around the internal call alone; the trace lines come outside it
  kAcrossTraceLines,  // from before the start line to after the result line, then the unlock line
};

// What an operation's entry handler does around the operation's internal function.
struct Frame {
  bool has_handler;  // false: the operation answers "not implemented" without reading its stub
  bool start_line;   // traces the start line before the call
  bool result_line;  // traces the result line (and the operation's extra line) after the call
  ApiLock lock;

  constexpr bool operator==(const Frame&) const = default;
};

// The frames operations use.
inline constexpr Frame kTraced{true, true, true, ApiLock::kNone};
inline constexpr Frame kTracedLocked{true, true, true, ApiLock::kAroundCall};
inline constexpr Frame kTracedInsideLock{true, true, true, ApiLock::kAcrossTraceLines};
inline constexpr Frame kResultTraced{true, false, true, ApiLock::kNone};
inline constexpr Frame kResultTracedLocked{true, false, true, ApiLock::kAroundCall};
inline constexpr Frame kSilentLocked{true, false, false, ApiLock::kAroundCall};
inline constexpr Frame kNoHandler{false, false, false, ApiLock::kNone};

// How an operation's trace lines differ from the standard ones (rpc/api_frame.cc writes them).
struct TraceStyle {
  // The start line has a second form, with the session handle of the authorisation record, used
  // when the record is present.
  bool session_form = false;
  std::string_view log_name{};  // the name the lines carry, when not the operation's own
};

// The TPM ordinal an operation sends, and the name of the constant that holds it.
struct Ordinal {
  TPM_COMMAND_CODE value = 0;  // 0: the operation sends no command of its own
  std::string_view name{};
};

inline constexpr Ordinal kNoOrdinal{};

// The ordinal held by the constant `kConstant` (of tpm12/tpm_ordinals.h or a vendor ordinal).
template <const TPM_COMMAND_CODE* kConstant>
consteval Ordinal Sends() {
  return Ordinal{*kConstant, NameOf<kConstant>()};
}

struct Param {
  std::string_view name;
  std::string_view type;  // a type of rpc/interface_types.h
  Kind kind;              // what one element is, derived from `type`
  Dir dir;
  Form form;
  std::string_view size_is;  // kArray and kArrayPtr: the size parameter's name; else empty

  constexpr bool is_input() const { return dir != Dir::kOut; }
  constexpr bool is_output() const { return dir != Dir::kIn; }
};

struct Operation {
  uint16_t opnum;
  std::string_view name;  // the operation, its handler, and with "_Internal" its function
  Frame frame;
  Ordinal tpm_ordinal;
  std::span<const Param> params;
  // Why the operation or its parameter list is as it is; written above its declaration in the
  // interface definition and in the list of operations.
  std::string_view note{};
  TraceStyle trace{};

  // Takes the API serialisation lock.
  constexpr bool locked() const { return frame.lock != ApiLock::kNone; }
  // The name its trace lines carry.
  constexpr std::string_view log_name() const {
    return trace.log_name.empty() ? name : trace.log_name;
  }
};

inline constexpr size_t kOperationCount = 126;

namespace detail {

// Deliberately not constexpr: reaching it while building the table stops the compilation.
void TypeIsNotAParameterTypeOfInterfaceTypes();

consteval Kind KindOf(std::string_view type) {
  const std::optional<Kind> kind = ParamKindOf(type);
  if (!kind) TypeIsNotAParameterTypeOfInterfaceTypes();
  return kind.value_or(Kind::kUint32);
}

consteval Param Make(Dir dir, Form form, std::string_view type, std::string_view name,
                     std::string_view size_is = {}) {
  return Param{name, type, KindOf(type), dir, form, size_is};
}
consteval Param In(std::string_view type, std::string_view name) {
  return Make(Dir::kIn, Form::kValue, type, name);
}
consteval Param Out(std::string_view type, std::string_view name) {
  return Make(Dir::kOut, Form::kRef, type, name);
}
consteval Param InOut(std::string_view type, std::string_view name) {
  return Make(Dir::kInOut, Form::kRef, type, name);
}
consteval Param OptIn(std::string_view type, std::string_view name) {
  return Make(Dir::kIn, Form::kUnique, type, name);
}
consteval Param OptInOut(std::string_view type, std::string_view name) {
  return Make(Dir::kInOut, Form::kUnique, type, name);
}
consteval Param OutPtr(std::string_view type, std::string_view name) {
  return Make(Dir::kOut, Form::kPtr, type, name);
}
consteval Param OptOutPtr(std::string_view type, std::string_view name) {
  return Make(Dir::kInOut, Form::kOptPtr, type, name);
}
consteval Param InArray(std::string_view type, std::string_view name, std::string_view size) {
  return Make(Dir::kIn, Form::kArray, type, name, size);
}
consteval Param OutArray(std::string_view type, std::string_view name, std::string_view size) {
  return Make(Dir::kOut, Form::kArrayPtr, type, name, size);
}
consteval Param InOutArray(std::string_view type, std::string_view name, std::string_view size) {
  return Make(Dir::kInOut, Form::kArrayPtr, type, name, size);
}

// Parameter lists, in opnum order. The operations' notes say why a list is as it is.
// clang-format off
inline constexpr Param kTcsip_VendorCommand3[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("BYTE", "selector"),
    In("UINT32", "dataLen"),
    InArray("BYTE", "data", "dataLen"),
    Out("UINT32", "respLen"),
    OutArray("BYTE", "resp", "respLen"),
};
inline constexpr Param kTcsip_VendorCommand2[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("BYTE", "selector"),
    In("UINT32", "dataLen"),
    InArray("BYTE", "data", "dataLen"),
    InOut("TPM_AUTH", "pAuth"),
};
inline constexpr Param kTcsip_VendorCommand1[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("BYTE", "selector"),
    In("UINT32", "dataLen"),
    InArray("BYTE", "data", "dataLen"),
};
inline constexpr Param kTcsi_OpenContext[] = {
    Out("TCS_CONTEXT_HANDLE", "hContext"),
};
inline constexpr Param kTcsi_CloseContext[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
};
inline constexpr Param kTcsi_FreeMemory[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    OptIn("BYTE", "pMemory"),
};
inline constexpr Param kTcsi_GetCapability[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_CAPABILITY_AREA", "capArea"),
    In("UINT32", "subCapSize"),
    InArray("BYTE", "subCap", "subCapSize"),
    Out("UINT32", "respSize"),
    OutArray("BYTE", "resp", "respSize"),
};
inline constexpr Param kTcsi_RegisterKey[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TSS_UUID", "WrappingKeyUUID"),
    In("TSS_UUID", "KeyUUID"),
    In("UINT32", "cKeySize"),
    InArray("BYTE", "rgbKey", "cKeySize"),
    In("UINT32", "cVendorDataSize"),
    InArray("BYTE", "gbVendorData", "cVendorDataSize"),
};
inline constexpr Param kTcsip_UnregisterKey[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TSS_UUID", "KeyUUID"),
};
inline constexpr Param kTcsip_KeyControlOwner[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "hTcsKey"),
    In("UINT32", "ulPubKeyLength"),
    InArray("BYTE", "rgbPubKey", "ulPubKeyLength"),
    In("UINT32", "attribName"),
    In("TSS_BOOL", "attribValue"),
    InOut("TPM_AUTH", "pOwnerAuth"),
    Out("TSS_UUID", "pUuidData"),
};
inline constexpr Param kTcsi_EnumRegisteredKeys[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    OptIn("TSS_UUID", "pKeyUUID"),
    Out("UINT32", "pcKeyHierarchySize"),
    OutArray("TSS_KM_KEYINFO", "ppKeyHierarchy", "pcKeyHierarchySize"),
};
inline constexpr Param kTcsi_GetRegisteredKey[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TSS_UUID", "KeyUUID"),
    OutPtr("TSS_KM_KEYINFO", "ppKeyInfo"),
};
inline constexpr Param kTcsi_GetRegisteredKeyBlob[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TSS_UUID", "KeyUUID"),
    Out("UINT32", "pcKeySize"),
    OutArray("BYTE", "prgbKey", "pcKeySize"),
};
inline constexpr Param kTcsip_GetRegisteredKeyByPublicInfo[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_ALGORITHM_ID", "algID"),
    In("UINT32", "ulPublicInfoLength"),
    InArray("BYTE", "rgbPublicInfo", "ulPublicInfoLength"),
    Out("UINT32", "keySize"),
    OutArray("BYTE", "keyBlob", "keySize"),
};
inline constexpr Param kTcsip_LoadKeyByBlob[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "hUnwrappingKey"),
    In("UINT32", "cWrappedKeyBlobSize"),
    InArray("BYTE", "rgbWrappedKeyBlob", "cWrappedKeyBlobSize"),
    OptInOut("TPM_AUTH", "pAuth"),
    Out("TCS_KEY_HANDLE", "phKeyTCSI"),
    Out("TCS_KEY_HANDLE", "phKeyHMAC"),
};
inline constexpr Param kTcsip_LoadKey2ByBlob[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "hUnwrappingKey"),
    In("UINT32", "cWrappedKeyBlobSize"),
    InArray("BYTE", "rgbWrappedKeyBlob", "cWrappedKeyBlobSize"),
    OptInOut("TPM_AUTH", "pAuth"),
    Out("TCS_KEY_HANDLE", "phKeyTCSI"),
};
inline constexpr Param kTcsip_LoadKeyByUUID[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TSS_UUID", "KeyUUID"),
    OptInOut("TCS_LOADKEY_INFO", "pLoadKeyInfo"),
    Out("TCS_KEY_HANDLE", "phKeyTCSI"),
};
inline constexpr Param kTcsip_EvictKey[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "hKey"),
};
inline constexpr Param kTcsip_CreateWrapKey[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "hWrappingKey"),
    In("TPM_ENCAUTH", "KeyUsageAuth"),
    In("TPM_ENCAUTH", "KeyMigrationAuth"),
    In("UINT32", "keyInfoSize"),
    InArray("BYTE", "keyInfo", "keyInfoSize"),
    InOut("TPM_AUTH", "pAuth"),
    Out("UINT32", "keyDataSize"),
    OutArray("BYTE", "keyData", "keyDataSize"),
};
inline constexpr Param kTcsip_GetPubKey[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "hKey"),
    OptInOut("TPM_AUTH", "pAuth"),
    Out("UINT32", "pcPubKeySize"),
    OutArray("BYTE", "prgbPubKey", "pcPubKeySize"),
};
inline constexpr Param kTcsip_MakeIdentity[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_ENCAUTH", "identityAuth"),
    In("TPM_CHOSENID_HASH", "IDLabel_PrivCAHash"),
    In("UINT32", "idIdentityKeyInfoSize"),
    InArray("BYTE", "idIdentityKeyInfo", "idIdentityKeyInfoSize"),
    OptInOut("TPM_AUTH", "pSrkAuth"),
    InOut("TPM_AUTH", "pOwnerAuth"),
    Out("UINT32", "idIdentityKeySize"),
    OutArray("BYTE", "idIdentityKey", "idIdentityKeySize"),
    Out("UINT32", "pcIdentityBindingSize"),
    OutArray("BYTE", "prgbIdentityBinding", "pcIdentityBindingSize"),
    Out("UINT32", "pcEndorsementCredentialSize"),
    OutArray("BYTE", "prgbEndorsementCredential", "pcEndorsementCredentialSize"),
    Out("UINT32", "pcPlatformCredentialSize"),
    OutArray("BYTE", "prgbPlatformCredential", "pcPlatformCredentialSize"),
    Out("UINT32", "pcConformanceCredentialSize"),
    OutArray("BYTE", "prgbConformanceCredential", "pcConformanceCredentialSize"),
};
inline constexpr Param kTcsi_LogPcrEvent[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TSS_PCR_EVENT", "Event"),
    Out("UINT32", "pNumber"),
};
inline constexpr Param kTcsi_GetPcrEvent[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("UINT32", "PcrIndex"),
    InOut("UINT32", "pNumber"),
    OptOutPtr("TSS_PCR_EVENT", "ppEvent"),
};
inline constexpr Param kTcsi_GetPcrEventsByPcr[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("UINT32", "PcrIndex"),
    In("UINT32", "FirstEvent"),
    InOut("UINT32", "pEventCount"),
    OutArray("TSS_PCR_EVENT", "ppEvents", "pEventCount"),
};
inline constexpr Param kTcsi_GetPcrEventLog[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    Out("UINT32", "pEventCount"),
    OutArray("TSS_PCR_EVENT", "ppEvents", "pEventCount"),
};
inline constexpr Param kTcsip_SetOwnerInstall[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TSS_BOOL", "state"),
};
inline constexpr Param kTcsip_TakeOwnership[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_PROTOCOL_ID", "protocolID"),
    In("UINT32", "encOwnerAuthSize"),
    InArray("BYTE", "encOwnerAuth", "encOwnerAuthSize"),
    In("UINT32", "encSrkAuthSize"),
    InArray("BYTE", "encSrkAuth", "encSrkAuthSize"),
    In("UINT32", "srkInfoSize"),
    InArray("BYTE", "srkInfo", "srkInfoSize"),
    InOut("TPM_AUTH", "ownerAuth"),
    Out("UINT32", "srkKeySize"),
    OutArray("BYTE", "srkKey", "srkKeySize"),
};
inline constexpr Param kTcsip_OIAP[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    Out("TCS_AUTHHANDLE", "authHandle"),
    Out("TPM_NONCE", "nonce0"),
};
inline constexpr Param kTcsip_OSAP[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_ENTITY_TYPE", "entityType"),
    In("UINT32", "entityValue"),
    In("TPM_NONCE", "nonceOddOSAP"),
    Out("TCS_AUTHHANDLE", "authHandle"),
    Out("TPM_NONCE", "nonceEven"),
    Out("TPM_NONCE", "nonceEvenOSAP"),
};
inline constexpr Param kTcsip_DSAP[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_ENTITY_TYPE", "entityType"),
    In("TCS_KEY_HANDLE", "keyHandle"),
    In("TPM_NONCE", "nonceOddDSAP"),
    In("UINT32", "entityValueSize"),
    InArray("BYTE", "entityValue", "entityValueSize"),
    Out("TCS_AUTHHANDLE", "authHandle"),
    Out("TPM_NONCE", "nonceEven"),
    Out("TPM_NONCE", "nonceEvenDSAP"),
};
inline constexpr Param kTcsip_ChangeAuth[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "parentHandle"),
    In("TPM_PROTOCOL_ID", "protocolID"),
    In("TPM_ENCAUTH", "newAuth"),
    In("TPM_ENTITY_TYPE", "entityType"),
    In("UINT32", "encDataSize"),
    InArray("BYTE", "encData", "encDataSize"),
    InOut("TPM_AUTH", "ownerAuth"),
    InOut("TPM_AUTH", "entityAuth"),
    Out("UINT32", "outDataSize"),
    OutArray("BYTE", "outData", "outDataSize"),
};
inline constexpr Param kTcsip_ChangeAuthOwner[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_PROTOCOL_ID", "protocolID"),
    In("TPM_ENCAUTH", "newAuth"),
    In("TPM_ENTITY_TYPE", "entityType"),
    InOut("TPM_AUTH", "ownerAuth"),
};
inline constexpr Param kTcsip_ChangeAuthAsymStart[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "idHandle"),
    In("TPM_NONCE", "antiReplay"),
    In("UINT32", "KeySizeIn"),
    InArray("BYTE", "KeyDataIn", "KeySizeIn"),
    InOut("TPM_AUTH", "pAuth"),
    Out("UINT32", "KeySizeOut"),
    OutArray("BYTE", "KeyDataOut", "KeySizeOut"),
    Out("UINT32", "CertifyInfoSize"),
    OutArray("BYTE", "CertifyInfo", "CertifyInfoSize"),
    Out("UINT32", "sigSize"),
    OutArray("BYTE", "sig", "sigSize"),
    Out("TCS_KEY_HANDLE", "ephHandle"),
};
inline constexpr Param kTcsip_ChangeAuthAsymFinish[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "parentHandle"),
    In("TCS_KEY_HANDLE", "ephHandle"),
    In("TPM_ENTITY_TYPE", "entityType"),
    In("TPM_HMAC", "newAuthLink"),
    In("UINT32", "newAuthSize"),
    InArray("BYTE", "encNewAuth", "newAuthSize"),
    In("UINT32", "encDataSizeIn"),
    InArray("BYTE", "encDataIn", "encDataSizeIn"),
    InOut("TPM_AUTH", "ownerAuth"),
    Out("UINT32", "encDataSizeOut"),
    OutArray("BYTE", "encDataOut", "encDataSizeOut"),
    Out("TPM_NONCE", "saltNonce"),
    Out("TPM_DIGEST", "changeProof"),
};
inline constexpr Param kTcsip_TerminateHandle[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_AUTHHANDLE", "handle"),
};
inline constexpr Param kTcsip_ActivateTPMIdentity[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "idKey"),
    In("UINT32", "blobSize"),
    InArray("BYTE", "blob", "blobSize"),
    OptInOut("TPM_AUTH", "idKeyAuth"),
    InOut("TPM_AUTH", "ownerAuth"),
    Out("UINT32", "SymmetricKeySize"),
    OutArray("BYTE", "SymmetricKey", "SymmetricKeySize"),
};
inline constexpr Param kTcsip_EstablishTransport[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("UINT32", "ulTransControlFlags"),
    In("TCS_KEY_HANDLE", "hEncKey"),
    In("UINT32", "ulTransSessionInfoSize"),
    InArray("BYTE", "rgbTransSessionInfo", "ulTransSessionInfoSize"),
    In("UINT32", "ulSecretSize"),
    InArray("BYTE", "rgbSecret", "ulSecretSize"),
    OptInOut("TPM_AUTH", "pEncKeyAuth"),
    Out("TPM_MODIFIER_INDICATOR", "pbLocality"),
    Out("TCS_HANDLE", "hTransSession"),
    Out("UINT32", "ulCurrentTicksSize"),
    OutArray("BYTE", "prgbCurrentTicks", "ulCurrentTicksSize"),
    Out("TPM_NONCE", "pTransNonce"),
};
inline constexpr Param kTcsip_ExecuteTransport[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_COMMAND_CODE", "unWrappedCommandOrdinal"),
    In("UINT32", "ulWrappedCmdParamInSize"),
    InArray("BYTE", "rgbWrappedCmdParamIn", "ulWrappedCmdParamInSize"),
    InOut("UINT32", "pulHandleListSize"),
    InOutArray("TCS_HANDLE", "rghHandles", "pulHandleListSize"),
    OptInOut("TPM_AUTH", "pWrappedCmdAuth1"),
    OptInOut("TPM_AUTH", "pWrappedCmdAuth2"),
    InOut("TPM_AUTH", "pTransAuth"),
    Out("UINT64", "punCurrentTicks"),
    Out("TPM_MODIFIER_INDICATOR", "pbLocality"),
    Out("TPM_RESULT", "pulWrappedCmdReturnCode"),
    Out("UINT32", "ulWrappedCmdParamOutSize"),
    OutArray("BYTE", "rgbWrappedCmdParamOut", "ulWrappedCmdParamOutSize"),
};
inline constexpr Param kTcsip_ReleaseTransportSigned[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "hSignatureKey"),
    In("TPM_NONCE", "AntiReplayNonce"),
    OptInOut("TPM_AUTH", "pKeyAuth"),
    InOut("TPM_AUTH", "pTransAuth"),
    Out("TPM_MODIFIER_INDICATOR", "pbLocality"),
    Out("UINT32", "pulCurrentTicksSize"),
    OutArray("BYTE", "prgbCurrentTicks", "pulCurrentTicksSize"),
    Out("UINT32", "pulSignatureSize"),
    OutArray("BYTE", "prgbSignature", "pulSignatureSize"),
};
inline constexpr Param kTcsip_Extend[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_PCRINDEX", "pcrNum"),
    In("TPM_DIGEST", "inDigest"),
    Out("TPM_PCRVALUE", "outDigest"),
};
inline constexpr Param kTcsip_PcrRead[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_PCRINDEX", "pcrNum"),
    Out("TPM_PCRVALUE", "outDigest"),
};
inline constexpr Param kTcsip_Quote[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "keyHandle"),
    In("TPM_NONCE", "antiReplay"),
    In("UINT32", "pcrTargetSize"),
    InArray("BYTE", "pcrTarget", "pcrTargetSize"),
    OptInOut("TPM_AUTH", "privAuth"),
    Out("UINT32", "pcrDataSize"),
    OutArray("BYTE", "pcrData", "pcrDataSize"),
    Out("UINT32", "sigSize"),
    OutArray("BYTE", "sig", "sigSize"),
};
inline constexpr Param kTcsip_Quote2[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "keyHandle"),
    In("TPM_NONCE", "antiReplay"),
    In("UINT32", "pcrTargetSize"),
    InArray("BYTE", "pcrTarget", "pcrTargetSize"),
    In("TSS_BOOL", "addVersion"),
    OptInOut("TPM_AUTH", "privAuth"),
    Out("UINT32", "pcrDataSize"),
    OutArray("BYTE", "pcrData", "pcrDataSize"),
    Out("UINT32", "versionInfoSize"),
    OutArray("BYTE", "versionInfo", "versionInfoSize"),
    Out("UINT32", "sigSize"),
    OutArray("BYTE", "sig", "sigSize"),
};
inline constexpr Param kTcsip_DirWriteAuth[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_DIRINDEX", "dirIndex"),
    In("TPM_DIRVALUE", "newContents"),
    InOut("TPM_AUTH", "ownerAuth"),
};
inline constexpr Param kTcsip_DirRead[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_DIRINDEX", "dirIndex"),
    Out("TPM_DIRVALUE", "dirValue"),
};
inline constexpr Param kTcsip_Seal[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "keyHandle"),
    In("TPM_ENCAUTH", "encAuth"),
    In("UINT32", "pcrInfoSize"),
    InArray("BYTE", "PcrInfo", "pcrInfoSize"),
    In("UINT32", "inDataSize"),
    InArray("BYTE", "inData", "inDataSize"),
    InOut("TPM_AUTH", "pubAuth"),
    Out("UINT32", "SealedDataSize"),
    OutArray("BYTE", "SealedData", "SealedDataSize"),
};
inline constexpr Param kTcsip_UnSeal[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "parentHandle"),
    In("UINT32", "SealedDataSize"),
    InArray("BYTE", "SealedData", "SealedDataSize"),
    OptInOut("TPM_AUTH", "parentAuth"),
    InOut("TPM_AUTH", "dataAuth"),
    Out("UINT32", "DataSize"),
    OutArray("BYTE", "Data", "DataSize"),
};
inline constexpr Param kTcsip_Unbind[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "keyHandle"),
    In("UINT32", "inDataSize"),
    InArray("BYTE", "inData", "inDataSize"),
    OptInOut("TPM_AUTH", "privAuth"),
    Out("UINT32", "outDataSize"),
    OutArray("BYTE", "outData", "outDataSize"),
};
inline constexpr Param kTcsip_Sealx[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "keyHandle"),
    In("TPM_ENCAUTH", "encAuth"),
    In("UINT32", "pcrInfoSize"),
    InArray("BYTE", "PcrInfo", "pcrInfoSize"),
    In("UINT32", "inDataSize"),
    InArray("BYTE", "inData", "inDataSize"),
    InOut("TPM_AUTH", "pubAuth"),
    Out("UINT32", "SealedDataSize"),
    OutArray("BYTE", "SealedData", "SealedDataSize"),
};
inline constexpr Param kTcsip_CreateMigrationBlob[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "parentHandle"),
    In("TPM_MIGRATE_SCHEME", "migrationType"),
    In("UINT32", "MigrationKeyAuthSize"),
    InArray("BYTE", "MigrationKeyAuth", "MigrationKeyAuthSize"),
    In("UINT32", "encDataSize"),
    InArray("BYTE", "encData", "encDataSize"),
    OptInOut("TPM_AUTH", "parentAuth"),
    InOut("TPM_AUTH", "entityAuth"),
    Out("UINT32", "randomSize"),
    OutArray("BYTE", "random", "randomSize"),
    Out("UINT32", "outDataSize"),
    OutArray("BYTE", "outData", "outDataSize"),
};
inline constexpr Param kTcsip_ConvertMigrationBlob[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "parentHandle"),
    In("UINT32", "inDataSize"),
    InArray("BYTE", "inData", "inDataSize"),
    In("UINT32", "randomSize"),
    InArray("BYTE", "random", "randomSize"),
    OptInOut("TPM_AUTH", "parentAuth"),
    Out("UINT32", "outDataSize"),
    OutArray("BYTE", "outData", "outDataSize"),
};
inline constexpr Param kTcsip_AuthorizeMigrationKey[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_MIGRATE_SCHEME", "migrateScheme"),
    In("UINT32", "MigrationKeySize"),
    InArray("BYTE", "MigrationKey", "MigrationKeySize"),
    InOut("TPM_AUTH", "ownerAuth"),
    Out("UINT32", "MigrationKeyAuthSize"),
    OutArray("BYTE", "MigrationKeyAuth", "MigrationKeyAuthSize"),
};
inline constexpr Param kTcsip_SetOperatorAuth[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_SECRET", "operatorAuth"),
};
inline constexpr Param kTcsip_CertifyKey[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "certHandle"),
    In("TCS_KEY_HANDLE", "keyHandle"),
    In("TPM_NONCE", "antiReplay"),
    OptInOut("TPM_AUTH", "certAuth"),
    OptInOut("TPM_AUTH", "keyAuth"),
    Out("UINT32", "CertifyInfoSize"),
    OutArray("BYTE", "CertifyInfo", "CertifyInfoSize"),
    Out("UINT32", "outDataSize"),
    OutArray("BYTE", "outData", "outDataSize"),
};
inline constexpr Param kTcsip_CertifyKey2[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "keyHandle"),
    In("TCS_KEY_HANDLE", "certHandle"),
    In("TPM_DIGEST", "MSAdigest"),
    In("TPM_NONCE", "antiReplay"),
    OptInOut("TPM_AUTH", "pKeyAuth"),
    OptInOut("TPM_AUTH", "pCertAuth"),
    Out("UINT32", "pCertifyInfoSize"),
    OutArray("BYTE", "ppCertifyInfo", "pCertifyInfoSize"),
    Out("UINT32", "pSigSize"),
    OutArray("BYTE", "ppSig", "pSigSize"),
};
inline constexpr Param kTcsip_Sign[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "keyHandle"),
    In("UINT32", "areaToSignSize"),
    InArray("BYTE", "areaToSign", "areaToSignSize"),
    OptInOut("TPM_AUTH", "privAuth"),
    Out("UINT32", "sigSize"),
    OutArray("BYTE", "sig", "sigSize"),
};
inline constexpr Param kTcsip_GetRandom[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    InOut("UINT32", "bytesRequested"),
    OutArray("BYTE", "randomBytes", "bytesRequested"),
};
inline constexpr Param kTcsip_StirRandom[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("UINT32", "inDataSize"),
    InArray("BYTE", "inData", "inDataSize"),
};
inline constexpr Param kTcsip_GetCapability[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_CAPABILITY_AREA", "capArea"),
    In("UINT32", "subCapSize"),
    InArray("BYTE", "subCap", "subCapSize"),
    Out("UINT32", "respSize"),
    OutArray("BYTE", "resp", "respSize"),
};
inline constexpr Param kTcsip_GetCapabilitySigned[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "keyHandle"),
    In("TPM_NONCE", "antiReplay"),
    In("TPM_CAPABILITY_AREA", "capArea"),
    In("UINT32", "subCapSize"),
    InArray("BYTE", "subCap", "subCapSize"),
    OptInOut("TPM_AUTH", "privAuth"),
    Out("TPM_VERSION", "Version"),
    Out("UINT32", "respSize"),
    OutArray("BYTE", "resp", "respSize"),
    Out("UINT32", "sigSize"),
    OutArray("BYTE", "sig", "sigSize"),
};
inline constexpr Param kTcsip_GetCapabilityOwner[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    InOut("TPM_AUTH", "pOwnerAuth"),
    Out("TPM_VERSION", "pVersion"),
    Out("UINT32", "pNonVolatileFlags"),
    Out("UINT32", "pVolatileFlags"),
};
inline constexpr Param kTcsip_CreateEndorsementKeyPair[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_NONCE", "antiReplay"),
    In("UINT32", "endorsementKeyInfoSize"),
    InArray("BYTE", "endorsementKeyInfo", "endorsementKeyInfoSize"),
    Out("UINT32", "endorsementKeySize"),
    OutArray("BYTE", "endorsementKey", "endorsementKeySize"),
    Out("TPM_DIGEST", "checksum"),
};
inline constexpr Param kTcsip_ReadPubek[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_NONCE", "antiReplay"),
    Out("UINT32", "pubEndorsementKeySize"),
    OutArray("BYTE", "pubEndorsementKey", "pubEndorsementKeySize"),
    Out("TPM_DIGEST", "checksum"),
};
inline constexpr Param kTcsip_DisablePubekRead[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    InOut("TPM_AUTH", "ownerAuth"),
};
inline constexpr Param kTcsip_OwnerReadPubek[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    InOut("TPM_AUTH", "ownerAuth"),
    Out("UINT32", "pubEndorsementKeySize"),
    OutArray("BYTE", "pubEndorsementKey", "pubEndorsementKeySize"),
};
inline constexpr Param kTcsip_SelfTestFull[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
};
inline constexpr Param kTcsip_CertifySelfTest[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "keyHandle"),
    In("TPM_NONCE", "antiReplay"),
    OptInOut("TPM_AUTH", "privAuth"),
    Out("UINT32", "sigSize"),
    OutArray("BYTE", "sig", "sigSize"),
};
inline constexpr Param kTcsip_ContinueSelfTest[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
};
inline constexpr Param kTcsip_GetTestResult[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    Out("UINT32", "outDataSize"),
    OutArray("BYTE", "outData", "outDataSize"),
};
inline constexpr Param kTcsip_OwnerSetDisable[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TSS_BOOL", "disableState"),
    InOut("TPM_AUTH", "ownerAuth"),
};
inline constexpr Param kTcsip_OwnerClear[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    InOut("TPM_AUTH", "ownerAuth"),
};
inline constexpr Param kTcsip_DisableOwnerClear[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    InOut("TPM_AUTH", "ownerAuth"),
};
inline constexpr Param kTcsip_ForceClear[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
};
inline constexpr Param kTcsip_DisableForceClear[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
};
inline constexpr Param kTcsip_PhysicalDisable[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
};
inline constexpr Param kTcsip_PhysicalEnable[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
};
inline constexpr Param kTcsip_PhysicalSetDeactivated[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TSS_BOOL", "state"),
};
inline constexpr Param kTcsip_SetTempDeactivated[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
};
inline constexpr Param kTcsip_SetTempDeactivated2[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    OptInOut("TPM_AUTH", "pOperatorAuth"),
};
inline constexpr Param kTcsip_PhysicalPresence[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_PHYSICAL_PRESENCE", "fPhysicalPresence"),
};
inline constexpr Param kTcsip_FieldUpgrade[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("UINT32", "dataInSize"),
    InArray("BYTE", "dataIn", "dataInSize"),
    OptInOut("TPM_AUTH", "ownerAuth"),
    Out("UINT32", "dataOutSize"),
    OutArray("BYTE", "dataOut", "dataOutSize"),
};
inline constexpr Param kTcsip_SetRedirection[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "keyHandle"),
    In("TPM_REDIR_COMMAND", "redirCmd"),
    In("UINT32", "inputDataSize"),
    InArray("BYTE", "inputData", "inputDataSize"),
    InOut("TPM_AUTH", "ownerAuth"),
};
inline constexpr Param kTcsip_Delegate_Manage[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_FAMILY_ID", "familyID"),
    In("TPM_FAMILY_OPERATION", "opFlag"),
    In("UINT32", "opDataSize"),
    InArray("BYTE", "opData", "opDataSize"),
    OptInOut("TPM_AUTH", "ownerAuth"),
    Out("UINT32", "retDataSize"),
    OutArray("BYTE", "retData", "retDataSize"),
};
inline constexpr Param kTcsip_Delegate_CreateKeyDelegation[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "hKey"),
    In("UINT32", "publicInfoSize"),
    InArray("BYTE", "publicInfo", "publicInfoSize"),
    In("TPM_ENCAUTH", "encDelAuth"),
    InOut("TPM_AUTH", "keyAuth"),
    Out("UINT32", "blobSize"),
    OutArray("BYTE", "blob", "blobSize"),
};
inline constexpr Param kTcsip_Delegate_CreateOwnerDelegation[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TSS_BOOL", "increment"),
    In("UINT32", "publicInfoSize"),
    InArray("BYTE", "publicInfo", "publicInfoSize"),
    In("TPM_ENCAUTH", "encDelAuth"),
    InOut("TPM_AUTH", "ownerAuth"),
    Out("UINT32", "blobSize"),
    OutArray("BYTE", "blob", "blobSize"),
};
inline constexpr Param kTcsip_Delegate_LoadOwnerDelegation[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_DELEGATE_INDEX", "index"),
    In("UINT32", "blobSize"),
    InArray("BYTE", "blob", "blobSize"),
    OptInOut("TPM_AUTH", "ownerAuth"),
};
inline constexpr Param kTcsip_Delegate_UpdateVerificationCount[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("UINT32", "inputSize"),
    InArray("BYTE", "input", "inputSize"),
    InOut("TPM_AUTH", "ownerAuth"),
    Out("UINT32", "outputSize"),
    OutArray("BYTE", "output", "outputSize"),
};
inline constexpr Param kTcsip_Delegate_VerifyDelegation[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("UINT32", "delegateSize"),
    InArray("BYTE", "delegate", "delegateSize"),
};
inline constexpr Param kTcsip_Delegate_ReadTable[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    Out("UINT32", "pulFamilyTableSize"),
    OutArray("BYTE", "ppFamilyTable", "pulFamilyTableSize"),
    Out("UINT32", "pulDelegateTableSize"),
    OutArray("BYTE", "ppDelegateTable", "pulDelegateTableSize"),
};
inline constexpr Param kTcsip_NV_DefineOrReleaseSpace[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("UINT32", "cPubInfoSize"),
    InArray("BYTE", "pPubInfo", "cPubInfoSize"),
    In("TPM_ENCAUTH", "encAuth"),
    OptInOut("TPM_AUTH", "pAuth"),
};
inline constexpr Param kTcsip_NV_WriteValue[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TSS_NV_INDEX", "hNVStore"),
    In("UINT32", "offset"),
    In("UINT32", "ulDataLength"),
    InArray("BYTE", "rgbDataToWrite", "ulDataLength"),
    OptInOut("TPM_AUTH", "privAuth"),
};
inline constexpr Param kTcsip_NV_WriteValueAuth[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TSS_NV_INDEX", "hNVStore"),
    In("UINT32", "offset"),
    In("UINT32", "ulDataLength"),
    InArray("BYTE", "rgbDataToWrite", "ulDataLength"),
    InOut("TPM_AUTH", "NVAuth"),
};
inline constexpr Param kTcsip_NV_ReadValue[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TSS_NV_INDEX", "hNVStore"),
    In("UINT32", "offset"),
    InOut("UINT32", "pulDataLength"),
    OptInOut("TPM_AUTH", "privAuth"),
    OutArray("BYTE", "rgbDataRead", "pulDataLength"),
};
inline constexpr Param kTcsip_NV_ReadValueAuth[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TSS_NV_INDEX", "hNVStore"),
    In("UINT32", "offset"),
    InOut("UINT32", "pulDataLength"),
    InOut("TPM_AUTH", "NVAuth"),
    OutArray("BYTE", "rgbDataRead", "pulDataLength"),
};
inline constexpr Param kTcsip_CreateMaintenanceArchive[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TSS_BOOL", "generateRandom"),
    InOut("TPM_AUTH", "ownerAuth"),
    Out("UINT32", "randomSize"),
    OutArray("BYTE", "random", "randomSize"),
    Out("UINT32", "archiveSize"),
    OutArray("BYTE", "archive", "archiveSize"),
};
inline constexpr Param kTcsip_LoadMaintenanceArchive[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("UINT32", "dataInSize"),
    InArray("BYTE", "dataIn", "dataInSize"),
    InOut("TPM_AUTH", "ownerAuth"),
    Out("UINT32", "dataOutSize"),
    OutArray("BYTE", "dataOut", "dataOutSize"),
};
inline constexpr Param kTcsip_KillMaintenanceFeature[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    InOut("TPM_AUTH", "ownerAuth"),
};
inline constexpr Param kTcsip_LoadManuMaintPub[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_NONCE", "antiReplay"),
    In("UINT32", "PubKeySize"),
    InArray("BYTE", "PubKey", "PubKeySize"),
    Out("TPM_DIGEST", "checksum"),
};
inline constexpr Param kTcsip_ReadManuMaintPub[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_NONCE", "antiReplay"),
    Out("TPM_DIGEST", "checksum"),
};
inline constexpr Param kTcsip_CreateRevocableEndorsementKeyPair[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_NONCE", "antiReplay"),
    In("UINT32", "endorsementKeyInfoSize"),
    InArray("BYTE", "endorsementKeyInfo", "endorsementKeyInfoSize"),
    In("TSS_BOOL", "genResetAuth"),
    InOut("TPM_DIGEST", "eKResetAuth"),
    Out("UINT32", "endorsementKeySize"),
    OutArray("BYTE", "endorsementKey", "endorsementKeySize"),
    Out("TPM_DIGEST", "checksum"),
};
inline constexpr Param kTcsip_RevokeEndorsementKeyPair[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_DIGEST", "EKResetAuth"),
};
inline constexpr Param kTcsip_PcrReset[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("UINT32", "pcrTargetSize"),
    InArray("BYTE", "pcrTarget", "pcrTargetSize"),
};
inline constexpr Param kTcsip_ReadCounter[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TSS_COUNTER_ID", "idCounter"),
    Out("TPM_COUNTER_VALUE", "counterValue"),
};
inline constexpr Param kTcsip_CreateCounter[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("UINT32", "LabelSize"),
    InArray("BYTE", "pLabel", "LabelSize"),
    In("TPM_ENCAUTH", "CounterAuth"),
    InOut("TPM_AUTH", "pOwnerAuth"),
    Out("TSS_COUNTER_ID", "idCounter"),
    Out("TPM_COUNTER_VALUE", "counterValue"),
};
inline constexpr Param kTcsip_IncrementCounter[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TSS_COUNTER_ID", "idCounter"),
    InOut("TPM_AUTH", "pCounterAuth"),
    Out("TPM_COUNTER_VALUE", "counterValue"),
};
inline constexpr Param kTcsip_ReleaseCounter[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TSS_COUNTER_ID", "idCounter"),
    InOut("TPM_AUTH", "pCounterAuth"),
};
inline constexpr Param kTcsip_ReleaseCounterOwner[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TSS_COUNTER_ID", "idCounter"),
    InOut("TPM_AUTH", "pOwnerAuth"),
};
inline constexpr Param kTcsip_TPM_ReadCurrentTicks[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    Out("UINT32", "pulCurrentTime"),
    OutArray("BYTE", "prgbCurrentTime", "pulCurrentTime"),
};
inline constexpr Param kTcsip_TickStampBlob[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "hKey"),
    In("TPM_NONCE", "antiReplay"),
    In("TPM_DIGEST", "digestToStamp"),
    OptInOut("TPM_AUTH", "privAuth"),
    Out("UINT32", "pulSignatureLength"),
    OutArray("BYTE", "prgbSignature", "pulSignatureLength"),
    Out("UINT32", "pulTickCountLength"),
    OutArray("BYTE", "prgbTickCount", "pulTickCountLength"),
};
inline constexpr Param kTcsip_TPM_DAA_Join[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_HANDLE", "handle"),
    In("BYTE", "stage"),
    In("UINT32", "inputSize0"),
    InArray("BYTE", "inputData0", "inputSize0"),
    In("UINT32", "inputSize1"),
    InArray("BYTE", "inputData1", "inputSize1"),
    InOut("TPM_AUTH", "ownerAuth"),
    Out("UINT32", "outputSize"),
    OutArray("BYTE", "outputData", "outputSize"),
};
inline constexpr Param kTcsip_TPM_DAA_Sign[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_HANDLE", "handle"),
    In("BYTE", "stage"),
    In("UINT32", "inputSize0"),
    InArray("BYTE", "inputData0", "inputSize0"),
    In("UINT32", "inputSize1"),
    InArray("BYTE", "inputData1", "inputSize1"),
    InOut("TPM_AUTH", "ownerAuth"),
    Out("UINT32", "outputSize"),
    OutArray("BYTE", "outputData", "outputSize"),
};
inline constexpr Param kTcsip_MigrateKey[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "hMaKey"),
    In("UINT32", "PublicKeySize"),
    InArray("BYTE", "PublicKey", "PublicKeySize"),
    In("UINT32", "inDataSize"),
    InArray("BYTE", "inData", "inDataSize"),
    InOut("TPM_AUTH", "ownerAuth"),
    Out("UINT32", "outDataSize"),
    OutArray("BYTE", "outData", "outDataSize"),
};
inline constexpr Param kTcsip_CMK_SetRestrictions[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TSS_CMK_DELEGATE", "Restriction"),
    InOut("TPM_AUTH", "ownerAuth"),
};
inline constexpr Param kTcsip_CMK_ApproveMA[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_DIGEST", "migrationAuthorityDigest"),
    InOut("TPM_AUTH", "ownerAuth"),
    Out("TPM_HMAC", "HmacMigAuthDigest"),
};
inline constexpr Param kTcsip_CMK_CreateKey[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "hWrappingKey"),
    In("TPM_ENCAUTH", "KeyUsageAuth"),
    In("TPM_HMAC", "MigAuthApproval"),
    In("TPM_DIGEST", "MigAuthorityDigest"),
    InOut("UINT32", "keyDataSize"),
    InOutArray("BYTE", "prgbKeyData", "keyDataSize"),
    InOut("TPM_AUTH", "pAuth"),
};
inline constexpr Param kTcsip_CMK_CreateTicket[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("UINT32", "PublicVerifyKeySize"),
    InArray("BYTE", "PublicVerifyKey", "PublicVerifyKeySize"),
    In("TPM_DIGEST", "SignedData"),
    In("UINT32", "SigValueSize"),
    InArray("BYTE", "SigValue", "SigValueSize"),
    InOut("TPM_AUTH", "pOwnerAuth"),
    Out("TPM_HMAC", "SigTicket"),
};
inline constexpr Param kTcsip_CMK_CreateBlob[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "parentHandle"),
    In("TPM_MIGRATE_SCHEME", "migrationType"),
    In("UINT32", "MigrationKeyAuthSize"),
    InArray("BYTE", "MigrationKeyAuth", "MigrationKeyAuthSize"),
    In("TPM_DIGEST", "PubSourceKeyDigest"),
    In("UINT32", "msaListSize"),
    InArray("BYTE", "msaList", "msaListSize"),
    In("UINT32", "restrictTicketSize"),
    InArray("BYTE", "restrictTicket", "restrictTicketSize"),
    In("UINT32", "sigTicketSize"),
    InArray("BYTE", "sigTicket", "sigTicketSize"),
    In("UINT32", "encDataSize"),
    InArray("BYTE", "encData", "encDataSize"),
    OptInOut("TPM_AUTH", "parentAuth"),
    Out("UINT32", "randomSize"),
    OutArray("BYTE", "random", "randomSize"),
    Out("UINT32", "outDataSize"),
    OutArray("BYTE", "outData", "outDataSize"),
};
inline constexpr Param kTcsip_CMK_ConvertMigration[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "parentHandle"),
    In("TPM_CMK_AUTH", "restrictTicket"),
    In("TPM_HMAC", "sigTicket"),
    In("UINT32", "keyDataSize"),
    InArray("BYTE", "prgbKeyData", "keyDataSize"),
    In("UINT32", "msaListSize"),
    InArray("BYTE", "msaList", "msaListSize"),
    In("UINT32", "randomSize"),
    InArray("BYTE", "random", "randomSize"),
    OptInOut("TPM_AUTH", "parentAuth"),
    Out("UINT32", "outDataSize"),
    OutArray("BYTE", "outData", "outDataSize"),
};
inline constexpr Param kTcsip_SetCapability[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TPM_CAPABILITY_AREA", "capArea"),
    In("UINT32", "subCapSize"),
    InArray("BYTE", "subCap", "subCapSize"),
    In("UINT32", "valueSize"),
    InArray("BYTE", "value", "valueSize"),
    OptInOut("TPM_AUTH", "pOwnerAuth"),
};
inline constexpr Param kTcsip_GetAuditDigest[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("UINT32", "startOrdinal"),
    Out("TPM_DIGEST", "auditDigest"),
    Out("UINT32", "counterValueSize"),
    OutArray("BYTE", "counterValue", "counterValueSize"),
    Out("TSS_BOOL", "more"),
    Out("UINT32", "ordSize"),
    OutArray("UINT32", "ordList", "ordSize"),
};
inline constexpr Param kTcsip_GetAuditDigestSigned[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    In("TCS_KEY_HANDLE", "keyHandle"),
    In("TSS_BOOL", "closeAudit"),
    In("TPM_NONCE", "antiReplay"),
    OptInOut("TPM_AUTH", "privAuth"),
    Out("UINT32", "counterValueSize"),
    OutArray("BYTE", "counterValue", "counterValueSize"),
    Out("TPM_DIGEST", "auditDigest"),
    Out("TPM_DIGEST", "ordinalDigest"),
    Out("UINT32", "sigSize"),
    OutArray("BYTE", "sig", "sigSize"),
};
inline constexpr Param kTcsip_SetOrdinalAuditStatus[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    InOut("TPM_AUTH", "ownerAuth"),
    In("UINT32", "ulOrdinal"),
    In("TSS_BOOL", "bAuditState"),
};
inline constexpr Param kTcsip_ResetLockValue[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
    InOut("TPM_AUTH", "ownerAuth"),
};
inline constexpr Param kTcsi_Reserved123[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
};
inline constexpr Param kTcsi_Reserved124[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
};
inline constexpr Param kTcsi_Reserved125[] = {
    In("TCS_CONTEXT_HANDLE", "hContext"),
};

// clang-format on

inline constexpr std::string_view kReservedNote =
    "Reserved: answers \"not implemented\" without looking at hContext.";

}  // namespace detail

// By opnum: {opnum, name, frame, TPM ordinal, parameters, note, trace style}.
inline constexpr std::array<Operation, kOperationCount> kOperations = {{
    {0, "Tcsip_VendorCommand3", kSilentLocked, Sends<&kVendorCommand3Ordinal>(),
     detail::kTcsip_VendorCommand3,
     "Vendor command 3, the only vendor command that returns data: the TPM's response, in a buffer "
     "allocated for the caller."},
    {1, "Tcsip_VendorCommand2", kSilentLocked, Sends<&kVendorCommand2Ordinal>(),
     detail::kTcsip_VendorCommand2,
     "Vendor command 2. The authorisation record follows the data and is required."},
    {2, "Tcsip_VendorCommand1", kSilentLocked, Sends<&kVendorCommand1Ordinal>(),
     detail::kTcsip_VendorCommand1, "Vendor command 1."},
    {3, "Tcsi_OpenContext", kTraced, kNoOrdinal, detail::kTcsi_OpenContext},
    {4, "Tcsi_CloseContext", kTracedLocked, kNoOrdinal, detail::kTcsi_CloseContext},
    {5, "Tcsi_FreeMemory", kTraced, kNoOrdinal, detail::kTcsi_FreeMemory,
     "A client address means nothing in the service, so only whether pMemory is null crosses the "
     "wire (null frees all of the context's memory); the byte it points at is sent but not used."},
    {6, "Tcsi_GetCapability", kTraced, kNoOrdinal, detail::kTcsi_GetCapability,
     "Answers areas 1 to 6 without the TPM (docs/tcs-capabilities.md); an unknown area or "
     "sub-capability gives 0xE0282002."},
    {7, "Tcsi_RegisterKey", kTraced, kNoOrdinal, detail::kTcsi_RegisterKey},
    {8, "Tcsip_UnregisterKey", kTraced, kNoOrdinal, detail::kTcsip_UnregisterKey},
    {9, "Tcsip_KeyControlOwner", kResultTracedLocked, Sends<&TPM_ORD_KeyControlOwner>(),
     detail::kTcsip_KeyControlOwner},
    {10, "Tcsi_EnumRegisteredKeys", kTraced, kNoOrdinal, detail::kTcsi_EnumRegisteredKeys,
     "A null pKeyUUID asks for the whole hierarchy. The size is a number of entries."},
    {11, "Tcsi_GetRegisteredKey", kTraced, kNoOrdinal, detail::kTcsi_GetRegisteredKey,
     "One entry, returned through a pointer that may come back null."},
    {12, "Tcsi_GetRegisteredKeyBlob", kTraced, kNoOrdinal, detail::kTcsi_GetRegisteredKeyBlob},
    {13, "Tcsip_GetRegisteredKeyByPublicInfo", kTraced, kNoOrdinal,
     detail::kTcsip_GetRegisteredKeyByPublicInfo},
    {14, "Tcsip_LoadKeyByBlob", kTracedLocked, Sends<&TPM_ORD_LoadKey>(),
     detail::kTcsip_LoadKeyByBlob, "Deprecated ordinal; a TPM 1.2 also takes LoadKey2.",
     TraceStyle{.session_form = true, .log_name = "Tcsip_LoadKeyByBlob_Internal"}},
    {15, "Tcsip_LoadKey2ByBlob", kTracedLocked, Sends<&TPM_ORD_LoadKey2>(),
     detail::kTcsip_LoadKey2ByBlob, "",
     TraceStyle{.session_form = true, .log_name = "Tcsip_LoadKey2ByBlob_Internal"}},
    {16, "Tcsip_LoadKeyByUUID", kTracedLocked, kNoOrdinal, detail::kTcsip_LoadKeyByUUID,
     "Loads the key and its registered parents with the key-loading ordinals. The service "
     "authorises loads under the SRK itself with the SRK secret it is configured with; a parent "
     "that needs any other authorisation makes the call fail with TCS_E_INVALID_KEY. "
     "pLoadKeyInfo is accepted and ignored: there is no retry protocol."},
    {17, "Tcsip_EvictKey", kTracedLocked, Sends<&TPM_ORD_EvictKey>(), detail::kTcsip_EvictKey,
     "Deprecated ordinal; a TPM 1.2 uses FlushSpecific."},
    {18, "Tcsip_CreateWrapKey", kTracedLocked, Sends<&TPM_ORD_CreateWrapKey>(),
     detail::kTcsip_CreateWrapKey,
     "The authorisation record (an OSAP session, needed for the encrypted secrets) is required, so "
     "the handler always traces its handle; it sits between the inputs and the outputs, as "
     "everywhere else.",
     TraceStyle{.session_form = true}},
    {19, "Tcsip_GetPubKey", kTracedLocked, Sends<&TPM_ORD_GetPubKey>(), detail::kTcsip_GetPubKey,
     "", TraceStyle{.session_form = true, .log_name = "Tcsip_GetPubKey_Internal"}},
    {20, "Tcsip_MakeIdentity", kTraced, Sends<&TPM_ORD_MakeIdentity>(), detail::kTcsip_MakeIdentity,
     "The three credentials come from the service's own files, not from the TPM."},
    {21, "Tcsi_LogPcrEvent", kTraced, kNoOrdinal, detail::kTcsi_LogPcrEvent},
    {22, "Tcsi_GetPcrEvent", kTraced, kNoOrdinal, detail::kTcsi_GetPcrEvent,
     "pNumber names the event wanted and the event comes back behind ppEvent; a caller that passes "
     "no ppEvent gets the PCR's number of events in pNumber instead."},
    {23, "Tcsi_GetPcrEventsByPcr", kTraced, kNoOrdinal, detail::kTcsi_GetPcrEventsByPcr,
     "pEventCount carries the number wanted in and the number returned out."},
    {24, "Tcsi_GetPcrEventLog", kTraced, kNoOrdinal, detail::kTcsi_GetPcrEventLog},
    {25, "Tcsip_SetOwnerInstall", kTraced, Sends<&TPM_ORD_SetOwnerInstall>(),
     detail::kTcsip_SetOwnerInstall},
    {26, "Tcsip_TakeOwnership", kTraced, Sends<&TPM_ORD_TakeOwnership>(),
     detail::kTcsip_TakeOwnership},
    {27, "Tcsip_OIAP", kTraced, Sends<&TPM_ORD_OIAP>(), detail::kTcsip_OIAP},
    {28, "Tcsip_OSAP", kTracedLocked, Sends<&TPM_ORD_OSAP>(), detail::kTcsip_OSAP},
    {29, "Tcsip_DSAP", kTracedLocked, Sends<&TPM_ORD_DSAP>(), detail::kTcsip_DSAP,
     "entityValue is a delegation blob or a table row index."},
    {30, "Tcsip_ChangeAuth", kTracedLocked, Sends<&TPM_ORD_ChangeAuth>(), detail::kTcsip_ChangeAuth,
     "ownerAuth is the parent key's session, entityAuth the entity's."},
    {31, "Tcsip_ChangeAuthOwner", kTraced, Sends<&TPM_ORD_ChangeAuthOwner>(),
     detail::kTcsip_ChangeAuthOwner,
     "The owner session is required, so the handler always traces its handle.",
     TraceStyle{.session_form = true}},
    {32, "Tcsip_ChangeAuthAsymStart", kTracedLocked, Sends<&TPM_ORD_ChangeAuthAsymStart>(),
     detail::kTcsip_ChangeAuthAsymStart,
     "Deprecated ordinal. Outputs come in this order, not in the TPM's; the service reorders "
     "them. ephHandle is the TPM's handle of the ephemeral key."},
    {33, "Tcsip_ChangeAuthAsymFinish", kTracedLocked, Sends<&TPM_ORD_ChangeAuthAsymFinish>(),
     detail::kTcsip_ChangeAuthAsymFinish,
     "Deprecated ordinal. ephHandle is the TPM's handle that Tcsip_ChangeAuthAsymStart gave."},
    {34, "Tcsip_TerminateHandle", kTraced, Sends<&TPM_ORD_Terminate_Handle>(),
     detail::kTcsip_TerminateHandle, "Deprecated ordinal; a TPM 1.2 uses FlushSpecific."},
    {35, "Tcsip_ActivateTPMIdentity", kTracedLocked, Sends<&TPM_ORD_ActivateIdentity>(),
     detail::kTcsip_ActivateTPMIdentity},
    {36, "Tcsip_EstablishTransport", kResultTracedLocked, Sends<&TPM_ORD_EstablishTransport>(),
     detail::kTcsip_EstablishTransport,
     "hEncKey is TPM_KH_TRANSPORT when the session has no encryption key."},
    {37, "Tcsip_ExecuteTransport", kResultTraced, Sends<&TPM_ORD_ExecuteTransport>(),
     detail::kTcsip_ExecuteTransport,
     "The handle list is a number of handles; the service maps them between its own and the TPM's "
     "and returns the list it used."},
    {38, "Tcsip_ReleaseTransportSigned", kResultTracedLocked,
     Sends<&TPM_ORD_ReleaseTransportSigned>(), detail::kTcsip_ReleaseTransportSigned,
     "The session must keep a log (TPM_TRANSPORT_LOG); the TPM answers TPM_BAD_MODE otherwise."},
    {39, "Tcsip_Extend", kTraced, Sends<&TPM_ORD_Extend>(), detail::kTcsip_Extend},
    {40, "Tcsip_PcrRead", kTraced, Sends<&TPM_ORD_PcrRead>(), detail::kTcsip_PcrRead},
    {41, "Tcsip_Quote", kTracedLocked, Sends<&TPM_ORD_Quote>(), detail::kTcsip_Quote},
    {42, "Tcsip_Quote2", kTracedLocked, Sends<&TPM_ORD_Quote2>(), detail::kTcsip_Quote2,
     "versionInfo comes back empty when addVersion is false."},
    {43, "Tcsip_DirWriteAuth", kTraced, Sends<&TPM_ORD_DirWriteAuth>(), detail::kTcsip_DirWriteAuth,
     "Deprecated ordinal."},
    {44, "Tcsip_DirRead", kTraced, Sends<&TPM_ORD_DirRead>(), detail::kTcsip_DirRead,
     "Deprecated ordinal."},
    {45, "Tcsip_Seal", kTracedLocked, Sends<&TPM_ORD_Seal>(), detail::kTcsip_Seal,
     "PcrInfo may be empty."},
    {46, "Tcsip_UnSeal", kTracedLocked, Sends<&TPM_ORD_Unseal>(), detail::kTcsip_UnSeal},
    {47, "Tcsip_Unbind", kTracedInsideLock, Sends<&TPM_ORD_UnBind>(), detail::kTcsip_Unbind, "",
     TraceStyle{.session_form = true}},
    {48, "Tcsip_Sealx", kTracedLocked, Sends<&TPM_ORD_Sealx>(), detail::kTcsip_Sealx,
     "Same list as Tcsip_Seal."},
    {49, "Tcsip_CreateMigrationBlob", kTracedLocked, Sends<&TPM_ORD_CreateMigrationBlob>(),
     detail::kTcsip_CreateMigrationBlob, "", TraceStyle{.session_form = true}},
    {50, "Tcsip_ConvertMigrationBlob", kTracedLocked, Sends<&TPM_ORD_ConvertMigrationBlob>(),
     detail::kTcsip_ConvertMigrationBlob, "", TraceStyle{.session_form = true}},
    {51, "Tcsip_AuthorizeMigrationKey", kTraced, Sends<&TPM_ORD_AuthorizeMigrationKey>(),
     detail::kTcsip_AuthorizeMigrationKey,
     "The owner session is required, so the handler always traces its handle.",
     TraceStyle{.session_form = true}},
    {52, "Tcsip_SetOperatorAuth", kResultTraced, Sends<&TPM_ORD_SetOperatorAuth>(),
     detail::kTcsip_SetOperatorAuth, "Needs physical presence, no session."},
    {53, "Tcsip_CertifyKey", kTracedLocked, Sends<&TPM_ORD_CertifyKey>(),
     detail::kTcsip_CertifyKey},
    {54, "Tcsip_CertifyKey2", kTracedLocked, Sends<&TPM_ORD_CertifyKey>(),
     detail::kTcsip_CertifyKey2,
     "Sends its sibling's ordinal, CertifyKey, not CertifyKey2's: the service's defined behaviour, "
     "kept on purpose. Follows the TPM command's order: the certified key comes before the "
     "certifying key, and its session is the first. MSAdigest is all zero for a key that is not a "
     "certifiable migration key. A TPM reads the longer list as CertifyKey's and refuses it; its "
     "answer is passed back (libtpms: TPM_BAD_PARAM_SIZE without sessions)."},
    {55, "Tcsip_Sign", kTracedLocked, Sends<&TPM_ORD_Sign>(), detail::kTcsip_Sign},
    {56, "Tcsip_GetRandom", kTraced, Sends<&TPM_ORD_GetRandom>(), detail::kTcsip_GetRandom,
     "bytesRequested carries the number wanted in and the number delivered out."},
    {57, "Tcsip_StirRandom", kTraced, Sends<&TPM_ORD_StirRandom>(), detail::kTcsip_StirRandom},
    {58, "Tcsip_GetCapability", kTraced, Sends<&TPM_ORD_GetCapability>(),
     detail::kTcsip_GetCapability},
    {59, "Tcsip_GetCapabilitySigned", kTracedLocked, Sends<&TPM_ORD_GetCapabilitySigned>(),
     detail::kTcsip_GetCapabilitySigned,
     "Ordinal removed from TPM 1.2; the TPM's answer is passed back (libtpms: TPM_BAD_ORDINAL)."},
    {60, "Tcsip_GetCapabilityOwner", kTraced, Sends<&TPM_ORD_GetCapabilityOwner>(),
     detail::kTcsip_GetCapabilityOwner},
    {61, "Tcsip_CreateEndorsementKeyPair", kTraced, Sends<&TPM_ORD_CreateEndorsementKeyPair>(),
     detail::kTcsip_CreateEndorsementKeyPair},
    {62, "Tcsip_ReadPubek", kTraced, Sends<&TPM_ORD_ReadPubek>(), detail::kTcsip_ReadPubek},
    {63, "Tcsip_DisablePubekRead", kTraced, Sends<&TPM_ORD_DisablePubekRead>(),
     detail::kTcsip_DisablePubekRead, "Deprecated ordinal."},
    {64, "Tcsip_OwnerReadPubek", kTraced, Sends<&TPM_ORD_OwnerReadPubek>(),
     detail::kTcsip_OwnerReadPubek, "Deprecated ordinal."},
    {65, "Tcsip_SelfTestFull", kTraced, Sends<&TPM_ORD_SelfTestFull>(),
     detail::kTcsip_SelfTestFull},
    {66, "Tcsip_CertifySelfTest", kTracedLocked, Sends<&TPM_ORD_CertifySelfTest>(),
     detail::kTcsip_CertifySelfTest,
     "Ordinal removed from TPM 1.2; the TPM's answer is passed back (libtpms: TPM_BAD_ORDINAL)."},
    {67, "Tcsip_ContinueSelfTest", kTraced, Sends<&TPM_ORD_ContinueSelfTest>(),
     detail::kTcsip_ContinueSelfTest},
    {68, "Tcsip_GetTestResult", kTraced, Sends<&TPM_ORD_GetTestResult>(),
     detail::kTcsip_GetTestResult},
    {69, "Tcsip_OwnerSetDisable", kTraced, Sends<&TPM_ORD_OwnerSetDisable>(),
     detail::kTcsip_OwnerSetDisable},
    {70, "Tcsip_OwnerClear", kTraced, Sends<&TPM_ORD_OwnerClear>(), detail::kTcsip_OwnerClear},
    {71, "Tcsip_DisableOwnerClear", kTraced, Sends<&TPM_ORD_DisableOwnerClear>(),
     detail::kTcsip_DisableOwnerClear},
    {72, "Tcsip_ForceClear", kTraced, Sends<&TPM_ORD_ForceClear>(), detail::kTcsip_ForceClear},
    {73, "Tcsip_DisableForceClear", kTraced, Sends<&TPM_ORD_DisableForceClear>(),
     detail::kTcsip_DisableForceClear},
    {74, "Tcsip_PhysicalDisable", kTraced, Sends<&TPM_ORD_PhysicalDisable>(),
     detail::kTcsip_PhysicalDisable},
    {75, "Tcsip_PhysicalEnable", kTraced, Sends<&TPM_ORD_PhysicalEnable>(),
     detail::kTcsip_PhysicalEnable},
    {76, "Tcsip_PhysicalSetDeactivated", kTraced, Sends<&TPM_ORD_PhysicalSetDeactivated>(),
     detail::kTcsip_PhysicalSetDeactivated},
    {77, "Tcsip_SetTempDeactivated", kTraced, Sends<&TPM_ORD_SetTempDeactivated>(),
     detail::kTcsip_SetTempDeactivated, "The form without a session (physical presence)."},
    {78, "Tcsip_SetTempDeactivated2", kTraced, Sends<&TPM_ORD_SetTempDeactivated>(),
     detail::kTcsip_SetTempDeactivated2,
     "With an operator session, or null to rely on physical presence. Sends the same ordinal as "
     "Tcsip_SetTempDeactivated."},
    {79, "Tcsip_PhysicalPresence", kTraced, Sends<&TSC_ORD_PhysicalPresence>(),
     detail::kTcsip_PhysicalPresence},
    {80, "Tcsip_FieldUpgrade", kTraced, Sends<&TPM_ORD_FieldUpgrade>(), detail::kTcsip_FieldUpgrade,
     "The owner session is optional (without an owner the TPM relies on physical presence) and "
     "sits between the inputs and the outputs. libtpms has no such command: its TPM_BAD_ORDINAL "
     "(0xE028000A) comes back unchanged."},
    {81, "Tcsip_SetRedirection", kResultTracedLocked, Sends<&TPM_ORD_SetRedirection>(),
     detail::kTcsip_SetRedirection,
     "Takes what a TPM 1.2 needs: the redirection command and its variable input data under the "
     "owner's session (the older form with two fixed words has no TPM 1.2 meaning). libtpms has no "
     "such command: its TPM_BAD_ORDINAL (0xE028000A) comes back unchanged."},
    {82, "Tcsip_Delegate_Manage", kResultTraced, Sends<&TPM_ORD_Delegate_Manage>(),
     detail::kTcsip_Delegate_Manage},
    {83, "Tcsip_Delegate_CreateKeyDelegation", kResultTracedLocked,
     Sends<&TPM_ORD_Delegate_CreateKeyDelegat>(), detail::kTcsip_Delegate_CreateKeyDelegation},
    {84, "Tcsip_Delegate_CreateOwnerDelegation", kResultTraced,
     Sends<&TPM_ORD_Delegate_CreateOwnerDele>(), detail::kTcsip_Delegate_CreateOwnerDelegation},
    {85, "Tcsip_Delegate_LoadOwnerDelegation", kResultTraced,
     Sends<&TPM_ORD_Delegate_LoadOwnerDelega>(), detail::kTcsip_Delegate_LoadOwnerDelegation},
    {86, "Tcsip_Delegate_UpdateVerificationCount", kResultTraced,
     Sends<&TPM_ORD_Delegate_UpdateVerification>(), detail::kTcsip_Delegate_UpdateVerificationCount,
     "Sends TPM_Delegate_UpdateVerification; input is a blob or a row index."},
    {87, "Tcsip_Delegate_VerifyDelegation", kResultTraced,
     Sends<&TPM_ORD_Delegate_VerifyDelegation>(), detail::kTcsip_Delegate_VerifyDelegation},
    {88, "Tcsip_Delegate_ReadTable", kResultTraced, Sends<&TPM_ORD_Delegate_ReadTable>(),
     detail::kTcsip_Delegate_ReadTable},
    {89, "Tcsip_NV_DefineOrReleaseSpace", kResultTraced, Sends<&TPM_ORD_NV_DefineSpace>(),
     detail::kTcsip_NV_DefineOrReleaseSpace,
     "Defines the space; a public area with data size 0 releases it. Works on libtpms."},
    {90, "Tcsip_NV_WriteValue", kResultTraced, Sends<&TPM_ORD_NV_WriteValue>(),
     detail::kTcsip_NV_WriteValue, "Works on libtpms."},
    {91, "Tcsip_NV_WriteValueAuth", kResultTraced, Sends<&TPM_ORD_NV_WriteValueAuth>(),
     detail::kTcsip_NV_WriteValueAuth, "Works on libtpms."},
    {92, "Tcsip_NV_ReadValue", kResultTraced, Sends<&TPM_ORD_NV_ReadValue>(),
     detail::kTcsip_NV_ReadValue,
     "pulDataLength carries the number wanted in and the number read out. Works on libtpms."},
    {93, "Tcsip_NV_ReadValueAuth", kResultTraced, Sends<&TPM_ORD_NV_ReadValueAuth>(),
     detail::kTcsip_NV_ReadValueAuth, "Works on libtpms."},
    {94, "Tcsip_CreateMaintenanceArchive", kResultTraced,
     Sends<&TPM_ORD_CreateMaintenanceArchive>(), detail::kTcsip_CreateMaintenanceArchive,
     "libtpms has no maintenance feature: its TPM_BAD_ORDINAL (0xE028000A) comes back unchanged."},
    {95, "Tcsip_LoadMaintenanceArchive", kResultTraced, Sends<&TPM_ORD_LoadMaintenanceArchive>(),
     detail::kTcsip_LoadMaintenanceArchive,
     "A TPM 1.2 returns no data here; dataOut comes back empty. libtpms has no maintenance "
     "feature: its TPM_BAD_ORDINAL (0xE028000A) comes back unchanged."},
    {96, "Tcsip_KillMaintenanceFeature", kResultTraced, Sends<&TPM_ORD_KillMaintenanceFeature>(),
     detail::kTcsip_KillMaintenanceFeature,
     "libtpms has no maintenance feature: its TPM_BAD_ORDINAL (0xE028000A) comes back unchanged."},
    {97, "Tcsip_LoadManuMaintPub", kResultTraced, Sends<&TPM_ORD_LoadManuMaintPub>(),
     detail::kTcsip_LoadManuMaintPub,
     "libtpms has no maintenance feature: its TPM_BAD_ORDINAL (0xE028000A) comes back unchanged."},
    {98, "Tcsip_ReadManuMaintPub", kResultTraced, Sends<&TPM_ORD_ReadManuMaintPub>(),
     detail::kTcsip_ReadManuMaintPub,
     "libtpms has no maintenance feature: its TPM_BAD_ORDINAL (0xE028000A) comes back unchanged."},
    {99, "Tcsip_CreateRevocableEndorsementKeyPair", kResultTraced,
     Sends<&TPM_ORD_CreateRevocableEK>(), detail::kTcsip_CreateRevocableEndorsementKeyPair,
     "eKResetAuth is the reset value given (in) and the one the TPM made (out). Works on a fresh "
     "swtpm (libtpms without an endorsement key); the embedded TPM has one, and its "
     "TPM_DISABLED_CMD (0xE0280008) comes back unchanged."},
    {100, "Tcsip_RevokeEndorsementKeyPair", kResultTraced, Sends<&TPM_ORD_RevokeTrust>(),
     detail::kTcsip_RevokeEndorsementKeyPair,
     "Works on a swtpm with a revocable key and physical presence; the embedded TPM's key is "
     "permanent, and its TPM_PERMANENTEK (0xE0280061) comes back unchanged."},
    {101, "Tcsip_PcrReset", kResultTraced, Sends<&TPM_ORD_PCR_Reset>(), detail::kTcsip_PcrReset},
    {102, "Tcsip_ReadCounter", kResultTraced, Sends<&TPM_ORD_ReadCounter>(),
     detail::kTcsip_ReadCounter},
    {103, "Tcsip_CreateCounter", kResultTraced, Sends<&TPM_ORD_CreateCounter>(),
     detail::kTcsip_CreateCounter,
     "The label is 4 bytes. Outputs come in this order, not in the TPM's. Works on libtpms."},
    {104, "Tcsip_IncrementCounter", kResultTraced, Sends<&TPM_ORD_IncrementCounter>(),
     detail::kTcsip_IncrementCounter, "Works on libtpms."},
    {105, "Tcsip_ReleaseCounter", kResultTraced, Sends<&TPM_ORD_ReleaseCounter>(),
     detail::kTcsip_ReleaseCounter, "Works on libtpms."},
    {106, "Tcsip_ReleaseCounterOwner", kResultTraced, Sends<&TPM_ORD_ReleaseCounter>(),
     detail::kTcsip_ReleaseCounterOwner,
     "Sends its sibling's ordinal, ReleaseCounter, with tag 0x00C2, not ReleaseCounterOwner's: the "
     "service's defined behaviour, kept on purpose. Works on libtpms when the caller's HMAC covers "
     "0xDF with the counter's secret."},
    {107, "Tcsip_TPM_ReadCurrentTicks", kResultTraced, Sends<&TPM_ORD_GetTicks>(),
     detail::kTcsip_TPM_ReadCurrentTicks,
     "Sends TPM_GetTicks; the result is the TPM's current-ticks structure."},
    {108, "Tcsip_TickStampBlob", kResultTracedLocked, Sends<&TPM_ORD_TickStampBlob>(),
     detail::kTcsip_TickStampBlob, "Outputs come in this order, not in the TPM's."},
    {109, "Tcsip_TPM_DAA_Join", kResultTraced, Sends<&TPM_ORD_DAA_Join>(),
     detail::kTcsip_TPM_DAA_Join,
     "handle is the join session, 0 at stage 0. Tested on libtpms at stage 0 (the join session "
     "opened); the later stages need an issuer."},
    {110, "Tcsip_TPM_DAA_Sign", kResultTraced, Sends<&TPM_ORD_DAA_Sign>(),
     detail::kTcsip_TPM_DAA_Sign,
     "Tested on libtpms with the TPM's own answer passed back (no issuer settings: "
     "TPM_DAA_INPUT_DATA0)."},
    {111, "Tcsip_MigrateKey", kResultTracedLocked, Sends<&TPM_ORD_MigrateKey>(),
     detail::kTcsip_MigrateKey, "ownerAuth authorises the migration-authority key hMaKey."},
    {112, "Tcsip_CMK_SetRestrictions", kResultTraced, Sends<&TPM_ORD_CMK_SetRestrictions>(),
     detail::kTcsip_CMK_SetRestrictions},
    {113, "Tcsip_CMK_ApproveMA", kResultTraced, Sends<&TPM_ORD_CMK_ApproveMA>(),
     detail::kTcsip_CMK_ApproveMA},
    {114, "Tcsip_CMK_CreateKey", kResultTracedLocked, Sends<&TPM_ORD_CMK_CreateKey>(),
     detail::kTcsip_CMK_CreateKey,
     "keyDataSize and prgbKeyData carry the key template in and the wrapped key out."},
    {115, "Tcsip_CMK_CreateTicket", kResultTraced, Sends<&TPM_ORD_CMK_CreateTicket>(),
     detail::kTcsip_CMK_CreateTicket},
    {116, "Tcsip_CMK_CreateBlob", kResultTracedLocked, Sends<&TPM_ORD_CMK_CreateBlob>(),
     detail::kTcsip_CMK_CreateBlob, "restrictTicket and sigTicket may be empty."},
    {117, "Tcsip_CMK_ConvertMigration", kResultTracedLocked, Sends<&TPM_ORD_CMK_ConvertMigration>(),
     detail::kTcsip_CMK_ConvertMigration,
     "Tested on libtpms with the TPM's own answer passed back (a blob made for the migration "
     "authority, which the new parent cannot decrypt: TPM_DECRYPT_ERROR)."},
    {118, "Tcsip_SetCapability", kResultTraced, Sends<&TPM_ORD_SetCapability>(),
     detail::kTcsip_SetCapability,
     "Some capabilities are gated by physical presence instead of the owner."},
    {119, "Tcsip_GetAuditDigest", kResultTraced, Sends<&TPM_ORD_GetAuditDigest>(),
     detail::kTcsip_GetAuditDigest,
     "ordSize is the number of ordinals in ordList (the TPM counts bytes; the service divides by "
     "four). Outputs come in this order, not in the TPM's."},
    {120, "Tcsip_GetAuditDigestSigned", kResultTracedLocked, Sends<&TPM_ORD_GetAuditDigestSigned>(),
     detail::kTcsip_GetAuditDigestSigned},
    {121, "Tcsip_SetOrdinalAuditStatus", kResultTraced, Sends<&TPM_ORD_SetOrdinalAuditStatus>(),
     detail::kTcsip_SetOrdinalAuditStatus,
     "This operation's own list puts the owner session right after the context."},
    {122, "Tcsip_ResetLockValue", kResultTraced, Sends<&TPM_ORD_ResetLockValue>(),
     detail::kTcsip_ResetLockValue},
    {123, "Tcsi_Reserved123", kNoHandler, kNoOrdinal, detail::kTcsi_Reserved123,
     detail::kReservedNote},
    {124, "Tcsi_Reserved124", kNoHandler, kNoOrdinal, detail::kTcsi_Reserved124,
     detail::kReservedNote},
    {125, "Tcsi_Reserved125", kNoHandler, kNoOrdinal, detail::kTcsi_Reserved125,
     detail::kReservedNote},
}};

// The index of the size parameter of `op.params[index]` (kArray, kArrayPtr), or nullopt when the
// parameter has none.
constexpr std::optional<size_t> SizeParamIndex(const Operation& op, size_t index) {
  const std::string_view size = op.params[index].size_is;
  if (size.empty()) return std::nullopt;
  for (size_t i = 0; i < index; ++i) {
    if (op.params[i].name == size) return i;
  }
  return std::nullopt;
}

// The operation with this opnum, or null when the opnum is 126 or more.
constexpr const Operation* FindOperation(uint32_t opnum) {
  return opnum < kOperationCount ? &kOperations[opnum] : nullptr;
}

// The operation with this name, or null.
const Operation* FindOperation(std::string_view name);

namespace detail {
// Deliberately not constexpr: reaching it in OpnumOf stops the compilation.
void NoOperationHasThisName();
}  // namespace detail

// The opnum of the operation called `name`, the way code names an operation; a name the table does
// not have does not compile.
consteval uint16_t OpnumOf(std::string_view name) {
  for (const Operation& op : kOperations) {
    if (op.name == name) return op.opnum;
  }
  detail::NoOperationHasThisName();
  return 0;
}

}  // namespace kesttcs::rpc
