// What a swap costs a client: Tcsip_GetPubKey through the real kesttcsd (a child process, over its
// Unix socket) on the embedded libtpms TPM, on one resident key, and in round robin over 100 loaded
// keys, five times more than the TPM's 20 slots, so that nearly every call swaps a key out
// (TPM_SaveContext, TPM_FlushSpecific) and the called one in (TPM_LoadContext). The difference of
// the two rows per call is the swap cost per use; the round-robin row's counters give the swaps per
// call as the service counted them. The keys come from the signing-key fixture of the tests, kept
// under the build tree (made on the first run).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <vector>

#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_service_state.h>

#include "integration/signing_keys_fixture.h"

namespace kesttcs {
namespace {

namespace fs = std::filesystem;
using testing::signing_keys::FixtureTpm;

constexpr size_t kKeys = 100;

struct LoadedKeys {
  testing::TempDir dir;
  std::unique_ptr<testing::signing_keys::FixtureService> service;
  TCS_CONTEXT_HANDLE context = 0;
  std::vector<TCS_KEY_HANDLE> keys;
};

// The daemon with the fixture's 100 signing keys loaded in one context; null (with a message on
// stderr) when any step fails. Only the first call does the work.
LoadedKeys* Loaded() {
  static LoadedKeys* const loaded = []() -> LoadedKeys* {
    const auto fixture = testing::signing_keys::Fixture(FixtureTpm::kLibtpms, kKeys);
    if (!fixture) {
      std::fprintf(stderr, "the signing-key fixture could not be made\n");
      return nullptr;
    }
    auto* l = new LoadedKeys;
    const fs::path home = fs::path(l->dir.path()) / "home";
    l->service = std::make_unique<testing::signing_keys::FixtureService>(
        FixtureTpm::kLibtpms, home,
        testing::signing_keys::FixtureDir(FixtureTpm::kLibtpms) / "tpm-state");
    TCS_KEY_HANDLE storage = 0;
    bool ok = l->service->Start() && Tcsi_OpenContext(&l->context) == TSS_SUCCESS &&
              Tcsip_LoadKey2ByBlob(
                  l->context, testing::wrapped_keys::kSrk, UINT32(fixture->storage.size()),
                  const_cast<BYTE*>(fixture->storage.data()), nullptr, &storage) == TSS_SUCCESS;
    for (const testing::signing_keys::Bytes& blob : fixture->signing) {
      TCS_KEY_HANDLE key = 0;
      ok = ok && Tcsip_LoadKey2ByBlob(l->context, storage, UINT32(blob.size()),
                                      const_cast<BYTE*>(blob.data()), nullptr, &key) == TSS_SUCCESS;
      l->keys.push_back(key);
    }
    if (!ok) std::fprintf(stderr, "kesttcsd did not start or did not load the keys\n");
    return ok ? l : nullptr;
  }();
  return loaded;
}

bool GetPubKey(TCS_CONTEXT_HANDLE h, TCS_KEY_HANDLE key) {
  UINT32 size = 0;
  BYTE* pub = nullptr;
  const bool ok = Tcsip_GetPubKey(h, key, nullptr, &size, &pub) == TSS_SUCCESS;
  Tcs_FreeBuffer(pub);
  return ok;
}

UINT64 SwapIns() {
  KESTTCS_KEY_CACHE cache{};
  if (KestTcs_GetKeyCache(&cache) != TSS_SUCCESS) return 0;
  const UINT64 swapIns = cache.swapIns;
  KestTcs_FreeKeyCache(&cache);
  return swapIns;
}

void BM_GetPubKey_OneResidentKey(benchmark::State& state) {
  LoadedKeys* l = Loaded();
  if (l == nullptr) return state.SkipWithError("kesttcsd with 100 keys did not come up");
  for (auto _ : state) {
    if (!GetPubKey(l->context, l->keys.front())) {
      state.SkipWithError("Tcsip_GetPubKey failed");
      break;
    }
  }
}
BENCHMARK(BM_GetPubKey_OneResidentKey)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_GetPubKey_RoundRobin100Keys(benchmark::State& state) {
  LoadedKeys* l = Loaded();
  if (l == nullptr) return state.SkipWithError("kesttcsd with 100 keys did not come up");
  const UINT64 before = SwapIns();
  size_t next = 0;
  for (auto _ : state) {
    if (!GetPubKey(l->context, l->keys[next])) {
      state.SkipWithError("Tcsip_GetPubKey failed");
      break;
    }
    next = (next + 1) % l->keys.size();
  }
  state.counters["swap_ins_per_call"] = benchmark::Counter(static_cast<double>(SwapIns() - before) /
                                                           static_cast<double>(state.iterations()));
}
BENCHMARK(BM_GetPubKey_RoundRobin100Keys)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
}  // namespace kesttcs
