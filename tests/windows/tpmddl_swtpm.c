/* A "tpmddl.dll" that forwards to a swtpm process, as a vendor's driver library forwards to its
 * chip. */
#include <windows.h>

#include "swtpm_tcp.h"
#include "tddl/tddl_results.h"

__declspec(dllexport) UINT32 TDDL_Open(void) {
  if (SwtpmConnected()) return kAlreadyOpened;
  return SwtpmConnect() ? kSuccess : kIoError;
}

__declspec(dllexport) UINT32 TDDL_Close(void) {
  if (!SwtpmConnected()) return kAlreadyClosed;
  SwtpmDisconnect();
  return kSuccess;
}

__declspec(dllexport) UINT32 TDDL_TransmitData(BYTE* in, UINT32 inLen, BYTE* out, UINT32* outLen) {
  if (!SwtpmConnected()) return kFail;
  switch (SwtpmExchange(in, inLen, out, outLen)) {
    case 0:
      return kSuccess;
    case 1:
      return kInsufficientBuffer;
    default:
      return kIoError;
  }
}

__declspec(dllexport) UINT32 TDDL_Cancel(void) { return SwtpmCancel() ? kSuccess : kIoError; }
