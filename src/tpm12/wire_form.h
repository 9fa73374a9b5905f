// The words in which a structure states its wire layout. A marshalled structure has a WireForm
// beside its declaration that lists its fields in wire order; LoadBlob and UnloadBlob (marshal.h)
// walk that one list both ways, so writing and reading cannot drift apart:
//
//   template <>
//   struct WireForm<TPM_COUNTER_VALUE> {
//     using S = TPM_COUNTER_VALUE;
//     static constexpr auto kFields = FieldList(&S::tag, &S::label, &S::counter);
//   };
//
// A field is a pointer to a member whose type marshals by itself (BYTE, UINT16, UINT32, UINT64, a
// BYTE array, or a structure with its own WireForm, written inline), or one of the descriptors
// below for what a member's type cannot say alone. A field list may hold another field list: a run
// of fields that several structures share.
#pragma once

#include <kesttcs/tcs_types.h>

#include <tuple>

namespace kesttcs {

// A structure without a WireForm of its own does not marshal.
template <class S>
struct WireForm {};

// Base of the WireForm of a structure that travels as its own bytes in declaration order, copied
// whole or not at all (the version groups and the 20-byte digests).
struct StoredBytes {};

template <class... Fields>
constexpr std::tuple<Fields...> FieldList(Fields... fields) noexcept {
  return {fields...};
}

// What reading a size that carries no items does to the part it sizes.
enum class SizeRule {
  kZeroEmpties,       // a size of 0 empties the part
  kZeroKeeps,         // a size of 0 leaves the part as it was
  kNonPositiveKeeps,  // as kZeroKeeps, and a size with its top bit set carries no items either
};

// A size member followed on the wire by that many items of the part it sizes: a std::vector of
// BYTEs or UINT32s, or, in the C interface records, a BYTE* array (read into an Unloaded, its
// owner). Writing refuses a part that holds fewer items than its size claims; reading checks the
// size against the bytes that remain before allocating.
template <SizeRule kRule, class S, class Size, class Items>
struct SizedField {
  Size S::*size;
  Items S::*items;
};
template <SizeRule kRule = SizeRule::kZeroEmpties, class S, class Size, class Items>
constexpr SizedField<kRule, S, Size, Items> Sized(Size S::*size, Items S::*items) noexcept {
  return {size, items};
}

// A UINT32 of which only the bits in kMask travel, both ways.
template <UINT32 kMask, class S>
struct MaskedField {
  UINT32 S::*member;
};
template <UINT32 kMask, class S>
constexpr MaskedField<kMask, S> Masked(UINT32 S::*member) noexcept {
  return {member};
}

// `field`, except that when reading it runs out of memory the sized part `earlier`, read before
// it, is emptied as well.
template <class Field, class Earlier>
struct EmptyOnOutOfMemoryField {
  Field field;
  Earlier earlier;
};
template <class Field, class Earlier>
constexpr EmptyOnOutOfMemoryField<Field, Earlier> EmptyOnOutOfMemory(Field field,
                                                                     Earlier earlier) noexcept {
  return {field, earlier};
}

}  // namespace kesttcs
