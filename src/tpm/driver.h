// Driver binding: the one TPM backend of the process and the four driver operations the request
// manager and power-state handling call. The backend is chosen by a configuration string
// (tpm_backend.h) and bound lazily: every operation binds first, and the binding, once made, stays
// for the life of the process (driver_unbind() exists for tests and the very end of the process).
//
// Binding is not locked against itself: it first runs during start-up before any request is
// served. After that, driver_transmit runs under the request manager's TPM lock and driver_cancel
// may run on any thread at the same time.
#pragma once

#include <memory>
#include <span>
#include <string>

#include <kesttcs/tcs_types.h>

#include "tpm/tpm_backend.h"
#include "tpm/tpm_lock.h"

namespace kesttcs {

// Sets the backend configuration string ("auto", "libtpms:/var/lib/kesttcs/tpm", ...) and the
// home directory used for defaults. Takes effect at the next binding; call before start-up.
void driver_configure(std::string backendConfig, std::string home);

// Binds a backend built elsewhere (tests: a scripted fake) instead of one built from the
// configuration. Replaces any current binding.
void driver_use_backend(std::unique_ptr<TpmBackend> backend);

// Drops the binding: the backend (closed first if open) is destroyed. The next operation binds
// again from the configuration.
void driver_unbind();

// What driver_open, driver_close and driver_cancel return when no backend could be bound, and so
// what start-up ends with then. Not a code of the driver layer but the 1 the binding has always
// answered; it reaches the service's status report and exit code as it is.
inline constexpr TSS_RESULT kDriverNotBound = 1;

// Binds the configured backend. 0 bound (at once when already bound), 1 failed: the configuration
// string is bad or the backend could not load what it needs; driver_last_error() says why.
[[nodiscard]] int bind_driver();

// Opens the bound backend. The backend's result (0 on success); kDriverNotBound when binding
// failed.
[[nodiscard]] TSS_RESULT driver_open();
// Closes the bound backend: its result; kDriverNotBound when binding failed.
TSS_RESULT driver_close();
// Asks the TPM to abandon the command in flight: the backend's result; kDriverNotBound when
// binding failed.
TSS_RESULT driver_cancel();
// One exchange: sends `in`, receives into `out` (*outLen = bytes received). The backend's result
// unchanged; TCS_E_DRIVER_NOT_AVAILABLE when binding failed. `priority` is a TBS priority
// (kPriorityNormal, kPriorityHigh); a TDDL-style backend ignores it.
[[nodiscard]] TSS_RESULT driver_transmit(std::span<const BYTE> in, std::span<BYTE> out,
                                         UINT32* outLen, UINT32 priority) REQUIRES(tpm_lock());

// Why the last binding or open failed, for the start-up report (empty when nothing failed).
std::string driver_last_error();

// The TBS flag: true when the TPM is reached through TPM Base Services, false on the TDDL path.
// Linux backends are all on the TDDL path; the flag is settable so that the TBS behaviours (the
// response-code mapping, the power-state paths) run and are tested on any host. Setting it also
// sets the response-code mapping of UnloadBlob_Header.
bool driver_is_tbs();
void driver_set_tbs(bool tbs);

}  // namespace kesttcs
