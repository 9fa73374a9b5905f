#include "commands/command_parts.h"

#include <array>
#include <cstddef>

#include <kesttcs/tcs_results.h>

#include "commands/command_exchange.h"
#include "contexts/context_memory.h"
#include "tpm12/marshal.h"

namespace kesttcs {

namespace {
// No operation hands out more parts than this.
constexpr std::size_t kMaxParts = 4;
}  // namespace

TSS_RESULT TakeSized(BlobReader& reader, std::span<const BYTE>* bytes) noexcept {
  const UINT16 start = reader.offset();
  UINT32 length = 0;
  if (TSS_RESULT rc = UnloadBlob_UINT32(reader, &length)) return rc;
  if (TSS_RESULT rc = reader.Take(length, *bytes)) {
    reader.set_offset(start);
    return rc;
  }
  return TSS_SUCCESS;
}

TSS_RESULT HandOutAll(TCS_CONTEXT_HANDLE hContext,
                      std::initializer_list<OutputPart> parts) noexcept {
  if (parts.size() > kMaxParts) return TCS_E_INTERNAL_ERROR;
  std::array<UINT32, kMaxParts> sizes{};
  std::array<BYTE*, kMaxParts> blocks{};
  std::size_t made = 0;
  for (const OutputPart& part : parts) {
    if (TSS_RESULT rc = CopyToContextMemory(hContext, part.bytes, &sizes[made], &blocks[made])) {
      for (std::size_t i = 0; i < made; ++i) {
        if (blocks[i] != nullptr) static_cast<void>(ctx_ReleaseMemory(hContext, blocks[i]));
      }
      return rc;
    }
    ++made;
  }
  std::size_t i = 0;
  for (const OutputPart& part : parts) {
    *part.size = sizes[i];
    *part.data = blocks[i];
    ++i;
  }
  return TSS_SUCCESS;
}

TSS_RESULT UnloadTwoSized(BlobReader& reader, TCS_CONTEXT_HANDLE hContext, UINT32* firstSize,
                          BYTE** first, UINT32* secondSize, BYTE** second) noexcept {
  std::span<const BYTE> firstBytes;
  std::span<const BYTE> secondBytes;
  if (TSS_RESULT rc = TakeSized(reader, &firstBytes)) return rc;
  if (TSS_RESULT rc = TakeSized(reader, &secondBytes)) return rc;
  return HandOutAll(hContext, {{firstBytes, firstSize, first}, {secondBytes, secondSize, second}});
}

}  // namespace kesttcs
