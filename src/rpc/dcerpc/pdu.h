// Connection-oriented DCE/RPC 5.0 protocol data units: the common header, the PDUs this runtime
// reads and writes, and the fixed syntax identifiers and status codes.
//
// Every parser takes one whole fragment (frag_length bytes, header included) and checks each field
// against the bytes present; none allocates more than the fragment carries. Integer fields follow
// the fragment's data representation on input (little- or big-endian); every encoder writes
// little-endian with ASCII characters and IEEE floats (drep 10 00 00 00).
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "rpc/dcerpc/ndr.h"

namespace kesttcs::dcerpc {

// A UUID kept as its four fields; on the wire the integer fields follow the data representation.
struct Uuid {
  uint32_t time_low = 0;
  uint16_t time_mid = 0;
  uint16_t time_hi_and_version = 0;
  std::array<uint8_t, 8> clock_seq_and_node{};

  // Parses "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx" (either case); nullopt when malformed.
  static std::optional<Uuid> Parse(std::string_view text);
  std::string ToString() const;  // lower case, dashed
  bool IsNil() const { return *this == Uuid{}; }
  friend auto operator<=>(const Uuid&, const Uuid&) = default;
};

// An interface or transfer syntax: UUID plus major.minor version.
struct SyntaxId {
  Uuid uuid;
  uint16_t major = 0;
  uint16_t minor = 0;
  friend auto operator<=>(const SyntaxId&, const SyntaxId&) = default;
};

// NDR 2.0, the only transfer syntax this runtime speaks.
SyntaxId NdrSyntax();
// NDR64, which the runtime declines.
SyntaxId Ndr64Syntax();
// True when `syntax` is a bind-time feature negotiation marker (UUID prefix 6cb71c2c-9812-4540,
// version 1.0); `features` then receives the first byte of its bitmask.
bool IsFeatureNegotiation(const SyntaxId& syntax, uint8_t& features);

enum class PduType : uint8_t {
  kRequest = 0,
  kResponse = 2,
  kFault = 3,
  kBind = 11,
  kBindAck = 12,
  kBindNak = 13,
  kAlterContext = 14,
  kAlterContextResp = 15,
  kAuth3 = 16,
  kShutdown = 17,
  kCoCancel = 18,
  kOrphaned = 19,
};

// pfc_flags bits.
inline constexpr uint8_t kPfcFirstFrag = 0x01;
inline constexpr uint8_t kPfcLastFrag = 0x02;
inline constexpr uint8_t kPfcPendingCancel = 0x04;
inline constexpr uint8_t kPfcConcMpx = 0x10;
inline constexpr uint8_t kPfcDidNotExecute = 0x20;
inline constexpr uint8_t kPfcMaybe = 0x40;
inline constexpr uint8_t kPfcObjectUuid = 0x80;

inline constexpr size_t kHeaderSize = 16;
inline constexpr size_t kRequestHeaderSize = 24;  // without the optional object UUID
inline constexpr size_t kResponseHeaderSize = 24;
inline constexpr size_t kFaultSize = 32;
// Every connection-oriented peer must accept fragments of this size.
inline constexpr uint16_t kMinFragmentSize = 1432;
// The fragment size this runtime offers and accepts at most (the usual TCP value).
inline constexpr uint16_t kMaxFragmentSize = 5840;

// Presentation context results in bind_ack / alter_context_resp.
inline constexpr uint16_t kResultAcceptance = 0;
inline constexpr uint16_t kResultUserRejection = 1;
inline constexpr uint16_t kResultProviderRejection = 2;
inline constexpr uint16_t kResultNegotiateAck = 3;
// Provider rejection reasons.
inline constexpr uint16_t kReasonNotSpecified = 0;
inline constexpr uint16_t kReasonAbstractSyntaxNotSupported = 1;
inline constexpr uint16_t kReasonTransferSyntaxesNotSupported = 2;
inline constexpr uint16_t kReasonLocalLimitExceeded = 3;
// bind_nak reasons.
inline constexpr uint16_t kNakReasonNotSpecified = 0;
inline constexpr uint16_t kNakProtocolVersionNotSupported = 4;
inline constexpr uint16_t kNakAuthenticationTypeNotRecognized = 8;
// Bind-time features this runtime acknowledges: it keeps the connection after an orphaned PDU.
inline constexpr uint8_t kFeatureKeepConnectionOnOrphan = 0x02;

// Fault and reject status codes carried in fault PDUs.
inline constexpr uint32_t kNcaOpRangeError = 0x1c010002;         // nca_s_op_rng_error
inline constexpr uint32_t kNcaUnknownInterface = 0x1c010003;     // nca_s_unk_if
inline constexpr uint32_t kNcaProtocolError = 0x1c01000b;        // nca_s_proto_error
inline constexpr uint32_t kRpcBadStubData = 0x000006f7;          // rpc_x_bad_stub_data
inline constexpr uint32_t kNcaFaultUnspecified = 0x1c000012;     // nca_s_fault_unspec
inline constexpr uint32_t kNcaFaultRemoteNoMemory = 0x1c00001b;  // nca_s_fault_remote_no_memory

// The 16-byte common header.
struct PduHeader {
  uint8_t version = 5;
  uint8_t version_minor = 0;
  PduType type = PduType::kRequest;
  uint8_t flags = 0;
  std::array<uint8_t, 4> drep{0x10, 0, 0, 0};
  uint16_t frag_length = 0;
  uint16_t auth_length = 0;
  uint32_t call_id = 0;

