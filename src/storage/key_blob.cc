#include "storage/key_blob.h"

#include "tpm12/marshal.h"

namespace kesttcs {
namespace {

// Marshals `value` into a buffer of `limit` bytes and returns what was written.
template <typename T>
std::optional<std::vector<BYTE>> MarshalWithin(const T& value, std::size_t limit) {
  std::vector<BYTE> buffer(limit);
  BlobWriter writer(buffer);
  if (LoadBlobs(writer, value) != TSS_SUCCESS) return std::nullopt;
  buffer.resize(writer.offset());
  return buffer;
}

}  // namespace

bool ParseKeyBlob(std::span<const BYTE> blob, TPM_KEY* key) {
  BlobReader reader(blob);
  return UnloadBlob_KEY(reader, key) == TSS_SUCCESS;
}

std::optional<std::vector<BYTE>> MarshalPublicData(const TPM_KEY& key, std::size_t limit) {
  return MarshalWithin(key.pubKey, limit);
}

std::optional<std::vector<BYTE>> MarshalKeyBlob(const TPM_KEY& key, std::size_t limit) {
  return MarshalWithin(key, limit);
}

KeyBlobFacts ReadKeyBlobFacts(std::span<const BYTE> blob) {
  TSS_VERSION version{};
  BYTE authDataUsage = 0;
  BlobReader reader(blob);
  // keyUsage and keyFlags lie between the two and are only stepped over.
  if (UnloadBlobs(reader, &version, static_cast<UINT16*>(nullptr), static_cast<UINT32*>(nullptr),
                  &authDataUsage) != TSS_SUCCESS) {
    return {};
  }
  return {version, authDataUsage};
}

}  // namespace kesttcs
