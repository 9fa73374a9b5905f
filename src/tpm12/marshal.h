// TPM 1.2 blob marshalling: the one place where integers and TPM structures become command bytes
// and response bytes become structures again. All integers are big-endian on the wire. One pair of
// templates, LoadBlob and UnloadBlob, reads and writes every type: a structure through the field
// list beside its declaration (tpm_structures.h; layouts in docs/formats.md).
//
// Bytes are reached through the cursors of blob_cursor.h, so every access is checked first and a
// refused one touches nothing and leaves the offset where it was. A structure goes field by field
// and stops at the first that fails: the fields before it stay written (or stay in the output
// structure) and the offset is left after them (after the size field, when a read refuses the
// part that a size announces). Reads of sized parts check the size field against the bytes that
// remain before allocating, so a malformed length never allocates or reads out of bounds. An
// allocation failure returns TCS_E_OUTOFMEMORY and stops at that field.
//
// Writing never uses the heap. Reads accept a null output pointer: the value is then checked and
// skipped. None of these functions takes a lock; the response-code mapping is the only module
// state (an atomic setting).
#pragma once

#include <kesttcs/tcs_results.h>
#include <kesttcs/tcs_types.h>

#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <span>
#include <tuple>
#include <type_traits>
#include <vector>

#include "tpm12/blob_cursor.h"
#include "tpm12/field_walk.h"
#include "tpm12/tpm_structures.h"
#include "tpm12/wire_form.h"

