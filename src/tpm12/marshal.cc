// Blob marshalling. Each structure's wire layout is written once, as a list of its fields in wire
// order (FieldsOf below); the same list drives marshalling and unmarshalling, so the two directions
// cannot drift apart. Sized parts and the masked key flags are expressed by small wrapper types.
#include "tpm12/marshal.h"

#include <algorithm>
#include <atomic>
#include <concepts>
#include <new>
#include <tuple>
#include <type_traits>

namespace kesttcs {

namespace {

std::atomic<ResponseCodeMapping> g_response_code_mapping{ResponseCodeMapping::kTddl};

// Allocations this thread may still make before they fail; negative: no limit (tests only).
thread_local int t_allocations_left = -1;

bool AllocationAllowed() noexcept {
  if (t_allocations_left < 0) return true;
  if (t_allocations_left == 0) return false;
  --t_allocations_left;
  return true;
}

// A vector of n value-initialised elements in `out`; false when memory is short.
template <class T>
bool Allocate(std::vector<T>& out, std::size_t n) noexcept {
  if (!AllocationAllowed()) return false;
  try {
    out.resize(n);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

template <class T>
void Release(std::vector<T>& v) noexcept {
  std::vector<T>().swap(v);
}

template <std::unsigned_integral T>
TSS_RESULT PutInteger(BlobWriter& blob, T value) noexcept {
  std::array<BYTE, sizeof(T)> bytes;
  for (std::size_t i = sizeof(T); i-- > 0;) {
    bytes[i] = static_cast<BYTE>(value);
    value = static_cast<T>(value >> 8);
  }
  return blob.Put(bytes);
}

template <std::unsigned_integral T>
TSS_RESULT TakeInteger(BlobReader& blob, T* out) noexcept {
  std::span<const BYTE> bytes;
  if (TSS_RESULT rc = blob.Take(sizeof(T), bytes)) return rc;
  T value = 0;
  for (BYTE b : bytes) value = static_cast<T>((static_cast<UINT64>(value) << 8) | b);
  if (out != nullptr) *out = value;
  return TSS_SUCCESS;
}

template <class T>
TSS_RESULT PutObjectBytes(BlobWriter& blob, const T& in) noexcept {
  static_assert(std::is_trivially_copyable_v<T> && alignof(T) == 1);
  return blob.Put(std::span<const BYTE>(reinterpret_cast<const BYTE*>(&in), sizeof(T)));
}

template <class T>
TSS_RESULT TakeObjectBytes(BlobReader& blob, T* out) noexcept {
  static_assert(std::is_trivially_copyable_v<T> && alignof(T) == 1);
  std::span<const BYTE> bytes;
  if (TSS_RESULT rc = blob.Take(sizeof(T), bytes)) return rc;
  if (out != nullptr) std::copy(bytes.begin(), bytes.end(), reinterpret_cast<BYTE*>(out));
  return TSS_SUCCESS;
}

// ---- Field wrappers ----

// What unmarshalling does with a size field of 0 (or, for kNonPositiveKeeps, any size whose top bit
// is set): release the items, or leave them as they were without reading any bytes.
enum class ZeroRule { kRelease, kKeep, kNonPositiveKeeps };

// A size field followed by that many items (bytes, or UINT32 handles).
template <class Size, class Vec, ZeroRule kRule>
struct Counted {
  Size& size;
  Vec& items;
};
template <ZeroRule kRule = ZeroRule::kRelease, class Size, class Vec>
Counted<Size, Vec, kRule> Count(Size& size, Vec& items) noexcept {
  return {size, items};
}

// A TPM_KEY's flag word, of which only the three marshalled bits travel.
template <class Flags>
struct MaskedKeyFlags {
  Flags& flags;
};
template <class Flags>
MaskedKeyFlags<Flags> KeyFlags(Flags& flags) noexcept {
  return {flags};
}

// ---- Field lists (wire order). `S` is the structure, const when marshalling ----

template <class S, class T>
concept Is = std::same_as<std::remove_const_t<S>, T>;

// Stores lvalue fields by reference and wrapper prvalues by value.
template <class... F>
std::tuple<F...> Fields(F&&... f) noexcept {
  return std::tuple<F...>(std::forward<F>(f)...);
}

template <Is<TPM_KEY_PARMS> S>
auto FieldsOf(S& s) noexcept {
  return Fields(s.algorithmID, s.encScheme, s.sigScheme, Count(s.parmSize, s.parms));
}
template <Is<TPM_STORE_PUBKEY> S>
auto FieldsOf(S& s) noexcept {
  return Fields(Count(s.keyLength, s.key));
}
template <Is<TPM_PUBKEY> S>
auto FieldsOf(S& s) noexcept {
  return Fields(s.algorithmParms, s.pubKey);
}
template <Is<TPM_KEY> S>
auto FieldsOf(S& s) noexcept {
  return Fields(s.ver, s.keyUsage, KeyFlags(s.keyFlags), s.authDataUsage, s.algorithmParms,
                Count(s.PCRInfoSize, s.PCRInfo), s.pubKey, Count(s.encSize, s.encData));
}
template <Is<TPM_STORED_DATA> S>
auto FieldsOf(S& s) noexcept {
  return Fields(s.ver, Count(s.sealInfoSize, s.sealInfo), Count(s.encDataSize, s.encData));
}
// The flags of a certify info are signed by the TPM, so they pass through unmasked.
template <Is<TPM_CERTIFY_INFO> S>
auto FieldsOf(S& s) noexcept {
  return Fields(s.version, s.keyUsage, s.keyFlags, s.authDataUsage, s.algorithmParms,
                s.pubkeyDigest, s.data, s.parentPCRStatus, Count(s.PCRInfoSize, s.PCRInfo));
}
template <Is<TPM_MIGRATIONKEYAUTH> S>
auto FieldsOf(S& s) noexcept {
  return Fields(s.migrationKey, s.migrationScheme, s.digest);
}
template <Is<TPM_PCR_SELECTION> S>
auto FieldsOf(S& s) noexcept {
  return Fields(Count(s.sizeOfSelect, s.pcrSelect));
}
template <Is<TPM_PCR_COMPOSITE> S>
auto FieldsOf(S& s) noexcept {
  return Fields(s.select, Count(s.valueSize, s.pcrValue));
}
template <Is<TPM_PCR_INFO> S>
auto FieldsOf(S& s) noexcept {
  return Fields(s.pcrSelection, s.digestAtRelease, s.digestAtCreation);
}
template <Is<TPM_PCR_INFO_SHORT> S>
auto FieldsOf(S& s) noexcept {
  return Fields(s.pcrSelection, s.localityAtRelease, s.digestAtRelease);
}
template <Is<TPM_KEY_HANDLE_LIST> S>
auto FieldsOf(S& s) noexcept {
  return Fields(Count<ZeroRule::kKeep>(s.loaded, s.handle));
}
template <Is<TSS_UUID> S>
auto FieldsOf(S& s) noexcept {
  return Fields(s.ulTimeLow, s.usTimeMid, s.usTimeHigh, s.bClockSeqHigh, s.bClockSeqLow, s.rgbNode);
}
template <Is<TPM_CURRENT_TICKS> S>
auto FieldsOf(S& s) noexcept {
  return Fields(s.tag, s.currentTicks, s.tickRate, s.tickNonce);
}
template <Is<TPM_COUNTER_VALUE> S>
auto FieldsOf(S& s) noexcept {
  return Fields(s.tag, s.label, s.counter);
}
template <Is<TPM_NV_ATTRIBUTES> S>
auto FieldsOf(S& s) noexcept {
  return Fields(s.tag, s.attributes);
}
template <Is<TPM_NV_DATA_PUBLIC> S>
auto FieldsOf(S& s) noexcept {
  return Fields(s.tag, s.nvIndex, s.pcrInfoRead, s.pcrInfoWrite, s.permission, s.bReadSTClear,
                s.bWriteSTClear, s.bWriteDefine, s.dataSize);
}
template <Is<TPM_DELEGATIONS> S>
auto FieldsOf(S& s) noexcept {
  return Fields(s.tag, s.delegateType, s.per1, s.per2);
}
template <Is<TPM_DELEGATE_PUBLIC> S>
auto FieldsOf(S& s) noexcept {
  return Fields(s.tag, s.label, s.pcrInfo, s.permissions, s.familyID, s.verificationCount);
}
template <Is<TPM_FAMILY_TABLE_ENTRY> S>
auto FieldsOf(S& s) noexcept {
  return Fields(s.tag, s.familyLabel, s.familyID, s.verificationCount, s.flags);
}

// The delegate blobs in two parts, because an allocation failure in the second releases the first.
template <class S>
concept DelegateBlob = Is<S, TPM_DELEGATE_OWNER_BLOB> || Is<S, TPM_DELEGATE_KEY_BLOB>;

template <DelegateBlob S>
auto DelegateHeadOf(S& s) noexcept {
  if constexpr (Is<S, TPM_DELEGATE_KEY_BLOB>) {
    return Fields(s.tag, s.pub, s.integrityDigest, s.pubKeyDigest,
                  Count<ZeroRule::kKeep>(s.additionalSize, s.additionalArea));
  } else {
    return Fields(s.tag, s.pub, s.integrityDigest,
                  Count<ZeroRule::kKeep>(s.additionalSize, s.additionalArea));
  }
}
template <DelegateBlob S>
auto DelegateSensitiveOf(S& s) noexcept {
  return Fields(Count<ZeroRule::kNonPositiveKeeps>(s.sensitiveSize, s.sensitiveArea));
}
template <DelegateBlob S>
auto FieldsOf(S& s) noexcept {
  return std::tuple_cat(DelegateHeadOf(s), DelegateSensitiveOf(s));
}

// ---- One field each way ----

template <class T>
TSS_RESULT Write(BlobWriter& blob, const T& field) noexcept {
  return LoadBlob_Field(blob, field);
}
template <std::size_t N>
TSS_RESULT Write(BlobWriter& blob, const BYTE (&field)[N]) noexcept {
  return LoadBlob_BYTES(blob, field);
}
template <std::size_t N>
TSS_RESULT Write(BlobWriter& blob, const std::array<BYTE, N>& field) noexcept {
  return LoadBlob_BYTES(blob, field);
}
template <class Flags>
TSS_RESULT Write(BlobWriter& blob, const MaskedKeyFlags<Flags>& field) noexcept {
  return LoadBlob_KEY_FLAGS(blob, field.flags);
}
// Checks that the whole field fits and that the items hold `size` entries before writing anything.
template <class Size, class Vec, ZeroRule kRule>
TSS_RESULT Write(BlobWriter& blob, const Counted<Size, Vec, kRule>& field) noexcept {
  using Item = typename std::remove_const_t<Vec>::value_type;
  const std::size_t n = field.size;
  if (field.items.size() < n || blob.remaining() < sizeof(Size) ||
      (blob.remaining() - sizeof(Size)) / sizeof(Item) < n) {
    return TCS_E_BAD_PARAMETER;
  }
  if (TSS_RESULT rc = LoadBlob_Field(blob, field.size)) return rc;
  if constexpr (std::same_as<Item, BYTE>) {
    return LoadBlob_BYTES(blob, std::span(field.items).first(n));
  } else {
    for (std::size_t i = 0; i < n; ++i) {
      if (TSS_RESULT rc = LoadBlob_Field(blob, field.items[i])) return rc;
    }
    return TSS_SUCCESS;
  }
}

template <class T>
TSS_RESULT Read(BlobReader& blob, T& field) noexcept {
  return UnloadBlob_Field(blob, &field);
}
template <std::size_t N>
TSS_RESULT Read(BlobReader& blob, BYTE (&field)[N]) noexcept {
  return UnloadBlob_BYTES(blob, field);
}
template <std::size_t N>
TSS_RESULT Read(BlobReader& blob, std::array<BYTE, N>& field) noexcept {
  return UnloadBlob_BYTES(blob, field);
}
template <class Flags>
TSS_RESULT Read(BlobReader& blob, MaskedKeyFlags<Flags>& field) noexcept {
  return UnloadBlob_KEY_FLAGS(blob, &field.flags);
}
// Reads the size, checks it against the bytes that remain, and only then allocates. The size field
// is stored once the items are in place (or skipped under the zero rule).
template <class Size, class Vec, ZeroRule kRule>
TSS_RESULT Read(BlobReader& blob, Counted<Size, Vec, kRule>& field) noexcept {
  using Item = typename Vec::value_type;
  Size n = 0;
  if (TSS_RESULT rc = UnloadBlob_Field(blob, &n)) return rc;
  const bool non_positive = n == 0 || (kRule == ZeroRule::kNonPositiveKeeps &&
                                       static_cast<std::make_signed_t<Size>>(n) < 0);
  if (non_positive) {
    if (kRule == ZeroRule::kRelease) Release(field.items);
    field.size = n;
    return TSS_SUCCESS;
  }
  if (blob.remaining() / sizeof(Item) < n) return TCS_E_BAD_PARAMETER;
  Vec items;
  if (!Allocate(items, n)) return TCS_E_OUTOFMEMORY;
  if constexpr (std::same_as<Item, BYTE>) {
    if (TSS_RESULT rc = UnloadBlob_BYTES(blob, std::span(items))) return rc;
  } else {
    for (Item& item : items) {
      if (TSS_RESULT rc = UnloadBlob_Field(blob, &item)) return rc;
    }
  }
  field.items = std::move(items);
  field.size = n;
  return TSS_SUCCESS;
}

template <class Tuple>
TSS_RESULT WriteFields(BlobWriter& blob, const Tuple& fields) noexcept {
  return std::apply(
      [&blob](const auto&... field) {
        TSS_RESULT rc = TSS_SUCCESS;
        (void)(((rc = Write(blob, field)) == TSS_SUCCESS) && ...);
        return rc;
      },
      fields);
}

template <class Tuple>
TSS_RESULT ReadFields(BlobReader& blob, Tuple fields) noexcept {
  return std::apply(
      [&blob](auto&... field) {
        TSS_RESULT rc = TSS_SUCCESS;
        (void)(((rc = Read(blob, field)) == TSS_SUCCESS) && ...);
        return rc;
      },
      fields);
}

template <class S>
TSS_RESULT WriteStruct(BlobWriter& blob, const S& in) noexcept {
  return WriteFields(blob, FieldsOf(in));
}

template <class S>
TSS_RESULT ReadStruct(BlobReader& blob, S* out) noexcept {
  if (out == nullptr) {
    S scratch{};
    return ReadStruct(blob, &scratch);
  }
  if constexpr (DelegateBlob<S>) {
    if (TSS_RESULT rc = ReadFields(blob, DelegateHeadOf(*out))) return rc;
    const TSS_RESULT rc = ReadFields(blob, DelegateSensitiveOf(*out));
    if (rc == TCS_E_OUTOFMEMORY) {
      Release(out->additionalArea);
      out->additionalSize = 0;
    }
    return rc;
  } else {
    return ReadFields(blob, FieldsOf(*out));
  }
}

// A TSS_PCR_EVENT array behind a raw pointer (the record is shared with C callers).
struct RawArray {
  UINT32& size;
  BYTE*& data;
};

TSS_RESULT WriteRaw(BlobWriter& blob, UINT32 size, const BYTE* data) noexcept {
  if (size != 0 && data == nullptr) return TCS_E_BAD_PARAMETER;
  if (blob.remaining() < sizeof(UINT32) || blob.remaining() - sizeof(UINT32) < size) {
    return TCS_E_BAD_PARAMETER;
  }
  if (TSS_RESULT rc = LoadBlob_UINT32(blob, size)) return rc;
  return LoadBlob_BYTES(blob, std::span(data, size));
}

TSS_RESULT ReadRaw(BlobReader& blob, RawArray field) noexcept {
  UINT32 n = 0;
  if (TSS_RESULT rc = UnloadBlob_UINT32(blob, &n)) return rc;
  if (blob.remaining() < n) return TCS_E_BAD_PARAMETER;
  BYTE* data = nullptr;
  if (n != 0) {
    data = AllocationAllowed() ? new (std::nothrow) BYTE[n] : nullptr;
    if (data == nullptr) return TCS_E_OUTOFMEMORY;
    if (TSS_RESULT rc = UnloadBlob_BYTES(blob, std::span(data, n))) {
      delete[] data;
      return rc;
    }
  }
  field.data = data;
  field.size = n;
  return TSS_SUCCESS;
}

}  // namespace

// ---- Cursors ----

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

// ---- Primitives ----

TSS_RESULT LoadBlob_UINT64(BlobWriter& blob, UINT64 in) noexcept { return PutInteger(blob, in); }
TSS_RESULT LoadBlob_UINT32(BlobWriter& blob, UINT32 in) noexcept { return PutInteger(blob, in); }
TSS_RESULT LoadBlob_UINT16(BlobWriter& blob, UINT16 in) noexcept { return PutInteger(blob, in); }
TSS_RESULT LoadBlob_BYTE(BlobWriter& blob, BYTE in) noexcept { return PutInteger(blob, in); }
TSS_RESULT LoadBlob_BOOL(BlobWriter& blob, TSS_BOOL in) noexcept { return PutInteger(blob, in); }
TSS_RESULT LoadBlob_BYTES(BlobWriter& blob, std::span<const BYTE> in) noexcept {
  return blob.Put(in);
}
TSS_RESULT LoadBlob_VERSION(BlobWriter& blob, const TPM_VERSION& in) noexcept {
  return PutObjectBytes(blob, in);
}
TSS_RESULT LoadBlob_VERSION(BlobWriter& blob, const TSS_VERSION& in) noexcept {
  return PutObjectBytes(blob, in);
}
TSS_RESULT LoadBlob_DIGEST(BlobWriter& blob, const TPM_DIGEST& in) noexcept {
  return blob.Put(in.digest);
}
TSS_RESULT LoadBlob_DIGEST(BlobWriter& blob, const TPM_NONCE& in) noexcept {
  return blob.Put(in.nonce);
}
TSS_RESULT LoadBlob_DIGEST(BlobWriter& blob, const TPM_AUTHDATA& in) noexcept {
  return blob.Put(in.authdata);
}

TSS_RESULT UnloadBlob_UINT64(BlobReader& blob, UINT64* out) noexcept {
  return TakeInteger(blob, out);
}
TSS_RESULT UnloadBlob_UINT32(BlobReader& blob, UINT32* out) noexcept {
  return TakeInteger(blob, out);
}
TSS_RESULT UnloadBlob_UINT16(BlobReader& blob, UINT16* out) noexcept {
  return TakeInteger(blob, out);
}
TSS_RESULT UnloadBlob_BYTE(BlobReader& blob, BYTE* out) noexcept { return TakeInteger(blob, out); }
TSS_RESULT UnloadBlob_BOOL(BlobReader& blob, TSS_BOOL* out) noexcept {
  return TakeInteger(blob, out);
}
TSS_RESULT UnloadBlob_BYTES(BlobReader& blob, std::span<BYTE> out) noexcept {
  std::span<const BYTE> bytes;
  if (TSS_RESULT rc = blob.Take(out.size(), bytes)) return rc;
  std::copy(bytes.begin(), bytes.end(), out.begin());
  return TSS_SUCCESS;
}
TSS_RESULT UnloadBlob_BYTES(BlobReader& blob, std::size_t n, std::vector<BYTE>* out) noexcept {
  if (n > blob.remaining()) return TCS_E_BAD_PARAMETER;
  std::vector<BYTE> bytes;
  if (n != 0 && !Allocate(bytes, n)) return TCS_E_OUTOFMEMORY;
  if (TSS_RESULT rc = UnloadBlob_BYTES(blob, std::span(bytes))) return rc;
  if (out != nullptr) *out = std::move(bytes);
  return TSS_SUCCESS;
}
TSS_RESULT UnloadBlob_VERSION(BlobReader& blob, TPM_VERSION* out) noexcept {
  return TakeObjectBytes(blob, out);
}
TSS_RESULT UnloadBlob_VERSION(BlobReader& blob, TSS_VERSION* out) noexcept {
  return TakeObjectBytes(blob, out);
}
TSS_RESULT UnloadBlob_DIGEST(BlobReader& blob, TPM_DIGEST* out) noexcept {
  return TakeObjectBytes(blob, out);
}
TSS_RESULT UnloadBlob_DIGEST(BlobReader& blob, TPM_NONCE* out) noexcept {
  return TakeObjectBytes(blob, out);
}
TSS_RESULT UnloadBlob_DIGEST(BlobReader& blob, TPM_AUTHDATA* out) noexcept {
  return TakeObjectBytes(blob, out);
}

// ---- Header ----

void SetResponseCodeMapping(ResponseCodeMapping mapping) noexcept {
  g_response_code_mapping.store(mapping, std::memory_order_relaxed);
}

ResponseCodeMapping GetResponseCodeMapping() noexcept {
  return g_response_code_mapping.load(std::memory_order_relaxed);
}

TSS_RESULT LoadBlob_Header(TPM_TAG tag, UINT32 paramSize, TPM_COMMAND_CODE ordinal,
                           std::span<BYTE> blob) noexcept {
  BlobWriter header(blob);
  if (header.remaining() < kTpmHeaderSize) return TCS_E_BAD_PARAMETER;
  return LoadBlobs(header, tag, paramSize, ordinal);
}

TSS_RESULT UnloadBlob_Header(std::span<const BYTE> blob, UINT32* paramSize) noexcept {
  BlobReader header(blob);
  UINT32 size = 0;
  TPM_RESULT code = 0;
  if (TSS_RESULT rc = UnloadBlobs(header, static_cast<UINT16*>(nullptr), &size, &code)) return rc;
  if (paramSize != nullptr) *paramSize = size;
  // Under TPM Base Services the driver layer's own codes (upper half set) arrive here unchanged.
  if (GetResponseCodeMapping() == ResponseCodeMapping::kTbs && (code & 0xFFFF0000u) != 0) {
    return code;
  }
  return TpmResult(code);
}

BlobReader ResponseParams(std::span<const BYTE> blob, UINT32 paramSize) noexcept {
  return BlobReader(blob.first(std::min<std::size_t>(paramSize, blob.size())), kTpmHeaderSize);
}

// ---- Authorisation trailers and key flags ----

TSS_RESULT LoadBlob_Auth(BlobWriter& blob, const TPM_AUTH& auth) noexcept {
  if (blob.remaining() < kAuthRequestTrailerSize) return TCS_E_BAD_PARAMETER;
  return LoadBlobs(blob, auth.AuthHandle, auth.NonceOdd, auth.fContinueAuthSession, auth.HMAC);
}

TSS_RESULT UnloadBlob_Auth(BlobReader& blob, TPM_AUTH* auth) noexcept {
  if (blob.remaining() < kAuthResponseTrailerSize) return TCS_E_BAD_PARAMETER;
  TPM_AUTH scratch{};
  TPM_AUTH& out = auth != nullptr ? *auth : scratch;
  return UnloadBlobs(blob, &out.NonceEven, &out.fContinueAuthSession, &out.HMAC);
}

TSS_RESULT LoadBlob_KEY_FLAGS(BlobWriter& blob, TPM_KEY_FLAGS flags) noexcept {
  return LoadBlob_UINT32(blob, flags & kMarshalledKeyFlags);
}

TSS_RESULT UnloadBlob_KEY_FLAGS(BlobReader& blob, TPM_KEY_FLAGS* flags) noexcept {
  UINT32 wire = 0;
  if (TSS_RESULT rc = UnloadBlob_UINT32(blob, &wire)) return rc;
  if (flags != nullptr) *flags = wire & kMarshalledKeyFlags;
  return TSS_SUCCESS;
}

// ---- Structures ----

TSS_RESULT LoadBlob_KEY_PARMS(BlobWriter& b, const TPM_KEY_PARMS& in) noexcept {
  return WriteStruct(b, in);
}
TSS_RESULT UnloadBlob_KEY_PARMS(BlobReader& b, TPM_KEY_PARMS* out) noexcept {
  return ReadStruct(b, out);
}
TSS_RESULT LoadBlob_STORE_PUBKEY(BlobWriter& b, const TPM_STORE_PUBKEY& in) noexcept {
  return WriteStruct(b, in);
}
TSS_RESULT UnloadBlob_STORE_PUBKEY(BlobReader& b, TPM_STORE_PUBKEY* out) noexcept {
  return ReadStruct(b, out);
}
TSS_RESULT LoadBlob_PUBKEY(BlobWriter& b, const TPM_PUBKEY& in) noexcept {
  return WriteStruct(b, in);
}
TSS_RESULT UnloadBlob_PUBKEY(BlobReader& b, TPM_PUBKEY* out) noexcept { return ReadStruct(b, out); }
TSS_RESULT LoadBlob_KEY(BlobWriter& b, const TPM_KEY& in) noexcept { return WriteStruct(b, in); }
TSS_RESULT UnloadBlob_KEY(BlobReader& b, TPM_KEY* out) noexcept { return ReadStruct(b, out); }
TSS_RESULT LoadBlob_STORED_DATA(BlobWriter& b, const TPM_STORED_DATA& in) noexcept {
  return WriteStruct(b, in);
}
TSS_RESULT UnloadBlob_STORED_DATA(BlobReader& b, TPM_STORED_DATA* out) noexcept {
  return ReadStruct(b, out);
}
TSS_RESULT LoadBlob_CERTIFY_INFO(BlobWriter& b, const TPM_CERTIFY_INFO& in) noexcept {
  return WriteStruct(b, in);
}
TSS_RESULT UnloadBlob_CERTIFY_INFO(BlobReader& b, TPM_CERTIFY_INFO* out) noexcept {
  return ReadStruct(b, out);
}
TSS_RESULT LoadBlob_MIGRATIONKEYAUTH(BlobWriter& b, const TPM_MIGRATIONKEYAUTH& in) noexcept {
  return WriteStruct(b, in);
}
TSS_RESULT UnloadBlob_MIGRATIONKEYAUTH(BlobReader& b, TPM_MIGRATIONKEYAUTH* out) noexcept {
  return ReadStruct(b, out);
}
TSS_RESULT LoadBlob_PCR_SELECTION(BlobWriter& b, const TPM_PCR_SELECTION& in) noexcept {
  return WriteStruct(b, in);
}
TSS_RESULT UnloadBlob_PCR_SELECTION(BlobReader& b, TPM_PCR_SELECTION* out) noexcept {
  return ReadStruct(b, out);
}
TSS_RESULT LoadBlob_PCR_COMPOSITE(BlobWriter& b, const TPM_PCR_COMPOSITE& in) noexcept {
  return WriteStruct(b, in);
}
TSS_RESULT UnloadBlob_PCR_COMPOSITE(BlobReader& b, TPM_PCR_COMPOSITE* out) noexcept {
  return ReadStruct(b, out);
}
TSS_RESULT LoadBlob_PCR_INFO(BlobWriter& b, const TPM_PCR_INFO& in) noexcept {
  return WriteStruct(b, in);
}
TSS_RESULT UnloadBlob_PCR_INFO(BlobReader& b, TPM_PCR_INFO* out) noexcept {
  return ReadStruct(b, out);
}
TSS_RESULT LoadBlob_PCR_INFO_SHORT(BlobWriter& b, const TPM_PCR_INFO_SHORT& in) noexcept {
  return WriteStruct(b, in);
}
TSS_RESULT UnloadBlob_PCR_INFO_SHORT(BlobReader& b, TPM_PCR_INFO_SHORT* out) noexcept {
  return ReadStruct(b, out);
}
TSS_RESULT LoadBlob_KEY_HANDLE_LIST(BlobWriter& b, const TPM_KEY_HANDLE_LIST& in) noexcept {
  return WriteStruct(b, in);
}
TSS_RESULT UnloadBlob_KEY_HANDLE_LIST(BlobReader& b, TPM_KEY_HANDLE_LIST* out) noexcept {
  return ReadStruct(b, out);
}
TSS_RESULT LoadBlob_UUID(BlobWriter& b, const TSS_UUID& in) noexcept { return WriteStruct(b, in); }
TSS_RESULT UnloadBlob_UUID(BlobReader& b, TSS_UUID* out) noexcept { return ReadStruct(b, out); }
TSS_RESULT LoadBlob_CURRENT_TICKS(BlobWriter& b, const TPM_CURRENT_TICKS& in) noexcept {
  return WriteStruct(b, in);
}
TSS_RESULT UnloadBlob_CURRENT_TICKS(BlobReader& b, TPM_CURRENT_TICKS* out) noexcept {
  return ReadStruct(b, out);
}
TSS_RESULT LoadBlob_COUNTER_VALUE(BlobWriter& b, const TPM_COUNTER_VALUE& in) noexcept {
  return WriteStruct(b, in);
}
TSS_RESULT UnloadBlob_COUNTER_VALUE(BlobReader& b, TPM_COUNTER_VALUE* out) noexcept {
  return ReadStruct(b, out);
}
TSS_RESULT LoadBlob_NV_ATTRIBUTES(BlobWriter& b, const TPM_NV_ATTRIBUTES& in) noexcept {
  return WriteStruct(b, in);
}
TSS_RESULT UnloadBlob_NV_ATTRIBUTES(BlobReader& b, TPM_NV_ATTRIBUTES* out) noexcept {
  return ReadStruct(b, out);
}
TSS_RESULT LoadBlob_NV_DATA_PUBLIC(BlobWriter& b, const TPM_NV_DATA_PUBLIC& in) noexcept {
  return WriteStruct(b, in);
}
TSS_RESULT UnloadBlob_NV_DATA_PUBLIC(BlobReader& b, TPM_NV_DATA_PUBLIC* out) noexcept {
  return ReadStruct(b, out);
}
TSS_RESULT LoadBlob_DELEGATIONS(BlobWriter& b, const TPM_DELEGATIONS& in) noexcept {
  return WriteStruct(b, in);
}
TSS_RESULT UnloadBlob_DELEGATIONS(BlobReader& b, TPM_DELEGATIONS* out) noexcept {
  return ReadStruct(b, out);
}
TSS_RESULT LoadBlob_DELEGATE_PUBLIC(BlobWriter& b, const TPM_DELEGATE_PUBLIC& in) noexcept {
  return WriteStruct(b, in);
}
TSS_RESULT UnloadBlob_DELEGATE_PUBLIC(BlobReader& b, TPM_DELEGATE_PUBLIC* out) noexcept {
  return ReadStruct(b, out);
}
TSS_RESULT LoadBlob_DELEGATE_OWNER_BLOB(BlobWriter& b, const TPM_DELEGATE_OWNER_BLOB& in) noexcept {
  return WriteStruct(b, in);
}
TSS_RESULT UnloadBlob_DELEGATE_OWNER_BLOB(BlobReader& b, TPM_DELEGATE_OWNER_BLOB* out) noexcept {
  return ReadStruct(b, out);
}
TSS_RESULT LoadBlob_DELEGATE_KEY_BLOB(BlobWriter& b, const TPM_DELEGATE_KEY_BLOB& in) noexcept {
  return WriteStruct(b, in);
}
TSS_RESULT UnloadBlob_DELEGATE_KEY_BLOB(BlobReader& b, TPM_DELEGATE_KEY_BLOB* out) noexcept {
  return ReadStruct(b, out);
}
TSS_RESULT LoadBlob_FAMILY_TABLE_ENTRY(BlobWriter& b, const TPM_FAMILY_TABLE_ENTRY& in) noexcept {
  return WriteStruct(b, in);
}
TSS_RESULT UnloadBlob_FAMILY_TABLE_ENTRY(BlobReader& b, TPM_FAMILY_TABLE_ENTRY* out) noexcept {
  return ReadStruct(b, out);
}

TSS_RESULT LoadBlob_PCR_EVENT(BlobWriter& b, const TSS_PCR_EVENT& in) noexcept {
  if (TSS_RESULT rc = LoadBlobs(b, in.versionInfo, in.ulPcrIndex, in.eventType)) return rc;
  if (TSS_RESULT rc = WriteRaw(b, in.ulPcrValueLength, in.rgbPcrValue)) return rc;
  return WriteRaw(b, in.ulEventLength, in.rgbEvent);
}

TSS_RESULT UnloadBlob_PCR_EVENT(BlobReader& b, TSS_PCR_EVENT* out) noexcept {
  if (out == nullptr) {
    TSS_PCR_EVENT scratch{};
    const TSS_RESULT rc = UnloadBlob_PCR_EVENT(b, &scratch);
    free_PCR_EVENT(scratch);
    return rc;
  }
  if (TSS_RESULT rc = UnloadBlobs(b, &out->versionInfo, &out->ulPcrIndex, &out->eventType)) {
    return rc;
  }
  if (TSS_RESULT rc = ReadRaw(b, {out->ulPcrValueLength, out->rgbPcrValue})) return rc;
  return ReadRaw(b, {out->ulEventLength, out->rgbEvent});
}

void free_PCR_EVENT(TSS_PCR_EVENT& event) noexcept {
  delete[] event.rgbPcrValue;
  delete[] event.rgbEvent;
  event.rgbPcrValue = nullptr;
  event.rgbEvent = nullptr;
  event.ulPcrValueLength = 0;
  event.ulEventLength = 0;
}

// ---- Free routines ----

void free_KEY_PARMS(TPM_KEY_PARMS& parms) {
  Release(parms.parms);
  parms.parmSize = 0;
}
void free_STORE_PUBKEY(TPM_STORE_PUBKEY& store) {
  Release(store.key);
  store.keyLength = 0;
}
void free_PUBKEY(TPM_PUBKEY& pubkey) {
  free_KEY_PARMS(pubkey.algorithmParms);
  free_STORE_PUBKEY(pubkey.pubKey);
}
void free_KEY(TPM_KEY& key) {
  Release(key.PCRInfo);
  key.PCRInfoSize = 0;
  free_STORE_PUBKEY(key.pubKey);
  Release(key.encData);
  key.encSize = 0;
  free_KEY_PARMS(key.algorithmParms);
}
void free_STORED_DATA(TPM_STORED_DATA& data) {
  Release(data.sealInfo);
  data.sealInfoSize = 0;
  Release(data.encData);
  data.encDataSize = 0;
}
void free_CERTIFY_INFO(TPM_CERTIFY_INFO& info) {
  free_KEY_PARMS(info.algorithmParms);
  Release(info.PCRInfo);
  info.PCRInfoSize = 0;
}
void free_MIGRATIONKEYAUTH(TPM_MIGRATIONKEYAUTH& auth) { free_PUBKEY(auth.migrationKey); }
void free_PCR_SELECTION(TPM_PCR_SELECTION& selection) {
  Release(selection.pcrSelect);
  selection.sizeOfSelect = 0;
}
void free_PCR_COMPOSITE(TPM_PCR_COMPOSITE& composite) {
  free_PCR_SELECTION(composite.select);
  Release(composite.pcrValue);
  composite.valueSize = 0;
}
void free_PCR_INFO(TPM_PCR_INFO& info) { free_PCR_SELECTION(info.pcrSelection); }
void free_PCR_INFO_SHORT(TPM_PCR_INFO_SHORT& info) { free_PCR_SELECTION(info.pcrSelection); }
void free_KEY_HANDLE_LIST(TPM_KEY_HANDLE_LIST& list) {
  Release(list.handle);
  list.loaded = 0;
}
void free_NV_DATA_PUBLIC(TPM_NV_DATA_PUBLIC& data) {
  free_PCR_INFO_SHORT(data.pcrInfoRead);
  free_PCR_INFO_SHORT(data.pcrInfoWrite);
}
void free_DELEGATE_PUBLIC(TPM_DELEGATE_PUBLIC& pub) { free_PCR_INFO_SHORT(pub.pcrInfo); }

template <DelegateBlob S>
static void FreeDelegateBlob(S& blob) {
  free_DELEGATE_PUBLIC(blob.pub);
  Release(blob.additionalArea);
  blob.additionalSize = 0;
  Release(blob.sensitiveArea);
  blob.sensitiveSize = 0;
}
void free_DELEGATE_OWNER_BLOB(TPM_DELEGATE_OWNER_BLOB& blob) { FreeDelegateBlob(blob); }
void free_DELEGATE_KEY_BLOB(TPM_DELEGATE_KEY_BLOB& blob) { FreeDelegateBlob(blob); }

namespace marshal_testing {
void FailAllocationsAfter(int successes) noexcept { t_allocations_left = successes; }
}  // namespace marshal_testing

}  // namespace kesttcs
