/* Every result code of the TCS interface, for the service and its clients alike. A TSS_RESULT is 0
 * on success; failures are 0xE0280000 | layer | code, where the layer is 0x0000 for a TPM return
 * code passed through, 0x1000 for the driver binding and 0x2000 for the service's own codes.
 *
 * The two tables are X-macros so that C users can build their own constants from them; C++ users
 * get the named constants, ResultName and ResultText in namespace kesttcs. */
#ifndef KESTTCS_TCS_RESULTS_H
#define KESTTCS_TCS_RESULTS_H

#include <kesttcs/tcs_types.h>

/* The service's own codes and the driver-binding codes: X(name, value, what it means). */
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

/* TPM 1.2 return codes (the value a TPM puts in a response header): X(name without its TPM_
 * prefix, value). Passed through, TPM_AUTHFAIL becomes the result 0xE0280001, TPM_E_AUTHFAIL. */
#define KESTTCS_TPM_RESULTS(X)    \
  X(AUTHFAIL, 0x01)               \
  X(BADINDEX, 0x02)               \
  X(BAD_PARAMETER, 0x03)          \
  X(AUDITFAILURE, 0x04)           \
  X(CLEAR_DISABLED, 0x05)         \
  X(DEACTIVATED, 0x06)            \
  X(DISABLED, 0x07)               \
  X(DISABLED_CMD, 0x08)           \
  X(FAIL, 0x09)                   \
  X(BAD_ORDINAL, 0x0A)            \
  X(INSTALL_DISABLED, 0x0B)       \
  X(INVALID_KEYHANDLE, 0x0C)      \
  X(KEYNOTFOUND, 0x0D)            \
  X(INAPPROPRIATE_ENC, 0x0E)      \
  X(MIGRATEFAIL, 0x0F)            \
  X(INVALID_PCR_INFO, 0x10)       \
  X(NOSPACE, 0x11)                \
  X(NOSRK, 0x12)                  \
  X(NOTSEALED_BLOB, 0x13)         \
  X(OWNER_SET, 0x14)              \
  X(RESOURCES, 0x15)              \
  X(SHORTRANDOM, 0x16)            \
  X(SIZE, 0x17)                   \
  X(WRONGPCRVAL, 0x18)            \
  X(BAD_PARAM_SIZE, 0x19)         \
  X(SHA_THREAD, 0x1A)             \
  X(SHA_ERROR, 0x1B)              \
  X(FAILEDSELFTEST, 0x1C)         \
  X(AUTH2FAIL, 0x1D)              \
  X(BADTAG, 0x1E)                 \
  X(IOERROR, 0x1F)                \
  X(ENCRYPT_ERROR, 0x20)          \
  X(DECRYPT_ERROR, 0x21)          \
  X(INVALID_AUTHHANDLE, 0x22)     \
  X(NO_ENDORSEMENT, 0x23)         \
  X(INVALID_KEYUSAGE, 0x24)       \
  X(WRONG_ENTITYTYPE, 0x25)       \
  X(INVALID_POSTINIT, 0x26)       \
  X(INAPPROPRIATE_SIG, 0x27)      \
  X(BAD_KEY_PROPERTY, 0x28)       \
  X(BAD_MIGRATION, 0x29)          \
  X(BAD_SCHEME, 0x2A)             \
  X(BAD_DATASIZE, 0x2B)           \
  X(BAD_MODE, 0x2C)               \
  X(BAD_PRESENCE, 0x2D)           \
  X(BAD_VERSION, 0x2E)            \
  X(NO_WRAP_TRANSPORT, 0x2F)      \
  X(AUDITFAIL_UNSUCCESSFUL, 0x30) \
  X(AUDITFAIL_SUCCESSFUL, 0x31)   \
  X(NOTRESETABLE, 0x32)           \
  X(NOTLOCAL, 0x33)               \
  X(BAD_TYPE, 0x34)               \
  X(INVALID_RESOURCE, 0x35)       \
  X(NOTFIPS, 0x36)                \
  X(INVALID_FAMILY, 0x37)         \
  X(NO_NV_PERMISSION, 0x38)       \
  X(REQUIRES_SIGN, 0x39)          \
  X(KEY_NOTSUPPORTED, 0x3A)       \
  X(AUTH_CONFLICT, 0x3B)          \
  X(AREA_LOCKED, 0x3C)            \
  X(BAD_LOCALITY, 0x3D)           \
  X(READ_ONLY, 0x3E)              \
  X(PER_NOWRITE, 0x3F)            \
  X(FAMILYCOUNT, 0x40)            \
  X(WRITE_LOCKED, 0x41)           \
  X(BAD_ATTRIBUTES, 0x42)         \
  X(INVALID_STRUCTURE, 0x43)      \
  X(KEY_OWNER_CONTROL, 0x44)      \
  X(BAD_COUNTER, 0x45)            \
  X(NOT_FULLWRITE, 0x46)          \
  X(CONTEXT_GAP, 0x47)            \
  X(MAXNVWRITES, 0x48)            \
  X(NOOPERATOR, 0x49)             \
  X(RESOURCEMISSING, 0x4A)        \
  X(DELEGATE_LOCK, 0x4B)          \
  X(DELEGATE_FAMILY, 0x4C)        \
  X(DELEGATE_ADMIN, 0x4D)         \
  X(TRANSPORT_NOTEXCLUSIVE, 0x4E) \
  X(OWNER_CONTROL, 0x4F)          \
  X(DAA_RESOURCES, 0x50)          \
  X(DAA_INPUT_DATA0, 0x51)        \
  X(DAA_INPUT_DATA1, 0x52)        \
  X(DAA_ISSUER_SETTINGS, 0x53)    \
  X(DAA_TPM_SETTINGS, 0x54)       \
  X(DAA_STAGE, 0x55)              \
  X(DAA_ISSUER_VALIDITY, 0x56)    \
  X(DAA_WRONG_W, 0x57)            \
  X(BAD_HANDLE, 0x58)             \
  X(BAD_DELEGATE, 0x59)           \
  X(BADCONTEXT, 0x5A)             \
  X(TOOMANYCONTEXTS, 0x5B)        \
  X(MA_TICKET_SIGNATURE, 0x5C)    \
  X(MA_DESTINATION, 0x5D)         \
  X(MA_SOURCE, 0x5E)              \
  X(MA_AUTHORITY, 0x5F)           \
  X(PERMANENTEK, 0x61)            \
  X(BAD_SIGNATURE, 0x62)          \
  X(NOCONTEXTSPACE, 0x63)         \
  X(RETRY, 0x800)                 \
  X(NEEDS_SELFTEST, 0x801)        \
  X(DOING_SELFTEST, 0x802)        \
  X(DEFEND_LOCK_RUNNING, 0x803)

