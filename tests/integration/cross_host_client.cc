// A Linux program of the client library for the cross-host test (tests/windows/
// linux_client_over_tcp.sh runs it against the Windows server under Wine, the endpoint in
// KESTTCS_ENDPOINT=tcp:127.0.0.1:PORT): opens a context, reads random bytes, reads and extends
// PCR 15, asks the TCS version from 8 threads 1000 times each on the process's one connection and
// the one context, has a connection of its own (another association) present the context
// (refused), and exits with the context still open, for the server to close when the connection
// ends. Prints one line per check; the exit status is the number of failed checks.
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include <kesttcs/tcs_capabilities.h>
#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>

namespace {

constexpr int kThreads = 8;
constexpr int kCallsPerThread = 1000;
constexpr TPM_PCRINDEX kPcr = 15;

int failures = 0;

void Check(bool ok, const char* what, TSS_RESULT result) {
  std::printf("%s %s (0x%08x)\n", ok ? "ok  " : "FAIL", what, result);
  std::fflush(stdout);
  if (!ok) ++failures;
}

// One thread's share of the concurrent calls: the number that failed.
int AskVersionRepeatedly(TCS_CONTEXT_HANDLE hContext) {
  int failed = 0;
  BYTE none = 0;
  for (int i = 0; i < kCallsPerThread; ++i) {
    UINT32 size = 0;
    BYTE* answer = nullptr;
    const TSS_RESULT result =
        Tcsi_GetCapability(hContext, TSS_TCSCAP_VERSION, 0, &none, &size, &answer);
    if (result != kesttcs::TSS_SUCCESS || answer == nullptr || size == 0) ++failed;
    Tcs_FreeBuffer(answer);
  }
  return failed;
}

void CallFromManyThreads(TCS_CONTEXT_HANDLE hContext) {
  std::vector<int> failed(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&failed, t, hContext] { failed[t] = AskVersionRepeatedly(hContext); });
  }
  int total = 0;
  for (int t = 0; t < kThreads; ++t) {
    threads[t].join();
    total += failed[t];
  }
  Check(total == 0, "8 threads, 1000 Tcsi_GetCapability calls each", total);
}

// A connection of another association presents the context: refused as an invalid context.
void PresentFromAnotherAssociation(TCS_CONTEXT_HANDLE hContext) {
  TSS_RESULT result = kesttcs::TSS_SUCCESS;
  std::thread other([&result, hContext] {
    result = Tcs_ConnectThread(nullptr);
    if (result != kesttcs::TSS_SUCCESS) return;
    UINT32 size = 4;
    BYTE* random = nullptr;
    result = Tcsip_GetRandom(hContext, &size, &random);
    Tcs_FreeBuffer(random);
    Tcs_DisconnectThread();
  });
  other.join();
  Check(result == kesttcs::TCS_E_INVALID_CONTEXT,
        "another association presenting the context is refused", result);
}

}  // namespace

int main() {
  TCS_CONTEXT_HANDLE hContext = 0;
  TSS_RESULT result = Tcsi_OpenContext(&hContext);
  Check(result == kesttcs::TSS_SUCCESS && hContext != 0, "Tcsi_OpenContext", result);
  if (result != kesttcs::TSS_SUCCESS) {
    std::printf("     RPC status 0x%08x\n", Tcs_LastRpcStatus());
    return failures;
  }

  UINT32 size = 16;
  BYTE* random = nullptr;
  result = Tcsip_GetRandom(hContext, &size, &random);
  Check(result == kesttcs::TSS_SUCCESS && size == 16 && random != nullptr, "Tcsip_GetRandom(16)",
        result);
  Tcs_FreeBuffer(random);

  TPM_PCRVALUE before{}, after{}, readBack{};
  result = Tcsip_PcrRead(hContext, kPcr, &before);
  Check(result == kesttcs::TSS_SUCCESS, "Tcsip_PcrRead(15)", result);
  TPM_DIGEST measurement;
  std::memset(&measurement, 0x5a, sizeof measurement);
  result = Tcsip_Extend(hContext, kPcr, measurement, &after);
  Check(result == kesttcs::TSS_SUCCESS && std::memcmp(&before, &after, sizeof after) != 0,
        "Tcsip_Extend(15) changes the PCR", result);
  result = Tcsip_PcrRead(hContext, kPcr, &readBack);
  Check(result == kesttcs::TSS_SUCCESS && std::memcmp(&after, &readBack, sizeof after) == 0,
        "Tcsip_PcrRead(15) reads the extended value", result);

  CallFromManyThreads(hContext);
  PresentFromAnotherAssociation(hContext);
  // The context stays open: the server closes it when this process's connection ends.
  return failures;
}
