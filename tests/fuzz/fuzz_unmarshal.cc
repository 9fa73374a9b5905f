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

// Whether `value`, just read from the first `consumed` bytes of `data`, writes exactly them back.
template <class T>
bool WritesBack(const T& value, std::span<const BYTE> data, std::size_t consumed) {
  std::vector<BYTE> out(consumed);
  BlobWriter writer(out);
  return LoadBlob(writer, value) == TSS_SUCCESS && writer.offset() == out.size() &&
         std::equal(out.begin(), out.end(), data.begin());
}

template <class T, bool kExact = true>
void RoundTrip(std::span<const BYTE> data) {
  BlobReader reader(data);
  T value{};
  if (UnloadBlob(reader, &value) != TSS_SUCCESS) return;
  if (!WritesBack(value, data, reader.offset()) && kExact) __builtin_trap();
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
  if (UnloadBlob(reader, &n) == TSS_SUCCESS) (void)UnloadBlob_BYTES(reader, n, &bytes);
}

void PcrEvent(std::span<const BYTE> data) {
  BlobReader reader(data);
  Unloaded<TSS_PCR_EVENT> event;
  if (UnloadBlob(reader, &event) == TSS_SUCCESS &&
      !WritesBack(event.record, data, reader.offset())) {
    __builtin_trap();
  }
}

constexpr Fuzzer kFuzzers[] = {
    Header,
    Bytes,
    PcrEvent,
    RoundTrip<TPM_KEY_PARMS>,
    RoundTrip<TPM_STORE_PUBKEY>,
    RoundTrip<TPM_PUBKEY>,
    RoundTrip<TPM_KEY, false>,
    RoundTrip<TPM_STORED_DATA>,
    RoundTrip<TPM_CERTIFY_INFO>,
    RoundTrip<TPM_MIGRATIONKEYAUTH>,
    RoundTrip<TPM_PCR_SELECTION>,
    RoundTrip<TPM_PCR_COMPOSITE>,
    RoundTrip<TPM_PCR_INFO>,
    RoundTrip<TPM_PCR_INFO_SHORT>,
    RoundTrip<TPM_KEY_HANDLE_LIST>,
    RoundTrip<TSS_UUID>,
    RoundTrip<TPM_CURRENT_TICKS>,
    RoundTrip<TPM_COUNTER_VALUE>,
    RoundTrip<TPM_NV_ATTRIBUTES>,
    RoundTrip<TPM_NV_DATA_PUBLIC>,
    RoundTrip<TPM_DELEGATIONS>,
    RoundTrip<TPM_DELEGATE_PUBLIC>,
    RoundTrip<TPM_DELEGATE_OWNER_BLOB, false>,
    RoundTrip<TPM_DELEGATE_KEY_BLOB, false>,
    RoundTrip<TPM_FAMILY_TABLE_ENTRY>,
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
