// Conversions between the owned argument values of a stub frame (rpc/stubs.h) and the C layouts of
// <kesttcs/tcs_types.h> that the service's internal functions and the client library's callers
// use. The server's binding turns frame values into C arguments and C outputs back into frame
// values; the client library does the mirror image.
#pragma once

#include <cstddef>
#include <vector>

#include <kesttcs/tcs_types.h>

#include "rpc/operations.h"
#include "rpc/stubs.h"

namespace kesttcs::rpc {

// Size of one element of `kind` in its C layout.
constexpr size_t CSize(Kind kind) {
  switch (kind) {
    case Kind::kUint32:
      return sizeof(UINT32);
    case Kind::kUint16:
      return sizeof(UINT16);
    case Kind::kByte:
    case Kind::kBool:
      return 1;
    case Kind::kUint64:
      return sizeof(UINT64);
    case Kind::kDigest:
      return sizeof(TPM_DIGEST);
    case Kind::kAuth:
      return sizeof(TPM_AUTH);
    case Kind::kUuid:
      return sizeof(TSS_UUID);
    case Kind::kVersion:
      return sizeof(TPM_VERSION);
    case Kind::kCounterValue:
      return sizeof(TPM_COUNTER_VALUE);
    case Kind::kCmkAuth:
      return sizeof(TPM_CMK_AUTH);
    case Kind::kPcrEvent:
      return sizeof(TSS_PCR_EVENT);
    case Kind::kKeyInfo:
      return sizeof(TSS_KM_KEYINFO);
    case Kind::kLoadKeyInfo:
      return sizeof(TCS_LOADKEY_INFO);
  }
  return 1;
}

// The largest C element; enough storage for any single value.
inline constexpr size_t kMaxCSize = 128;
static_assert(sizeof(TCS_LOADKEY_INFO) <= kMaxCSize && sizeof(TSS_KM_KEYINFO) <= kMaxCSize);

// Writes the single value `v` of `kind` in C layout to `c` (CSize(kind) bytes). Embedded byte
// arrays of events and key infos point into `v`, which must outlive every use of `c`.
void SingleToC(Kind kind, const Value& v, void* c);
// Reads one element of `kind` from C layout; embedded byte arrays are copied.
Value SingleFromC(Kind kind, const void* c);

// The elements of the array value `v` in C layout (for byte and 32-bit arrays the data itself,
// for structures an array of C structures whose embedded pointers point into `v`).
std::vector<uint8_t> ArrayToC(Kind kind, const Value& v);
// `count` elements of `kind` from C layout into an array value; embedded byte arrays are copied.
Value ArrayFromC(Kind kind, const void* c, size_t count);

// An output value in C layout: one element (SingleToC) when `single`, else the array (ArrayToC).
// Embedded pointers point into `v`.
std::vector<uint8_t> OutputToC(Kind kind, const Value& v, bool single);

}  // namespace kesttcs::rpc
