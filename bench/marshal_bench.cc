// Marshalling costs: a 2048-bit key blob both ways, and a small authorised command.
#include <benchmark/benchmark.h>

#include <array>
#include <cstring>

#include "tpm12/marshal.h"

namespace kesttcs {
namespace {

TPM_KEY Rsa2048Key() {
  TPM_KEY key;
  key.ver = {1, 1, 0, 0};
  key.keyUsage = 0x0011;
  key.authDataUsage = 1;
  key.algorithmParms = {1, 3, 1, 12, {0, 0, 8, 0, 0, 0, 0, 2, 0, 0, 0, 0}};
  key.pubKey.keyLength = 256;
  key.pubKey.key.assign(256, 0xA5);
  key.encSize = 256;
  key.encData.assign(256, 0x5A);
  return key;
}

void BM_LoadBlobKey(benchmark::State& state) {
  const TPM_KEY key = Rsa2048Key();
  std::array<BYTE, kTpmBlobSize> blob{};
  for (auto _ : state) {
    BlobWriter writer(blob);
    benchmark::DoNotOptimize(LoadBlob(writer, key));
    benchmark::DoNotOptimize(blob.data());
  }
}
BENCHMARK(BM_LoadBlobKey);

void BM_UnloadBlobKey(benchmark::State& state) {
  std::array<BYTE, kTpmBlobSize> blob{};
  BlobWriter writer(blob);
  if (LoadBlob(writer, Rsa2048Key()) != TSS_SUCCESS) state.SkipWithError("marshal failed");
  const auto wire = writer.written();
  for (auto _ : state) {
    BlobReader reader(wire);
    TPM_KEY key;
    benchmark::DoNotOptimize(UnloadBlob(reader, &key));
    benchmark::DoNotOptimize(key.pubKey.key.data());
  }
}
BENCHMARK(BM_UnloadBlobKey);

// A TPM_Unseal-shaped request: key handle, a 61-byte sealed blob, two auth trailers, header last.
void BM_BuildAuthorisedCommand(benchmark::State& state) {
  TPM_AUTH auth{};
  auth.AuthHandle = 0x02000001;
  std::memset(auth.NonceOdd.nonce, 0x11, sizeof auth.NonceOdd.nonce);
  std::memset(auth.HMAC.authdata, 0x22, sizeof auth.HMAC.authdata);
  std::array<BYTE, 61> sealed{};
  std::array<BYTE, kTpmBlobSize> blob{};
  for (auto _ : state) {
    BlobWriter writer(blob, kTpmHeaderSize);
    TSS_RESULT rc =
        LoadBlobs(writer, UINT32{0x22330000}, std::span<const BYTE>(sealed), auth, auth);
    if (rc == TSS_SUCCESS) {
      rc = LoadBlob_Header(TPM_TAG_RQU_AUTH2_COMMAND, writer.offset(), 0x18, blob);
    }
    benchmark::DoNotOptimize(rc);
    benchmark::DoNotOptimize(blob.data());
  }
}
BENCHMARK(BM_BuildAuthorisedCommand);

}  // namespace
}  // namespace kesttcs
