// What the request manager adds to one TPM exchange: GetRandom(16) through req_mgr_submit
// (admission checks, TPM lock, driver binding, response checks and copy) against the same command
// handed straight to the embedded TPM with TPMLIB_Process, both on the one libtpms TPM of this
// process.
#include <benchmark/benchmark.h>

#include <libtpms/tpm_library.h>
#include <libtpms/tpm_memory.h>

#include <array>

#include "embedded_tpm.h"
#include "tpm/req_mgr.h"
#include "tpm/tpm_lock.h"
#include "tpm12/marshal.h"

namespace kesttcs {
namespace {

constexpr std::array<BYTE, 14> kGetRandom16 = {0x00, 0xC1, 0, 0, 0, 14, 0, 0, 0, 0x46, 0, 0, 0, 16};

void BM_GetRandom16_Direct(benchmark::State& state) {
  if (!EmbeddedTpmReady()) return state.SkipWithError("embedded TPM did not start");
  unsigned char* response = nullptr;
  uint32_t length = 0;
  uint32_t capacity = 0;
  std::array<BYTE, kGetRandom16.size()> command = kGetRandom16;
  {
    // The same TPM is also behind the request manager: keep it to ourselves.
    TpmLockGuard tpm(0x46);
    for (auto _ : state) {
      if (TPMLIB_Process(&response, &length, &capacity, command.data(), command.size()) != 0 ||
          length != 30) {
        state.SkipWithError("TPMLIB_Process failed");
        break;
      }
      benchmark::DoNotOptimize(response);
    }
  }
  TPM_Free(response);
}
BENCHMARK(BM_GetRandom16_Direct);

void BM_GetRandom16_ReqMgrSubmit(benchmark::State& state) {
  if (!EmbeddedTpmReady()) return state.SkipWithError("embedded TPM did not start");
  std::array<BYTE, kTpmBlobSize> blob{};
  for (auto _ : state) {
    std::copy(kGetRandom16.begin(), kGetRandom16.end(), blob.begin());
    if (req_mgr_submit(blob) != TSS_SUCCESS) {
      state.SkipWithError("req_mgr_submit failed");
      break;
    }
    benchmark::DoNotOptimize(blob.data());
  }
}
BENCHMARK(BM_GetRandom16_ReqMgrSubmit);

}  // namespace
}  // namespace kesttcs
