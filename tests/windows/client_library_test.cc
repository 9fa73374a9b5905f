// The Windows client library against kesttcsd.exe -debug: operations through widl's client stubs,
// the outputs handed out and freed, the results the library makes itself (a null pointer where a
// value is required, an unreachable endpoint, the service-state interface the Windows service does
// not offer). Prints one line per check; the exit status is the number of failed checks.
#include <cstdio>
#include <cstring>
#include <vector>

#include <kesttcs/tcs_capabilities.h>
#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>
#include <kesttcs/tcs_service_state.h>

namespace {

using namespace kesttcs;

int failures = 0;

void Check(bool ok, const char* what, TSS_RESULT result) {
  std::printf("%s %s (0x%08x, RPC status %u)\n", ok ? "ok  " : "FAIL", what, result,
              Tcs_LastRpcStatus());
  std::fflush(stdout);
  if (!ok) ++failures;
}

constexpr UINT32 kRpcUnknownInterface = 1717;   // RPC_S_UNKNOWN_IF
constexpr UINT32 kRpcServerUnavailable = 1722;  // RPC_S_SERVER_UNAVAILABLE
constexpr TPM_PCRINDEX kDebugPcr = 16;

void Operations() {
  TSS_RESULT r = Tcs_Connect(nullptr);
  Check(r == TSS_SUCCESS, "Tcs_Connect binds the local endpoint", r);
  TCS_CONTEXT_HANDLE hContext = 0;
  r = Tcsi_OpenContext(&hContext);
  Check(r == TSS_SUCCESS && hContext != 0, "Tcsi_OpenContext", r);

  UINT32 size = 16;
  BYTE* random = nullptr;
  r = Tcsip_GetRandom(hContext, &size, &random);
  Check(r == TSS_SUCCESS && size == 16 && random != nullptr, "Tcsip_GetRandom 16 bytes", r);
  Tcs_FreeBuffer(random);

  BYTE* version = nullptr;
  UINT32 versionSize = 0;
  r = Tcsi_GetCapability(hContext, TSS_TCSCAP_VERSION, 0, nullptr, &versionSize, &version);
  Check(r == TSS_SUCCESS && versionSize == 4 && version != nullptr,
        "Tcsi_GetCapability gives the TCS version", r);

  TPM_DIGEST before{}, extended{}, after{};
  TPM_DIGEST digest{};
  std::memset(digest.digest, 0x5a, sizeof(digest.digest));
  r = Tcsip_PcrRead(hContext, kDebugPcr, &before);
  Check(r == TSS_SUCCESS, "Tcsip_PcrRead", r);
  r = Tcsip_Extend(hContext, kDebugPcr, digest, &extended);
  Check(r == TSS_SUCCESS && std::memcmp(&before, &extended, sizeof(before)) != 0,
        "Tcsip_Extend changes the PCR", r);
  r = Tcsip_PcrRead(hContext, kDebugPcr, &after);
  Check(r == TSS_SUCCESS && std::memcmp(&extended, &after, sizeof(after)) == 0,
        "Tcsip_PcrRead reads the extended value", r);

  r = Tcsip_PcrRead(hContext, kDebugPcr, nullptr);
  Check(r == TCS_E_BAD_PARAMETER, "a null output pointer gives TCS_E_BAD_PARAMETER", r);

  // Structures with embedded arrays come with their data, freed with the structure's block.
  BYTE eventData[] = {'w', 'i', 'n', 'e'};
  TSS_PCR_EVENT event{};
  event.ulPcrIndex = kDebugPcr;
  event.eventType = 0x0D;  // an action, whose data is free-form
  event.ulPcrValueLength = sizeof(digest.digest);
  event.rgbPcrValue = digest.digest;
  event.ulEventLength = sizeof(eventData);
  event.rgbEvent = eventData;
  UINT32 number = 0;
  r = Tcsi_LogPcrEvent(hContext, event, &number);
  Check(r == TSS_SUCCESS, "Tcsi_LogPcrEvent", r);
  UINT32 events = 0;
  TSS_PCR_EVENT* log = reinterpret_cast<TSS_PCR_EVENT*>(1);  // set to null before the call
  r = Tcsi_GetPcrEventLog(hContext, &events, &log);
  const TSS_PCR_EVENT* last = r == TSS_SUCCESS && events > 0 ? &log[events - 1] : nullptr;
  Check(last != nullptr && last->ulPcrIndex == kDebugPcr &&
            last->ulEventLength == sizeof(eventData) &&
            std::memcmp(last->rgbEvent, eventData, sizeof(eventData)) == 0 &&
            last->ulPcrValueLength == sizeof(digest.digest) &&
            std::memcmp(last->rgbPcrValue, digest.digest, sizeof(digest.digest)) == 0,
        "Tcsi_GetPcrEventLog gives the logged event with its data", r);
  Tcs_FreeBuffer(log);
  TSS_PCR_EVENT* one = nullptr;
  number = 0;
  r = Tcsi_GetPcrEvent(hContext, kDebugPcr, &number, &one);
  Check(r == TSS_SUCCESS && one != nullptr && one->ulEventLength == sizeof(eventData) &&
            std::memcmp(one->rgbEvent, eventData, sizeof(eventData)) == 0,
        "Tcsi_GetPcrEvent gives the first event of the PCR", r);
  size = 8;
  r = Tcsip_GetRandom(hContext, &size, &random);
  Check(r == TSS_SUCCESS, "Tcsip_GetRandom before freeing the context's buffers", r);
  r = Tcsi_FreeMemory(hContext, nullptr);
  Check(r == TSS_SUCCESS, "Tcsi_FreeMemory frees every buffer of the context", r);

  r = Tcsi_CloseContext(hContext);
  Check(r == TSS_SUCCESS, "Tcsi_CloseContext", r);
  r = Tcsip_PcrRead(hContext, kDebugPcr, &after);
  Check(r == TCS_E_INVALID_CONTEXT, "the closed context is refused", r);

  KESTTCS_POWER_STATE power{};
  r = KestTcs_GetPowerState(&power);
  Check(r == TCS_E_COMM_FAILURE && Tcs_LastRpcStatus() == kRpcUnknownInterface,
        "the service-state interface is not offered", r);
  Tcs_Disconnect();
}

void Unreachable() {
  TSS_RESULT r = Tcs_Connect("smoke-signals:KestTCS");
  Check(r == TCS_E_COMM_FAILURE, "an endpoint of no known protocol is refused", r);
  r = Tcs_Connect("ncalrpc:KestTCS-nobody-listens");
  Check(r == TSS_SUCCESS, "Tcs_Connect binds an endpoint nobody serves", r);
  TCS_CONTEXT_HANDLE hContext = 0;
  r = Tcsi_OpenContext(&hContext);
  Check(r == TCS_E_COMM_FAILURE && Tcs_LastRpcStatus() == kRpcServerUnavailable,
        "a call there fails with the server unavailable", r);
  Tcs_Disconnect();
}

}  // namespace

int main() {
  Operations();
  Unreachable();
  return failures;
}
