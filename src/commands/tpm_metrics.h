// TPM metrics: the facts about the TPM that the managers size themselves by (PCRs, DIRs, key slots,
// authorisation sessions, context saving, version, manufacturer, owner), read with
// TPM_GetCapability under the service's own context at start-up and whenever key loading needs
// fresh figures; and the vendor classifier.
//
// Module state (the last metrics read, the two flags, the classifier's cached answer and the
// maker's own vendor identifier) is guarded by one leaf mutex, never held across a TPM exchange.
// tpm_metrics_init/final reset it; tests call them per case.
#pragma once

#include <array>
#include <span>

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// The TPM metrics record.
struct tpm_metrics {
  UINT32 pcrCount = 0;
  UINT32 dirCount = 0;
  UINT32 keySlots = 0;         // keys the TPM holds at once
  UINT32 maxAuthSessions = 0;  // authorisation sessions the TPM holds at once
  BYTE canSaveAuthContext = 0;
  BYTE canSaveKeyContext = 0;
  TPM_VERSION version{};               // major, minor, revMajor, revMinor
  std::array<BYTE, 4> manufacturer{};  // as the TPM returned it
};

// Vendor classes of the classifier.
inline constexpr int kVendorOther = 0;
inline constexpr int kVendorAtmel = 1;     // "ATML"
inline constexpr int kVendorInfineon = 2;  // "IFX"
inline constexpr int kVendorNational = 3;  // "NSM"
inline constexpr int kVendorOwn = 4;       // the maker's own identifier
inline constexpr int kVendorST = 5;        // "STM"

// The maker's own identifier when nothing else is configured: "KST" and a zero byte.
inline constexpr std::array<char, 4> kDefaultOwnVendorId = {'K', 'S', 'T', '\0'};

// Resets the module: no metrics read, both flags clear, classifier cache empty, own identifier
// back to kDefaultOwnVendorId.
void tpm_metrics_init();
void tpm_metrics_final();

// Sets the maker's own vendor identifier (three characters and a zero byte; compared over all four
// bytes), from the configuration's [TPM] vendor. Clears the classifier's cache.
void SetOwnVendorId(const std::array<char, 4>& vendor);

// Reads the metrics:
//   1. the manufacturer (TPM_CAP_PROP_MANUFACTURER); sets isOwnVendorTpm when it equals the own
//      identifier;
//   2. the version (getTpmVersion), which also tells the handle release whether to use
//      TPM_FlushSpecific (version 1.2) or TPM_Terminate_Handle;
//   3. on the maker's own TPM: 24 PCRs, 1 DIR, both context-save flags, 6 sessions, and the key
//      slots and owner read from the TPM; done;
//   4. on a TPM 1.2: both context-save flags from TPM_CAP_ORD TPM_ORD_SaveContext, and the owner;
//   5. on any other version: the key-context flag from TPM_ORD_SaveKeyContext and the session
//      flag from TPM_ORD_SaveAuthContext (the owner flag is left as it was);
//   6. PCRs, DIRs, key slots, then the sessions: TPM_CAP_PROP_MAX_AUTHSESS on a TPM 1.2; on a
//      TPM 1.1 the number of OIAP sessions the TPM opens one after another (at most 1024), every
//      one of which is released again; 0 on any other version.
// On success writes *metrics, keeps a copy for tpm_metrics_current and returns 0. The first query
// that fails ends the reading with its result; fewer than two sessions give TCS_E_INTERNAL_ERROR.
// The flags are set as their queries succeed, even when a later one fails. Takes the TPM lock per
// query and the module mutex briefly.
[[nodiscard]] TSS_RESULT get_tpm_metrics(tpm_metrics* metrics);

// The last metrics get_tpm_metrics read (all zero before).
tpm_metrics tpm_metrics_current();

// True when the TPM's manufacturer is the maker's own identifier.
bool isOwnVendorTpm();
// True when the TPM reported an owner.
bool tpmHasOwner();

// The vendor class of a manufacturer: "ATML" (four bytes compared) 1, "IFX" 2, "NSM" 3, the own
// identifier 4, "STM" 5 (three bytes compared for these), anything else 0.
int classifyTpmVendor(std::span<const BYTE, 4> manufacturer, const std::array<char, 4>& ownId);

// The TPM's vendor class: reads the manufacturer on the first call and caches the class. A failed
// read gives kVendorOther and is not cached. Takes the TPM lock on the first call.
int getTpmVendorClass();

}  // namespace kesttcs
