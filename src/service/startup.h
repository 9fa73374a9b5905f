// Start-up and shut-down of the whole service: KestTcs_startup brings the managers up in a fixed
// order, ServiceStart adds the RPC endpoint and serves until stopped, ServiceStop stops serving and
// runs kesttcs_shutdown, which releases the managers in a fixed order.
//
// ServiceStart runs on the service thread (the console thread with -debug) and ServiceStop on the
// thread that handles stop requests; nothing else here may run concurrently. The configuration and
// the paths are written once by KestTcs_startup and only read afterwards.
#pragma once

#include <string>

#include <kesttcs/tcs_types.h>

#include "service/config.h"
#include "service/host_paths.h"

namespace kesttcs {

// The paths and configuration start-up settled on; meaningful after KestTcs_startup reached its
// configuration step.
const HostPaths& ServicePaths();
const TcsConfig& ServiceConfig();

// Brings the managers up, each step only when all before it succeeded: client contexts, the random
// seed, the configuration (needLog, backend, vendor, endpoint) and the paths, the directories data,
// log (only with logging on) and audit, the instance locks of the home and the socket (another
// service holding either ends start-up with EBUSY), TPM access (driver bound and opened, TPM
// started), and the managers that follow them. A failing step undoes what it is designed to undo
// and its code is returned: a TCS result code, or the errno of a directory that could not be
// created (traced as "KestTCSp:Create directory:<path> Fail!"). Returns 0 when every step
// succeeded.
[[nodiscard]] TSS_RESULT KestTcs_startup();

// After KestTcs_startup failed: the failing step and what the layer below said about it, for the
// console and the journal ("TPM access: cannot open /dev/tpm0: ..."). Empty when nothing failed.
std::string StartupFailureText();

// Releases the managers in shut-down order, tracing each step before it runs. Failures are traced
// (and the request manager's also reported as a service event); every step runs regardless.
void kesttcs_shutdown();

// Brings the service up and serves calls: reports start-pending around each step, runs
// KestTcs_startup, opens the endpoint from the configuration, registers the interface, starts
// listening, reports running, and blocks until ServiceStop ends listening. Returns 0 after a
// normal stop, KestTcs_startup's code, or the status of the RPC step that failed (a failure after
// start-up leaves the managers up; the process ends right after).
[[nodiscard]] UINT32 ServiceStart();

// Stops listening, drops the interface registration and runs kesttcs_shutdown. A failing RPC step
// is traced ("%s returned: 0x%x") and ends the stop there, with nothing shut down.
void ServiceStop();

}  // namespace kesttcs
