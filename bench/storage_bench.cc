// Start-up of persistent storage with 10 000 registered 2048-bit keys: the checksum check over
// the whole file and the loading of the index (with the SRK record), as KestTcs_startup runs them.
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "storage/key_blob.h"
#include "storage/persistent_storage.h"
#include "storage/ps_checksum.h"
#include "storage/ps_format.h"
#include "tpm12/marshal.h"

namespace kesttcs {
namespace {

constexpr UINT32 kKeys = 10000;
constexpr UINT32 kModulusBytes = 256;

// A 2048-bit storage key blob whose modulus is filled with `fill`.
std::vector<BYTE> KeyBlobOf(BYTE fill) {
  TPM_KEY key;
  key.ver = {1, 1, 0, 0};
  key.keyUsage = 0x0011;
  key.authDataUsage = 1;
  key.algorithmParms = {1, 3, 1, 12, {0, 0, 8, 0, 0, 0, 0, 2, 0, 0, 0, 0}};
  key.pubKey = {kModulusBytes, std::vector<BYTE>(kModulusBytes, fill)};
  key.encSize = kModulusBytes;
  key.encData.assign(kModulusBytes, BYTE(~fill));
  return *MarshalKeyBlob(key, kPsMaxBlobSize);
}

void Append(std::vector<BYTE>& file, const TSS_UUID& uuid, const TSS_UUID& parent,
            const std::vector<BYTE>& blob) {
  TPM_KEY key;
  static_cast<void>(ParseKeyBlob(blob, &key));
  const std::vector<BYTE> pubData = *MarshalPublicData(key, kPsMaxPubDataSize);
  PsRecordHeader header;
  header.uuid = uuid;
  header.parentUuid = parent;
  header.pubDataSize = UINT16(pubData.size());
  header.blobSize = UINT16(blob.size());
  header.flags = kPsFlagValid | kPsFlagParentInSystemPs;
  const PsRecordHeaderBytes bytes = EncodeRecordHeader(header);
  file.insert(file.end(), bytes.begin(), bytes.end());
  file.insert(file.end(), pubData.begin(), pubData.end());
  file.insert(file.end(), blob.begin(), blob.end());
}

// The SRK's record and kKeys keys under it, with its checksum.
std::string WriteStorageFile() {
  std::string dir = (std::filesystem::temp_directory_path() / "kesttcs-bench-XXXXXX").string();
  if (mkdtemp(dir.data()) == nullptr) return {};
  std::vector<BYTE> file(kPsFirstRecordOffset);
  const std::array<BYTE, 4> count = EncodeLe32(kKeys + 1);
  std::copy(count.begin(), count.end(), file.begin() + kPsCountOffset);
  Append(file, kSrkUuid, kNullUuid, KeyBlobOf(0));
  for (UINT32 i = 0; i < kKeys; ++i) {
    const TSS_UUID uuid = {0x10000000 + i, 1, 2, 3, 4, {5, 6, 7, 8, 9, 10}};
    Append(file, uuid, kSrkUuid, KeyBlobOf(BYTE(i)));
  }
  PsChecksum checksum;
  checksum.Update(std::span(file).subspan(kPsCountOffset));
  const std::array<BYTE, 4> stored = EncodeLe32(checksum.value());
  std::copy(stored.begin(), stored.end(), file.begin());
  const std::string path = dir + "/KestData.dat";
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(file.data()), std::streamsize(file.size()));
  return path;
}

void BM_StorageStartupWith10000Keys(benchmark::State& state) {
  const std::string path = WriteStorageFile();
  for (auto _ : state) {
    if (ps_checkAndRestore(path) != TSS_SUCCESS || ps_init(path, true) != TSS_SUCCESS) {
      state.SkipWithError("storage did not load");
      break;
    }
    ps_close();
  }
  state.counters["file_bytes"] = double(std::filesystem::file_size(path));
  std::filesystem::remove_all(std::filesystem::path(path).parent_path());
}
BENCHMARK(BM_StorageStartupWith10000Keys)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace kesttcs
