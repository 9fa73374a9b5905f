// The routing of the service manager's power events to power-state handling, the same on every
// host: a sleep query, its failure, the suspend and the resume. The host's event source (logind on
// Linux) hands each event to ServiceControlHandler as a power event of these types.
#pragma once

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// Power event types (the values of the Windows power broadcasts).
inline constexpr UINT32 PBT_APMQUERYSUSPEND = 0x0;
inline constexpr UINT32 PBT_APMQUERYSUSPENDFAILED = 0x2;
inline constexpr UINT32 PBT_APMSUSPEND = 0x4;
inline constexpr UINT32 PBT_APMRESUMEAUTOMATIC = 0x12;

// Installs the routing as the control handler's power handler and power handling's status reports
// as service status reports:
//   query          CanIntoS3S4, answering its result (0 grants, BROADCAST_QUERY_DENY refuses)
//   query failed   RejectToS3S4, then "running" is reported; answers 0
//   suspend        GotoS3S4, answering its result
//   resume         S3S4Return, then "running" is reported; answers 0
//   anything else  nothing; answers 0
void InstallPowerEventRouting();

}  // namespace kesttcs
