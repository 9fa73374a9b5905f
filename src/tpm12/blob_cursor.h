// Cursors over caller-owned byte spans, and big-endian conversions at fixed places.
//
// A blob is walked by a cursor (BlobWriter for requests, BlobReader for responses) whose running
// offset is a UINT16, as the command buffers are addressed; an offset that passes 65535 wraps to 0.
// Every access is checked against the span first: one that would run past the end returns
// TCS_E_BAD_PARAMETER, touches nothing and leaves the offset where it was.
#pragma once

#include <kesttcs/tcs_results.h>
#include <kesttcs/tcs_types.h>

#include <cstddef>
#include <span>

namespace kesttcs {

// Cursor over a response (or any byte source). Borrows `blob`, which must outlive the reader.
class BlobReader {
 public:
  explicit BlobReader(std::span<const BYTE> blob, UINT16 offset = 0) noexcept
      : blob_(blob), offset_(offset) {}

  UINT16 offset() const noexcept { return offset_; }
  void set_offset(UINT16 offset) noexcept { offset_ = offset; }
  std::span<const BYTE> blob() const noexcept { return blob_; }
  // Bytes between the offset and the end of the span (0 when the offset is past the end).
  std::size_t remaining() const noexcept {
    return offset_ < blob_.size() ? blob_.size() - offset_ : 0;
  }

  // On success sets `out` to the next n bytes and advances by n. TCS_E_BAD_PARAMETER when fewer
  // than n remain; then `out` and the offset are unchanged.
  [[nodiscard]] TSS_RESULT Take(std::size_t n, std::span<const BYTE>& out) noexcept;

 private:
  std::span<const BYTE> blob_;
  UINT16 offset_;
};

// Cursor over a command buffer. Borrows `blob`, which must outlive the writer.
class BlobWriter {
 public:
  explicit BlobWriter(std::span<BYTE> blob, UINT16 offset = 0) noexcept
      : blob_(blob), offset_(offset) {}

  UINT16 offset() const noexcept { return offset_; }
  void set_offset(UINT16 offset) noexcept { offset_ = offset; }
  std::span<BYTE> blob() const noexcept { return blob_; }
  std::size_t remaining() const noexcept {
    return offset_ < blob_.size() ? blob_.size() - offset_ : 0;
  }
  // The bytes written so far: [0, offset).
  std::span<const BYTE> written() const noexcept {
    return std::span<const BYTE>(blob_).first(offset_ < blob_.size() ? offset_ : blob_.size());
  }

  // Copies `bytes` at the offset and advances. TCS_E_BAD_PARAMETER when they do not fit; then
  // nothing is written and the offset is unchanged.
  [[nodiscard]] TSS_RESULT Put(std::span<const BYTE> bytes) noexcept;

 private:
  std::span<BYTE> blob_;
  UINT16 offset_;
};

// ---- Conversions without an offset (fixed-size spans, so the length is checked by the type) ----
// e.g. ArrayToUINT32(std::span(buffer).subspan<6, 4>()) on a std::array buffer.
constexpr void UINT64ToArray(UINT64 v, std::span<BYTE, 8> out) noexcept {
  for (int i = 7; i >= 0; --i, v >>= 8) out[i] = static_cast<BYTE>(v);
}
constexpr void UINT32ToArray(UINT32 v, std::span<BYTE, 4> out) noexcept {
  for (int i = 3; i >= 0; --i, v >>= 8) out[i] = static_cast<BYTE>(v);
}
constexpr void UINT16ToArray(UINT16 v, std::span<BYTE, 2> out) noexcept {
  out[0] = static_cast<BYTE>(v >> 8);
  out[1] = static_cast<BYTE>(v);
}
constexpr UINT64 ArrayToUINT64(std::span<const BYTE, 8> in) noexcept {
  UINT64 v = 0;
  for (BYTE b : in) v = (v << 8) | b;
  return v;
}
constexpr UINT32 ArrayToUINT32(std::span<const BYTE, 4> in) noexcept {
  return (UINT32{in[0]} << 24) | (UINT32{in[1]} << 16) | (UINT32{in[2]} << 8) | UINT32{in[3]};
}
constexpr UINT16 ArrayToUINT16(std::span<const BYTE, 2> in) noexcept {
  return static_cast<UINT16>((in[0] << 8) | in[1]);
}

}  // namespace kesttcs
