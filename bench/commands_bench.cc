// What the command layer adds on top of the request manager: Tcsip_GetRandom_Internal(16) (context
// check, marshalling, req_mgr_submit, header mapping, output copied into the context's memory and
// freed again) and Tcsip_PcrRead_Internal, on the embedded libtpms TPM of this process. Compare
// with BM_GetRandom16_ReqMgrSubmit and BM_GetRandom16_Direct of req_mgr_bench.cc.
#include <benchmark/benchmark.h>

#include "commands/tcsip_keyless.h"
#include "contexts/contexts.h"
#include "embedded_tpm.h"

namespace kesttcs {
namespace {

// One client context on the embedded TPM (shared with the other benchmarks of the binary).
TCS_CONTEXT_HANDLE ClientContext() {
  static const TCS_CONTEXT_HANDLE context = [] {
    TCS_CONTEXT_HANDLE h = 0;  // stays 0 when any step fails
    if (EmbeddedTpmReady()) static_cast<void>(Tcsi_OpenContext_Internal(&h));
    return h;
  }();
  return context;
}

void BM_Tcsip_GetRandom16(benchmark::State& state) {
  const TCS_CONTEXT_HANDLE h = ClientContext();
  if (h == 0) return state.SkipWithError("embedded TPM or context did not start");
  for (auto _ : state) {
    UINT32 count = 16;
    BYTE* random = nullptr;
    if (Tcsip_GetRandom_Internal(h, &count, &random) != TSS_SUCCESS ||
        Tcsi_FreeMemory_Internal(h, random) != TSS_SUCCESS) {
      state.SkipWithError("Tcsip_GetRandom_Internal failed");
      break;
    }
    benchmark::DoNotOptimize(random);
  }
}
BENCHMARK(BM_Tcsip_GetRandom16);

void BM_Tcsip_PcrRead(benchmark::State& state) {
  const TCS_CONTEXT_HANDLE h = ClientContext();
  if (h == 0) return state.SkipWithError("embedded TPM or context did not start");
  TPM_PCRVALUE value{};
  for (auto _ : state) {
    if (Tcsip_PcrRead_Internal(h, 10, &value) != TSS_SUCCESS) {
      state.SkipWithError("Tcsip_PcrRead_Internal failed");
      break;
    }
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK(BM_Tcsip_PcrRead);

}  // namespace
}  // namespace kesttcs
