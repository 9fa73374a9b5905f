// TCS calls as a client process makes them, through the client library.
#pragma once

#include <string>

#include <kesttcs/tcs_client.h>

namespace kesttcs::reliability {

// Connects this thread to `endpoint` (a socket path or "tcp:PORT"), opens a context, asks for 8
// random bytes, closes the context and disconnects. Returns the first failure, or 0.
inline TSS_RESULT OpenRandomClose(const std::string& endpoint) {
  if (TSS_RESULT r = Tcs_ConnectThread(endpoint.c_str())) return r;
  TCS_CONTEXT_HANDLE hContext = 0;
  TSS_RESULT r = Tcsi_OpenContext(&hContext);
  if (r == 0) {
    UINT32 count = 8;
    BYTE* bytes = nullptr;
    r = Tcsip_GetRandom(hContext, &count, &bytes);
    Tcs_FreeBuffer(bytes);
    const TSS_RESULT closed = Tcsi_CloseContext(hContext);
    if (r == 0) r = closed;
  }
  Tcs_DisconnectThread();
  return r;
}

}  // namespace kesttcs::reliability
