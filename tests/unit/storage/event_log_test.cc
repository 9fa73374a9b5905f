// The PCR event log brought up by the real start-up (24 PCRs on the scripted TPM): the four
// operations with their results and copies, and many writers at once (run under ThreadSanitizer
// in CI).
#include "storage/event_log.h"

#include <cstring>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <kesttcs/tcs_results.h>

#include "contexts/context_memory.h"
#include "contexts/contexts.h"
#include "core_fixture.h"

namespace kesttcs::testing {
namespace {

constexpr TCS_CONTEXT_HANDLE kCtx = kInternalContextHandle;
constexpr UINT32 kPcrs = 24;  // what the scripted TPM reports

// An event for `pcr` whose digest and data carry `tag`.
struct TestEvent {
  TestEvent(UINT32 pcr, BYTE tag, UINT32 dataLength = 3) : value(20, tag), data(dataLength, tag) {
    c.versionInfo = {1, 2, 0, 0};
    c.ulPcrIndex = pcr;
    c.eventType = 0x0D;
    c.ulPcrValueLength = UINT32(value.size());
    c.rgbPcrValue = value.data();
    c.ulEventLength = UINT32(data.size());
    c.rgbEvent = data.empty() ? nullptr : data.data();
  }
  std::vector<BYTE> value;
  std::vector<BYTE> data;
  TSS_PCR_EVENT c{};
};

UINT32 Log(UINT32 pcr, BYTE tag) {
  TestEvent e(pcr, tag);
  UINT32 number = 0;
  EXPECT_EQ(Tcsi_LogPcrEvent_Internal(kCtx, e.c, &number), TSS_SUCCESS);
  return number;
}

// The tag an event carries, after checking that its data is its own copy of what was logged.
BYTE TagOf(const TSS_PCR_EVENT& e) {
  EXPECT_EQ(e.ulPcrValueLength, 20u);
  EXPECT_NE(e.rgbPcrValue, nullptr);
  EXPECT_EQ(e.rgbEvent[0], e.rgbPcrValue[0]);
  return e.rgbPcrValue[0];
}

class EventLogTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(core_.Start(), TSS_SUCCESS); }
  TestCore core_;
};

