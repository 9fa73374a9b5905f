// Helpers of the storage tests: the hand-written hex fixtures, key blobs laid out from the TPM_KEY
// description in docs/formats.md, and a fixture with a fresh data directory, client contexts and
// captured service events that reopens storage the way start-up does.
#pragma once

#include <stdlib.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kesttcs/tcs_results.h>

#include "base/logging.h"
#include "contexts/context_memory.h"
#include "contexts/contexts.h"
#include "hex_fixture.h"
#include "storage/persistent_storage.h"
#include "storage/registered_keys.h"
#include "test_keys.h"

namespace kesttcs::testing {

namespace fs = std::filesystem;
using Bytes = std::vector<BYTE>;

inline constexpr TSS_UUID kSrk = {0, 0, 0, 0, 0, {0, 0, 0, 0, 0, 1}};

inline Bytes ReadFileBytes(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

inline void WriteFileBytes(const fs::path& path, const Bytes& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

// One registered key: what enumeration and the blob lookup say of it.
struct StoredKey {
  TSS_UUID uuid;
  TSS_UUID parent;
  Bytes blob;
  bool operator==(const StoredKey&) const = default;
};

// Every valid record in index order.
inline std::vector<StoredKey> StoredKeys() {
  UINT32 count = 0;
  TSS_KM_KEYINFO* infos = nullptr;
  EXPECT_EQ(Tcsi_EnumRegisteredKeys_Internal(kInternalContextHandle, nullptr, &count, &infos),
            TSS_SUCCESS);
  std::vector<StoredKey> keys;
  for (UINT32 i = 0; i < count; ++i) {
    Bytes blob(4096);
    UINT16 size = 0;
    EXPECT_EQ(getKeyBlobByUUID(infos[i].keyUUID, blob, &size), TSS_SUCCESS);
    blob.resize(size);
    keys.push_back({infos[i].keyUUID, infos[i].parentKeyUUID, blob});
  }
  if (infos != nullptr) {
    EXPECT_EQ(ctx_ReleaseMemory(kInternalContextHandle, infos), TSS_SUCCESS);
  }
  return keys;
}

class StorageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(ctx_init(), TSS_SUCCESS);
    SetEventSink([this](const ServiceEvent& event) { events_.push_back(event); });
    // In memory where there is such a file system: the tests flush a lot, and the disk adds time.
    const fs::path base = fs::is_directory("/dev/shm") ? "/dev/shm" : fs::temp_directory_path();
    std::string pattern = (base / "kesttcs-storage-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
    dataFile_ = (dir_ / "KestData.dat").string();
  }
  void TearDown() override {
    ps_close();
    ctx_final();
    ResetLogging();
    fs::remove_all(dir_);
  }

  // Closes storage and opens it again as start-up does: checksum check and restore, then loading.
  void Restart(bool tpmHasOwner = false) {
    ps_close();
    ASSERT_EQ(ps_checkAndRestore(dataFile_), TSS_SUCCESS);
    ASSERT_EQ(ps_init(dataFile_, tpmHasOwner), TSS_SUCCESS);
  }

  TSS_RESULT Register(const TSS_UUID& key, const TSS_UUID& parent, const Bytes& blob) {
    return Tcsi_RegisterKey_Internal(kInternalContextHandle, parent, key, UINT32(blob.size()),
                                     blob.data(), 0, nullptr);
  }

  Bytes DataFileBytes() const { return ReadFileBytes(dataFile_); }
  fs::path TmpFile() const { return dir_ / "KestData.tmp"; }

  fs::path dir_;
  std::string dataFile_;
  std::vector<ServiceEvent> events_;
};

}  // namespace kesttcs::testing
