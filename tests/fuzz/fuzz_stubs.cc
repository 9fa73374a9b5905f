// The server's unmarshalling of every operation's request stub: the first byte picks the
// operation (modulo the table size), the second the data representation, the rest is stub data.
// A request that unmarshals is answered (marshalled) and converted to the C layouts the internal
// functions receive, as the service does.
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "rpc/c_layout.h"
#include "rpc/operations.h"
#include "rpc/stubs.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kesttcs;
  if (size < 2) return 0;
  const rpc::Operation& op = rpc::kOperations[data[0] % rpc::kOperationCount];
  const auto order = (data[1] & 1) ? dcerpc::ByteOrder::kLittle : dcerpc::ByteOrder::kBig;
  dcerpc::NdrReader reader(std::span<const uint8_t>(data + 2, size - 2), order);
  rpc::CallFrame frame(op);
  if (!rpc::UnmarshalRequest(reader, frame)) return 0;
  for (size_t i = 0; i < op.params.size(); ++i) {
    const rpc::Param& p = op.params[i];
    const rpc::Arg& arg = frame.arg(i);
    if (!p.is_input() || !arg.present) continue;
    if (p.form == rpc::Form::kArray || p.form == rpc::Form::kArrayPtr) {
      std::vector<uint8_t> c = rpc::ArrayToC(p.kind, arg.value);
      static_cast<void>(c);
    } else {
      alignas(8) uint8_t c[rpc::kMaxCSize];
      rpc::SingleToC(p.kind, arg.value, c);
    }
  }
  std::vector<uint8_t> out;
  dcerpc::NdrWriter writer(out);
  static_cast<void>(rpc::MarshalResponse(frame, 0, writer));
  return 0;
}
