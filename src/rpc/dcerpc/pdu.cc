#include "rpc/dcerpc/pdu.h"

#include <algorithm>
#include <cstdio>

namespace kesttcs::dcerpc {

namespace {

constexpr size_t kAuthTrailerHeader = 8;
constexpr uint32_t kFeatureTimeLow = 0x6cb71c2c;
constexpr uint16_t kFeatureTimeMid = 0x9812;
constexpr uint16_t kFeatureTimeHi = 0x4540;

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Reads a PDU body: a reader over the whole fragment, positioned after the common header, whose
// span ends before any authentication trailer so that alignment stays relative to the PDU start.
NdrReader BodyReader(const PduHeader& header, std::span<const uint8_t> fragment) {
  size_t end = std::min<size_t>(fragment.size(), header.frag_length);
  size_t trailer = header.auth_length == 0 ? 0 : header.auth_length + kAuthTrailerHeader;
  end = trailer > end ? 0 : end - trailer;
  NdrReader reader(fragment.first(end), header.byte_order());
  std::span<const uint8_t> skipped;
  (void)reader.ReadBytes(kHeaderSize, skipped);
  return reader;
}

bool ReadUuid(NdrReader& r, Uuid& uuid) {
  return r.ReadUint32(uuid.time_low) && r.ReadUint16(uuid.time_mid) &&
         r.ReadUint16(uuid.time_hi_and_version) && r.ReadFixed(uuid.clock_seq_and_node);
}

bool ReadSyntax(NdrReader& r, SyntaxId& syntax) {
  uint32_t version = 0;
  if (!ReadUuid(r, syntax.uuid) || !r.ReadUint32(version)) return false;
  syntax.major = static_cast<uint16_t>(version & 0xffff);
  syntax.minor = static_cast<uint16_t>(version >> 16);
  return true;
}

void WriteUuid(NdrWriter& w, const Uuid& uuid) {
  w.WriteUint32(uuid.time_low);
  w.WriteUint16(uuid.time_mid);
  w.WriteUint16(uuid.time_hi_and_version);
  w.WriteBytes(uuid.clock_seq_and_node);
}

void WriteSyntax(NdrWriter& w, const SyntaxId& syntax) {
  WriteUuid(w, syntax.uuid);
  w.WriteUint32(static_cast<uint32_t>(syntax.major) | (static_cast<uint32_t>(syntax.minor) << 16));
}

// Writes a common header whose frag_length FinishPdu fills in.
void WriteHeader(NdrWriter& w, PduType type, uint8_t flags, uint32_t call_id) {
  w.WriteUint8(5);
  w.WriteUint8(0);
  w.WriteUint8(static_cast<uint8_t>(type));
  w.WriteUint8(flags);
  w.WriteBytes(std::array<uint8_t, 4>{0x10, 0, 0, 0});
  w.WriteUint16(0);  // frag_length
  w.WriteUint16(0);  // auth_length
  w.WriteUint32(call_id);
}

void FinishPdu(std::vector<uint8_t>& pdu, size_t start) {
  size_t length = pdu.size() - start;
  pdu[start + 8] = static_cast<uint8_t>(length);
  pdu[start + 9] = static_cast<uint8_t>(length >> 8);
}

// Splits `stub` into fragments whose fixed part (after the common header) `write_fixed` writes.
template <typename WriteFixed>
void EncodeFragments(PduType type, uint8_t extra_flags, uint32_t call_id, size_t fixed_size,
                     std::span<const uint8_t> stub, uint16_t max_frag, std::vector<uint8_t>& out,
                     WriteFixed write_fixed) {
  size_t frag = std::max<size_t>(max_frag, kMinFragmentSize);
  size_t chunk_max = (frag - fixed_size) / 8 * 8;
  size_t fragments = stub.empty() ? 1 : (stub.size() + chunk_max - 1) / chunk_max;
  size_t total = out.size() + stub.size() + fragments * fixed_size;
  if (total > out.capacity()) out.reserve(std::max(total, 2 * out.capacity()));
  size_t offset = 0;
  do {
    size_t chunk = std::min(chunk_max, stub.size() - offset);
    uint8_t flags = extra_flags;
    if (offset == 0) flags |= kPfcFirstFrag;
    if (offset + chunk == stub.size()) flags |= kPfcLastFrag;
    size_t start = out.size();
    NdrWriter w(out);
    WriteHeader(w, type, flags, call_id);
    write_fixed(w, static_cast<uint32_t>(stub.size() - offset));
    w.WriteBytes(stub.subspan(offset, chunk));
    FinishPdu(out, start);
    offset += chunk;
  } while (offset < stub.size());
}

}  // namespace

std::optional<Uuid> Uuid::Parse(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  std::array<uint8_t, 16> bytes{};
  size_t b = 0;
  for (size_t i = 0; i < text.size();) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (text[i] != '-') return std::nullopt;
      ++i;
      continue;
    }
    int hi = HexValue(text[i]);
    int lo = HexValue(text[i + 1]);
    if (hi < 0 || lo < 0) return std::nullopt;
    bytes[b++] = static_cast<uint8_t>(hi << 4 | lo);
    i += 2;
  }
  Uuid uuid;
  uuid.time_low = static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
                  static_cast<uint32_t>(bytes[2]) << 8 | bytes[3];
  uuid.time_mid = static_cast<uint16_t>(bytes[4] << 8 | bytes[5]);
  uuid.time_hi_and_version = static_cast<uint16_t>(bytes[6] << 8 | bytes[7]);
  std::copy(bytes.begin() + 8, bytes.end(), uuid.clock_seq_and_node.begin());
  return uuid;
}

