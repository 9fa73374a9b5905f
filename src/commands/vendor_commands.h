// The maker's vendor commands: three pass-through commands clients call (opnums 0 to 2), and the
// internal vendor sequence that holds the TPM for vendor traffic alone (vendor exclusive mode of
// the request manager: while it is on, every other ordinal is refused with
// TCS_E_ORDINAL_NOT_PERMITTED, so the three client vendor commands are refused too).
//
// Every command carries a one-byte selector, the data length (UINT32) and the data after the
// header; a data length for which length + 15 reaches 4097 is refused with TCS_E_BAD_PARAMETER
// before anything is marshalled. Results otherwise as the other TCS operations: the request
// manager's failure, or the TPM's return code mapped as 0xE0280000 | code.
//
// Locks: the TPM lock (through req_mgr_submit), and briefly the context list and the memory table.
#pragma once

#include <kesttcs/tcs_types.h>

namespace kesttcs {

inline constexpr TPM_COMMAND_CODE kVendorCommand1Ordinal = 0x20000001;
inline constexpr TPM_COMMAND_CODE kVendorCommand2Ordinal = 0x20000002;
inline constexpr TPM_COMMAND_CODE kVendorCommand3Ordinal = 0x20000003;

// Vendor command 1: checks the context, sends tag 0x00C1 and ordinal 0x20000001.
[[nodiscard]] TSS_RESULT Tcsip_VendorCommand1_Internal(TCS_CONTEXT_HANDLE hContext, BYTE selector,
                                                       UINT32 dataLen, const BYTE* data);

// Vendor command 2: checks the context, sends tag 0x00C2 and ordinal 0x20000002 with the
// authorisation trailer of *pAuth (required: null gives TCS_E_BAD_PARAMETER; a command that with
// its trailer would pass 4096 bytes too). A session the context does not own gives
// TCS_E_INTERNAL_ERROR and nothing is sent. A failed command releases the session; when the TPM
// accepted the command, a session sent with continue 0 is freed in the table and the response
// trailer (nonceEven, continue flag, HMAC) is read into *pAuth for the caller to verify.
[[nodiscard]] TSS_RESULT Tcsip_VendorCommand2_Internal(TCS_CONTEXT_HANDLE hContext, BYTE selector,
                                                       UINT32 dataLen, const BYTE* data,
                                                       TPM_AUTH* pAuth);

// Vendor command 3: sends tag 0x00C1 and ordinal 0x20000003 without checking the context, and
// returns the TPM's response parameters (everything after the 10-byte header) in a new block of
// hContext's memory, (*respLen, *resp).
[[nodiscard]] TSS_RESULT Tcsip_VendorCommand3_Internal(TCS_CONTEXT_HANDLE hContext, BYTE selector,
                                                       UINT32 dataLen, const BYTE* data,
                                                       UINT32* respLen, BYTE** resp);

// The vendor sequence. vendor_seq_open sends ordinal 0x20008000 with tag 0x00C2 and the
// authorisation trailer of *pAuth (required; its session handled as vendor command 2's), after
// switching vendor exclusive mode on; the mode is switched off again when the command fails
// (session check, exchange or TPM result). vendor_seq_continue
// (0x20008001) and vendor_seq_end (0x20008002) send tag 0x00C1; without the mode they return
// TCS_E_FEATURE_NOT_ENABLED and send nothing. vendor_seq_end switches the mode off once its
// exchange is over, whatever the outcome, so a failing TPM cannot keep the service locked. All
// three check the context first.
[[nodiscard]] TSS_RESULT vendor_seq_open(TCS_CONTEXT_HANDLE hContext, BYTE selector, UINT32 dataLen,
                                         const BYTE* data, TPM_AUTH* pAuth);
[[nodiscard]] TSS_RESULT vendor_seq_continue(TCS_CONTEXT_HANDLE hContext, BYTE selector,
                                             UINT32 dataLen, const BYTE* data);
[[nodiscard]] TSS_RESULT vendor_seq_end(TCS_CONTEXT_HANDLE hContext, BYTE selector, UINT32 dataLen,
                                        const BYTE* data);

}  // namespace kesttcs