#ifdef __cplusplus
namespace kesttcs {

inline constexpr TSS_RESULT TSS_SUCCESS = 0;
inline constexpr TSS_RESULT kTcsErrorBase = 0xE0280000;
inline constexpr TSS_RESULT kTcsLayerTpm = 0x0000;
inline constexpr TSS_RESULT kTcsLayerDriver = 0x1000;
inline constexpr TSS_RESULT kTcsLayerService = 0x2000;

#define KESTTCS_DECLARE_SERVICE_RESULT(name, value, text) inline constexpr TSS_RESULT name = value;
KESTTCS_SERVICE_RESULTS(KESTTCS_DECLARE_SERVICE_RESULT)
#undef KESTTCS_DECLARE_SERVICE_RESULT

inline constexpr TPM_RESULT TPM_SUCCESS = 0;
#define KESTTCS_DECLARE_TPM_RESULT(name, value) inline constexpr TPM_RESULT TPM_##name = value;
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
constexpr const char* ResultName(TSS_RESULT result) {
  switch (result) {
    case TSS_SUCCESS:
      return "TSS_SUCCESS";
#define KESTTCS_SERVICE_NAME(name, value, text) \
  case value:                                   \
    return #name;
      KESTTCS_SERVICE_RESULTS(KESTTCS_SERVICE_NAME)
#undef KESTTCS_SERVICE_NAME
#define KESTTCS_TPM_NAME(name, value) \
  case kTcsErrorBase | value:         \
    return "TPM_E_" #name;
      KESTTCS_TPM_RESULTS(KESTTCS_TPM_NAME)
#undef KESTTCS_TPM_NAME
  }
  return "UNKNOWN";
}

// A short human description ("invalid context handle"); "unknown result" when not known.
constexpr const char* ResultText(TSS_RESULT result) {
  switch (result) {
    case TSS_SUCCESS:
      return "success";
#define KESTTCS_SERVICE_TEXT(name, value, text) \
  case value:                                   \
    return text;
      KESTTCS_SERVICE_RESULTS(KESTTCS_SERVICE_TEXT)
#undef KESTTCS_SERVICE_TEXT
#define KESTTCS_TPM_TEXT(name, value) case kTcsErrorBase | value:
      KESTTCS_TPM_RESULTS(KESTTCS_TPM_TEXT)
#undef KESTTCS_TPM_TEXT
      return "TPM return code";
  }
  return "unknown result";
}

}  // namespace kesttcs
#endif

#endif /* KESTTCS_TCS_RESULTS_H */