TEST_F(EventLogTest, OperationsFollowTheirCountingAndPositionRules) {
  // An empty log answers with nothing, successfully.
  UINT32 count = 99;
  TSS_PCR_EVENT* events = reinterpret_cast<TSS_PCR_EVENT*>(&count);
  EXPECT_EQ(Tcsi_GetPcrEventLog_Internal(kCtx, &count, &events), TSS_SUCCESS);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(events, nullptr);

  // The PCR count is the limit for every operation.
  TestEvent outside(kPcrs, 1);
  UINT32 number = 0;
  EXPECT_EQ(Tcsi_LogPcrEvent_Internal(kCtx, outside.c, &number), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(Tcsi_GetPcrEvent_Internal(kCtx, kPcrs, &number, nullptr), TCS_E_BAD_PARAMETER);
  count = 1;
  EXPECT_EQ(Tcsi_GetPcrEventsByPcr_Internal(kCtx, kPcrs, 0, &count, &events), TCS_E_BAD_PARAMETER);

  // Numbers count from 1 when logging.
  EXPECT_EQ(Log(7, 1), 1u);
  EXPECT_EQ(Log(7, 2), 2u);
  EXPECT_EQ(Log(7, 3), 3u);
  EXPECT_EQ(Log(7, 4), 4u);
  EXPECT_EQ(Log(7, 5), 5u);
  EXPECT_EQ(Log(0, 9), 1u);

  // Without an event pointer the count, with one the event at a position counted from 0.
  number = 0;
  EXPECT_EQ(Tcsi_GetPcrEvent_Internal(kCtx, 7, &number, nullptr), TSS_SUCCESS);
  EXPECT_EQ(number, 5u);
  number = 0;
  TSS_PCR_EVENT* one = nullptr;
  ASSERT_EQ(Tcsi_GetPcrEvent_Internal(kCtx, 7, &number, &one), TSS_SUCCESS);
  EXPECT_EQ(TagOf(*one), 1);
  EXPECT_EQ(one->ulPcrIndex, 7u);
  EXPECT_EQ(one->eventType, 0x0Du);
  EXPECT_EQ(one->ulEventLength, 3u);
  number = 5;
  EXPECT_EQ(Tcsi_GetPcrEvent_Internal(kCtx, 7, &number, &one), TCS_E_BAD_PARAMETER);

  // The given count is an end position: first 1, count 2 gives position 1 alone.
  count = 2;
  ASSERT_EQ(Tcsi_GetPcrEventsByPcr_Internal(kCtx, 7, 1, &count, &events), TSS_SUCCESS);
  ASSERT_EQ(count, 1u);
  EXPECT_EQ(TagOf(events[0]), 2);
  count = 100;
  ASSERT_EQ(Tcsi_GetPcrEventsByPcr_Internal(kCtx, 7, 3, &count, &events), TSS_SUCCESS);
  ASSERT_EQ(count, 2u);
  EXPECT_EQ(TagOf(events[0]), 4);
  EXPECT_EQ(TagOf(events[1]), 5);
  count = 2;
  EXPECT_EQ(Tcsi_GetPcrEventsByPcr_Internal(kCtx, 7, 3, &count, &events), TCS_E_BAD_PARAMETER);
  count = 0;
  EXPECT_EQ(Tcsi_GetPcrEventsByPcr_Internal(kCtx, 7, 0, &count, &events), TSS_SUCCESS);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(events, nullptr);

  // The whole log: PCR 0's list first, each in logging order.
  ASSERT_EQ(Tcsi_GetPcrEventLog_Internal(kCtx, &count, &events), TSS_SUCCESS);
  ASSERT_EQ(count, 6u);
  const BYTE expected[] = {9, 1, 2, 3, 4, 5};
  for (UINT32 i = 0; i < count; ++i) EXPECT_EQ(TagOf(events[i]), expected[i]) << i;

  // Unknown contexts are refused before anything else.
  EXPECT_EQ(Tcsi_GetPcrEventLog_Internal(0x1234, &count, &events), TCS_E_INVALID_CONTEXT);
}

TEST_F(EventLogTest, RecordsAreDeepCopiesAndBadLengthsAreRefused) {
  TestEvent e(3, 0x41);
  UINT32 number = 0;
  ASSERT_EQ(Tcsi_LogPcrEvent_Internal(kCtx, e.c, &number), TSS_SUCCESS);
  std::memset(e.value.data(), 0, e.value.size());
  std::memset(e.data.data(), 0, e.data.size());

  number = 0;
  TSS_PCR_EVENT* first = nullptr;
  TSS_PCR_EVENT* second = nullptr;
  ASSERT_EQ(Tcsi_GetPcrEvent_Internal(kCtx, 3, &number, &first), TSS_SUCCESS);
  ASSERT_EQ(Tcsi_GetPcrEvent_Internal(kCtx, 3, &number, &second), TSS_SUCCESS);
  EXPECT_EQ(TagOf(*first), 0x41);
  EXPECT_NE(first->rgbPcrValue, second->rgbPcrValue);
  EXPECT_NE(first->rgbEvent, second->rgbEvent);

  // A length without data is refused; a zero or negative event length carries no data.
  TestEvent noValue(3, 1);
  noValue.c.rgbPcrValue = nullptr;
  EXPECT_EQ(Tcsi_LogPcrEvent_Internal(kCtx, noValue.c, &number), TCS_E_BAD_PARAMETER);
  TestEvent negative(3, 2, 0);
  negative.c.ulEventLength = 0x80000000;
  ASSERT_EQ(Tcsi_LogPcrEvent_Internal(kCtx, negative.c, &number), TSS_SUCCESS);
  EXPECT_EQ(number, 2u);
  TSS_PCR_EVENT* copy = nullptr;
  number = 1;
  ASSERT_EQ(Tcsi_GetPcrEvent_Internal(kCtx, 3, &number, &copy), TSS_SUCCESS);
  EXPECT_EQ(copy->ulEventLength, 0x80000000u);
  EXPECT_EQ(copy->rgbEvent, nullptr);
}

TEST_F(EventLogTest, ManyWritersKeepEveryEventOnceInEachWritersOrder) {
  constexpr UINT32 kWriters = 8;
  constexpr UINT32 kEventsPerWriter = 1250;
  std::vector<std::thread> threads;
  for (UINT32 w = 0; w < kWriters; ++w) {
    threads.emplace_back([w] {
      TCS_CONTEXT_HANDLE hContext = 0;
      ASSERT_EQ(Tcsi_OpenContext_Internal(&hContext), TSS_SUCCESS);
      for (UINT32 i = 0; i < kEventsPerWriter; ++i) {
        // Two writers share each PCR; the data says who wrote it and when.
        TestEvent e(w % 4, BYTE(w), 4);
        std::memcpy(e.data.data(), &i, sizeof(i));
        UINT32 number = 0;
        ASSERT_EQ(Tcsi_LogPcrEvent_Internal(hContext, e.c, &number), TSS_SUCCESS);
        if (i % 100 == 0) {
          UINT32 count = 0;
          TSS_PCR_EVENT* all = nullptr;
          ASSERT_EQ(Tcsi_GetPcrEventLog_Internal(hContext, &count, &all), TSS_SUCCESS);
          EXPECT_GE(count, number);
        }
      }
      EXPECT_EQ(Tcsi_CloseContext_Internal(hContext), TSS_SUCCESS);
    });
  }
  for (std::thread& t : threads) t.join();

  UINT32 count = 0;
  TSS_PCR_EVENT* all = nullptr;
  ASSERT_EQ(Tcsi_GetPcrEventLog_Internal(kCtx, &count, &all), TSS_SUCCESS);
  ASSERT_EQ(count, kWriters * kEventsPerWriter);
  std::vector<UINT32> next(kWriters, 0);
  for (UINT32 k = 0; k < count; ++k) {
    const BYTE w = all[k].rgbPcrValue[0];
    ASSERT_LT(w, kWriters);
    EXPECT_EQ(all[k].ulPcrIndex, w % 4u);
    UINT32 i = 0;
    std::memcpy(&i, all[k].rgbEvent, sizeof(i));
    EXPECT_EQ(i, next[w]++) << "writer " << int(w);
  }
  for (UINT32 w = 0; w < kWriters; ++w) EXPECT_EQ(next[w], kEventsPerWriter);
}

}  // namespace
}  // namespace kesttcs::testing
