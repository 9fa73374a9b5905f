/* Capability areas and sub-capabilities a client asks the TCS and the TPM about: the TCS's own
 * (Tcsi_GetCapability) and the TPM's that the service itself reads. Plain C, values as enumerators
 * so that C and C++ users share one definition. */
#ifndef KESTTCS_TCS_CAPABILITIES_H
#define KESTTCS_TCS_CAPABILITIES_H

/* TCS capability areas and the sub-capabilities the service answers. */
enum {
  TSS_TCSCAP_ALG = 1,
  TSS_TCSCAP_VERSION = 2,
  TSS_TCSCAP_CACHING = 3,
  TSS_TCSCAP_PERSSTORAGE = 4,
  TSS_TCSCAP_MANUFACTURER = 5,
  TSS_TCSCAP_PLATFORM_CLASS = 6,
  TSS_TCSCAP_PROP_HOST_PLATFORM = 1,
  TSS_TCSCAP_PROP_ALL_PLATFORMS = 2,
  TSS_TCSCAP_PROP_KEYCACHE = 0x100,
  TSS_TCSCAP_PROP_AUTHCACHE = 0x101,
  TSS_TCSCAP_PROP_MANUFACTURER_ID = 0x102,
  TSS_TCSCAP_PROP_MANUFACTURER_STR = 0x103,
};

/* TPM capability areas and properties. */
enum {
  TPM_CAP_ORD = 1,
  TPM_CAP_PROPERTY = 5,
  TPM_CAP_VERSION = 6,
  TPM_CAP_KEY_HANDLE = 7,
  TPM_CAP_NV_INDEX = 0x11,
  TPM_CAP_HANDLE = 0x14,
  TPM_CAP_VERSION_VAL = 0x1A,
  TPM_CAP_PROP_PCR = 0x101,
  TPM_CAP_PROP_DIR = 0x102,
  TPM_CAP_PROP_MANUFACTURER = 0x103,
  TPM_CAP_PROP_KEYS = 0x104,
  TPM_CAP_PROP_MAX_AUTHSESS = 0x10D,
  TPM_CAP_PROP_OWNER = 0x111,
};

#endif /* KESTTCS_TCS_CAPABILITIES_H */
