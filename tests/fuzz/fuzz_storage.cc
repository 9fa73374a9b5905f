// Arbitrary bytes as the registered-key file "KestData.dat": the checksum check, the start-up
// check and loading (with a TPM owner when the first byte is odd, which may write the SRK
// placeholder), the lookups and enumeration over what loaded, and the close, which wipes deleted
// slots. No crash, no read outside a buffer, no allocation beyond what the file's size allows.
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <span>
#include <string>

#include <kesttcs/tcs_results.h>

#include "base/logging.h"
#include "contexts/context_memory.h"
#include "contexts/contexts.h"
#include "storage/persistent_storage.h"
#include "storage/registered_keys.h"

namespace {

using namespace kesttcs;

// The file, in a directory of this process (in memory where possible) removed at exit.
class DataDirectory {
 public:
  DataDirectory() {
    const std::filesystem::path base = std::filesystem::is_directory("/dev/shm")
                                           ? "/dev/shm"
                                           : std::filesystem::temp_directory_path();
    std::string dir = (base / "kesttcs-fuzz-storage-XXXXXX").string();
    if (mkdtemp(dir.data()) == nullptr) abort();
    dir_ = dir;
  }
  ~DataDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }
  std::string file() const { return (dir_ / "KestData.dat").string(); }

 private:
  std::filesystem::path dir_;
};

void Setup() {
  SetEventSink([](const ServiceEvent&) {});
  if (ctx_init() != TSS_SUCCESS) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool ready = (Setup(), true);
  static_cast<void>(ready);
  if (size == 0) return 0;
  const bool tpmHasOwner = (data[0] & 1) != 0;
  static const DataDirectory directory;
  const std::string file = directory.file();
  std::ofstream(file, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(data + 1), std::streamsize(size - 1));
  std::filesystem::remove(std::filesystem::path(file).parent_path() / "KestData.tmp");

  static_cast<void>(ps_checkFile(file));
  static_cast<void>(ps_checkAndRestore(file));
  if (ps_init(file, tpmHasOwner) == TSS_SUCCESS) {
    UINT32 count = 0;
    TSS_KM_KEYINFO* infos = nullptr;
    if (Tcsi_EnumRegisteredKeys_Internal(kInternalContextHandle, nullptr, &count, &infos) ==
        TSS_SUCCESS) {
      for (UINT32 i = 0; i < count; ++i) {
        TSS_UUID parent{};
        static_cast<void>(getParentUUIDByUUID(infos[i].keyUUID, &parent));
        UINT32 blobSize = 0;
        BYTE* blob = nullptr;
        if (Tcsi_GetRegisteredKeyBlob_Internal(kInternalContextHandle, infos[i].keyUUID, &blobSize,
                                               &blob) == TSS_SUCCESS &&
            blobSize > 4) {
          // Whatever the blob's modulus field holds: the public-key lookup compares it.
          static_cast<void>(getUUIDByPub(std::span(blob + 4, blobSize - 4)));
        }
      }
    }
    ctx_FreeContextMemory(kInternalContextHandle);
  }
  ps_close();
  return 0;
}
