// What the command layer adds on top of the request manager: Tcsip_GetRandom_Internal(16) (context
// check, marshalling, req_mgr_submit, header mapping, output copied into the context's memory and
// freed again) and Tcsip_PcrRead_Internal, on the embedded libtpms TPM of this process. Compare
// with BM_GetRandom16_ReqMgrSubmit and BM_GetRandom16_Direct of req_mgr_bench.cc.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "commands/tcsip_keyless.h"
#include "rpc/contexts.h"
#include "tpm/driver.h"
#include "tpm/req_mgr.h"

namespace kesttcs {
namespace {

// The embedded TPM behind the request manager (shared with the other benchmarks of the binary:
// whichever runs first opens it) and one client context.
TCS_CONTEXT_HANDLE ClientContext() {
  static const TCS_CONTEXT_HANDLE context = [] {
    if (!req_mgr_driver_open()) {
      std::string dir = (std::filesystem::temp_directory_path() / "kesttcs-bench-XXXXXX").string();
      if (::mkdtemp(dir.data()) == nullptr) return TCS_CONTEXT_HANDLE{0};
      driver_configure("libtpms:" + dir + "/tpm", dir);
      if (TSS_RESULT result = req_mgr_init()) {
        std::fprintf(stderr, "req_mgr_init: 0x%08X %s\n", result, driver_last_error().c_str());
        return TCS_CONTEXT_HANDLE{0};
      }
    }
    TCS_CONTEXT_HANDLE h = 0;  // stays 0 when either step fails
    if (ctx_init() == TSS_SUCCESS) static_cast<void>(Tcsi_OpenContext_Internal(&h));
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
