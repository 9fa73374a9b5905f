// The TPM 1.2 structures that the service builds into commands and parses out of responses, with
// their field names as the TPM defines them. Each variable-length part keeps its size field next to
// an owning byte vector: marshalling writes the size field and that many bytes (and refuses when
// the vector holds fewer); unmarshalling sets both. A size of 0 leaves the vector empty (no
// allocation). The free_* routines release the variable parts and zero their sizes; destructors do
// the same, so calling them is only needed where a structure is reused. Wire layouts are in
// docs/formats.md.
#pragma once

#include <kesttcs/tcs_types.h>

#include <array>
#include <vector>

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

using TPM_MIGRATE_SCHEME = UINT16;
using TPM_LOCALITY_SELECTION = BYTE;
using TPM_NV_INDEX = UINT32;
using TPM_FAMILY_ID = UINT32;
using TPM_FAMILY_VERIFICATION = UINT32;
using TPM_DELEGATE_TYPE = UINT32;

struct TPM_KEY_PARMS {
  TPM_ALGORITHM_ID algorithmID = 0;
  TPM_ENC_SCHEME encScheme = 0;
  TPM_SIG_SCHEME sigScheme = 0;
  UINT32 parmSize = 0;
  std::vector<BYTE> parms;
};

struct TPM_STORE_PUBKEY {
  UINT32 keyLength = 0;
  std::vector<BYTE> key;
};

struct TPM_PUBKEY {
  TPM_KEY_PARMS algorithmParms;
  TPM_STORE_PUBKEY pubKey;
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

struct TPM_MIGRATIONKEYAUTH {
  TPM_PUBKEY migrationKey;
  TPM_MIGRATE_SCHEME migrationScheme = 0;
  TPM_DIGEST digest{};
};

struct TPM_PCR_SELECTION {
  UINT16 sizeOfSelect = 0;
  std::vector<BYTE> pcrSelect;
};

// pcrValue holds valueSize bytes: the concatenated 20-byte PCR values.
struct TPM_PCR_COMPOSITE {
  TPM_PCR_SELECTION select;
  UINT32 valueSize = 0;
  std::vector<BYTE> pcrValue;
};

struct TPM_PCR_INFO {
  TPM_PCR_SELECTION pcrSelection;
  TPM_COMPOSITE_HASH digestAtRelease{};
  TPM_COMPOSITE_HASH digestAtCreation{};
};

struct TPM_PCR_INFO_SHORT {
  TPM_PCR_SELECTION pcrSelection;
  TPM_LOCALITY_SELECTION localityAtRelease = 0;
  TPM_COMPOSITE_HASH digestAtRelease{};
};

// With loaded = 0 on the wire, unmarshalling leaves `handle` as it was.
struct TPM_KEY_HANDLE_LIST {
  UINT16 loaded = 0;
  std::vector<TPM_KEY_HANDLE> handle;
};

struct TPM_CURRENT_TICKS {
  TPM_STRUCTURE_TAG tag = 0;
  UINT64 currentTicks = 0;
  UINT16 tickRate = 0;
  TPM_NONCE tickNonce{};
};

struct TPM_NV_ATTRIBUTES {
  TPM_STRUCTURE_TAG tag = 0;
  UINT32 attributes = 0;
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

struct TPM_DELEGATIONS {
  TPM_STRUCTURE_TAG tag = 0;
  TPM_DELEGATE_TYPE delegateType = 0;
  UINT32 per1 = 0;
  UINT32 per2 = 0;
};

struct TPM_DELEGATE_PUBLIC {
  TPM_STRUCTURE_TAG tag = 0;
  BYTE label = 0;
  TPM_PCR_INFO_SHORT pcrInfo;
  TPM_DELEGATIONS permissions;
  TPM_FAMILY_ID familyID = 0;
  TPM_FAMILY_VERIFICATION verificationCount = 0;
};

// For both delegate blobs: an additionalSize of 0 leaves additionalArea as it was; a sensitiveSize
// of 0 or with its top bit set reads no bytes and leaves sensitiveArea as it was.
struct TPM_DELEGATE_OWNER_BLOB {
  TPM_STRUCTURE_TAG tag = 0;
  TPM_DELEGATE_PUBLIC pub;
  TPM_DIGEST integrityDigest{};
  UINT32 additionalSize = 0;
  std::vector<BYTE> additionalArea;
  UINT32 sensitiveSize = 0;
  std::vector<BYTE> sensitiveArea;
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

struct TPM_FAMILY_TABLE_ENTRY {
  TPM_STRUCTURE_TAG tag = 0;
  BYTE familyLabel = 0;
  TPM_FAMILY_ID familyID = 0;
  TPM_FAMILY_VERIFICATION verificationCount = 0;
  UINT32 flags = 0;
};

// Release the variable parts (memory returned, sizes 0). Never fail.
void free_KEY_PARMS(TPM_KEY_PARMS& parms);
void free_STORE_PUBKEY(TPM_STORE_PUBKEY& store);
void free_PUBKEY(TPM_PUBKEY& pubkey);
void free_KEY(TPM_KEY& key);
void free_STORED_DATA(TPM_STORED_DATA& data);
void free_CERTIFY_INFO(TPM_CERTIFY_INFO& info);
void free_MIGRATIONKEYAUTH(TPM_MIGRATIONKEYAUTH& auth);
void free_PCR_SELECTION(TPM_PCR_SELECTION& selection);
void free_PCR_COMPOSITE(TPM_PCR_COMPOSITE& composite);
void free_PCR_INFO(TPM_PCR_INFO& info);
void free_PCR_INFO_SHORT(TPM_PCR_INFO_SHORT& info);
void free_KEY_HANDLE_LIST(TPM_KEY_HANDLE_LIST& list);
void free_NV_DATA_PUBLIC(TPM_NV_DATA_PUBLIC& data);
void free_DELEGATE_PUBLIC(TPM_DELEGATE_PUBLIC& pub);
void free_DELEGATE_OWNER_BLOB(TPM_DELEGATE_OWNER_BLOB& blob);
void free_DELEGATE_KEY_BLOB(TPM_DELEGATE_KEY_BLOB& blob);

}  // namespace kesttcs
