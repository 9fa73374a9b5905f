// The TPM 1.2 structures that the service builds into commands and parses out of responses, with
// their field names as the TPM defines them, each followed by its WireForm: the list of its fields
// in wire order, from which marshal.h reads and writes it (the words are in wire_form.h). Each
// variable-length part keeps its size field next to an owning vector: marshalling writes the size
// field and that many items (and refuses when the vector holds fewer); unmarshalling sets both. A
// size of 0 leaves the vector empty (no allocation). Wire layouts are in docs/formats.md.
#pragma once

#include <kesttcs/tcs_types.h>

#include <vector>

#include "tpm12/wire_form.h"

namespace kesttcs {

// Request and response tags (the first UINT16 of every command and response).
inline constexpr TPM_TAG TPM_TAG_RQU_COMMAND = 0x00C1;
inline constexpr TPM_TAG TPM_TAG_RQU_AUTH1_COMMAND = 0x00C2;
inline constexpr TPM_TAG TPM_TAG_RQU_AUTH2_COMMAND = 0x00C3;
inline constexpr TPM_TAG TPM_TAG_RSP_COMMAND = 0x00C4;
inline constexpr TPM_TAG TPM_TAG_RSP_AUTH1_COMMAND = 0x00C5;
inline constexpr TPM_TAG TPM_TAG_RSP_AUTH2_COMMAND = 0x00C6;

// The key-flag bits that survive marshalling; every other bit of TPM_KEY_FLAGS is dropped both
// ways.
inline constexpr TPM_KEY_FLAGS TPM_KEY_FLAG_REDIRECTION = 0x00000001;
inline constexpr TPM_KEY_FLAGS TPM_KEY_FLAG_MIGRATABLE = 0x00000002;
inline constexpr TPM_KEY_FLAGS TPM_KEY_FLAG_VOLATILE = 0x00000004;
inline constexpr TPM_KEY_FLAGS kMarshalledKeyFlags =
    TPM_KEY_FLAG_REDIRECTION | TPM_KEY_FLAG_MIGRATABLE | TPM_KEY_FLAG_VOLATILE;

// TPM_KEY_CONTROL bits (TPM_KeyControlOwner): the owner alone may evict the key, and it stays in
// the TPM across TPM_Init.
inline constexpr UINT32 TPM_KEY_CONTROL_OWNER_EVICT = 0x00000001;

// Entity types named by OSAP, DSAP and the commands that take an entity.
inline constexpr TPM_ENTITY_TYPE TPM_ET_KEYHANDLE = 0x0001;
inline constexpr TPM_ENTITY_TYPE TPM_ET_OWNER = 0x0002;
inline constexpr TPM_ENTITY_TYPE TPM_ET_DATA = 0x0003;
inline constexpr TPM_ENTITY_TYPE TPM_ET_SRK = 0x0004;
inline constexpr TPM_ENTITY_TYPE TPM_ET_KEY = 0x0005;
inline constexpr TPM_ENTITY_TYPE TPM_ET_REVOKE = 0x0006;
inline constexpr TPM_ENTITY_TYPE TPM_ET_DEL_OWNER_BLOB = 0x0007;
inline constexpr TPM_ENTITY_TYPE TPM_ET_DEL_ROW = 0x0008;
inline constexpr TPM_ENTITY_TYPE TPM_ET_DEL_KEY_BLOB = 0x0009;
inline constexpr TPM_ENTITY_TYPE TPM_ET_COUNTER = 0x000A;
inline constexpr TPM_ENTITY_TYPE TPM_ET_NV = 0x000B;
inline constexpr TPM_ENTITY_TYPE TPM_ET_OPERATOR = 0x000C;

using TPM_MIGRATE_SCHEME = UINT16;
using TPM_LOCALITY_SELECTION = BYTE;
using TPM_NV_INDEX = UINT32;
using TPM_FAMILY_ID = UINT32;
using TPM_FAMILY_VERIFICATION = UINT32;
using TPM_DELEGATE_TYPE = UINT32;

// ---- Wire forms of the interface records declared in kesttcs/tcs_types.h ----
// TPM_AUTH has none: it travels as an authorisation trailer (see marshal.h).

template <>
struct WireForm<TPM_VERSION> : StoredBytes {};
template <>
struct WireForm<TSS_VERSION> : StoredBytes {};
template <>
struct WireForm<TPM_DIGEST> : StoredBytes {};
template <>
struct WireForm<TPM_NONCE> : StoredBytes {};
template <>
struct WireForm<TPM_AUTHDATA> : StoredBytes {};
template <>
struct WireForm<TSS_UUID> {
  using S = TSS_UUID;
  static constexpr auto kFields = FieldList(&S::ulTimeLow, &S::usTimeMid, &S::usTimeHigh,
                                            &S::bClockSeqHigh, &S::bClockSeqLow, &S::rgbNode);
};
template <>
struct WireForm<TPM_COUNTER_VALUE> {
  using S = TPM_COUNTER_VALUE;
  static constexpr auto kFields = FieldList(&S::tag, &S::label, &S::counter);
};
// The two arrays are read into an Unloaded<TSS_PCR_EVENT>, which owns them (marshal.h).
template <>
struct WireForm<TSS_PCR_EVENT> {
  using S = TSS_PCR_EVENT;
  static constexpr auto kFields = FieldList(&S::versionInfo, &S::ulPcrIndex, &S::eventType,
                                            Sized(&S::ulPcrValueLength, &S::rgbPcrValue),
                                            Sized(&S::ulEventLength, &S::rgbEvent));
};

// ---- TPM structures ----

struct TPM_KEY_PARMS {
  TPM_ALGORITHM_ID algorithmID = 0;
  TPM_ENC_SCHEME encScheme = 0;
  TPM_SIG_SCHEME sigScheme = 0;
  UINT32 parmSize = 0;
  std::vector<BYTE> parms;
};
template <>
struct WireForm<TPM_KEY_PARMS> {
  using S = TPM_KEY_PARMS;
  static constexpr auto kFields =
      FieldList(&S::algorithmID, &S::encScheme, &S::sigScheme, Sized(&S::parmSize, &S::parms));
};

struct TPM_STORE_PUBKEY {
  UINT32 keyLength = 0;
  std::vector<BYTE> key;
};
template <>
struct WireForm<TPM_STORE_PUBKEY> {
  using S = TPM_STORE_PUBKEY;
  static constexpr auto kFields = FieldList(Sized(&S::keyLength, &S::key));
};

struct TPM_PUBKEY {
  TPM_KEY_PARMS algorithmParms;
  TPM_STORE_PUBKEY pubKey;
};
template <>
struct WireForm<TPM_PUBKEY> {
  using S = TPM_PUBKEY;
  static constexpr auto kFields = FieldList(&S::algorithmParms, &S::pubKey);
};

// Serves TPM_KEY and TPM_KEY12 alike: for a TPM_KEY12, `ver` carries the tag (major, minor) and the
// fill (revMajor, revMinor) bytes, which marshal as the same opaque 4-byte group.
struct TPM_KEY {
  TPM_STRUCT_VER ver{};
  TPM_KEY_USAGE keyUsage = 0;
  TPM_KEY_FLAGS keyFlags = 0;
  TPM_AUTH_DATA_USAGE authDataUsage = 0;
  TPM_KEY_PARMS algorithmParms;
  UINT32 PCRInfoSize = 0;
  std::vector<BYTE> PCRInfo;
  TPM_STORE_PUBKEY pubKey;
  UINT32 encSize = 0;
  std::vector<BYTE> encData;
};
template <>
struct WireForm<TPM_KEY> {
  using S = TPM_KEY;
  static constexpr auto kFields =
      FieldList(&S::ver, &S::keyUsage, Masked<kMarshalledKeyFlags>(&S::keyFlags), &S::authDataUsage,
                &S::algorithmParms, Sized(&S::PCRInfoSize, &S::PCRInfo), &S::pubKey,
                Sized(&S::encSize, &S::encData));
};
using TPM_KEY12 = TPM_KEY;
using TCPA_KEY = TPM_KEY;

// Serves TPM_STORED_DATA12 as well through the 4-byte group (tag + et).
struct TPM_STORED_DATA {
  TPM_STRUCT_VER ver{};
  UINT32 sealInfoSize = 0;
  std::vector<BYTE> sealInfo;
  UINT32 encDataSize = 0;
  std::vector<BYTE> encData;
};
template <>
struct WireForm<TPM_STORED_DATA> {
  using S = TPM_STORED_DATA;
  static constexpr auto kFields = FieldList(&S::ver, Sized(&S::sealInfoSize, &S::sealInfo),
                                            Sized(&S::encDataSize, &S::encData));
};
using TPM_STORED_DATA12 = TPM_STORED_DATA;

struct TPM_CERTIFY_INFO {
  TPM_STRUCT_VER version{};
  TPM_KEY_USAGE keyUsage = 0;
  TPM_KEY_FLAGS keyFlags = 0;
  TPM_AUTH_DATA_USAGE authDataUsage = 0;
  TPM_KEY_PARMS algorithmParms;
  TPM_DIGEST pubkeyDigest{};
  TPM_NONCE data{};
  TSS_BOOL parentPCRStatus = 0;
  UINT32 PCRInfoSize = 0;
  std::vector<BYTE> PCRInfo;
};
// The flags of a certify info are signed by the TPM, so they pass through unmasked.
template <>
struct WireForm<TPM_CERTIFY_INFO> {
  using S = TPM_CERTIFY_INFO;
  static constexpr auto kFields = FieldList(
      &S::version, &S::keyUsage, &S::keyFlags, &S::authDataUsage, &S::algorithmParms,
      &S::pubkeyDigest, &S::data, &S::parentPCRStatus, Sized(&S::PCRInfoSize, &S::PCRInfo));
};

struct TPM_MIGRATIONKEYAUTH {
  TPM_PUBKEY migrationKey;
  TPM_MIGRATE_SCHEME migrationScheme = 0;
  TPM_DIGEST digest{};
};
template <>
struct WireForm<TPM_MIGRATIONKEYAUTH> {
  using S = TPM_MIGRATIONKEYAUTH;
  static constexpr auto kFields = FieldList(&S::migrationKey, &S::migrationScheme, &S::digest);
};

struct TPM_PCR_SELECTION {
  UINT16 sizeOfSelect = 0;
  std::vector<BYTE> pcrSelect;
};
template <>
struct WireForm<TPM_PCR_SELECTION> {
  using S = TPM_PCR_SELECTION;
  static constexpr auto kFields = FieldList(Sized(&S::sizeOfSelect, &S::pcrSelect));
};

// pcrValue holds valueSize bytes: the concatenated 20-byte PCR values.
struct TPM_PCR_COMPOSITE {
  TPM_PCR_SELECTION select;
  UINT32 valueSize = 0;
  std::vector<BYTE> pcrValue;
};
template <>
struct WireForm<TPM_PCR_COMPOSITE> {
  using S = TPM_PCR_COMPOSITE;
  static constexpr auto kFields = FieldList(&S::select, Sized(&S::valueSize, &S::pcrValue));
};

struct TPM_PCR_INFO {
  TPM_PCR_SELECTION pcrSelection;
  TPM_COMPOSITE_HASH digestAtRelease{};
  TPM_COMPOSITE_HASH digestAtCreation{};
};
template <>
struct WireForm<TPM_PCR_INFO> {
  using S = TPM_PCR_INFO;
  static constexpr auto kFields =
      FieldList(&S::pcrSelection, &S::digestAtRelease, &S::digestAtCreation);
};

struct TPM_PCR_INFO_SHORT {
  TPM_PCR_SELECTION pcrSelection;
  TPM_LOCALITY_SELECTION localityAtRelease = 0;
  TPM_COMPOSITE_HASH digestAtRelease{};
};
template <>
struct WireForm<TPM_PCR_INFO_SHORT> {
  using S = TPM_PCR_INFO_SHORT;
  static constexpr auto kFields =
      FieldList(&S::pcrSelection, &S::localityAtRelease, &S::digestAtRelease);
};

// With loaded = 0 on the wire, unmarshalling leaves `handle` as it was.
struct TPM_KEY_HANDLE_LIST {
  UINT16 loaded = 0;
  std::vector<TPM_KEY_HANDLE> handle;
};
template <>
struct WireForm<TPM_KEY_HANDLE_LIST> {
  using S = TPM_KEY_HANDLE_LIST;
  static constexpr auto kFields = FieldList(Sized<SizeRule::kZeroKeeps>(&S::loaded, &S::handle));
};

struct TPM_CURRENT_TICKS {
  TPM_STRUCTURE_TAG tag = 0;
  UINT64 currentTicks = 0;
  UINT16 tickRate = 0;
  TPM_NONCE tickNonce{};
};
template <>
struct WireForm<TPM_CURRENT_TICKS> {
  using S = TPM_CURRENT_TICKS;
  static constexpr auto kFields = FieldList(&S::tag, &S::currentTicks, &S::tickRate, &S::tickNonce);
};

// What TPM_ActivateIdentity releases: the session key the certificate was encrypted with.
struct TPM_SYMMETRIC_KEY {
  TPM_ALGORITHM_ID algId = 0;
  TPM_ENC_SCHEME encScheme = 0;
  UINT16 size = 0;
  std::vector<BYTE> data;
};
template <>
struct WireForm<TPM_SYMMETRIC_KEY> {
  using S = TPM_SYMMETRIC_KEY;
  static constexpr auto kFields = FieldList(&S::algId, &S::encScheme, Sized(&S::size, &S::data));
};

struct TPM_NV_ATTRIBUTES {
  TPM_STRUCTURE_TAG tag = 0;
  UINT32 attributes = 0;
};
template <>
struct WireForm<TPM_NV_ATTRIBUTES> {
  using S = TPM_NV_ATTRIBUTES;
  static constexpr auto kFields = FieldList(&S::tag, &S::attributes);
};

struct TPM_NV_DATA_PUBLIC {
  TPM_STRUCTURE_TAG tag = 0;
  TPM_NV_INDEX nvIndex = 0;
  TPM_PCR_INFO_SHORT pcrInfoRead;
  TPM_PCR_INFO_SHORT pcrInfoWrite;
  TPM_NV_ATTRIBUTES permission;
  TSS_BOOL bReadSTClear = 0;
  TSS_BOOL bWriteSTClear = 0;
  TSS_BOOL bWriteDefine = 0;
  UINT32 dataSize = 0;
};
template <>
struct WireForm<TPM_NV_DATA_PUBLIC> {
  using S = TPM_NV_DATA_PUBLIC;
  static constexpr auto kFields =
      FieldList(&S::tag, &S::nvIndex, &S::pcrInfoRead, &S::pcrInfoWrite, &S::permission,
                &S::bReadSTClear, &S::bWriteSTClear, &S::bWriteDefine, &S::dataSize);
};

struct TPM_DELEGATIONS {
  TPM_STRUCTURE_TAG tag = 0;
  TPM_DELEGATE_TYPE delegateType = 0;
  UINT32 per1 = 0;
  UINT32 per2 = 0;
};
template <>
struct WireForm<TPM_DELEGATIONS> {
  using S = TPM_DELEGATIONS;
  static constexpr auto kFields = FieldList(&S::tag, &S::delegateType, &S::per1, &S::per2);
};

struct TPM_DELEGATE_PUBLIC {
  TPM_STRUCTURE_TAG tag = 0;
  BYTE label = 0;
  TPM_PCR_INFO_SHORT pcrInfo;
  TPM_DELEGATIONS permissions;
  TPM_FAMILY_ID familyID = 0;
  TPM_FAMILY_VERIFICATION verificationCount = 0;
};
template <>
struct WireForm<TPM_DELEGATE_PUBLIC> {
  using S = TPM_DELEGATE_PUBLIC;
  static constexpr auto kFields = FieldList(&S::tag, &S::label, &S::pcrInfo, &S::permissions,
                                            &S::familyID, &S::verificationCount);
};

// The two areas that end both delegate blobs. An additionalSize of 0 leaves additionalArea as it
// was; a sensitiveSize of 0 or with its top bit set reads no bytes and leaves sensitiveArea as it
// was; when sensitiveArea cannot be allocated, additionalArea is emptied too.
template <class S>
inline constexpr auto kDelegateBlobAreas = FieldList(
    Sized<SizeRule::kZeroKeeps>(&S::additionalSize, &S::additionalArea),
    EmptyOnOutOfMemory(Sized<SizeRule::kNonPositiveKeeps>(&S::sensitiveSize, &S::sensitiveArea),
                       Sized(&S::additionalSize, &S::additionalArea)));

struct TPM_DELEGATE_OWNER_BLOB {
  TPM_STRUCTURE_TAG tag = 0;
  TPM_DELEGATE_PUBLIC pub;
  TPM_DIGEST integrityDigest{};
  UINT32 additionalSize = 0;
  std::vector<BYTE> additionalArea;
  UINT32 sensitiveSize = 0;
  std::vector<BYTE> sensitiveArea;
};
template <>
struct WireForm<TPM_DELEGATE_OWNER_BLOB> {
  using S = TPM_DELEGATE_OWNER_BLOB;
  static constexpr auto kFields =
      FieldList(&S::tag, &S::pub, &S::integrityDigest, kDelegateBlobAreas<S>);
};

struct TPM_DELEGATE_KEY_BLOB {
  TPM_STRUCTURE_TAG tag = 0;
  TPM_DELEGATE_PUBLIC pub;
  TPM_DIGEST integrityDigest{};
  TPM_DIGEST pubKeyDigest{};
  UINT32 additionalSize = 0;
  std::vector<BYTE> additionalArea;
  UINT32 sensitiveSize = 0;
  std::vector<BYTE> sensitiveArea;
};
template <>
struct WireForm<TPM_DELEGATE_KEY_BLOB> {
  using S = TPM_DELEGATE_KEY_BLOB;
  static constexpr auto kFields =
      FieldList(&S::tag, &S::pub, &S::integrityDigest, &S::pubKeyDigest, kDelegateBlobAreas<S>);
};

struct TPM_FAMILY_TABLE_ENTRY {
  TPM_STRUCTURE_TAG tag = 0;
  BYTE familyLabel = 0;
  TPM_FAMILY_ID familyID = 0;
  TPM_FAMILY_VERIFICATION verificationCount = 0;
  UINT32 flags = 0;
};
template <>
struct WireForm<TPM_FAMILY_TABLE_ENTRY> {
  using S = TPM_FAMILY_TABLE_ENTRY;
  static constexpr auto kFields =
      FieldList(&S::tag, &S::familyLabel, &S::familyID, &S::verificationCount, &S::flags);
};

}  // namespace kesttcs
