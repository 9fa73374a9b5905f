// Capabilities: the TCS's own (Tcsi_GetCapability, answered without the TPM) and the read-only
// helpers the service uses to ask the TPM about itself (TPM_GetCapability under the service's own
// context, answers kept in the caller's memory rather than a context's).
#pragma once

#include <span>
#include <vector>

#include <kesttcs/tcs_capabilities.h>
#include <kesttcs/tcs_types.h>

namespace kesttcs {

// Answers a TCS capability query from fixed values, in a new block of the context's memory:
//   TSS_TCSCAP_ALG (sub-capability: a TSS algorithm id) one byte, 1 for the algorithms the service
//     computes itself (SHA-1 0x23, HMAC 0x24, MGF1 0x26) and 0 for the other TSS algorithms
//     (RSA 0x20, DES 0x21, 3DES 0x22, AES-128 0x25, AES-192 0x27, AES-256 0x28, XOR 0x29);
//   TSS_TCSCAP_VERSION the four bytes 2, 1, 0, 13 (any sub-capability);
//   TSS_TCSCAP_CACHING one byte: 1 for the key cache (0x100), 0 for the auth cache (0x101);
//   TSS_TCSCAP_PERSSTORAGE one byte 1 (any sub-capability);
//   TSS_TCSCAP_MANUFACTURER "KEST" for 0x102, and for 0x103 the wide string L"KESTRON TECHNOLOGY"
//     as 36 bytes of UTF-16LE without a terminator;
//   TSS_TCSCAP_PLATFORM_CLASS for the host platform (1) and for every platform with credentials
//     (2) the one platform class the service knows of, the host's, as 8 big-endian bytes: simple
//     identifier 0 (the service records no class) and a URI size of 0 (no URI).
// Every other area or sub-capability gives TCS_E_FAIL. The sub-capability is the big-endian UINT32
// in the first four bytes of subCap; an area that needs one and gets fewer than four bytes gives
// TCS_E_BAD_PARAMETER. Context failures are returned first; TCS_E_OUTOFMEMORY when the answer
// cannot be allocated. Outputs are written only on success.
[[nodiscard]] TSS_RESULT Tcsi_GetCapability_Internal(TCS_CONTEXT_HANDLE hContext,
                                                     TPM_CAPABILITY_AREA capArea, UINT32 subCapSize,
                                                     const BYTE* subCap, UINT32* respSize,
                                                     BYTE** resp);

// TPM_GetCapability(capArea, subCap) under the service's own context; the TPM's answer (without
// its size field) into *answer. Returns the request manager's or the TPM's result (the mapped
// return code), or TCS_E_BAD_PARAMETER for a response too short for the size it gives; *answer is
// written only on success. Takes the TPM lock.
[[nodiscard]] TSS_RESULT getTpmCapability(TPM_CAPABILITY_AREA capArea, std::span<const BYTE> subCap,
                                          std::vector<BYTE>* answer);

// getTpmCapability with a 4-byte big-endian sub-capability, the answer read as a big-endian
// number of 1 to 4 bytes (a boolean, a UINT32) into *value. An answer of another length gives
// TCS_E_BAD_PARAMETER.
[[nodiscard]] TSS_RESULT getTpmCapabilityNumber(TPM_CAPABILITY_AREA capArea, UINT32 subCap,
                                                UINT32* value);

// The TPM's version: the version field of TPM_CAP_VERSION_VAL (a TPM 1.2), or, when the TPM refuses
// that area with a TPM return code (a TPM 1.1), the TPM_VERSION of TPM_CAP_VERSION. Failures as
// getTpmCapability; TCS_E_BAD_PARAMETER for an answer too short to hold a version.
[[nodiscard]] TSS_RESULT getTpmVersion(TPM_VERSION* version);

}  // namespace kesttcs
