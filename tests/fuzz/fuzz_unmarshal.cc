// Feeds arbitrary bytes to every Unload routine. The first byte picks the routine (or, past the
// table, runs them all). Besides not crashing, a structure that unmarshals must marshal back to
// exactly the bytes it consumed, except where the format drops information by design (masked key
// flags, delegate blobs whose sensitive size is not positive).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "tpm12/marshal.h"

namespace kesttcs {
namespace {

using Fuzzer = void (*)(std::span<const BYTE>);

template <class T, auto Unload, auto Load, bool kExact = true>
void RoundTrip(std::span<const BYTE> data) {
  BlobReader reader(data);
  T value{};
  if (Unload(reader, &value) != TSS_SUCCESS) return;
  std::vector<BYTE> out(reader.offset());
  BlobWriter writer(out);
  const TSS_RESULT rc = Load(writer, value);
  if (kExact && (rc != TSS_SUCCESS || writer.offset() != out.size() ||
                 !std::equal(out.begin(), out.end(), data.begin()))) {
    __builtin_trap();
  }
}

void Header(std::span<const BYTE> data) {
  UINT32 paramSize = 0;
  SetResponseCodeMapping(data.size() % 2 == 0 ? ResponseCodeMapping::kTddl
                                              : ResponseCodeMapping::kTbs);
  (void)UnloadBlob_Header(data, &paramSize);
  BlobReader params = ResponseParams(data, paramSize);
  TPM_AUTH auth{};
  while (UnloadBlob_Auth(params, &auth) == TSS_SUCCESS) {
  }
}

void Bytes(std::span<const BYTE> data) {
  BlobReader reader(data);
  UINT16 n = 0;
  std::vector<BYTE> bytes;
  if (UnloadBlob_UINT16(reader, &n) == TSS_SUCCESS) (void)UnloadBlob_BYTES(reader, n, &bytes);
}

void PcrEvent(std::span<const BYTE> data) {
  BlobReader reader(data);
  TSS_PCR_EVENT event{};
  const TSS_RESULT rc = UnloadBlob_PCR_EVENT(reader, &event);
  if (rc == TSS_SUCCESS) {
    std::vector<BYTE> out(reader.offset());
    BlobWriter writer(out);
    if (LoadBlob_PCR_EVENT(writer, event) != TSS_SUCCESS ||
        !std::equal(out.begin(), out.end(), data.begin())) {
      __builtin_trap();
    }
  }
  free_PCR_EVENT(event);
}

constexpr Fuzzer kFuzzers[] = {
    Header,
    Bytes,
    PcrEvent,
    RoundTrip<TPM_KEY_PARMS, UnloadBlob_KEY_PARMS, LoadBlob_KEY_PARMS>,
    RoundTrip<TPM_STORE_PUBKEY, UnloadBlob_STORE_PUBKEY, LoadBlob_STORE_PUBKEY>,
    RoundTrip<TPM_PUBKEY, UnloadBlob_PUBKEY, LoadBlob_PUBKEY>,
    RoundTrip<TPM_KEY, UnloadBlob_KEY, LoadBlob_KEY, false>,
    RoundTrip<TPM_STORED_DATA, UnloadBlob_STORED_DATA, LoadBlob_STORED_DATA>,
    RoundTrip<TPM_CERTIFY_INFO, UnloadBlob_CERTIFY_INFO, LoadBlob_CERTIFY_INFO>,
    RoundTrip<TPM_MIGRATIONKEYAUTH, UnloadBlob_MIGRATIONKEYAUTH, LoadBlob_MIGRATIONKEYAUTH>,
    RoundTrip<TPM_PCR_SELECTION, UnloadBlob_PCR_SELECTION, LoadBlob_PCR_SELECTION>,
    RoundTrip<TPM_PCR_COMPOSITE, UnloadBlob_PCR_COMPOSITE, LoadBlob_PCR_COMPOSITE>,
    RoundTrip<TPM_PCR_INFO, UnloadBlob_PCR_INFO, LoadBlob_PCR_INFO>,
    RoundTrip<TPM_PCR_INFO_SHORT, UnloadBlob_PCR_INFO_SHORT, LoadBlob_PCR_INFO_SHORT>,
    RoundTrip<TPM_KEY_HANDLE_LIST, UnloadBlob_KEY_HANDLE_LIST, LoadBlob_KEY_HANDLE_LIST>,
    RoundTrip<TSS_UUID, UnloadBlob_UUID, LoadBlob_UUID>,
    RoundTrip<TPM_CURRENT_TICKS, UnloadBlob_CURRENT_TICKS, LoadBlob_CURRENT_TICKS>,
    RoundTrip<TPM_COUNTER_VALUE, UnloadBlob_COUNTER_VALUE, LoadBlob_COUNTER_VALUE>,
    RoundTrip<TPM_NV_ATTRIBUTES, UnloadBlob_NV_ATTRIBUTES, LoadBlob_NV_ATTRIBUTES>,
    RoundTrip<TPM_NV_DATA_PUBLIC, UnloadBlob_NV_DATA_PUBLIC, LoadBlob_NV_DATA_PUBLIC>,
    RoundTrip<TPM_DELEGATIONS, UnloadBlob_DELEGATIONS, LoadBlob_DELEGATIONS>,
    RoundTrip<TPM_DELEGATE_PUBLIC, UnloadBlob_DELEGATE_PUBLIC, LoadBlob_DELEGATE_PUBLIC>,
    RoundTrip<TPM_DELEGATE_OWNER_BLOB, UnloadBlob_DELEGATE_OWNER_BLOB, LoadBlob_DELEGATE_OWNER_BLOB,
              false>,
    RoundTrip<TPM_DELEGATE_KEY_BLOB, UnloadBlob_DELEGATE_KEY_BLOB, LoadBlob_DELEGATE_KEY_BLOB,
              false>,
    RoundTrip<TPM_FAMILY_TABLE_ENTRY, UnloadBlob_FAMILY_TABLE_ENTRY, LoadBlob_FAMILY_TABLE_ENTRY>,
};

}  // namespace
}  // namespace kesttcs

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using kesttcs::kFuzzers;
  if (size == 0) return 0;
  // An exact-size copy, so that any read past the end is caught.
  const std::vector<BYTE> input(data + 1, data + size);
  constexpr std::size_t kCount = std::size(kFuzzers);
  if (data[0] < kCount) {
    kFuzzers[data[0]](input);
  } else {
    for (auto fuzzer : kFuzzers) fuzzer(input);
  }
  return 0;
}
