// The service-state interface's power-state answer across the wire: a round trip keeps all 64 bits
// of the restart time, and an unknown state or a short or long answer is refused.
#include "rpc/service_state_wire.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace kesttcs::rpc {
namespace {

TEST(ServiceStateWireTest, PowerStateRoundTripsAndBadAnswersAreRefused) {
  std::vector<uint8_t> bytes;
  dcerpc::NdrWriter writer(bytes);
  WritePowerState({KESTTCS_POWER_HELD_FOR_SLEEP, 0x123456789ULL}, 0xE0282011, writer);
  ASSERT_EQ(bytes.size(), 16u);

  KESTTCS_POWER_STATE state{};
  TSS_RESULT result = 0;
  dcerpc::NdrReader reader(bytes);
  ASSERT_TRUE(ReadPowerState(reader, &state, &result));
  EXPECT_EQ(state.state, KESTTCS_POWER_HELD_FOR_SLEEP);
  EXPECT_EQ(state.lastTpmRestart, 0x123456789ULL);
  EXPECT_EQ(result, 0xE0282011u);

  std::vector<uint8_t> shortAnswer(bytes.begin(), bytes.end() - 1);
  std::vector<uint8_t> longAnswer = bytes;
  longAnswer.push_back(0);
  std::vector<uint8_t> badState = bytes;
  badState[0] = 3;
  for (const std::vector<uint8_t>& bad : {shortAnswer, longAnswer, badState}) {
    dcerpc::NdrReader badReader(bad);
    KESTTCS_POWER_STATE untouched{7, 7};
    EXPECT_FALSE(ReadPowerState(badReader, &untouched, &result));
    EXPECT_EQ(untouched.state, 7u);
  }
}

}  // namespace
}  // namespace kesttcs::rpc
