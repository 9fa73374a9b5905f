/* Scalar types and the structures that cross the TCS interface, and the few other TPM types that
 * the service and its clients share. Plain C so that a service-provider layer written in C can
 * include it. */
#ifndef KESTTCS_TCS_TYPES_H
#define KESTTCS_TCS_TYPES_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The interface's types, declared once in src/rpc/interface_types.h; the generated section keeps
 * the generator's layout. */
/* clang-format off */
/* BEGIN GENERATED TYPES (kesttcs_ifgen) */

/* Base types. */
typedef uint8_t BYTE;
typedef uint16_t UINT16;
typedef uint32_t UINT32;
typedef uint64_t UINT64;
typedef BYTE TSS_BOOL;

/* 32-bit scalars. */
typedef UINT32 TSS_RESULT;
typedef UINT32 TCS_CONTEXT_HANDLE;
typedef UINT32 TCS_KEY_HANDLE;
typedef UINT32 TCS_AUTHHANDLE;
typedef UINT32 TCS_HANDLE;
typedef UINT32 TSS_EVENTTYPE;
typedef UINT32 TSS_NV_INDEX;
typedef UINT32 TSS_COUNTER_ID;
typedef UINT32 TSS_CMK_DELEGATE;
typedef UINT32 TPM_CAPABILITY_AREA;
typedef UINT32 TPM_ALGORITHM_ID;
typedef UINT32 TPM_PCRINDEX;
typedef UINT32 TPM_DIRINDEX;
typedef UINT32 TPM_HANDLE;
typedef UINT32 TPM_COMMAND_CODE;
typedef UINT32 TPM_RESULT;
typedef UINT32 TPM_MODIFIER_INDICATOR;
typedef UINT32 TPM_FAMILY_ID;
typedef UINT32 TPM_FAMILY_OPERATION;
typedef UINT32 TPM_DELEGATE_INDEX;
typedef UINT32 TPM_REDIR_COMMAND;
typedef UINT32 TPM_ACTUAL_COUNT;

/* 16-bit scalars. */
typedef UINT16 TPM_PROTOCOL_ID;
typedef UINT16 TPM_ENTITY_TYPE;
typedef UINT16 TPM_MIGRATE_SCHEME;
typedef UINT16 TPM_PHYSICAL_PRESENCE;
typedef UINT16 TPM_STRUCTURE_TAG;

/* 20-byte values, passed by value. */
typedef struct tdTPM_DIGEST {
  BYTE digest[20];
} TPM_DIGEST;
typedef TPM_DIGEST TPM_PCRVALUE;
typedef TPM_DIGEST TPM_DIRVALUE;
typedef TPM_DIGEST TPM_HMAC;
typedef TPM_DIGEST TPM_CHOSENID_HASH;

typedef struct tdTPM_NONCE {
  BYTE nonce[20];
} TPM_NONCE;

typedef struct tdTPM_AUTHDATA {
  BYTE authdata[20];
} TPM_AUTHDATA;
typedef TPM_AUTHDATA TPM_ENCAUTH;
typedef TPM_AUTHDATA TPM_SECRET;

/* Structures. */
/* The authorisation record of one session as the TCS carries it. */
typedef struct tdTPM_AUTH {
  TCS_AUTHHANDLE AuthHandle;
  TPM_NONCE NonceOdd;
  TPM_NONCE NonceEven;
  TSS_BOOL fContinueAuthSession;
  TPM_AUTHDATA HMAC;
} TPM_AUTH;

typedef struct tdTSS_VERSION {
  BYTE bMajor;
  BYTE bMinor;
  BYTE bRevMajor;
  BYTE bRevMinor;
} TSS_VERSION;

typedef struct tdTPM_VERSION {
  BYTE major;
  BYTE minor;
  BYTE revMajor;
  BYTE revMinor;
} TPM_VERSION;

typedef struct tdTSS_UUID {
  UINT32 ulTimeLow;
  UINT16 usTimeMid;
  UINT16 usTimeHigh;
  BYTE bClockSeqHigh;
  BYTE bClockSeqLow;
  BYTE rgbNode[6];
} TSS_UUID;

typedef struct tdTSS_PCR_EVENT {
  TSS_VERSION versionInfo;
  UINT32 ulPcrIndex;
  TSS_EVENTTYPE eventType;
  UINT32 ulPcrValueLength;
  BYTE* rgbPcrValue;
  UINT32 ulEventLength;
  BYTE* rgbEvent;
} TSS_PCR_EVENT;

typedef struct tdTSS_KM_KEYINFO {
  TSS_VERSION versionInfo;
  TSS_UUID keyUUID;
  TSS_UUID parentKeyUUID;
  BYTE bAuthDataUsage;
  TSS_BOOL fIsLoaded;
  UINT32 ulVendorDataLength;
  BYTE* rgbVendorData;
} TSS_KM_KEYINFO;

typedef struct tdTCS_LOADKEY_INFO {
  TSS_UUID keyUUID;
  TSS_UUID parentKeyUUID;
  TPM_DIGEST paramDigest;
  TPM_AUTH authData;
} TCS_LOADKEY_INFO;

typedef struct tdTPM_COUNTER_VALUE {
  TPM_STRUCTURE_TAG tag;
  BYTE label[4];
  TPM_ACTUAL_COUNT counter;
} TPM_COUNTER_VALUE;

typedef struct tdTPM_CMK_AUTH {
  TPM_DIGEST migrationAuthorityDigest;
  TPM_DIGEST destinationKeyDigest;
  TPM_DIGEST sourceKeyDigest;
} TPM_CMK_AUTH;
/* END GENERATED TYPES */
/* clang-format on */

/* Types the interface does not carry. */
typedef UINT32 TSS_FLAG;
typedef UINT32 TPM_KEY_HANDLE;
typedef UINT32 TPM_KEY_FLAGS;
typedef UINT16 TPM_TAG;
typedef UINT16 TPM_KEY_USAGE;
typedef UINT16 TPM_ENC_SCHEME;
typedef UINT16 TPM_SIG_SCHEME;
typedef BYTE TPM_AUTH_DATA_USAGE;
typedef TPM_DIGEST TPM_COMPOSITE_HASH;
typedef TPM_VERSION TPM_STRUCT_VER;

/* The size of a SHA-1 digest, and so of every 20-byte value above. */
#define TPM_SHA1_160_HASH_LEN 20

#ifdef __cplusplus
}
#endif

#endif /* KESTTCS_TCS_TYPES_H */