std::string Uuid::ToString() const {
  char text[37];
  const auto& n = clock_seq_and_node;
  std::snprintf(text, sizeof(text), "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x", time_low,
                time_mid, time_hi_and_version, n[0], n[1], n[2], n[3], n[4], n[5], n[6], n[7]);
  return text;
}

SyntaxId NdrSyntax() { return {*Uuid::Parse("8a885d04-1ceb-11c9-9fe8-08002b104860"), 2, 0}; }

SyntaxId Ndr64Syntax() { return {*Uuid::Parse("71710533-beba-4937-8319-b5dbef9ccc36"), 1, 0}; }

bool IsFeatureNegotiation(const SyntaxId& syntax, uint8_t& features) {
  if (syntax.uuid.time_low != kFeatureTimeLow || syntax.uuid.time_mid != kFeatureTimeMid ||
      syntax.uuid.time_hi_and_version != kFeatureTimeHi || syntax.major != 1 || syntax.minor != 0) {
    return false;
  }
  features = syntax.uuid.clock_seq_and_node[0];
  return true;
}

std::optional<PduHeader> ParseHeader(std::span<const uint8_t> bytes) {
  if (bytes.size() < kHeaderSize) return std::nullopt;
  PduHeader h;
  h.version = bytes[0];
  h.version_minor = bytes[1];
  h.type = static_cast<PduType>(bytes[2]);
  h.flags = bytes[3];
  std::copy(bytes.begin() + 4, bytes.begin() + 8, h.drep.begin());
  if (h.version != 5 || h.version_minor != 0 || (h.drep[0] >> 4) > 1) return std::nullopt;
  NdrReader r(bytes.first(kHeaderSize), h.byte_order());
  std::span<const uint8_t> skipped;
  if (!r.ReadBytes(8, skipped) || !r.ReadUint16(h.frag_length) || !r.ReadUint16(h.auth_length) ||
      !r.ReadUint32(h.call_id)) {
    return std::nullopt;
  }
  size_t trailer = h.auth_length == 0 ? 0 : h.auth_length + kAuthTrailerHeader;
  if (h.frag_length < kHeaderSize + trailer) return std::nullopt;
  return h;
}

std::optional<BindPdu> ParseBind(const PduHeader& header, std::span<const uint8_t> fragment) {
  NdrReader r = BodyReader(header, fragment);
  BindPdu bind;
  uint8_t n_contexts = 0, reserved8 = 0;
  uint16_t reserved16 = 0;
  if (!r.ReadUint16(bind.max_xmit_frag) || !r.ReadUint16(bind.max_recv_frag) ||
      !r.ReadUint32(bind.assoc_group_id) || !r.ReadUint8(n_contexts) || !r.ReadUint8(reserved8) ||
      !r.ReadUint16(reserved16)) {
    return std::nullopt;
  }
  for (uint8_t i = 0; i < n_contexts; ++i) {
    PresentationContext context;
    uint8_t n_syntaxes = 0;
    if (!r.ReadUint16(context.id) || !r.ReadUint8(n_syntaxes) || !r.ReadUint8(reserved8) ||
        !ReadSyntax(r, context.abstract_syntax)) {
      return std::nullopt;
    }
    for (uint8_t j = 0; j < n_syntaxes; ++j) {
      SyntaxId syntax;
      if (!ReadSyntax(r, syntax)) return std::nullopt;
      context.transfer_syntaxes.push_back(syntax);
    }
    bind.contexts.push_back(std::move(context));
  }
  return bind;
}

