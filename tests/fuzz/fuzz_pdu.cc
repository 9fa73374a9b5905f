// Feeds arbitrary bytes to the DCE/RPC server's protocol engine (PDU parsing, bind answers, request
// reassembly), to every PDU parser, and to the NDR reader primitives.
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "rpc/dcerpc/association.h"
#include "rpc/dcerpc/ndr.h"
#include "rpc/dcerpc/pdu.h"

namespace {

using namespace kesttcs::dcerpc;

SyntaxId FuzzInterface() { return {*Uuid::Parse("5a7c1f3e-2b4d-4e6f-8a9b-0c1d2e3f4a5b"), 1, 0}; }

// The association as the server drives it, with an echo handler run in place.
void FuzzAssociation(std::span<const uint8_t> data) {
  static const InterfaceRegistry registry = {
      {FuzzInterface(),
       [](const CallInfo&, uint16_t opnum, std::span<const uint8_t> in,
          std::vector<uint8_t>& out) -> uint32_t {
         if (opnum > 3) return kNcaOpRangeError;
         out.assign(in.begin(), in.end());
         return 0;
       }}};
  AssociationGroups groups;
  // Small enough that long requests run into it.
  RequestBudget budget(256 * 1024);
  Association association(registry, {}, "135", groups, budget);
  std::vector<uint8_t> output;
  // Bytes arrive in pieces whose sizes the input's first byte picks.
  if (data.empty()) return;
  size_t chunk = (data[0] % 64) * 97 + 1;
  data = data.subspan(1);
  for (size_t at = 0; at < data.size(); at += chunk) {
    association.Feed(data.subspan(at, std::min(chunk, data.size() - at)));
    for (;;) {
      PendingCall call;
      Association::Step step = association.Next(output, call);
      if (step == Association::Step::kCall) {
        std::vector<uint8_t> stub_out;
        uint32_t status = (*call.handler)(call.info, call.opnum, call.stub, stub_out);
        association.Complete(call, status, stub_out, output);
        continue;
      }
      if (step == Association::Step::kClose) return;
      break;
    }
    output.clear();
  }
}

void FuzzParsers(std::span<const uint8_t> data) {
  std::optional<PduHeader> header = ParseHeader(data);
  if (!header) return;
  std::span<const uint8_t> fragment =
      data.first(std::min<size_t>(data.size(), header->frag_length));
  (void)ParseBind(*header, fragment);
  (void)ParseBindAck(*header, fragment);
  (void)ParseBindNak(*header, fragment);
  (void)ParseRequest(*header, fragment);
  (void)ParseResponse(*header, fragment);
}

// Interprets the input as a program of NDR reads over the rest of the input.
void FuzzNdr(std::span<const uint8_t> data) {
  if (data.size() < 8) return;
  std::span<const uint8_t> program = data.first(8);
  NdrReader reader(data.subspan(8), program[0] & 1 ? ByteOrder::kBig : ByteOrder::kLittle);
  for (uint8_t op : program) {
    uint8_t u8;
    uint16_t u16;
    uint32_t u32;
    uint64_t u64;
    bool present;
    std::vector<uint8_t> bytes;
    std::span<const uint8_t> view;
    switch (op % 8) {
      case 0:
        (void)reader.ReadUint8(u8);
        break;
      case 1:
        (void)reader.ReadUint16(u16);
        break;
      case 2:
        (void)reader.ReadUint32(u32);
        break;
      case 3:
        (void)reader.ReadUint64(u64);
        break;
      case 4:
        (void)reader.ReadConformantBytes(bytes);
        break;
      case 5:
        (void)reader.ReadUniquePointer(present);
        break;
      case 6:
        (void)reader.ReadArrayCount(u32, op / 8 + 1);
        break;
      default:
        (void)reader.ReadBytes(op, view);
        break;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::span<const uint8_t> input(data, size);
  if (input.empty()) return 0;
  switch (input[0] % 3) {
    case 0:
      FuzzAssociation(input.subspan(1));
      break;
    case 1:
      FuzzParsers(input.subspan(1));
      break;
    default:
      FuzzNdr(input.subspan(1));
      break;
  }
  return 0;
}
