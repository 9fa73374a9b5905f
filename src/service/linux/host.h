// The Linux host of the service (service/host.h): systemd status notification, the service's main
// flow with its stop signals, and installation as a systemd unit.
//
// systemd takes the place of the Windows service manager:
//   start-pending   STATUS=Starting (check point N) and EXTEND_TIMEOUT_USEC=<wait hint in µs>
//   running         READY=1 and STATUS=Running
//   stop-pending    STOPPING=1, STATUS=Stopping (check point N) and EXTEND_TIMEOUT_USEC
//   stopped         STATUS=Stopped, with the exit code: a TCS result code as a service-specific
//                   error in STATUS=, any other nonzero code also as ERRNO=
// SIGTERM and SIGINT are the stop control; they are taken by a thread of their own (signalfd), so
// ServiceStop never runs inside a signal handler.
//
// Environment (all optional):
//   KESTTCS_HOME            home directory (default: the executable's directory)
//   NOTIFY_SOCKET           set by systemd; without it status reports go nowhere
//   KESTTCS_SYSTEMD_DIR     unit directory for -install/-remove (default /etc/systemd/system)
//   KESTTCS_SYSTEMCTL       systemctl program for -install/-remove (default systemctl)
//   KESTTCS_SYSTEMD_RUNTIME directory whose presence says systemd runs (default
//   /run/systemd/system)
#pragma once

#include <string>

#include "service/host.h"
#include "service/service_status.h"

namespace kesttcs::host {

// The sd_notify message for one status report (see the table above).
std::string SystemdNotifyText(const ServiceStatusRecord& status);

// Sink that sends each report with sd_notify (nothing happens without NOTIFY_SOCKET).
ServiceStatusSink SdNotifyStatusSink();

// The text of a unit that runs `executable` with the given home (empty: the packaged default
// /var/lib/kesttcs with a state directory).
std::string SystemdUnitText(const std::string& executable, const std::string& home);

}  // namespace kesttcs::host
