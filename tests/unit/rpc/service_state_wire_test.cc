// The service-state interface's answers across the wire: a power-state round trip keeps all 64
// bits of the restart time, a key-cache round trip keeps every field of every entry and both swap
// counters; an unknown state, a count the bytes do not hold, or a short or long answer is refused.
#include "rpc/service_state_wire.h"

#include <gtest/gtest.h>

#include <kesttcs/tcs_results.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
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

TEST(ServiceStateWireTest, KeyCacheRoundTripsAndBadAnswersAreRefused) {
  KESTTCS_KEY_CACHE_ENTRY entries[2] = {
      {0x22330001,
       KESTTCS_KEY_RESIDENT,
       0x01000005,
       0x22330000,
       2,
       1,
       {0x01020304, 0x0506, 0x0708, 0x09, 0x0A, {11, 12, 13, 14, 15, 16}}},
      {0x22330000, KESTTCS_KEY_SWAPPED, KESTTCS_NO_SLOT, 0x40000000, 0, 0, {}},
  };
  std::vector<uint8_t> bytes;
  dcerpc::NdrWriter writer(bytes);
  WriteKeyCache({0x100000002ULL, 3, 2, entries}, TSS_SUCCESS, writer);
  ASSERT_EQ(bytes.size(), 20u + 2 * 40u + 4u);

  KESTTCS_KEY_CACHE cache{};
  TSS_RESULT result = 1;
  dcerpc::NdrReader reader(bytes);
  ASSERT_TRUE(ReadKeyCache(reader, &cache, &result));
  EXPECT_EQ(result, TSS_SUCCESS);
  EXPECT_EQ(cache.swapOuts, 0x100000002ULL);
  EXPECT_EQ(cache.swapIns, 3u);
  ASSERT_EQ(cache.count, 2u);
  for (int i = 0; i < 2; ++i) {
    const KESTTCS_KEY_CACHE_ENTRY& got = cache.entries[i];
    const KESTTCS_KEY_CACHE_ENTRY& sent = entries[i];
    EXPECT_EQ(got.tcsKeyHandle, sent.tcsKeyHandle);
    EXPECT_EQ(got.state, sent.state);
    EXPECT_EQ(got.tpmHandle, sent.tpmHandle);
    EXPECT_EQ(got.parentTcsHandle, sent.parentTcsHandle);
    EXPECT_EQ(got.refCount, sent.refCount);
    EXPECT_EQ(got.registered, sent.registered);
    EXPECT_EQ(std::memcmp(&got.uuid, &sent.uuid, sizeof got.uuid), 0);
  }
  std::free(cache.entries);

  // Offsets: count at 16, first entry's state at 24, its `registered` at 40.
  auto changed = [&](size_t at, uint8_t value) {
    std::vector<uint8_t> b = bytes;
    b[at] = value;
    return b;
  };
  std::vector<uint8_t> shortAnswer(bytes.begin(), bytes.end() - 1);
  std::vector<uint8_t> longAnswer = bytes;
  longAnswer.push_back(0);
  // One entry dropped while the count still says two; a count of 3, and of 0xFF000002, over two
  // entries; an unknown state; `registered` 2.
  std::vector<uint8_t> entryMissing(bytes.begin(), bytes.begin() + 60);
  entryMissing.insert(entryMissing.end(), bytes.end() - 4, bytes.end());
  for (const std::vector<uint8_t>& bad : {shortAnswer, longAnswer, entryMissing, changed(16, 3),
                                          changed(19, 0xFF), changed(24, 3), changed(40, 2)}) {
    dcerpc::NdrReader badReader(bad);
    KESTTCS_KEY_CACHE untouched{7, 7, 7, nullptr};
    EXPECT_FALSE(ReadKeyCache(badReader, &untouched, &result));
    EXPECT_EQ(untouched.count, 7u);
    EXPECT_EQ(untouched.entries, nullptr);
  }
}

}  // namespace
}  // namespace kesttcs::rpc
