// The few small TPM commands the service sends on its own: the start-up sequence, the release of
// a session left behind by a failed exchange, and key eviction. Each builds its command in a local
// 4096-byte buffer and sends it with transmit_timed; the caller holds the TPM lock (TpmLockGuard).
#pragma once

#include <kesttcs/tcs_results.h>
#include <kesttcs/tcs_types.h>

#include "tpm/tpm_lock.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {

inline constexpr UINT16 TPM_ST_CLEAR = 1;
inline constexpr UINT32 TPM_RT_KEY = 1;
inline constexpr UINT32 TPM_RT_AUTH = 2;
inline constexpr UINT32 TPM_RT_TRANS = 4;

// Whether the TPM reported version 1.2 (set by the metrics at start-up; true until then). Chooses
// TPM_FlushSpecific over TPM_Terminate_Handle.
void SetTpmIsVersion12(bool isVersion12);
bool TpmIsVersion12();

// TPM_ContinueSelfTest at high priority. The driver's result, else the mapped TPM result.
[[nodiscard]] TSS_RESULT SendContinueSelfTest() REQUIRES(tpm_lock());
// TPM_Startup(startupType) at high priority. The driver's result, else the mapped TPM result.
[[nodiscard]] TSS_RESULT SendStartup(UINT16 startupType) REQUIRES(tpm_lock());
// Drops a session or other resource from the TPM at normal priority: TPM_FlushSpecific(handle,
// resourceType) on a TPM 1.2, TPM_Terminate_Handle(handle) otherwise. Result as above.
TSS_RESULT ReleaseTpmHandle(UINT32 handle, UINT32 resourceType) REQUIRES(tpm_lock());
// The same with the command chosen by the caller: TPM_FlushSpecific when `flushSpecific`, else
// TPM_Terminate_Handle (for a caller that also counts other TPMs as knowing FlushSpecific).
TSS_RESULT SendHandleRelease(bool flushSpecific, UINT32 handle, UINT32 resourceType)
    REQUIRES(tpm_lock());
// Removes a key from the TPM at normal priority: TPM_FlushSpecific(keyHandle, TPM_RT_KEY) on a
// TPM 1.2, TPM_EvictKey(keyHandle) otherwise. Result as above.
TSS_RESULT SendEvictKey(UINT32 keyHandle) REQUIRES(tpm_lock());

// The TPM start-up sequence: ContinueSelfTest (traced "ContinueSelfTest "); when its result's low
// 16 bits are TPM_INVALID_POSTINIT, Startup(ST_CLEAR) (traced "StartupTPM") and, when that worked,
// ContinueSelfTest again. Returns the last command's result.
TSS_RESULT RunTpmStartupSequence() REQUIRES(tpm_lock());
// When the start-up sequence last ran (the TPM was last restarted), in seconds since the epoch; 0
// before the first run.
UINT64 LastTpmStartupTime();
// How many times the start-up sequence has run. A TPM slot looked up under one count means nothing
// under the next: the TPM lost its keys in between.
UINT64 TpmStartupCount();

}  // namespace kesttcs