std::optional<BindAckPdu> ParseBindAck(const PduHeader& header, std::span<const uint8_t> fragment) {
  NdrReader r = BodyReader(header, fragment);
  BindAckPdu ack;
  uint16_t address_length = 0;
  std::span<const uint8_t> address;
  uint8_t n_results = 0, reserved8 = 0;
  uint16_t reserved16 = 0;
  if (!r.ReadUint16(ack.max_xmit_frag) || !r.ReadUint16(ack.max_recv_frag) ||
      !r.ReadUint32(ack.assoc_group_id) || !r.ReadUint16(address_length) ||
      !r.ReadBytes(address_length, address) || !r.Align(4) || !r.ReadUint8(n_results) ||
      !r.ReadUint8(reserved8) || !r.ReadUint16(reserved16)) {
    return std::nullopt;
  }
  ack.secondary_address.assign(address.begin(), address.end());
  if (!ack.secondary_address.empty() && ack.secondary_address.back() == '\0') {
    ack.secondary_address.pop_back();
  }
  for (uint8_t i = 0; i < n_results; ++i) {
    ContextResult result;
    if (!r.ReadUint16(result.result) || !r.ReadUint16(result.reason) ||
        !ReadSyntax(r, result.transfer_syntax)) {
      return std::nullopt;
    }
    ack.results.push_back(result);
  }
  return ack;
}

std::optional<uint16_t> ParseBindNak(const PduHeader& header, std::span<const uint8_t> fragment) {
  NdrReader r = BodyReader(header, fragment);
  uint16_t reason = 0;
  if (!r.ReadUint16(reason)) return std::nullopt;
  return reason;
}

std::optional<RequestPdu> ParseRequest(const PduHeader& header, std::span<const uint8_t> fragment) {
  NdrReader r = BodyReader(header, fragment);
  RequestPdu request;
  if (!r.ReadUint32(request.alloc_hint) || !r.ReadUint16(request.context_id) ||
      !r.ReadUint16(request.opnum)) {
    return std::nullopt;
  }
  if (header.flags & kPfcObjectUuid) {
    Uuid object;
    if (!ReadUuid(r, object)) return std::nullopt;
    request.object = object;
  }
  if (!r.ReadBytes(r.remaining(), request.stub)) return std::nullopt;
  return request;
}

std::optional<ResponsePdu> ParseResponse(const PduHeader& header,
                                         std::span<const uint8_t> fragment) {
  NdrReader r = BodyReader(header, fragment);
  ResponsePdu response;
  uint8_t reserved8 = 0;
  if (!r.ReadUint32(response.alloc_hint) || !r.ReadUint16(response.context_id) ||
      !r.ReadUint8(response.cancel_count) || !r.ReadUint8(reserved8)) {
    return std::nullopt;
  }
  if (header.type == PduType::kFault) {
    uint32_t reserved32 = 0;
    if (!r.ReadUint32(response.status) || !r.ReadUint32(reserved32)) return std::nullopt;
    return response;
  }
  if (!r.ReadBytes(r.remaining(), response.stub)) return std::nullopt;
  return response;
}

std::vector<uint8_t> EncodeBind(PduType type, uint32_t call_id, const BindPdu& bind) {
  std::vector<uint8_t> pdu;
  NdrWriter w(pdu);
  WriteHeader(w, type, kPfcFirstFrag | kPfcLastFrag, call_id);
  w.WriteUint16(bind.max_xmit_frag);
  w.WriteUint16(bind.max_recv_frag);
  w.WriteUint32(bind.assoc_group_id);
  w.WriteUint8(static_cast<uint8_t>(bind.contexts.size()));
  w.WriteUint8(0);
  w.WriteUint16(0);
  for (const PresentationContext& context : bind.contexts) {
    w.WriteUint16(context.id);
    w.WriteUint8(static_cast<uint8_t>(context.transfer_syntaxes.size()));
    w.WriteUint8(0);
    WriteSyntax(w, context.abstract_syntax);
    for (const SyntaxId& syntax : context.transfer_syntaxes) WriteSyntax(w, syntax);
  }
  FinishPdu(pdu, 0);
  return pdu;
}

