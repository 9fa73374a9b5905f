#include "rpc/context_owners.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include "rpc/contexts.h"

namespace kesttcs {
namespace {

using std::chrono::milliseconds;

class ContextOwnersTest : public ::testing::Test {
 protected:
  void SetUp() override {
    owners_Reset();
    owner_.is_process = true;
    owner_.pid = 100;
    owner_.uid = 1000;
    other_ = owner_;
    other_.pid = 200;
    owners_Add(owner_, kContext);
  }
  void TearDown() override { owners_Reset(); }

  static constexpr TCS_CONTEXT_HANDLE kContext = 0xA0123456;
  ContextOwner owner_;
  ContextOwner other_;
};

TEST_F(ContextOwnersTest, OnlyTheOwnerMayUseItsContext) {
  EXPECT_TRUE(owners_BeginCall(owner_, kContext));
  owners_EndCall(kContext);
  EXPECT_FALSE(owners_BeginCall(other_, kContext));
  EXPECT_FALSE(owners_BeginCall(owner_, kInternalContextHandle));
  EXPECT_FALSE(owners_BeginCall(owner_, kContext + 1));
  EXPECT_FALSE(owners_BeginClose(other_, kContext));
}

// A close must not free what a running call of the same context is still using: it waits for
// that call to end, and no new call may start meanwhile.
TEST_F(ContextOwnersTest, CloseWaitsForTheCallsUsingTheContext) {
  ASSERT_TRUE(owners_BeginCall(owner_, kContext));
  auto close = std::async(std::launch::async, [&] { return owners_BeginClose(owner_, kContext); });
  // Once the close has begun, new calls are refused like calls on a closed handle; the close
  // itself still waits for the call that began first.
  while (owners_BeginCall(owner_, kContext)) owners_EndCall(kContext);
  EXPECT_EQ(close.wait_for(milliseconds(0)), std::future_status::timeout);
  owners_EndCall(kContext);
  ASSERT_TRUE(close.get());
  owners_EndClose(kContext, /*closed=*/true);
  EXPECT_FALSE(owners_BeginCall(owner_, kContext));
  EXPECT_EQ(owners_CountContexts(), 0u);
}

TEST_F(ContextOwnersTest, FailedCloseLeavesTheContextUsable) {
  ASSERT_TRUE(owners_BeginClose(owner_, kContext));
  owners_EndClose(kContext, /*closed=*/false);
  EXPECT_TRUE(owners_BeginCall(owner_, kContext));
  owners_EndCall(kContext);
  EXPECT_EQ(owners_CountContexts(), 1u);
}

}  // namespace
}  // namespace kesttcs
