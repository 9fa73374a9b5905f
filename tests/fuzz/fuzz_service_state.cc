// The client library's readers of the service-state interface's answers (session table, power
// state, key cache) on any bytes, in either byte order; the first byte picks the reader and the
// order. Besides not crashing, a reader that refuses leaves its output as it was, and a key cache
// it accepts holds exactly `count` entries and writes back to the same bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

#include "rpc/service_state_wire.h"

namespace kesttcs::rpc {
namespace {

void Check(bool holds) {
  if (!holds) std::abort();
}

void FuzzKeyCache(std::span<const uint8_t> data, dcerpc::ByteOrder order) {
  dcerpc::NdrReader reader(data, order);
  KESTTCS_KEY_CACHE cache{7, 7, 7, nullptr};
  TSS_RESULT result = 0;
  if (!ReadKeyCache(reader, &cache, &result)) {
    Check(cache.count == 7 && cache.entries == nullptr);
    return;
  }
  Check((cache.count == 0) == (cache.entries == nullptr));
  if (order == dcerpc::ByteOrder::kLittle) {
    std::vector<uint8_t> again;
    dcerpc::NdrWriter writer(again);
    WriteKeyCache(cache, result, writer);
    Check(std::vector<uint8_t>(data.begin(), data.end()) == again);
  }
  std::free(cache.entries);
}

}  // namespace
}  // namespace kesttcs::rpc

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kesttcs;
  if (size == 0) return 0;
  const dcerpc::ByteOrder order =
      data[0] & 1 ? dcerpc::ByteOrder::kBig : dcerpc::ByteOrder::kLittle;
  const std::span<const uint8_t> answer(data + 1, size - 1);
  dcerpc::NdrReader reader(answer, order);
  TSS_RESULT result = 0;
  switch ((data[0] >> 1) % 3) {
    case 0: {
      KESTTCS_SESSION_TABLE table{};
      table.count = 99;
      if (!rpc::ReadSessionTable(reader, &table, &result)) rpc::Check(table.count == 99);
      break;
    }
    case 1: {
      KESTTCS_POWER_STATE state{9, 9};
      if (!rpc::ReadPowerState(reader, &state, &result)) rpc::Check(state.state == 9);
      break;
    }
    default:
      rpc::FuzzKeyCache(answer, order);
  }
  return 0;
}
