// The 126 operations of the RPC interface as data: for each opnum the operation's name, its
// parameters (name, type, direction, how it is passed) and the shape of its entry handler.
//
// This table and src/rpc/kesttcs.idl describe the same interface; tests/unit/rpc/idl_test.cc
// proves them identical. The server stubs, the client proxies and the handler frame all read this
// table; nothing else lists the operations.
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
// `size_is` names the size parameter of the two array forms; SizeParamIndex() turns it into an
// index. Kind says what one element is; the type name is the one the interface definition uses.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace kesttcs::rpc {

// What one element of a parameter is.
enum class Kind : uint8_t {
  kUint32,        // UINT32 and the 32-bit handle and code types
  kUint16,        // UINT16 and the 16-bit TPM types
  kByte,          // BYTE
  kBool,          // TSS_BOOL (one byte)
  kUint64,        // UINT64
  kDigest,        // 20 bytes: TPM_DIGEST, TPM_NONCE, TPM_AUTHDATA and their aliases
  kAuth,          // TPM_AUTH
  kUuid,          // TSS_UUID
  kVersion,       // TPM_VERSION
  kCounterValue,  // TPM_COUNTER_VALUE
  kCmkAuth,       // TPM_CMK_AUTH
  kPcrEvent,      // TSS_PCR_EVENT
  kKeyInfo,       // TSS_KM_KEYINFO
  kLoadKeyInfo,   // TCS_LOADKEY_INFO
};

enum class Dir : uint8_t { kIn, kOut, kInOut };

enum class Form : uint8_t { kValue, kRef, kUnique, kArray, kArrayPtr, kPtr };

// The entry handler's frame:
//   kA  start line, internal call, result line; no lock
//   kB  start line, internal call under the API lock, result line
//   kC  API lock held across both trace lines, then the unlock trace line
//   kD  internal call, result line; no lock
//   kE  internal call under the API lock, result line after the release
//   kF  internal call under the API lock, no trace at all
//   kReserved  no handler: the operation answers "not implemented" without reading anything
enum class Frame : uint8_t { kA, kB, kC, kD, kE, kF, kReserved };

struct Param {
  std::string_view name;
  std::string_view type;  // as the interface definition spells it
  Kind kind;              // what one element is, derived from `type`
  Dir dir;
  Form form;
  std::string_view size_is;  // kArray and kArrayPtr: the size parameter's name; else empty

  constexpr bool is_input() const { return dir != Dir::kOut; }
  constexpr bool is_output() const { return dir != Dir::kIn; }
};

struct Operation {
  uint16_t opnum;
  std::string_view name;      // the operation, its handler, and with "_Internal" its function
  std::string_view log_name;  // the name its trace lines carry
  Frame frame;
  bool auth_start_text;  // start line has a form with and one without the session handle
  uint32_t tpm_ordinal;  // the TPM ordinal it sends; 0 when it sends none of its own
  std::span<const Param> params;

  // Takes the API serialisation lock (the frame says so).
  constexpr bool locked() const {
    return frame == Frame::kB || frame == Frame::kC || frame == Frame::kE || frame == Frame::kF;
  }
};

inline constexpr size_t kOperationCount = 126;

