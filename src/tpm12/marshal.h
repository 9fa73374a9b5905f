// TPM 1.2 blob marshalling: the one place where integers and TPM structures become command bytes
// and response bytes become structures again. All integers are big-endian on the wire.
//
// A blob is a caller-owned byte span walked by a cursor (BlobWriter for requests, BlobReader for
// responses) whose running offset is a UINT16, as the command buffers are addressed; an offset that
// passes 65535 wraps to 0. Every access is checked against the span first: a read or write that
// would run past the end returns TCS_E_BAD_PARAMETER, touches nothing and leaves the offset where
// it was. Reads of variable parts also check the size field against the bytes that remain before
// allocating, so a malformed length never allocates or reads out of bounds. An allocation failure
// returns TCS_E_OUTOFMEMORY and stops at that field, leaving earlier parts in the structure.
//
// Marshalling (LoadBlob_*) never uses the heap. Unload routines accept a null output pointer: the
// field is then checked and skipped. None of these functions takes a lock; the response-code
// mapping is the only module state (an atomic setting).
#pragma once

#include <kesttcs/tcs_results.h>
#include <kesttcs/tcs_types.h>

#include <cstddef>
#include <span>
#include <vector>

#include "tpm12/tpm_structures.h"

namespace kesttcs {

// Size of the request/response header (tag, paramSize, ordinal or return code).
inline constexpr UINT16 kTpmHeaderSize = 10;
// Size of one authorisation trailer: request (handle, nonceOdd, continue, HMAC) and response
// (nonceEven, continue, HMAC).
inline constexpr UINT16 kAuthRequestTrailerSize = 45;
inline constexpr UINT16 kAuthResponseTrailerSize = 41;
// Size of the command and response buffers used throughout the service.
inline constexpr std::size_t kTpmBlobSize = 4096;

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

// ---- Primitives: write at the writer's offset / read at the reader's offset and advance ----
[[nodiscard]] TSS_RESULT LoadBlob_UINT64(BlobWriter& blob, UINT64 in) noexcept;
[[nodiscard]] TSS_RESULT LoadBlob_UINT32(BlobWriter& blob, UINT32 in) noexcept;
[[nodiscard]] TSS_RESULT LoadBlob_UINT16(BlobWriter& blob, UINT16 in) noexcept;
[[nodiscard]] TSS_RESULT LoadBlob_BYTE(BlobWriter& blob, BYTE in) noexcept;
// The byte is written as given (not normalised to 0/1).
[[nodiscard]] TSS_RESULT LoadBlob_BOOL(BlobWriter& blob, TSS_BOOL in) noexcept;
// n = in.size() bytes; n = 0 writes nothing and succeeds.
[[nodiscard]] TSS_RESULT LoadBlob_BYTES(BlobWriter& blob, std::span<const BYTE> in) noexcept;
// The 4-byte version group (also a TPM_KEY12's tag+fill) copied byte for byte, never swapped.
[[nodiscard]] TSS_RESULT LoadBlob_VERSION(BlobWriter& blob, const TPM_VERSION& in) noexcept;
[[nodiscard]] TSS_RESULT LoadBlob_VERSION(BlobWriter& blob, const TSS_VERSION& in) noexcept;
// 20 bytes: TPM_DIGEST, TPM_NONCE, TPM_AUTHDATA (also TPM_ENCAUTH, TPM_SECRET, TPM_PCRVALUE).
[[nodiscard]] TSS_RESULT LoadBlob_DIGEST(BlobWriter& blob, const TPM_DIGEST& in) noexcept;
[[nodiscard]] TSS_RESULT LoadBlob_DIGEST(BlobWriter& blob, const TPM_NONCE& in) noexcept;
[[nodiscard]] TSS_RESULT LoadBlob_DIGEST(BlobWriter& blob, const TPM_AUTHDATA& in) noexcept;

[[nodiscard]] TSS_RESULT UnloadBlob_UINT64(BlobReader& blob, UINT64* out) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_UINT32(BlobReader& blob, UINT32* out) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_UINT16(BlobReader& blob, UINT16* out) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_BYTE(BlobReader& blob, BYTE* out) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_BOOL(BlobReader& blob, TSS_BOOL* out) noexcept;
// Fills all of `out` (n = out.size(); n = 0 touches nothing).
[[nodiscard]] TSS_RESULT UnloadBlob_BYTES(BlobReader& blob, std::span<BYTE> out) noexcept;
// Reads n bytes into a fresh vector (n = 0 leaves it empty, with no allocation); on failure `out`
// is unchanged. TCS_E_OUTOFMEMORY when the allocation fails.
[[nodiscard]] TSS_RESULT UnloadBlob_BYTES(BlobReader& blob, std::size_t n,
                                          std::vector<BYTE>* out) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_VERSION(BlobReader& blob, TPM_VERSION* out) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_VERSION(BlobReader& blob, TSS_VERSION* out) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_DIGEST(BlobReader& blob, TPM_DIGEST* out) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_DIGEST(BlobReader& blob, TPM_NONCE* out) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_DIGEST(BlobReader& blob, TPM_AUTHDATA* out) noexcept;

// ---- Header ----
// Which driver path the TPM is reached through; decides how UnloadBlob_Header maps return codes.
// Set by the TPM driver binding when it binds; TDDL until then.
enum class ResponseCodeMapping { kTddl, kTbs };
void SetResponseCodeMapping(ResponseCodeMapping mapping) noexcept;
ResponseCodeMapping GetResponseCodeMapping() noexcept;

// Writes tag (offset 0), paramSize (2) and ordinal (6) at the start of `blob`; uses no offset. Call
// it last, with paramSize = the writer's final offset. TCS_E_BAD_PARAMETER when blob is under 10
// bytes (nothing written).
[[nodiscard]] TSS_RESULT LoadBlob_Header(TPM_TAG tag, UINT32 paramSize, TPM_COMMAND_CODE ordinal,
                                         std::span<BYTE> blob) noexcept;

// Reads a response header: stores paramSize (UINT32 at 2) and returns the TCS result of the return
// code at 6: 0 stays 0; on the TDDL path any other code becomes code | 0xE0280000; on the TBS path
// a code below 0x10000 becomes code | 0xE0280000 and a larger one is returned unchanged. The tag is
// not checked. A blob under 10 bytes gives TCS_E_BAD_PARAMETER and leaves paramSize unchanged.
// Output parameters follow at offset 10 (see ResponseParams).
[[nodiscard]] TSS_RESULT UnloadBlob_Header(std::span<const BYTE> blob, UINT32* paramSize) noexcept;

// A reader over a response's output parameters: positioned at offset 10 and limited to the first
// paramSize bytes (or the whole blob when it is shorter), so stale bytes past the response are
// never parsed.
BlobReader ResponseParams(std::span<const BYTE> blob, UINT32 paramSize) noexcept;

// ---- Authorisation trailers ----
// Appends authHandle, nonceOdd, fContinueAuthSession, HMAC (45 bytes).
[[nodiscard]] TSS_RESULT LoadBlob_Auth(BlobWriter& blob, const TPM_AUTH& auth) noexcept;
// Reads nonceEven, fContinueAuthSession, HMAC (41 bytes) into `auth`; AuthHandle and NonceOdd are
// left alone. On failure `auth` is unchanged.
[[nodiscard]] TSS_RESULT UnloadBlob_Auth(BlobReader& blob, TPM_AUTH* auth) noexcept;

// ---- Key flags: only redirection, migratable and volatile (0x7) are carried, both ways ----
[[nodiscard]] TSS_RESULT LoadBlob_KEY_FLAGS(BlobWriter& blob, TPM_KEY_FLAGS flags) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_KEY_FLAGS(BlobReader& blob, TPM_KEY_FLAGS* flags) noexcept;

// ---- Structures (layouts in docs/formats.md) ----
// LoadBlob_X writes the structure; TCS_E_BAD_PARAMETER when it does not fit or when a byte vector
// holds fewer bytes than its size field claims (nothing past the failing field is written, and the
// offset is left after the last field written). UnloadBlob_X reads field by field into `out`,
// replacing its variable parts; on failure the fields read so far stay in `out`.
[[nodiscard]] TSS_RESULT LoadBlob_KEY_PARMS(BlobWriter& blob, const TPM_KEY_PARMS& in) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_KEY_PARMS(BlobReader& blob, TPM_KEY_PARMS* out) noexcept;
[[nodiscard]] TSS_RESULT LoadBlob_STORE_PUBKEY(BlobWriter& blob,
                                               const TPM_STORE_PUBKEY& in) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_STORE_PUBKEY(BlobReader& blob, TPM_STORE_PUBKEY* out) noexcept;
[[nodiscard]] TSS_RESULT LoadBlob_PUBKEY(BlobWriter& blob, const TPM_PUBKEY& in) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_PUBKEY(BlobReader& blob, TPM_PUBKEY* out) noexcept;
// Also TPM_KEY12 (same type). Key flags as LoadBlob_KEY_FLAGS.
[[nodiscard]] TSS_RESULT LoadBlob_KEY(BlobWriter& blob, const TPM_KEY& in) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_KEY(BlobReader& blob, TPM_KEY* out) noexcept;
[[nodiscard]] TSS_RESULT LoadBlob_STORED_DATA(BlobWriter& blob, const TPM_STORED_DATA& in) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_STORED_DATA(BlobReader& blob, TPM_STORED_DATA* out) noexcept;
[[nodiscard]] TSS_RESULT LoadBlob_CERTIFY_INFO(BlobWriter& blob,
                                               const TPM_CERTIFY_INFO& in) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_CERTIFY_INFO(BlobReader& blob, TPM_CERTIFY_INFO* out) noexcept;
[[nodiscard]] TSS_RESULT LoadBlob_MIGRATIONKEYAUTH(BlobWriter& blob,
                                                   const TPM_MIGRATIONKEYAUTH& in) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_MIGRATIONKEYAUTH(BlobReader& blob,
                                                     TPM_MIGRATIONKEYAUTH* out) noexcept;
[[nodiscard]] TSS_RESULT LoadBlob_PCR_SELECTION(BlobWriter& blob,
                                                const TPM_PCR_SELECTION& in) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_PCR_SELECTION(BlobReader& blob,
                                                  TPM_PCR_SELECTION* out) noexcept;
[[nodiscard]] TSS_RESULT LoadBlob_PCR_COMPOSITE(BlobWriter& blob,
                                                const TPM_PCR_COMPOSITE& in) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_PCR_COMPOSITE(BlobReader& blob,
                                                  TPM_PCR_COMPOSITE* out) noexcept;
[[nodiscard]] TSS_RESULT LoadBlob_PCR_INFO(BlobWriter& blob, const TPM_PCR_INFO& in) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_PCR_INFO(BlobReader& blob, TPM_PCR_INFO* out) noexcept;
[[nodiscard]] TSS_RESULT LoadBlob_PCR_INFO_SHORT(BlobWriter& blob,
                                                 const TPM_PCR_INFO_SHORT& in) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_PCR_INFO_SHORT(BlobReader& blob,
                                                   TPM_PCR_INFO_SHORT* out) noexcept;
// loaded = 0 on the wire leaves out->handle as it was.
[[nodiscard]] TSS_RESULT LoadBlob_KEY_HANDLE_LIST(BlobWriter& blob,
                                                  const TPM_KEY_HANDLE_LIST& in) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_KEY_HANDLE_LIST(BlobReader& blob,
                                                    TPM_KEY_HANDLE_LIST* out) noexcept;
// TSS_UUID: 16 bytes, integers big-endian.
[[nodiscard]] TSS_RESULT LoadBlob_UUID(BlobWriter& blob, const TSS_UUID& in) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_UUID(BlobReader& blob, TSS_UUID* out) noexcept;
[[nodiscard]] TSS_RESULT LoadBlob_CURRENT_TICKS(BlobWriter& blob,
                                                const TPM_CURRENT_TICKS& in) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_CURRENT_TICKS(BlobReader& blob,
                                                  TPM_CURRENT_TICKS* out) noexcept;
[[nodiscard]] TSS_RESULT LoadBlob_COUNTER_VALUE(BlobWriter& blob,
                                                const TPM_COUNTER_VALUE& in) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_COUNTER_VALUE(BlobReader& blob,
                                                  TPM_COUNTER_VALUE* out) noexcept;
[[nodiscard]] TSS_RESULT LoadBlob_NV_ATTRIBUTES(BlobWriter& blob,
                                                const TPM_NV_ATTRIBUTES& in) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_NV_ATTRIBUTES(BlobReader& blob,
                                                  TPM_NV_ATTRIBUTES* out) noexcept;
[[nodiscard]] TSS_RESULT LoadBlob_NV_DATA_PUBLIC(BlobWriter& blob,
                                                 const TPM_NV_DATA_PUBLIC& in) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_NV_DATA_PUBLIC(BlobReader& blob,
                                                   TPM_NV_DATA_PUBLIC* out) noexcept;
[[nodiscard]] TSS_RESULT LoadBlob_DELEGATIONS(BlobWriter& blob, const TPM_DELEGATIONS& in) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_DELEGATIONS(BlobReader& blob, TPM_DELEGATIONS* out) noexcept;
[[nodiscard]] TSS_RESULT LoadBlob_DELEGATE_PUBLIC(BlobWriter& blob,
                                                  const TPM_DELEGATE_PUBLIC& in) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_DELEGATE_PUBLIC(BlobReader& blob,
                                                    TPM_DELEGATE_PUBLIC* out) noexcept;
// Delegate blobs: additionalSize 0 leaves additionalArea untouched; a sensitiveSize that is 0 or
// has its top bit set reads no bytes, leaves sensitiveArea untouched and succeeds; when the
// sensitiveArea allocation fails the additionalArea is released and TCS_E_OUTOFMEMORY returned.
[[nodiscard]] TSS_RESULT LoadBlob_DELEGATE_OWNER_BLOB(BlobWriter& blob,
                                                      const TPM_DELEGATE_OWNER_BLOB& in) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_DELEGATE_OWNER_BLOB(BlobReader& blob,
                                                        TPM_DELEGATE_OWNER_BLOB* out) noexcept;
[[nodiscard]] TSS_RESULT LoadBlob_DELEGATE_KEY_BLOB(BlobWriter& blob,
                                                    const TPM_DELEGATE_KEY_BLOB& in) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_DELEGATE_KEY_BLOB(BlobReader& blob,
                                                      TPM_DELEGATE_KEY_BLOB* out) noexcept;
[[nodiscard]] TSS_RESULT LoadBlob_FAMILY_TABLE_ENTRY(BlobWriter& blob,
                                                     const TPM_FAMILY_TABLE_ENTRY& in) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_FAMILY_TABLE_ENTRY(BlobReader& blob,
                                                       TPM_FAMILY_TABLE_ENTRY* out) noexcept;

// TSS_PCR_EVENT: versionInfo (4), ulPcrIndex, eventType, ulPcrValueLength, rgbPcrValue,
// ulEventLength, rgbEvent. LoadBlob_PCR_EVENT reads the two arrays through the record's pointers
// (a null pointer with a nonzero length gives TCS_E_BAD_PARAMETER). UnloadBlob_PCR_EVENT allocates
// the arrays with new[] (length 0: null) over whatever the record pointed to before, which is not
// released; release them with free_PCR_EVENT.
[[nodiscard]] TSS_RESULT LoadBlob_PCR_EVENT(BlobWriter& blob, const TSS_PCR_EVENT& in) noexcept;
[[nodiscard]] TSS_RESULT UnloadBlob_PCR_EVENT(BlobReader& blob, TSS_PCR_EVENT* out) noexcept;
// Deletes rgbPcrValue and rgbEvent, sets both to null and both lengths to 0.
void free_PCR_EVENT(TSS_PCR_EVENT& event) noexcept;

// ---- Field sequences ----
// LoadBlob_Field / UnloadBlob_Field: one overload per marshallable type, picked by the field's
// type (UINT16/32/64, BYTE, versions, digests, TSS_UUID, TPM_AUTH as the request/response trailer,
// every TPM structure, raw bytes as a span). Used by LoadBlobs / UnloadBlobs below.
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, UINT64 v) noexcept { return LoadBlob_UINT64(b, v); }
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, UINT32 v) noexcept { return LoadBlob_UINT32(b, v); }
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, UINT16 v) noexcept { return LoadBlob_UINT16(b, v); }
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, BYTE v) noexcept { return LoadBlob_BYTE(b, v); }
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, std::span<const BYTE> v) noexcept {
  return LoadBlob_BYTES(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TPM_VERSION& v) noexcept {
  return LoadBlob_VERSION(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TSS_VERSION& v) noexcept {
  return LoadBlob_VERSION(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TPM_DIGEST& v) noexcept {
  return LoadBlob_DIGEST(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TPM_NONCE& v) noexcept {
  return LoadBlob_DIGEST(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TPM_AUTHDATA& v) noexcept {
  return LoadBlob_DIGEST(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TPM_AUTH& v) noexcept {
  return LoadBlob_Auth(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TSS_UUID& v) noexcept {
  return LoadBlob_UUID(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TSS_PCR_EVENT& v) noexcept {
  return LoadBlob_PCR_EVENT(b, v);
}

inline TSS_RESULT UnloadBlob_Field(BlobReader& b, UINT64* v) noexcept {
  return UnloadBlob_UINT64(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, UINT32* v) noexcept {
  return UnloadBlob_UINT32(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, UINT16* v) noexcept {
  return UnloadBlob_UINT16(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, BYTE* v) noexcept {
  return UnloadBlob_BYTE(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, std::span<BYTE> v) noexcept {
  return UnloadBlob_BYTES(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TPM_VERSION* v) noexcept {
  return UnloadBlob_VERSION(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TSS_VERSION* v) noexcept {
  return UnloadBlob_VERSION(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TPM_DIGEST* v) noexcept {
  return UnloadBlob_DIGEST(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TPM_NONCE* v) noexcept {
  return UnloadBlob_DIGEST(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TPM_AUTHDATA* v) noexcept {
  return UnloadBlob_DIGEST(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TPM_AUTH* v) noexcept {
  return UnloadBlob_Auth(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TSS_UUID* v) noexcept {
  return UnloadBlob_UUID(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TSS_PCR_EVENT* v) noexcept {
  return UnloadBlob_PCR_EVENT(b, v);
}

// The TPM structures, through their named routines.
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TPM_KEY_PARMS& v) noexcept {
  return LoadBlob_KEY_PARMS(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TPM_STORE_PUBKEY& v) noexcept {
  return LoadBlob_STORE_PUBKEY(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TPM_PUBKEY& v) noexcept {
  return LoadBlob_PUBKEY(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TPM_KEY& v) noexcept {
  return LoadBlob_KEY(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TPM_STORED_DATA& v) noexcept {
  return LoadBlob_STORED_DATA(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TPM_CERTIFY_INFO& v) noexcept {
  return LoadBlob_CERTIFY_INFO(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TPM_MIGRATIONKEYAUTH& v) noexcept {
  return LoadBlob_MIGRATIONKEYAUTH(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TPM_PCR_SELECTION& v) noexcept {
  return LoadBlob_PCR_SELECTION(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TPM_PCR_COMPOSITE& v) noexcept {
  return LoadBlob_PCR_COMPOSITE(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TPM_PCR_INFO& v) noexcept {
  return LoadBlob_PCR_INFO(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TPM_PCR_INFO_SHORT& v) noexcept {
  return LoadBlob_PCR_INFO_SHORT(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TPM_KEY_HANDLE_LIST& v) noexcept {
  return LoadBlob_KEY_HANDLE_LIST(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TPM_CURRENT_TICKS& v) noexcept {
  return LoadBlob_CURRENT_TICKS(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TPM_COUNTER_VALUE& v) noexcept {
  return LoadBlob_COUNTER_VALUE(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TPM_NV_ATTRIBUTES& v) noexcept {
  return LoadBlob_NV_ATTRIBUTES(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TPM_NV_DATA_PUBLIC& v) noexcept {
  return LoadBlob_NV_DATA_PUBLIC(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TPM_DELEGATIONS& v) noexcept {
  return LoadBlob_DELEGATIONS(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TPM_DELEGATE_PUBLIC& v) noexcept {
  return LoadBlob_DELEGATE_PUBLIC(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TPM_DELEGATE_OWNER_BLOB& v) noexcept {
  return LoadBlob_DELEGATE_OWNER_BLOB(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TPM_DELEGATE_KEY_BLOB& v) noexcept {
  return LoadBlob_DELEGATE_KEY_BLOB(b, v);
}
inline TSS_RESULT LoadBlob_Field(BlobWriter& b, const TPM_FAMILY_TABLE_ENTRY& v) noexcept {
  return LoadBlob_FAMILY_TABLE_ENTRY(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TPM_KEY_PARMS* v) noexcept {
  return UnloadBlob_KEY_PARMS(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TPM_STORE_PUBKEY* v) noexcept {
  return UnloadBlob_STORE_PUBKEY(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TPM_PUBKEY* v) noexcept {
  return UnloadBlob_PUBKEY(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TPM_KEY* v) noexcept {
  return UnloadBlob_KEY(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TPM_STORED_DATA* v) noexcept {
  return UnloadBlob_STORED_DATA(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TPM_CERTIFY_INFO* v) noexcept {
  return UnloadBlob_CERTIFY_INFO(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TPM_MIGRATIONKEYAUTH* v) noexcept {
  return UnloadBlob_MIGRATIONKEYAUTH(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TPM_PCR_SELECTION* v) noexcept {
  return UnloadBlob_PCR_SELECTION(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TPM_PCR_COMPOSITE* v) noexcept {
  return UnloadBlob_PCR_COMPOSITE(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TPM_PCR_INFO* v) noexcept {
  return UnloadBlob_PCR_INFO(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TPM_PCR_INFO_SHORT* v) noexcept {
  return UnloadBlob_PCR_INFO_SHORT(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TPM_KEY_HANDLE_LIST* v) noexcept {
  return UnloadBlob_KEY_HANDLE_LIST(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TPM_CURRENT_TICKS* v) noexcept {
  return UnloadBlob_CURRENT_TICKS(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TPM_COUNTER_VALUE* v) noexcept {
  return UnloadBlob_COUNTER_VALUE(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TPM_NV_ATTRIBUTES* v) noexcept {
  return UnloadBlob_NV_ATTRIBUTES(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TPM_NV_DATA_PUBLIC* v) noexcept {
  return UnloadBlob_NV_DATA_PUBLIC(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TPM_DELEGATIONS* v) noexcept {
  return UnloadBlob_DELEGATIONS(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TPM_DELEGATE_PUBLIC* v) noexcept {
  return UnloadBlob_DELEGATE_PUBLIC(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TPM_DELEGATE_OWNER_BLOB* v) noexcept {
  return UnloadBlob_DELEGATE_OWNER_BLOB(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TPM_DELEGATE_KEY_BLOB* v) noexcept {
  return UnloadBlob_DELEGATE_KEY_BLOB(b, v);
}
inline TSS_RESULT UnloadBlob_Field(BlobReader& b, TPM_FAMILY_TABLE_ENTRY* v) noexcept {
  return UnloadBlob_FAMILY_TABLE_ENTRY(b, v);
}

// Writes each field in order and stops at the first failure, returning its code (0 when all fit):
//   BlobWriter w(buffer, kTpmHeaderSize);
//   if (auto rc = LoadBlobs(w, keyHandle, inDataSize, std::span(inData), auth)) return rc;
//   return LoadBlob_Header(TPM_TAG_RQU_AUTH1_COMMAND, w.offset(), ordinal, w.blob());
// Integers must have their wire type (UINT32{...}); a plain int literal does not compile.
template <class... Fields>
[[nodiscard]] TSS_RESULT LoadBlobs(BlobWriter& blob, const Fields&... fields) noexcept {
  TSS_RESULT result = TSS_SUCCESS;
  (void)(((result = LoadBlob_Field(blob, fields)) == TSS_SUCCESS) && ...);
  return result;
}

// Reads each field in order into the pointed-to objects (null: checked and skipped) and stops at
// the first failure, returning its code.
template <class... Fields>
[[nodiscard]] TSS_RESULT UnloadBlobs(BlobReader& blob, Fields... fields) noexcept {
  TSS_RESULT result = TSS_SUCCESS;
  (void)(((result = UnloadBlob_Field(blob, fields)) == TSS_SUCCESS) && ...);
  return result;
}

namespace marshal_testing {
// Makes the next `successes` allocations of this thread's Unload routines succeed and every later
// one fail, until called again with -1 (no limit, the default). Tests use it to reach the
// out-of-memory paths.
void FailAllocationsAfter(int successes) noexcept;
}  // namespace marshal_testing

}  // namespace kesttcs
