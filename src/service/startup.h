// Start-up and shut-down of the service's managers: KestTcs_startup brings them up in a fixed
// order, kesttcs_shutdown releases them in a fixed order (service_start.h runs both around serving
// calls).
//
// Start-up runs before any call is served and shut-down after the last call ended; neither runs
// concurrently with anything else here. The configuration and the paths are written once by
// KestTcs_startup and only read afterwards.
#pragma once

#include <memory>
#include <string>

#include <kesttcs/tcs_types.h>

#include "service/config.h"
#include "service/host_paths.h"
#include "tpm/tpm_backend.h"

namespace kesttcs {

// The paths and configuration start-up settled on; meaningful after KestTcs_startup reached its
// configuration step.
const HostPaths& ServicePaths();
const TcsConfig& ServiceConfig();
// The socket the service serves on: the configured one, or the default one.
const std::string& ServiceSocketPath();

// What start-up would otherwise take from its surroundings; the service leaves both empty, tests
// hand over their own.
struct StartupOptions {
  // The home directory; empty: ResolveHomeDirectory().
  std::string home;
  // The TPM backend, bound instead of the one the configuration names; null: the configured one.
  std::unique_ptr<TpmBackend> backend;
};

// Brings the managers up, each step only when all before it succeeded: client contexts, the random
// seed, the configuration (needLog, backend, vendor, endpoint) and the paths, the directories data,
// log (only with logging on) and audit, the instance locks of the home and the socket (another
// service holding either ends start-up with EBUSY), TPM access (driver bound and opened, TPM
// started), and the managers that follow them. A failing step undoes what it is designed to undo
// and its code is returned: a TCS result code, or the errno of a directory that could not be
// created (traced as "KestTCSp:Create directory:<path> Fail!"). Returns 0 when every step
// succeeded.
[[nodiscard]] TSS_RESULT KestTcs_startup(StartupOptions options = {});

// After KestTcs_startup failed: the failing step and what the layer below said about it, for the
// console and the journal ("TPM access: cannot open /dev/tpm0: ..."). Empty when nothing failed.
std::string StartupFailureText();

// Releases the managers in shut-down order, tracing each step before it runs. Failures are traced
// (and the request manager's also reported as a service event); every step runs regardless.
void kesttcs_shutdown();

}  // namespace kesttcs