  ByteOrder byte_order() const {
    return (drep[0] >> 4) != 0 ? ByteOrder::kLittle : ByteOrder::kBig;
  }
};

// Reads the header at the start of `bytes`. nullopt when fewer than 16 bytes are present, the
// version is not 5.0, the integer representation is neither 0 nor 1, or frag_length is below the
// header size or cannot hold auth_length.
std::optional<PduHeader> ParseHeader(std::span<const uint8_t> bytes);

// One presentation context of a bind or alter_context.
struct PresentationContext {
  uint16_t id = 0;
  SyntaxId abstract_syntax;
  std::vector<SyntaxId> transfer_syntaxes;
};

// bind and alter_context.
struct BindPdu {
  uint16_t max_xmit_frag = 0;
  uint16_t max_recv_frag = 0;
  uint32_t assoc_group_id = 0;
  std::vector<PresentationContext> contexts;
};

// One result of a bind_ack or alter_context_resp.
struct ContextResult {
  uint16_t result = kResultAcceptance;
  uint16_t reason = 0;
  SyntaxId transfer_syntax;
};

// bind_ack and alter_context_resp.
struct BindAckPdu {
  uint16_t max_xmit_frag = 0;
  uint16_t max_recv_frag = 0;
  uint32_t assoc_group_id = 0;
  std::string secondary_address;  // without the terminating NUL
  std::vector<ContextResult> results;
};

// A request fragment. `stub` views the fragment and excludes any authentication trailer.
struct RequestPdu {
  uint32_t alloc_hint = 0;
  uint16_t context_id = 0;
  uint16_t opnum = 0;
  std::optional<Uuid> object;
  std::span<const uint8_t> stub;
};

// A response or fault fragment as a client reads it. For a fault, `status` holds the fault status
// and `stub` is empty.
struct ResponsePdu {
  uint32_t alloc_hint = 0;
  uint16_t context_id = 0;
  uint8_t cancel_count = 0;
  uint32_t status = 0;
  std::span<const uint8_t> stub;
};

// Parsers: `fragment` is exactly one whole fragment (header.frag_length bytes). nullopt when a
// field or a count runs past the fragment.
std::optional<BindPdu> ParseBind(const PduHeader& header, std::span<const uint8_t> fragment);
std::optional<BindAckPdu> ParseBindAck(const PduHeader& header, std::span<const uint8_t> fragment);
// bind_nak: the provider reject reason.
std::optional<uint16_t> ParseBindNak(const PduHeader& header, std::span<const uint8_t> fragment);
std::optional<RequestPdu> ParseRequest(const PduHeader& header, std::span<const uint8_t> fragment);
// response or fault.
std::optional<ResponsePdu> ParseResponse(const PduHeader& header,
                                         std::span<const uint8_t> fragment);

// Encoders. Each returns whole PDUs ready to send.
std::vector<uint8_t> EncodeBind(PduType type, uint32_t call_id, const BindPdu& bind);
std::vector<uint8_t> EncodeBindAck(PduType type, uint32_t call_id, const BindAckPdu& ack);
// A bind_nak offering protocol version 5.0.
std::vector<uint8_t> EncodeBindNak(uint32_t call_id, uint16_t reason);
std::vector<uint8_t> EncodeFault(uint32_t call_id, uint16_t context_id, uint32_t status,
                                 bool did_not_execute);
// A header-only PDU such as shutdown, orphaned or co_cancel.
std::vector<uint8_t> EncodeHeaderOnly(PduType type, uint32_t call_id, uint8_t flags);

// Splits a response (or request) stub into fragments of at most `max_frag` bytes each (at least
// kMinFragmentSize is assumed), first/last flags and alloc_hint set, and appends them to `out`.
// Every fragment but the last carries a multiple of 8 stub bytes. An empty stub still yields one
// fragment.
void EncodeResponseFragments(uint32_t call_id, uint16_t context_id, std::span<const uint8_t> stub,
                             uint16_t max_frag, std::vector<uint8_t>& out);
void EncodeRequestFragments(uint32_t call_id, uint16_t context_id, uint16_t opnum,
                            const std::optional<Uuid>& object, std::span<const uint8_t> stub,
                            uint16_t max_frag, std::vector<uint8_t>& out);

}  // namespace kesttcs::dcerpc