std::vector<uint8_t> EncodeBindAck(PduType type, uint32_t call_id, const BindAckPdu& ack) {
  std::vector<uint8_t> pdu;
  NdrWriter w(pdu);
  WriteHeader(w, type, kPfcFirstFrag | kPfcLastFrag, call_id);
  w.WriteUint16(ack.max_xmit_frag);
  w.WriteUint16(ack.max_recv_frag);
  w.WriteUint32(ack.assoc_group_id);
  if (ack.secondary_address.empty()) {
    w.WriteUint16(0);
  } else {
    w.WriteUint16(static_cast<uint16_t>(ack.secondary_address.size() + 1));
    w.WriteBytes({reinterpret_cast<const uint8_t*>(ack.secondary_address.c_str()),
                  ack.secondary_address.size() + 1});
  }
  w.Align(4);
  w.WriteUint8(static_cast<uint8_t>(ack.results.size()));
  w.WriteUint8(0);
  w.WriteUint16(0);
  for (const ContextResult& result : ack.results) {
    w.WriteUint16(result.result);
    w.WriteUint16(result.reason);
    WriteSyntax(w, result.transfer_syntax);
  }
  FinishPdu(pdu, 0);
  return pdu;
}

std::vector<uint8_t> EncodeBindNak(uint32_t call_id, uint16_t reason) {
  std::vector<uint8_t> pdu;
  NdrWriter w(pdu);
  WriteHeader(w, PduType::kBindNak, kPfcFirstFrag | kPfcLastFrag, call_id);
  w.WriteUint16(reason);
  w.WriteUint8(1);  // one supported protocol version: 5.0
  w.WriteUint8(5);
  w.WriteUint8(0);
  FinishPdu(pdu, 0);
  return pdu;
}

std::vector<uint8_t> EncodeFault(uint32_t call_id, uint16_t context_id, uint32_t status,
                                 bool did_not_execute) {
  std::vector<uint8_t> pdu;
  NdrWriter w(pdu);
  uint8_t flags = kPfcFirstFrag | kPfcLastFrag | (did_not_execute ? kPfcDidNotExecute : 0);
  WriteHeader(w, PduType::kFault, flags, call_id);
  w.WriteUint32(0);  // alloc_hint
  w.WriteUint16(context_id);
  w.WriteUint8(0);  // cancel_count
  w.WriteUint8(0);
  w.WriteUint32(status);
  w.WriteUint32(0);
  FinishPdu(pdu, 0);
  return pdu;
}

std::vector<uint8_t> EncodeHeaderOnly(PduType type, uint32_t call_id, uint8_t flags) {
  std::vector<uint8_t> pdu;
  NdrWriter w(pdu);
  WriteHeader(w, type, flags, call_id);
  FinishPdu(pdu, 0);
  return pdu;
}

void EncodeResponseFragments(uint32_t call_id, uint16_t context_id, std::span<const uint8_t> stub,
                             uint16_t max_frag, std::vector<uint8_t>& out) {
  EncodeFragments(PduType::kResponse, 0, call_id, kResponseHeaderSize, stub, max_frag, out,
                  [context_id](NdrWriter& w, uint32_t alloc_hint) {
                    w.WriteUint32(alloc_hint);
                    w.WriteUint16(context_id);
                    w.WriteUint8(0);  // cancel_count
                    w.WriteUint8(0);
                  });
}

void EncodeRequestFragments(uint32_t call_id, uint16_t context_id, uint16_t opnum,
                            const std::optional<Uuid>& object, std::span<const uint8_t> stub,
                            uint16_t max_frag, std::vector<uint8_t>& out) {
  size_t fixed = kRequestHeaderSize + (object ? 16 : 0);
  EncodeFragments(PduType::kRequest, object ? kPfcObjectUuid : 0, call_id, fixed, stub, max_frag,
                  out, [&](NdrWriter& w, uint32_t alloc_hint) {
                    w.WriteUint32(alloc_hint);
                    w.WriteUint16(context_id);
                    w.WriteUint16(opnum);
                    if (object) WriteUuid(w, *object);
                  });
}

}  // namespace kesttcs::dcerpc
