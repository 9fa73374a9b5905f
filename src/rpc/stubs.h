// Generic NDR 2.0 stubs for the 126 operations, driven by the operation table (rpc/operations.h):
// one argument frame type for every operation, and four functions that move a frame to and from
// stub bytes, the server's two and their mirror images on the client.
//
// Wire shapes (all alignment relative to the stub start, as the NDR codec does it):
//   scalars            BYTE / TSS_BOOL 1 byte, UINT16 2-aligned, UINT32 4-aligned, UINT64 8-aligned
//   20-byte digests    20 raw bytes; TPM_VERSION 4 raw bytes; TPM_CMK_AUTH 60 raw bytes
//   TSS_UUID           UINT32, UINT16, UINT16, 8 bytes (16 bytes, 4-aligned)
//   TPM_COUNTER_VALUE  UINT16, 4 bytes, UINT32 (12 bytes, 4-aligned)
//   TPM_AUTH           UINT32, 20, 20, 1, 20 bytes (65 bytes, 4-aligned, no trailing pad)
//   TCS_LOADKEY_INFO   two TSS_UUIDs, a digest, a TPM_AUTH (117 bytes, 4-aligned)
//   TSS_PCR_EVENT      version, index, type, length, pointer id, length, pointer id (28 bytes);
//                      the two byte arrays follow the structure (or the whole array of them)
//   TSS_KM_KEYINFO     version, two UUIDs, two bytes, length, pointer id (48 bytes); its vendor
//                      data follows likewise
//   Form::kUnique, kPtr and kArrayPtr carry a referent id (0 = null); kRef and kArray carry none.
//   Form::kOptPtr carries the referent id of the caller's pointer and, when that is not null, the
//                    referent id of the element behind it (null in a request from this library).
//   Arrays carry their conformance (element count) first; it must equal the size parameter.
// The return value follows the outputs in a response.
#pragma once

#include <kesttcs/tcs_types.h>

#include <cstdint>
#include <optional>
#include <variant>
#include <vector>

#include "rpc/dcerpc/pdu.h"
#include "rpc/operations.h"

namespace kesttcs::rpc {

// The interface these stubs carry: fbcd9c02-72cb-47bb-99dd-aedb551491de version 1.0, the same for
// the service and the client library.
dcerpc::SyntaxId TcsInterfaceSyntax();

using Bytes = std::vector<uint8_t>;

// TSS_PCR_EVENT with owned data; a null pointer on the wire is nullopt. The lengths travel as
// given; when data is present its size must equal its length.
struct PcrEvent {
  TSS_VERSION versionInfo{};
  uint32_t ulPcrIndex = 0;
  uint32_t eventType = 0;
  uint32_t ulPcrValueLength = 0;
  std::optional<Bytes> rgbPcrValue;
  uint32_t ulEventLength = 0;
  std::optional<Bytes> rgbEvent;
};

// TSS_KM_KEYINFO with owned vendor data, on the same terms.
struct KeyInfo {
  TSS_VERSION versionInfo{};
  TSS_UUID keyUUID{};
  TSS_UUID parentKeyUUID{};
  uint8_t bAuthDataUsage = 0;
  uint8_t fIsLoaded = 0;
  uint32_t ulVendorDataLength = 0;
  std::optional<Bytes> rgbVendorData;
};

// The value of one parameter. Which alternative it holds follows from the parameter's kind and
// form (ValueFor() makes the right empty one):
//   single scalar (any integer kind)  uint64_t
//   single structure                  the C structure of <kesttcs/tcs_types.h> (TPM_DIGEST for
//                                     every 20-byte kind), or PcrEvent or KeyInfo
//   array of BYTE or TSS_BOOL         Bytes
//   array of a 32-bit kind            std::vector<uint32_t>
//   array of structures               std::vector<PcrEvent> or std::vector<KeyInfo>
using Value = std::variant<uint64_t, TPM_DIGEST, TPM_AUTH, TSS_UUID, TPM_VERSION, TPM_COUNTER_VALUE,
                           TPM_CMK_AUTH, PcrEvent, KeyInfo, TCS_LOADKEY_INFO, Bytes,
                           std::vector<uint32_t>, std::vector<PcrEvent>, std::vector<KeyInfo>>;

struct Arg {
  // False for a null pointer (Form::kUnique, kPtr, kArrayPtr, and the element of kOptPtr); always
  // true for the other forms.
  bool present = true;
  Value value;
  // Form::kOptPtr: whether the caller passed its pointer at all; always true for the other forms.
  bool requested = true;
};

// The default (zero, empty) value of a parameter.
Value ValueFor(const Param& param);

// The arguments of one call of one operation, one Arg per parameter in table order. A new frame
// holds zero values; inputs are present, pointer outputs (kPtr, kArrayPtr) absent until set.
class CallFrame {
 public:
  explicit CallFrame(const Operation& op);

  const Operation& op() const { return *op_; }
  Arg& arg(size_t index) { return args_[index]; }
  const Arg& arg(size_t index) const { return args_[index]; }
  size_t size() const { return args_.size(); }

  // Typed views of argument `index`; the parameter must have the matching kind and form.
  uint32_t u32(size_t index) const { return static_cast<uint32_t>(scalar(index)); }
  uint64_t scalar(size_t index) const { return std::get<uint64_t>(args_[index].value); }
  void set_scalar(size_t index, uint64_t v) { args_[index].value = v; }
  Bytes& bytes(size_t index) { return std::get<Bytes>(args_[index].value); }
  // The authorisation record, or null when an optional one is absent.
  TPM_AUTH* auth(size_t index) {
    return args_[index].present ? &std::get<TPM_AUTH>(args_[index].value) : nullptr;
  }
  // Sets argument `index` and marks it present; for an array (kArray, kArrayPtr, inputs and
  // outputs alike) also sets its size parameter to the element count.
  void SetOutput(size_t index, Value v);

 private:
  const Operation* op_;
  std::vector<Arg> args_;
};

// Server side. Reads a request's stub data (the in and in,out parameters) into `frame`, which
// must be new for the same operation. Returns false when the data does not unmarshal: too short,
// a count larger than the bytes left, an array count that disagrees with its size parameter, or
// a missing required pointer; the caller answers with the bad-stub-data fault.
[[nodiscard]] bool UnmarshalRequest(dcerpc::NdrReader& reader, CallFrame& frame);

// Server side. Writes the out and in,out parameters of `frame` and then `result`. Returns false
// (nothing useful written) when the frame is inconsistent: an array whose element count differs
// from its size parameter or a structure whose data size differs from its length field.
[[nodiscard]] bool MarshalResponse(const CallFrame& frame, TSS_RESULT result,
                                   dcerpc::NdrWriter& writer);

// Client side: writes the in and in,out parameters of `frame`. Returns false on an inconsistent
// frame (as above) or a null required pointer.
[[nodiscard]] bool MarshalRequest(const CallFrame& frame, dcerpc::NdrWriter& writer);

// Client side: reads the out and in,out parameters into `frame` (which holds the call's inputs)
// and the result. Returns false when the response does not unmarshal, or when an optional in,out
// record (or a kOptPtr pointer) comes back present where it was sent null (or the reverse).
[[nodiscard]] bool UnmarshalResponse(dcerpc::NdrReader& reader, CallFrame& frame,
                                     TSS_RESULT& result);

}  // namespace kesttcs::rpc
