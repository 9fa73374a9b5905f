// How LoadBlob and UnloadBlob (marshal.h) walk a structure's field list (wire_form.h): a
// WriteField/ReadField pair per kind of field, and the storage of sized parts. Internal to
// marshal.h; include that instead.
#pragma once

#include <kesttcs/tcs_results.h>
#include <kesttcs/tcs_types.h>

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <memory>
#include <new>
#include <span>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "tpm12/blob_cursor.h"
#include "tpm12/wire_form.h"

namespace kesttcs::marshal_internal {

// LoadBlob and UnloadBlob: what a field that is a value comes back to (defined in marshal.h).
template <class T>
TSS_RESULT Write(BlobWriter& blob, const T& in) noexcept;
template <class T>
TSS_RESULT Read(BlobReader& blob, T* out) noexcept;

template <class T>
concept WireInteger = std::same_as<T, BYTE> || std::same_as<T, UINT16> || std::same_as<T, UINT32> ||
    std::same_as<T, UINT64>;

// Whether a field list holds a sized part behind a raw pointer.
template <class Field>
inline constexpr bool kRawArray = false;
template <SizeRule kRule, class S, class Size>
inline constexpr bool kRawArray<SizedField<kRule, S, Size, BYTE*>> = true;
template <class... Fields>
inline constexpr bool kRawArray<std::tuple<Fields...>> = (kRawArray<Fields> || ...);
template <class S>
concept HoldsRawArrays = kRawArray<std::remove_cv_t<decltype(WireForm<S>::kFields)>>;

// False when this thread's allocation budget (marshal_testing) is spent.
bool AllocationAllowed() noexcept;

// Calls step(element) for each element of `list` in order; stops at the first failure.
template <class List, class Step>
TSS_RESULT EachUntilFailure(const List& list, Step step) noexcept {
  return std::apply(
      [&step](const auto&... element) {
        TSS_RESULT rc = TSS_SUCCESS;
        (void)(((rc = step(element)) == TSS_SUCCESS) && ...);
        return rc;
      },
      list);
}

// The item type of a sized part (a vector's element, or BYTE behind a raw pointer).
template <class Items>
using ItemOf = std::remove_cvref_t<decltype(std::declval<Items&>()[0])>;

// ---- Sized parts: a std::vector, or a raw array in a record held by an Unloaded ----

template <class T>
std::span<const T> View(const std::vector<T>& items, std::size_t) noexcept {
  return items;
}
inline std::span<const BYTE> View(const BYTE* items, std::size_t n) noexcept {
  return items != nullptr ? std::span(items, n) : std::span<const BYTE>();
}

template <class T>
void Empty(std::vector<T>& items) noexcept {
  std::vector<T>().swap(items);
}
// A raw array belongs to the Unloaded holding its record, so emptying or replacing it deletes it.
inline void Empty(BYTE*& items) noexcept { delete[] std::exchange(items, nullptr); }

template <class T>
TSS_RESULT PutItems(BlobWriter& blob, std::span<const T> items) noexcept {
  if constexpr (std::same_as<T, BYTE>) {
    return blob.Put(items);
  } else {
    for (const T& item : items) {
      if (TSS_RESULT rc = Write(blob, item)) return rc;
    }
    return TSS_SUCCESS;
  }
}

template <class T>
TSS_RESULT TakeItems(BlobReader& blob, std::span<T> items) noexcept {
  if constexpr (std::same_as<T, BYTE>) {
    std::span<const BYTE> bytes;
    if (TSS_RESULT rc = blob.Take(items.size(), bytes)) return rc;
    std::copy(bytes.begin(), bytes.end(), items.begin());
  } else {
    for (T& item : items) {
      if (TSS_RESULT rc = Read(blob, &item)) return rc;
    }
  }
  return TSS_SUCCESS;
}

// Reads n items (already checked against the blob) into fresh storage that replaces `items` on
// success. TCS_E_OUTOFMEMORY when the storage cannot be allocated.
template <class T>
TSS_RESULT ReadItems(BlobReader& blob, std::size_t n, std::vector<T>& items) noexcept {
  std::vector<T> fresh;
  if (!AllocationAllowed()) return TCS_E_OUTOFMEMORY;
  try {
    fresh.resize(n);
  } catch (const std::bad_alloc&) {
    return TCS_E_OUTOFMEMORY;
  }
  if (TSS_RESULT rc = TakeItems(blob, std::span(fresh))) return rc;
  items = std::move(fresh);
  return TSS_SUCCESS;
}
inline TSS_RESULT ReadItems(BlobReader& blob, std::size_t n, BYTE*& items) noexcept {
  std::unique_ptr<BYTE[]> fresh(AllocationAllowed() ? new (std::nothrow) BYTE[n] : nullptr);
  if (fresh == nullptr) return TCS_E_OUTOFMEMORY;
  if (TSS_RESULT rc = TakeItems(blob, std::span(fresh.get(), n))) return rc;
  delete[] std::exchange(items, fresh.release());
  return TSS_SUCCESS;
}

// ---- One field each way; S is the structure that holds it ----

template <class S, class List>
TSS_RESULT WriteFields(BlobWriter& blob, const S& s, const List& list) noexcept;
template <class S, class List>
TSS_RESULT ReadFields(BlobReader& blob, S& s, const List& list) noexcept;

template <class S, class M>
TSS_RESULT WriteField(BlobWriter& blob, const S& s, M S::*member) noexcept {
  return Write(blob, s.*member);
}
template <class S, class M>
TSS_RESULT ReadField(BlobReader& blob, S& s, M S::*member) noexcept {
  return Read(blob, &(s.*member));
}

template <class S, class... Fields>
TSS_RESULT WriteField(BlobWriter& blob, const S& s, const std::tuple<Fields...>& list) noexcept {
  return WriteFields(blob, s, list);
}
template <class S, class... Fields>
TSS_RESULT ReadField(BlobReader& blob, S& s, const std::tuple<Fields...>& list) noexcept {
  return ReadFields(blob, s, list);
}

template <UINT32 kMask, class S>
TSS_RESULT WriteField(BlobWriter& blob, const S& s, MaskedField<kMask, S> field) noexcept {
  return Write(blob, UINT32{s.*field.member & kMask});
}
template <UINT32 kMask, class S>
TSS_RESULT ReadField(BlobReader& blob, S& s, MaskedField<kMask, S> field) noexcept {
  UINT32 wire = 0;
  if (TSS_RESULT rc = Read(blob, &wire)) return rc;
  s.*field.member = wire & kMask;
  return TSS_SUCCESS;
}

// Checks that the whole part fits and that the items hold `size` entries before writing anything.
template <SizeRule kRule, class S, class Size, class Items>
TSS_RESULT WriteField(BlobWriter& blob, const S& s,
                      SizedField<kRule, S, Size, Items> field) noexcept {
  using Item = ItemOf<Items>;
  static_assert(WireInteger<Item>, "an item's wire size must be its size in memory");
  const Size n = s.*field.size;
  const std::span<const Item> items = View(s.*field.items, n);
  if (items.size() < n || blob.remaining() < sizeof(Size) ||
      (blob.remaining() - sizeof(Size)) / sizeof(Item) < n) {
    return TCS_E_BAD_PARAMETER;
  }
  if (TSS_RESULT rc = Write(blob, n)) return rc;
  return PutItems(blob, items.first(n));
}
// Reads the size, checks it against the bytes that remain, and only then allocates. The size
// member is stored once the items are in place (or left alone under the size rule).
template <SizeRule kRule, class S, class Size, class Items>
TSS_RESULT ReadField(BlobReader& blob, S& s, SizedField<kRule, S, Size, Items> field) noexcept {
  Size n = 0;
  if (TSS_RESULT rc = Read(blob, &n)) return rc;
  const bool carries_no_items = n == 0 || (kRule == SizeRule::kNonPositiveKeeps &&
                                           static_cast<std::make_signed_t<Size>>(n) < 0);
  if (carries_no_items) {
    if constexpr (kRule == SizeRule::kZeroEmpties) Empty(s.*field.items);
    s.*field.size = n;
    return TSS_SUCCESS;
  }
  if (blob.remaining() / sizeof(ItemOf<Items>) < n) return TCS_E_BAD_PARAMETER;
  if (TSS_RESULT rc = ReadItems(blob, n, s.*field.items)) return rc;
  s.*field.size = n;
  return TSS_SUCCESS;
}

template <class S, class Field, class Earlier>
TSS_RESULT WriteField(BlobWriter& blob, const S& s,
                      EmptyOnOutOfMemoryField<Field, Earlier> field) noexcept {
  return WriteField(blob, s, field.field);
}
template <class S, class Field, class Earlier>
TSS_RESULT ReadField(BlobReader& blob, S& s,
                     EmptyOnOutOfMemoryField<Field, Earlier> field) noexcept {
  const TSS_RESULT rc = ReadField(blob, s, field.field);
  if (rc == TCS_E_OUTOFMEMORY) {
    Empty(s.*field.earlier.items);
    s.*field.earlier.size = 0;
  }
  return rc;
}

template <class S, class List>
TSS_RESULT WriteFields(BlobWriter& blob, const S& s, const List& list) noexcept {
  return EachUntilFailure(list, [&](const auto& field) { return WriteField(blob, s, field); });
}
template <class S, class List>
TSS_RESULT ReadFields(BlobReader& blob, S& s, const List& list) noexcept {
  return EachUntilFailure(list, [&](const auto& field) { return ReadField(blob, s, field); });
}

// Deletes the raw arrays of a record (the sized parts behind BYTE pointers).
template <class S, class Field>
void DeleteArray(S&, const Field&) noexcept {}
template <SizeRule kRule, class S, class Size>
void DeleteArray(S& s, const SizedField<kRule, S, Size, BYTE*>& field) noexcept {
  Empty(s.*field.items);
}
template <class S>
void DeleteArrays(S& s) noexcept {
  std::apply([&s](const auto&... field) { (DeleteArray(s, field), ...); }, WireForm<S>::kFields);
}

}  // namespace kesttcs::marshal_internal
