// Every result code of the service in one place. A TSS_RESULT is 0 on success; failures are
// 0xE0280000 | layer | code, where the layer is 0x0000 for a TPM return code passed through,
// 0x1000 for the driver binding and 0x2000 for the service's own codes.
#pragma once

#include <kesttcs/tcs_types.h>

namespace kesttcs {

inline constexpr TSS_RESULT TSS_SUCCESS = 0;
inline constexpr TSS_RESULT kTcsErrorBase = 0xE0280000;
inline constexpr TSS_RESULT kTcsLayerTpm = 0x0000;
inline constexpr TSS_RESULT kTcsLayerDriver = 0x1000;
inline constexpr TSS_RESULT kTcsLayerService = 0x2000;

// The service's own codes and the driver-binding code: (name, value, what it means).
#define KESTTCS_SERVICE_RESULTS(X)                                                       \
  X(TCS_E_FAIL, 0xE0282002, "general failure")                                           \
  X(TCS_E_BAD_PARAMETER, 0xE0282003, "bad parameter")                                    \
  X(TCS_E_INTERNAL_ERROR, 0xE0282004, "internal error")                                  \
  X(TCS_E_OUTOFMEMORY, 0xE0282005, "out of memory")                                      \
  X(TCS_E_NOTIMPL, 0xE0282006, "not implemented")                                        \
  X(TCS_E_KEY_ALREADY_REGISTERED, 0xE0282008, "key already registered")                  \
  X(TCS_E_COMM_FAILURE, 0xE0282011, "communication failure")                             \
  X(TCS_E_KEY_NOT_REGISTERED, 0xE0282020, "key not found in storage")                    \
  X(TCS_E_INVALID_CONTEXT, 0xE02820C1, "invalid context handle")                         \
  X(TCS_E_INVALID_KEY, 0xE02820CA, "key not loadable or invalid key handle")             \
  X(TCS_E_EXCLUSIVE_TRANSPORT, 0xE02820CD, "command refused during exclusive transport") \
  X(TCS_E_MEMORY_NOT_OWNED, 0xE0282126, "memory not owned by context")                   \
  X(TCS_E_ORDINAL_NOT_PERMITTED, 0xE0282401, "ordinal not permitted")                    \
  X(TCS_E_FEATURE_NOT_ENABLED, 0xE0282402, "feature not enabled")                        \
  X(TCS_E_DRIVER_NOT_AVAILABLE, 0xE0281087, "TPM driver not available or I/O error")     \
  X(TDDL_E_FAIL, 0xE0281002, "TPM driver failure")                                       \
  X(TDDL_E_ALREADY_OPENED, 0xE0281081, "TPM driver already open")                        \
  X(TDDL_E_ALREADY_CLOSED, 0xE0281082, "TPM driver not open")                            \
  X(TDDL_E_INSUFFICIENT_BUFFER, 0xE0281083, "TPM response larger than the buffer")       \
  X(TDDL_E_COMMAND_ABORTED, 0xE0281085, "TPM command cancelled")

// TPM 1.2 return codes (the value a TPM puts in a response header).
#define KESTTCS_TPM_RESULTS(X)        \
  X(TPM_AUTHFAIL, 0x01)               \
  X(TPM_BADINDEX, 0x02)               \
  X(TPM_BAD_PARAMETER, 0x03)          \
  X(TPM_AUDITFAILURE, 0x04)           \
  X(TPM_CLEAR_DISABLED, 0x05)         \
  X(TPM_DEACTIVATED, 0x06)            \
  X(TPM_DISABLED, 0x07)               \
  X(TPM_DISABLED_CMD, 0x08)           \
  X(TPM_FAIL, 0x09)                   \
  X(TPM_BAD_ORDINAL, 0x0A)            \
  X(TPM_INSTALL_DISABLED, 0x0B)       \
  X(TPM_INVALID_KEYHANDLE, 0x0C)      \
  X(TPM_KEYNOTFOUND, 0x0D)            \
  X(TPM_INAPPROPRIATE_ENC, 0x0E)      \
  X(TPM_MIGRATEFAIL, 0x0F)            \
  X(TPM_INVALID_PCR_INFO, 0x10)       \
  X(TPM_NOSPACE, 0x11)                \
  X(TPM_NOSRK, 0x12)                  \
  X(TPM_NOTSEALED_BLOB, 0x13)         \
  X(TPM_OWNER_SET, 0x14)              \
  X(TPM_RESOURCES, 0x15)              \
  X(TPM_SHORTRANDOM, 0x16)            \
  X(TPM_SIZE, 0x17)                   \
  X(TPM_WRONGPCRVAL, 0x18)            \
  X(TPM_BAD_PARAM_SIZE, 0x19)         \
  X(TPM_SHA_THREAD, 0x1A)             \
  X(TPM_SHA_ERROR, 0x1B)              \
  X(TPM_FAILEDSELFTEST, 0x1C)         \
  X(TPM_AUTH2FAIL, 0x1D)              \
  X(TPM_BADTAG, 0x1E)                 \
  X(TPM_IOERROR, 0x1F)                \
  X(TPM_ENCRYPT_ERROR, 0x20)          \
  X(TPM_DECRYPT_ERROR, 0x21)          \
  X(TPM_INVALID_AUTHHANDLE, 0x22)     \
  X(TPM_NO_ENDORSEMENT, 0x23)         \
  X(TPM_INVALID_KEYUSAGE, 0x24)       \
  X(TPM_WRONG_ENTITYTYPE, 0x25)       \
  X(TPM_INVALID_POSTINIT, 0x26)       \
  X(TPM_INAPPROPRIATE_SIG, 0x27)      \
  X(TPM_BAD_KEY_PROPERTY, 0x28)       \
  X(TPM_BAD_MIGRATION, 0x29)          \
  X(TPM_BAD_SCHEME, 0x2A)             \
  X(TPM_BAD_DATASIZE, 0x2B)           \
  X(TPM_BAD_MODE, 0x2C)               \
  X(TPM_BAD_PRESENCE, 0x2D)           \
  X(TPM_BAD_VERSION, 0x2E)            \
  X(TPM_NO_WRAP_TRANSPORT, 0x2F)      \
  X(TPM_AUDITFAIL_UNSUCCESSFUL, 0x30) \
  X(TPM_AUDITFAIL_SUCCESSFUL, 0x31)   \
  X(TPM_NOTRESETABLE, 0x32)           \
  X(TPM_NOTLOCAL, 0x33)               \
  X(TPM_BAD_TYPE, 0x34)               \
  X(TPM_INVALID_RESOURCE, 0x35)       \
  X(TPM_NOTFIPS, 0x36)                \
  X(TPM_INVALID_FAMILY, 0x37)         \
  X(TPM_NO_NV_PERMISSION, 0x38)       \
  X(TPM_REQUIRES_SIGN, 0x39)          \
  X(TPM_KEY_NOTSUPPORTED, 0x3A)       \
  X(TPM_AUTH_CONFLICT, 0x3B)          \
  X(TPM_AREA_LOCKED, 0x3C)            \
  X(TPM_BAD_LOCALITY, 0x3D)           \
  X(TPM_READ_ONLY, 0x3E)              \
  X(TPM_PER_NOWRITE, 0x3F)            \
  X(TPM_FAMILYCOUNT, 0x40)            \
  X(TPM_WRITE_LOCKED, 0x41)           \
  X(TPM_BAD_ATTRIBUTES, 0x42)         \
  X(TPM_INVALID_STRUCTURE, 0x43)      \
  X(TPM_KEY_OWNER_CONTROL, 0x44)      \
  X(TPM_BAD_COUNTER, 0x45)            \
  X(TPM_NOT_FULLWRITE, 0x46)          \
  X(TPM_CONTEXT_GAP, 0x47)            \
  X(TPM_MAXNVWRITES, 0x48)            \
  X(TPM_NOOPERATOR, 0x49)             \
  X(TPM_RESOURCEMISSING, 0x4A)        \
  X(TPM_DELEGATE_LOCK, 0x4B)          \
  X(TPM_DELEGATE_FAMILY, 0x4C)        \
  X(TPM_DELEGATE_ADMIN, 0x4D)         \
  X(TPM_TRANSPORT_NOTEXCLUSIVE, 0x4E) \
  X(TPM_OWNER_CONTROL, 0x4F)          \
  X(TPM_DAA_RESOURCES, 0x50)          \
  X(TPM_DAA_INPUT_DATA0, 0x51)        \
  X(TPM_DAA_INPUT_DATA1, 0x52)        \
  X(TPM_DAA_ISSUER_SETTINGS, 0x53)    \
  X(TPM_DAA_TPM_SETTINGS, 0x54)       \
  X(TPM_DAA_STAGE, 0x55)              \
  X(TPM_DAA_ISSUER_VALIDITY, 0x56)    \
  X(TPM_DAA_WRONG_W, 0x57)            \
  X(TPM_BAD_HANDLE, 0x58)             \
  X(TPM_BAD_DELEGATE, 0x59)           \
  X(TPM_BADCONTEXT, 0x5A)             \
  X(TPM_TOOMANYCONTEXTS, 0x5B)        \
  X(TPM_MA_TICKET_SIGNATURE, 0x5C)    \
  X(TPM_MA_DESTINATION, 0x5D)         \
  X(TPM_MA_SOURCE, 0x5E)              \
  X(TPM_MA_AUTHORITY, 0x5F)           \
  X(TPM_PERMANENTEK, 0x61)            \
  X(TPM_BAD_SIGNATURE, 0x62)          \
  X(TPM_NOCONTEXTSPACE, 0x63)         \
  X(TPM_RETRY, 0x800)                 \
  X(TPM_NEEDS_SELFTEST, 0x801)        \
  X(TPM_DOING_SELFTEST, 0x802)        \
  X(TPM_DEFEND_LOCK_RUNNING, 0x803)

#define KESTTCS_DECLARE_SERVICE_RESULT(name, value, text) inline constexpr TSS_RESULT name = value;
KESTTCS_SERVICE_RESULTS(KESTTCS_DECLARE_SERVICE_RESULT)
#undef KESTTCS_DECLARE_SERVICE_RESULT

inline constexpr TPM_RESULT TPM_SUCCESS = 0;
#define KESTTCS_DECLARE_TPM_RESULT(name, value) inline constexpr TPM_RESULT name = value;
KESTTCS_TPM_RESULTS(KESTTCS_DECLARE_TPM_RESULT)
#undef KESTTCS_DECLARE_TPM_RESULT

// The TCS result that carries TPM return code `tpm_code`: 0 stays 0, anything else gets the family.
constexpr TSS_RESULT TpmResult(TPM_RESULT tpm_code) {
  return tpm_code == TPM_SUCCESS ? TSS_SUCCESS : (kTcsErrorBase | tpm_code);
}

// True when `result` belongs to the 0xE028xxxx family that a service manager reports as a
// service-specific code.
constexpr bool IsTcsFamily(TSS_RESULT result) { return (result >> 16) == (kTcsErrorBase >> 16); }

// The constant's name for logs and tools: "TSS_SUCCESS", "TCS_E_INVALID_CONTEXT", "TPM_E_RETRY"
// for a TPM code passed through, "UNKNOWN" for anything else. Never null.
const char* ResultName(TSS_RESULT result);

// A short human description ("invalid context handle"); "unknown result" when not known.
const char* ResultText(TSS_RESULT result);

}  // namespace kesttcs
