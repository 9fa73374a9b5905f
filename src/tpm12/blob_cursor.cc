#include "tpm12/blob_cursor.h"

#include <algorithm>

namespace kesttcs {

TSS_RESULT BlobReader::Take(std::size_t n, std::span<const BYTE>& out) noexcept {
  if (n > remaining()) return TCS_E_BAD_PARAMETER;
  out = blob_.subspan(offset_, n);
  offset_ = static_cast<UINT16>(offset_ + n);
  return TSS_SUCCESS;
}

TSS_RESULT BlobWriter::Put(std::span<const BYTE> bytes) noexcept {
  if (bytes.size() > remaining()) return TCS_E_BAD_PARAMETER;
  std::copy(bytes.begin(), bytes.end(), blob_.begin() + offset_);
  offset_ = static_cast<UINT16>(offset_ + bytes.size());
  return TSS_SUCCESS;
}

}  // namespace kesttcs
