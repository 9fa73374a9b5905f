// The service's run: ServiceStart brings the managers up (startup.h), adds the RPC endpoint and
// serves until stopped; ServiceStop stops serving and runs kesttcs_shutdown.
//
// ServiceStart runs on the service thread (the console thread with -debug) and ServiceStop on the
// thread that handles stop requests; nothing else here may run concurrently.
#pragma once

#include <functional>

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// Brings the service up and serves calls: reports start-pending around each step, runs
// KestTcs_startup, opens the endpoint from the configuration, registers the interface, starts
// listening, reports running, and blocks until ServiceStop ends listening. Returns 0 after a
// normal stop, KestTcs_startup's code, or the status of the RPC step that failed (a failure after
// start-up leaves the managers up; the process ends right after).
[[nodiscard]] UINT32 ServiceStart();

// Stops listening, drops the interface registration and runs kesttcs_shutdown. A failing RPC step
// is traced ("%s returned: 0x%x") and ends the stop there, with nothing shut down.
void ServiceStop();

// The host's source of power events: `start` runs once the service reports running, `stop` first
// thing in ServiceStop (so no power event reaches a core being shut down). Each runs at most once
// per ServiceStart, never both at the same time. Empty functions: none (the default).
void SetPowerEventSource(std::function<void()> start, std::function<void()> stop);

}  // namespace kesttcs
