// Throughput of the service's own HMAC-SHA-1 and SHA-1 at the sizes its callers hash: a 64-byte
// authorisation digest input, a 1 KiB parameter block, and a full 4 KiB command blob.
#include <benchmark/benchmark.h>

#include <vector>

#include "tpm12/sha1.h"

namespace kesttcs {
namespace {

void BM_HmacSha1(benchmark::State& state) {
  const std::vector<BYTE> key(20, 0x4B);
  const std::vector<BYTE> data(static_cast<std::size_t>(state.range(0)), 0x5A);
  BYTE mac[kSha1DigestSize];
  for (auto _ : state) {
    benchmark::DoNotOptimize(HMAC_SHA1(static_cast<UINT32>(key.size()), key.data(),
                                       static_cast<UINT32>(data.size()), data.data(), mac));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_HmacSha1)->Arg(64)->Arg(1024)->Arg(4096);

void BM_Sha1(benchmark::State& state) {
  const std::vector<BYTE> data(static_cast<std::size_t>(state.range(0)), 0x5A);
  BYTE digest[kSha1DigestSize];
  for (auto _ : state) {
    benchmark::DoNotOptimize(SHA1(digest, data.data(), static_cast<UINT32>(data.size())));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Sha1)->Arg(4096);

}  // namespace
}  // namespace kesttcs