namespace kesttcs {

// Size of the request/response header (tag, paramSize, ordinal or return code).
inline constexpr UINT16 kTpmHeaderSize = 10;
// Size of one authorisation trailer: request (handle, nonceOdd, continue, HMAC) and response
// (nonceEven, continue, HMAC).
inline constexpr UINT16 kAuthRequestTrailerSize = 45;
inline constexpr UINT16 kAuthResponseTrailerSize = 41;
// Size of the command and response buffers used throughout the service.
inline constexpr std::size_t kTpmBlobSize = 4096;

// ---- Any value ----

// Writes `in` at the writer's offset and advances past it. `in` is a wire integer (BYTE, UINT16,
// UINT32, UINT64: any other integer type does not compile, so write UINT32{x}); raw bytes (a BYTE
// array, span or vector: its bytes alone, none when empty); a TPM_AUTH, as its 45-byte request
// trailer; or a structure with a WireForm. TCS_E_BAD_PARAMETER when it does not fit or when a sized
// part holds fewer items than its size field claims.
template <class T>
[[nodiscard]] TSS_RESULT LoadBlob(BlobWriter& blob, const T& in) noexcept;

// Reads a T at the reader's offset into *out (null: checked and skipped) and advances past it: the
// types of LoadBlob except spans and vectors; a TPM_AUTH reads its 41-byte response trailer. Sized
// parts are replaced by what the blob holds, or kept where their SizeRule says so.
// TCS_E_BAD_PARAMETER when the blob is too short or a size claims more than it holds,
// TCS_E_OUTOFMEMORY when a sized part cannot be allocated. A C record whose sized parts are raw
// arrays (TSS_PCR_EVENT) does not compile here: read it into an Unloaded.
template <class T>
[[nodiscard]] TSS_RESULT UnloadBlob(BlobReader& blob, T* out) noexcept;

// A C interface record whose sized parts are raw arrays (TSS_PCR_EVENT), together with the one
// owner of those arrays. UnloadBlob allocates them with new[]; reading again replaces them and the
// holder's end deletes them (delete[]). Not copyable.
template <class S>
struct Unloaded;
template <class S>
[[nodiscard]] TSS_RESULT UnloadBlob(BlobReader& blob, Unloaded<S>* out) noexcept;

// Writes each field in order and stops at the first failure, returning its code (0 when all fit):
//   BlobWriter w(buffer, kTpmHeaderSize);
//   if (auto rc = LoadBlobs(w, keyHandle, inDataSize, std::span(inData), auth)) return rc;
//   return LoadBlob_Header(TPM_TAG_RQU_AUTH1_COMMAND, w.offset(), ordinal, w.blob());
template <class... Fields>
[[nodiscard]] TSS_RESULT LoadBlobs(BlobWriter& blob, const Fields&... fields) noexcept;

// Reads each field in order into the pointed-to objects (null: checked and skipped) and stops at
// the first failure, returning its code.
template <class... Fields>
[[nodiscard]] TSS_RESULT UnloadBlobs(BlobReader& blob, Fields*... fields) noexcept;

// ---- Named forms that other modules call, converting what they hold to the wire type ----
[[nodiscard]] inline TSS_RESULT LoadBlob_UINT32(BlobWriter& blob, UINT32 in) noexcept {
  return LoadBlob(blob, in);
}
[[nodiscard]] inline TSS_RESULT LoadBlob_UINT16(BlobWriter& blob, UINT16 in) noexcept {
  return LoadBlob(blob, in);
}
[[nodiscard]] inline TSS_RESULT UnloadBlob_UINT32(BlobReader& blob, UINT32* out) noexcept {
  return UnloadBlob(blob, out);
}
// A key blob as storage reads it.
[[nodiscard]] inline TSS_RESULT UnloadBlob_KEY(BlobReader& blob, TPM_KEY* out) noexcept {
  return UnloadBlob(blob, out);
}
// Reads n bytes into a fresh vector (n = 0 leaves it empty, with no allocation); on failure `out`
// is unchanged. TCS_E_OUTOFMEMORY when the allocation fails.
[[nodiscard]] TSS_RESULT UnloadBlob_BYTES(BlobReader& blob, std::size_t n,
                                          std::vector<BYTE>* out) noexcept;

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

// ---- Authorisation trailers (what LoadBlob and UnloadBlob do with a TPM_AUTH) ----
// Appends authHandle, nonceOdd, fContinueAuthSession, HMAC (45 bytes), all or nothing.
[[nodiscard]] TSS_RESULT LoadBlob_Auth(BlobWriter& blob, const TPM_AUTH& auth) noexcept;
// Reads nonceEven, fContinueAuthSession, HMAC (41 bytes) into `auth`; AuthHandle and NonceOdd are
// left alone. On failure `auth` is unchanged.
[[nodiscard]] TSS_RESULT UnloadBlob_Auth(BlobReader& blob, TPM_AUTH* auth) noexcept;

namespace marshal_testing {
// Makes the next `successes` allocations of this thread's Unload routines succeed and every later
// one fail, until called again with -1 (no limit, the default). Tests use it to reach the
// out-of-memory paths.
void FailAllocationsAfter(int successes) noexcept;
}  // namespace marshal_testing

// ---- What LoadBlob and UnloadBlob do with each kind of value ----

namespace marshal_internal {

template <class T>
concept RawBytes = std::convertible_to<const T&, std::span<const BYTE>>;
// Copied byte for byte, whole or not at all: BYTE arrays and the StoredBytes structures.
template <class T>
concept Stored = (std::is_bounded_array_v<T> && std::same_as<std::remove_extent_t<T>, BYTE>) ||
                 std::derived_from<WireForm<T>, StoredBytes>;
template <class T>
concept Listed = requires {
  WireForm<T>::kFields;
};

template <WireInteger T>
TSS_RESULT PutInteger(BlobWriter& blob, T value) noexcept {
  std::array<BYTE, sizeof(T)> bytes;
  for (std::size_t i = sizeof(T); i-- > 0;) {
    bytes[i] = static_cast<BYTE>(value);
    value = static_cast<T>(value >> 8);
  }
  return blob.Put(bytes);
}

template <WireInteger T>
TSS_RESULT TakeInteger(BlobReader& blob, T* out) noexcept {
  std::span<const BYTE> bytes;
  if (TSS_RESULT rc = blob.Take(sizeof(T), bytes)) return rc;
  T value = 0;
  for (BYTE b : bytes) value = static_cast<T>((static_cast<UINT64>(value) << 8) | b);
  if (out != nullptr) *out = value;
  return TSS_SUCCESS;
}

template <Stored T>
std::span<const BYTE> StoredBytesOf(const T& in) noexcept {
  static_assert(std::is_trivially_copyable_v<T> && alignof(T) == 1);
  return std::span(reinterpret_cast<const BYTE*>(&in), sizeof(T));
}

template <Stored T>
TSS_RESULT TakeStored(BlobReader& blob, T* out) noexcept {
  std::span<const BYTE> bytes;
  if (TSS_RESULT rc = blob.Take(sizeof(T), bytes)) return rc;
  if (out != nullptr) std::copy(bytes.begin(), bytes.end(), reinterpret_cast<BYTE*>(out));
  return TSS_SUCCESS;
}

template <class T>
TSS_RESULT Write(BlobWriter& blob, const T& in) noexcept {
  if constexpr (WireInteger<T>) {
    return PutInteger(blob, in);
  } else if constexpr (Stored<T>) {
    return blob.Put(StoredBytesOf(in));
  } else if constexpr (RawBytes<T>) {
    return blob.Put(in);
  } else if constexpr (std::same_as<T, TPM_AUTH>) {
    return LoadBlob_Auth(blob, in);
  } else {
    static_assert(Listed<T>,
                  "not marshallable: use a wire integer (UINT32{x}), bytes or a WireForm");
    return WriteFields(blob, in, WireForm<T>::kFields);
  }
}

template <class T>
TSS_RESULT Read(BlobReader& blob, T* out) noexcept {
  if constexpr (WireInteger<T>) {
    return TakeInteger(blob, out);
  } else if constexpr (Stored<T>) {
    return TakeStored(blob, out);
  } else if constexpr (std::same_as<T, TPM_AUTH>) {
    return UnloadBlob_Auth(blob, out);
  } else {
    static_assert(Listed<T>,
                  "not marshallable: use a wire integer (UINT32{x}), bytes or a WireForm");
    static_assert(!HoldsRawArrays<T>, "read a record with raw arrays into an Unloaded");
    if (out == nullptr) {
      T scratch{};
      return ReadFields(blob, scratch, WireForm<T>::kFields);
    }
    return ReadFields(blob, *out, WireForm<T>::kFields);
  }
}

}  // namespace marshal_internal

template <class T>
TSS_RESULT LoadBlob(BlobWriter& blob, const T& in) noexcept {
  return marshal_internal::Write(blob, in);
}

template <class T>
TSS_RESULT UnloadBlob(BlobReader& blob, T* out) noexcept {
  return marshal_internal::Read(blob, out);
}

template <class S>
struct Unloaded {
  Unloaded() = default;
  Unloaded(const Unloaded&) = delete;
  Unloaded& operator=(const Unloaded&) = delete;
  ~Unloaded() { marshal_internal::DeleteArrays(record); }

  S record{};
};

template <class S>
TSS_RESULT UnloadBlob(BlobReader& blob, Unloaded<S>* out) noexcept {
  Unloaded<S> scratch;
  S& record = (out != nullptr ? out : &scratch)->record;
  return marshal_internal::ReadFields(blob, record, WireForm<S>::kFields);
}

template <class... Fields>
TSS_RESULT LoadBlobs(BlobWriter& blob, const Fields&... fields) noexcept {
  return marshal_internal::EachUntilFailure(
      std::tie(fields...), [&blob](const auto& field) { return LoadBlob(blob, field); });
}

template <class... Fields>
TSS_RESULT UnloadBlobs(BlobReader& blob, Fields*... fields) noexcept {
  return marshal_internal::EachUntilFailure(
      std::tuple(fields...), [&blob](auto* field) { return UnloadBlob(blob, field); });
}

}  // namespace kesttcs
