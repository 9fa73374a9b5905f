#include "service/power_events.h"

#include "service/service_status.h"
#include "tpm/power_state.h"

namespace kesttcs {
namespace {

UINT32 RoutePowerEvent(UINT32 eventType) {
  switch (eventType) {
    case PBT_APMQUERYSUSPEND:
      return CanIntoS3S4();
    case PBT_APMQUERYSUSPENDFAILED:
      RejectToS3S4();
      ReportServiceStatus(kServiceRunning, 0, 0);
      return 0;
    case PBT_APMSUSPEND:
      return GotoS3S4();
    case PBT_APMRESUMEAUTOMATIC:
      S3S4Return();
      ReportServiceStatus(kServiceRunning, 0, 0);
      return 0;
    default:
      return 0;
  }
}

}  // namespace

void InstallPowerEventRouting() {
  power_state_SetStatusReporter([](PowerStatus status, UINT32 exitCode, UINT32 waitHintMs) {
    ReportServiceStatus(status == PowerStatus::kRunning ? kServiceRunning : kServiceContinuePending,
                        exitCode, waitHintMs);
  });
  SetPowerEventHandler(RoutePowerEvent);
}

}  // namespace kesttcs