namespace detail {

struct TypeKind {
  std::string_view type;
  Kind kind;
};

// Every type name a parameter may use, with its kind. The interface definition declares each of
// these; the test checks that each resolves there to the base type its kind implies.
inline constexpr TypeKind kTypeKinds[] = {
    {"UINT32", Kind::kUint32},
    {"TSS_RESULT", Kind::kUint32},
    {"TCS_CONTEXT_HANDLE", Kind::kUint32},
    {"TCS_KEY_HANDLE", Kind::kUint32},
    {"TCS_AUTHHANDLE", Kind::kUint32},
    {"TCS_HANDLE", Kind::kUint32},
    {"TSS_EVENTTYPE", Kind::kUint32},
    {"TSS_NV_INDEX", Kind::kUint32},
    {"TSS_COUNTER_ID", Kind::kUint32},
    {"TSS_CMK_DELEGATE", Kind::kUint32},
    {"TPM_CAPABILITY_AREA", Kind::kUint32},
    {"TPM_ALGORITHM_ID", Kind::kUint32},
    {"TPM_PCRINDEX", Kind::kUint32},
    {"TPM_DIRINDEX", Kind::kUint32},
    {"TPM_HANDLE", Kind::kUint32},
    {"TPM_COMMAND_CODE", Kind::kUint32},
    {"TPM_RESULT", Kind::kUint32},
    {"TPM_MODIFIER_INDICATOR", Kind::kUint32},
    {"TPM_FAMILY_ID", Kind::kUint32},
    {"TPM_FAMILY_OPERATION", Kind::kUint32},
    {"TPM_DELEGATE_INDEX", Kind::kUint32},
    {"TPM_REDIR_COMMAND", Kind::kUint32},
    {"TPM_ACTUAL_COUNT", Kind::kUint32},
    {"UINT16", Kind::kUint16},
    {"TPM_PROTOCOL_ID", Kind::kUint16},
    {"TPM_ENTITY_TYPE", Kind::kUint16},
    {"TPM_MIGRATE_SCHEME", Kind::kUint16},
    {"TPM_PHYSICAL_PRESENCE", Kind::kUint16},
    {"TPM_STRUCTURE_TAG", Kind::kUint16},
    {"BYTE", Kind::kByte},
    {"TSS_BOOL", Kind::kBool},
    {"UINT64", Kind::kUint64},
    {"TPM_DIGEST", Kind::kDigest},
    {"TPM_PCRVALUE", Kind::kDigest},
    {"TPM_DIRVALUE", Kind::kDigest},
    {"TPM_HMAC", Kind::kDigest},
    {"TPM_CHOSENID_HASH", Kind::kDigest},
    {"TPM_NONCE", Kind::kDigest},
    {"TPM_AUTHDATA", Kind::kDigest},
    {"TPM_ENCAUTH", Kind::kDigest},
    {"TPM_SECRET", Kind::kDigest},
    {"TPM_AUTH", Kind::kAuth},
    {"TSS_UUID", Kind::kUuid},
    {"TPM_VERSION", Kind::kVersion},
    {"TPM_COUNTER_VALUE", Kind::kCounterValue},
    {"TPM_CMK_AUTH", Kind::kCmkAuth},
    {"TSS_PCR_EVENT", Kind::kPcrEvent},
    {"TSS_KM_KEYINFO", Kind::kKeyInfo},
    {"TCS_LOADKEY_INFO", Kind::kLoadKeyInfo},
};

// Deliberately not constexpr: reaching it while building the table stops the compilation.
void TypeNameMissingFromkTypeKinds();

consteval Kind KindOf(std::string_view type) {
  for (const TypeKind& t : kTypeKinds) {
    if (t.type == type) return t.kind;
  }
  TypeNameMissingFromkTypeKinds();
  return Kind::kUint32;
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
consteval Param InArray(std::string_view type, std::string_view name, std::string_view size) {
  return Make(Dir::kIn, Form::kArray, type, name, size);
}
consteval Param OutArray(std::string_view type, std::string_view name, std::string_view size) {
  return Make(Dir::kOut, Form::kArrayPtr, type, name, size);
}
consteval Param InOutArray(std::string_view type, std::string_view name, std::string_view size) {
  return Make(Dir::kInOut, Form::kArrayPtr, type, name, size);
}

// Parameter lists, in opnum order. The comments in the interface definition say why a list is as
// it is.
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
    OutPtr("TSS_PCR_EVENT", "ppEvent"),
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
}  // namespace detail

// By opnum: {opnum, name, log name, frame, auth start text, TPM ordinal, parameters}.
inline constexpr std::array<Operation, kOperationCount> kOperations = {{
    {0, "Tcsip_VendorCommand3", "Tcsip_VendorCommand3", Frame::kF, false, 0x20000003,
     detail::kTcsip_VendorCommand3},
    {1, "Tcsip_VendorCommand2", "Tcsip_VendorCommand2", Frame::kF, false, 0x20000002,
     detail::kTcsip_VendorCommand2},
    {2, "Tcsip_VendorCommand1", "Tcsip_VendorCommand1", Frame::kF, false, 0x20000001,
     detail::kTcsip_VendorCommand1},
    {3, "Tcsi_OpenContext", "Tcsi_OpenContext", Frame::kA, false, 0, detail::kTcsi_OpenContext},
    {4, "Tcsi_CloseContext", "Tcsi_CloseContext", Frame::kB, false, 0, detail::kTcsi_CloseContext},
    {5, "Tcsi_FreeMemory", "Tcsi_FreeMemory", Frame::kA, false, 0, detail::kTcsi_FreeMemory},
    {6, "Tcsi_GetCapability", "Tcsi_GetCapability", Frame::kA, false, 0,
     detail::kTcsi_GetCapability},
    {7, "Tcsi_RegisterKey", "Tcsi_RegisterKey", Frame::kA, false, 0, detail::kTcsi_RegisterKey},
    {8, "Tcsip_UnregisterKey", "Tcsip_UnregisterKey", Frame::kA, false, 0,
     detail::kTcsip_UnregisterKey},
    {9, "Tcsip_KeyControlOwner", "Tcsip_KeyControlOwner", Frame::kE, false, 0x00000023,
     detail::kTcsip_KeyControlOwner},
    {10, "Tcsi_EnumRegisteredKeys", "Tcsi_EnumRegisteredKeys", Frame::kA, false, 0,
     detail::kTcsi_EnumRegisteredKeys},
    {11, "Tcsi_GetRegisteredKey", "Tcsi_GetRegisteredKey", Frame::kA, false, 0,
     detail::kTcsi_GetRegisteredKey},
    {12, "Tcsi_GetRegisteredKeyBlob", "Tcsi_GetRegisteredKeyBlob", Frame::kA, false, 0,
     detail::kTcsi_GetRegisteredKeyBlob},
    {13, "Tcsip_GetRegisteredKeyByPublicInfo", "Tcsip_GetRegisteredKeyByPublicInfo", Frame::kA,
     false, 0, detail::kTcsip_GetRegisteredKeyByPublicInfo},
    {14, "Tcsip_LoadKeyByBlob", "Tcsip_LoadKeyByBlob_Internal", Frame::kB, true, 0x00000020,
     detail::kTcsip_LoadKeyByBlob},
    {15, "Tcsip_LoadKey2ByBlob", "Tcsip_LoadKey2ByBlob_Internal", Frame::kB, true, 0x00000041,
     detail::kTcsip_LoadKey2ByBlob},
    {16, "Tcsip_LoadKeyByUUID", "Tcsip_LoadKeyByUUID", Frame::kB, false, 0,
     detail::kTcsip_LoadKeyByUUID},
    {17, "Tcsip_EvictKey", "Tcsip_EvictKey", Frame::kB, false, 0x00000022, detail::kTcsip_EvictKey},
    {18, "Tcsip_CreateWrapKey", "Tcsip_CreateWrapKey", Frame::kB, true, 0x0000001F,
     detail::kTcsip_CreateWrapKey},
    {19, "Tcsip_GetPubKey", "Tcsip_GetPubKey_Internal", Frame::kB, true, 0x00000021,
     detail::kTcsip_GetPubKey},
    {20, "Tcsip_MakeIdentity", "Tcsip_MakeIdentity", Frame::kA, false, 0x00000079,
     detail::kTcsip_MakeIdentity},
    {21, "Tcsi_LogPcrEvent", "Tcsi_LogPcrEvent", Frame::kA, false, 0, detail::kTcsi_LogPcrEvent},
    {22, "Tcsi_GetPcrEvent", "Tcsi_GetPcrEvent", Frame::kA, false, 0, detail::kTcsi_GetPcrEvent},
    {23, "Tcsi_GetPcrEventsByPcr", "Tcsi_GetPcrEventsByPcr", Frame::kA, false, 0,
     detail::kTcsi_GetPcrEventsByPcr},
    {24, "Tcsi_GetPcrEventLog", "Tcsi_GetPcrEventLog", Frame::kA, false, 0,
     detail::kTcsi_GetPcrEventLog},
    {25, "Tcsip_SetOwnerInstall", "Tcsip_SetOwnerInstall", Frame::kA, false, 0x00000071,
     detail::kTcsip_SetOwnerInstall},
    {26, "Tcsip_TakeOwnership", "Tcsip_TakeOwnership", Frame::kA, false, 0x0000000D,
     detail::kTcsip_TakeOwnership},
    {27, "Tcsip_OIAP", "Tcsip_OIAP", Frame::kA, false, 0x0000000A, detail::kTcsip_OIAP},
    {28, "Tcsip_OSAP", "Tcsip_OSAP", Frame::kB, false, 0x0000000B, detail::kTcsip_OSAP},
    {29, "Tcsip_DSAP", "Tcsip_DSAP", Frame::kB, false, 0x00000011, detail::kTcsip_DSAP},
    {30, "Tcsip_ChangeAuth", "Tcsip_ChangeAuth", Frame::kB, false, 0x0000000C,
     detail::kTcsip_ChangeAuth},
    {31, "Tcsip_ChangeAuthOwner", "Tcsip_ChangeAuthOwner", Frame::kA, true, 0x00000010,
     detail::kTcsip_ChangeAuthOwner},
    {32, "Tcsip_ChangeAuthAsymStart", "Tcsip_ChangeAuthAsymStart", Frame::kB, false, 0x0000000E,
     detail::kTcsip_ChangeAuthAsymStart},
    {33, "Tcsip_ChangeAuthAsymFinish", "Tcsip_ChangeAuthAsymFinish", Frame::kB, false, 0x0000000F,
     detail::kTcsip_ChangeAuthAsymFinish},
    {34, "Tcsip_TerminateHandle", "Tcsip_TerminateHandle", Frame::kA, false, 0x00000096,
     detail::kTcsip_TerminateHandle},
    {35, "Tcsip_ActivateTPMIdentity", "Tcsip_ActivateTPMIdentity", Frame::kB, false, 0x0000007A,
     detail::kTcsip_ActivateTPMIdentity},
    {36, "Tcsip_EstablishTransport", "Tcsip_EstablishTransport", Frame::kE, false, 0x000000E6,
     detail::kTcsip_EstablishTransport},
    {37, "Tcsip_ExecuteTransport", "Tcsip_ExecuteTransport", Frame::kD, false, 0x000000E7,
     detail::kTcsip_ExecuteTransport},
    {38, "Tcsip_ReleaseTransportSigned", "Tcsip_ReleaseTransportSigned", Frame::kE, false,
     0x000000E8, detail::kTcsip_ReleaseTransportSigned},
    {39, "Tcsip_Extend", "Tcsip_Extend", Frame::kA, false, 0x00000014, detail::kTcsip_Extend},
    {40, "Tcsip_PcrRead", "Tcsip_PcrRead", Frame::kA, false, 0x00000015, detail::kTcsip_PcrRead},
    {41, "Tcsip_Quote", "Tcsip_Quote", Frame::kB, false, 0x00000016, detail::kTcsip_Quote},
    {42, "Tcsip_Quote2", "Tcsip_Quote2", Frame::kB, false, 0x0000003E, detail::kTcsip_Quote2},
    {43, "Tcsip_DirWriteAuth", "Tcsip_DirWriteAuth", Frame::kA, false, 0x00000019,
     detail::kTcsip_DirWriteAuth},
    {44, "Tcsip_DirRead", "Tcsip_DirRead", Frame::kA, false, 0x0000001A, detail::kTcsip_DirRead},
    {45, "Tcsip_Seal", "Tcsip_Seal", Frame::kB, false, 0x00000017, detail::kTcsip_Seal},
    {46, "Tcsip_UnSeal", "Tcsip_UnSeal", Frame::kB, false, 0x00000018, detail::kTcsip_UnSeal},
    {47, "Tcsip_Unbind", "Tcsip_Unbind", Frame::kC, true, 0x0000001E, detail::kTcsip_Unbind},
    {48, "Tcsip_Sealx", "Tcsip_Sealx", Frame::kB, false, 0x0000003D, detail::kTcsip_Sealx},
    {49, "Tcsip_CreateMigrationBlob", "Tcsip_CreateMigrationBlob", Frame::kB, true, 0x00000028,
     detail::kTcsip_CreateMigrationBlob},
    {50, "Tcsip_ConvertMigrationBlob", "Tcsip_ConvertMigrationBlob", Frame::kB, true, 0x0000002A,
     detail::kTcsip_ConvertMigrationBlob},
    {51, "Tcsip_AuthorizeMigrationKey", "Tcsip_AuthorizeMigrationKey", Frame::kA, true, 0x0000002B,
     detail::kTcsip_AuthorizeMigrationKey},
    {52, "Tcsip_SetOperatorAuth", "Tcsip_SetOperatorAuth", Frame::kD, false, 0x00000074,
     detail::kTcsip_SetOperatorAuth},
    {53, "Tcsip_CertifyKey", "Tcsip_CertifyKey", Frame::kB, false, 0x00000032,
     detail::kTcsip_CertifyKey},
    {54, "Tcsip_CertifyKey2", "Tcsip_CertifyKey2", Frame::kB, false, 0x00000032,
     detail::kTcsip_CertifyKey2},
    {55, "Tcsip_Sign", "Tcsip_Sign", Frame::kB, false, 0x0000003C, detail::kTcsip_Sign},
    {56, "Tcsip_GetRandom", "Tcsip_GetRandom", Frame::kA, false, 0x00000046,
     detail::kTcsip_GetRandom},
    {57, "Tcsip_StirRandom", "Tcsip_StirRandom", Frame::kA, false, 0x00000047,
     detail::kTcsip_StirRandom},
    {58, "Tcsip_GetCapability", "Tcsip_GetCapability", Frame::kA, false, 0x00000065,
     detail::kTcsip_GetCapability},
    {59, "Tcsip_GetCapabilitySigned", "Tcsip_GetCapabilitySigned", Frame::kB, false, 0x00000064,
     detail::kTcsip_GetCapabilitySigned},
    {60, "Tcsip_GetCapabilityOwner", "Tcsip_GetCapabilityOwner", Frame::kA, false, 0x00000066,
     detail::kTcsip_GetCapabilityOwner},
    {61, "Tcsip_CreateEndorsementKeyPair", "Tcsip_CreateEndorsementKeyPair", Frame::kA, false,
     0x00000078, detail::kTcsip_CreateEndorsementKeyPair},
    {62, "Tcsip_ReadPubek", "Tcsip_ReadPubek", Frame::kA, false, 0x0000007C,
     detail::kTcsip_ReadPubek},
    {63, "Tcsip_DisablePubekRead", "Tcsip_DisablePubekRead", Frame::kA, false, 0x0000007E,
     detail::kTcsip_DisablePubekRead},
    {64, "Tcsip_OwnerReadPubek", "Tcsip_OwnerReadPubek", Frame::kA, false, 0x0000007D,
     detail::kTcsip_OwnerReadPubek},
    {65, "Tcsip_SelfTestFull", "Tcsip_SelfTestFull", Frame::kA, false, 0x00000050,
     detail::kTcsip_SelfTestFull},
    {66, "Tcsip_CertifySelfTest", "Tcsip_CertifySelfTest", Frame::kB, false, 0x00000052,
     detail::kTcsip_CertifySelfTest},
    {67, "Tcsip_ContinueSelfTest", "Tcsip_ContinueSelfTest", Frame::kA, false, 0x00000053,
     detail::kTcsip_ContinueSelfTest},
    {68, "Tcsip_GetTestResult", "Tcsip_GetTestResult", Frame::kA, false, 0x00000054,
     detail::kTcsip_GetTestResult},
    {69, "Tcsip_OwnerSetDisable", "Tcsip_OwnerSetDisable", Frame::kA, false, 0x0000006E,
     detail::kTcsip_OwnerSetDisable},
    {70, "Tcsip_OwnerClear", "Tcsip_OwnerClear", Frame::kA, false, 0x0000005B,
     detail::kTcsip_OwnerClear},
    {71, "Tcsip_DisableOwnerClear", "Tcsip_DisableOwnerClear", Frame::kA, false, 0x0000005C,
     detail::kTcsip_DisableOwnerClear},
    {72, "Tcsip_ForceClear", "Tcsip_ForceClear", Frame::kA, false, 0x0000005D,
     detail::kTcsip_ForceClear},
    {73, "Tcsip_DisableForceClear", "Tcsip_DisableForceClear", Frame::kA, false, 0x0000005E,
     detail::kTcsip_DisableForceClear},
    {74, "Tcsip_PhysicalDisable", "Tcsip_PhysicalDisable", Frame::kA, false, 0x00000070,
     detail::kTcsip_PhysicalDisable},
    {75, "Tcsip_PhysicalEnable", "Tcsip_PhysicalEnable", Frame::kA, false, 0x0000006F,
     detail::kTcsip_PhysicalEnable},
    {76, "Tcsip_PhysicalSetDeactivated", "Tcsip_PhysicalSetDeactivated", Frame::kA, false,
     0x00000072, detail::kTcsip_PhysicalSetDeactivated},
    {77, "Tcsip_SetTempDeactivated", "Tcsip_SetTempDeactivated", Frame::kA, false, 0x00000073,
     detail::kTcsip_SetTempDeactivated},
    {78, "Tcsip_SetTempDeactivated2", "Tcsip_SetTempDeactivated2", Frame::kA, false, 0x00000073,
     detail::kTcsip_SetTempDeactivated2},
    {79, "Tcsip_PhysicalPresence", "Tcsip_PhysicalPresence", Frame::kA, false, 0x4000000A,
     detail::kTcsip_PhysicalPresence},
    {80, "Tcsip_FieldUpgrade", "Tcsip_FieldUpgrade", Frame::kA, false, 0x000000AA,
     detail::kTcsip_FieldUpgrade},
    {81, "Tcsip_SetRedirection", "Tcsip_SetRedirection", Frame::kE, false, 0x0000009A,
     detail::kTcsip_SetRedirection},
    {82, "Tcsip_Delegate_Manage", "Tcsip_Delegate_Manage", Frame::kD, false, 0x000000D2,
     detail::kTcsip_Delegate_Manage},
    {83, "Tcsip_Delegate_CreateKeyDelegation", "Tcsip_Delegate_CreateKeyDelegation", Frame::kE,
     false, 0x000000D4, detail::kTcsip_Delegate_CreateKeyDelegation},
    {84, "Tcsip_Delegate_CreateOwnerDelegation", "Tcsip_Delegate_CreateOwnerDelegation", Frame::kD,
     false, 0x000000D5, detail::kTcsip_Delegate_CreateOwnerDelegation},
    {85, "Tcsip_Delegate_LoadOwnerDelegation", "Tcsip_Delegate_LoadOwnerDelegation", Frame::kD,
     false, 0x000000D8, detail::kTcsip_Delegate_LoadOwnerDelegation},
    {86, "Tcsip_Delegate_UpdateVerificationCount", "Tcsip_Delegate_UpdateVerificationCount",
     Frame::kD, false, 0x000000D1, detail::kTcsip_Delegate_UpdateVerificationCount},
    {87, "Tcsip_Delegate_VerifyDelegation", "Tcsip_Delegate_VerifyDelegation", Frame::kD, false,
     0x000000D6, detail::kTcsip_Delegate_VerifyDelegation},
    {88, "Tcsip_Delegate_ReadTable", "Tcsip_Delegate_ReadTable", Frame::kD, false, 0x000000DB,
     detail::kTcsip_Delegate_ReadTable},
    {89, "Tcsip_NV_DefineOrReleaseSpace", "Tcsip_NV_DefineOrReleaseSpace", Frame::kD, false,
     0x000000CC, detail::kTcsip_NV_DefineOrReleaseSpace},
    {90, "Tcsip_NV_WriteValue", "Tcsip_NV_WriteValue", Frame::kD, false, 0x000000CD,
     detail::kTcsip_NV_WriteValue},
    {91, "Tcsip_NV_WriteValueAuth", "Tcsip_NV_WriteValueAuth", Frame::kD, false, 0x000000CE,
     detail::kTcsip_NV_WriteValueAuth},
    {92, "Tcsip_NV_ReadValue", "Tcsip_NV_ReadValue", Frame::kD, false, 0x000000CF,
     detail::kTcsip_NV_ReadValue},
    {93, "Tcsip_NV_ReadValueAuth", "Tcsip_NV_ReadValueAuth", Frame::kD, false, 0x000000D0,
     detail::kTcsip_NV_ReadValueAuth},
    {94, "Tcsip_CreateMaintenanceArchive", "Tcsip_CreateMaintenanceArchive", Frame::kD, false,
     0x0000002C, detail::kTcsip_CreateMaintenanceArchive},
    {95, "Tcsip_LoadMaintenanceArchive", "Tcsip_LoadMaintenanceArchive", Frame::kD, false,
     0x0000002D, detail::kTcsip_LoadMaintenanceArchive},
    {96, "Tcsip_KillMaintenanceFeature", "Tcsip_KillMaintenanceFeature", Frame::kD, false,
     0x0000002E, detail::kTcsip_KillMaintenanceFeature},
    {97, "Tcsip_LoadManuMaintPub", "Tcsip_LoadManuMaintPub", Frame::kD, false, 0x0000002F,
     detail::kTcsip_LoadManuMaintPub},
    {98, "Tcsip_ReadManuMaintPub", "Tcsip_ReadManuMaintPub", Frame::kD, false, 0x00000030,
     detail::kTcsip_ReadManuMaintPub},
    {99, "Tcsip_CreateRevocableEndorsementKeyPair", "Tcsip_CreateRevocableEndorsementKeyPair",
     Frame::kD, false, 0x0000007F, detail::kTcsip_CreateRevocableEndorsementKeyPair},
    {100, "Tcsip_RevokeEndorsementKeyPair", "Tcsip_RevokeEndorsementKeyPair", Frame::kD, false,
     0x00000080, detail::kTcsip_RevokeEndorsementKeyPair},
    {101, "Tcsip_PcrReset", "Tcsip_PcrReset", Frame::kD, false, 0x000000C8,
     detail::kTcsip_PcrReset},
    {102, "Tcsip_ReadCounter", "Tcsip_ReadCounter", Frame::kD, false, 0x000000DE,
     detail::kTcsip_ReadCounter},
    {103, "Tcsip_CreateCounter", "Tcsip_CreateCounter", Frame::kD, false, 0x000000DC,
     detail::kTcsip_CreateCounter},
    {104, "Tcsip_IncrementCounter", "Tcsip_IncrementCounter", Frame::kD, false, 0x000000DD,
     detail::kTcsip_IncrementCounter},
    {105, "Tcsip_ReleaseCounter", "Tcsip_ReleaseCounter", Frame::kD, false, 0x000000DF,
     detail::kTcsip_ReleaseCounter},
    {106, "Tcsip_ReleaseCounterOwner", "Tcsip_ReleaseCounterOwner", Frame::kD, false, 0x000000DF,
     detail::kTcsip_ReleaseCounterOwner},
    {107, "Tcsip_TPM_ReadCurrentTicks", "Tcsip_TPM_ReadCurrentTicks", Frame::kD, false, 0x000000F1,
     detail::kTcsip_TPM_ReadCurrentTicks},
    {108, "Tcsip_TickStampBlob", "Tcsip_TickStampBlob", Frame::kE, false, 0x000000F2,
     detail::kTcsip_TickStampBlob},
    {109, "Tcsip_TPM_DAA_Join", "Tcsip_TPM_DAA_Join", Frame::kD, false, 0x00000029,
     detail::kTcsip_TPM_DAA_Join},
    {110, "Tcsip_TPM_DAA_Sign", "Tcsip_TPM_DAA_Sign", Frame::kD, false, 0x00000031,
     detail::kTcsip_TPM_DAA_Sign},
    {111, "Tcsip_MigrateKey", "Tcsip_MigrateKey", Frame::kE, false, 0x00000025,
     detail::kTcsip_MigrateKey},
    {112, "Tcsip_CMK_SetRestrictions", "Tcsip_CMK_SetRestrictions", Frame::kD, false, 0x0000001C,
     detail::kTcsip_CMK_SetRestrictions},
    {113, "Tcsip_CMK_ApproveMA", "Tcsip_CMK_ApproveMA", Frame::kD, false, 0x0000001D,
     detail::kTcsip_CMK_ApproveMA},
    {114, "Tcsip_CMK_CreateKey", "Tcsip_CMK_CreateKey", Frame::kE, false, 0x00000013,
     detail::kTcsip_CMK_CreateKey},
    {115, "Tcsip_CMK_CreateTicket", "Tcsip_CMK_CreateTicket", Frame::kD, false, 0x00000012,
     detail::kTcsip_CMK_CreateTicket},
    {116, "Tcsip_CMK_CreateBlob", "Tcsip_CMK_CreateBlob", Frame::kE, false, 0x0000001B,
     detail::kTcsip_CMK_CreateBlob},
    {117, "Tcsip_CMK_ConvertMigration", "Tcsip_CMK_ConvertMigration", Frame::kE, false, 0x00000024,
     detail::kTcsip_CMK_ConvertMigration},
    {118, "Tcsip_SetCapability", "Tcsip_SetCapability", Frame::kD, false, 0x0000003F,
     detail::kTcsip_SetCapability},
    {119, "Tcsip_GetAuditDigest", "Tcsip_GetAuditDigest", Frame::kD, false, 0x00000085,
     detail::kTcsip_GetAuditDigest},
    {120, "Tcsip_GetAuditDigestSigned", "Tcsip_GetAuditDigestSigned", Frame::kE, false, 0x00000086,
     detail::kTcsip_GetAuditDigestSigned},
    {121, "Tcsip_SetOrdinalAuditStatus", "Tcsip_SetOrdinalAuditStatus", Frame::kD, false,
     0x0000008D, detail::kTcsip_SetOrdinalAuditStatus},
    {122, "Tcsip_ResetLockValue", "Tcsip_ResetLockValue", Frame::kD, false, 0x00000040,
     detail::kTcsip_ResetLockValue},
    {123, "Tcsi_Reserved123", "Tcsi_Reserved123", Frame::kReserved, false, 0,
     detail::kTcsi_Reserved123},
    {124, "Tcsi_Reserved124", "Tcsi_Reserved124", Frame::kReserved, false, 0,
     detail::kTcsi_Reserved124},
    {125, "Tcsi_Reserved125", "Tcsi_Reserved125", Frame::kReserved, false, 0,
     detail::kTcsi_Reserved125},
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

}  // namespace kesttcs::rpc
