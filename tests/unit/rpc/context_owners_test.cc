#include "rpc/context_owners.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include "contexts/contexts.h"

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
    ASSERT_TRUE(owners_BeginOpen(owner_));
    owners_EndOpen(owner_, kContext);
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

// Over the Unix socket every connection of a process acts for the process, and its contexts close
// with its last connection; over TCP the connections of one association group share an owner, and
// a connection bound to no group (or without credentials) is its own owner.
TEST_F(ContextOwnersTest, AProcessOwnsItsContextsAcrossItsConnections) {
  dcerpc::PeerIdentity first;
  first.connection_id = 1;
  first.transport = dcerpc::Transport::kUnixStream;
  first.has_credentials = true;
  first.pid = owner_.pid;
  first.uid = owner_.uid;
  dcerpc::PeerIdentity second = first;
  second.connection_id = 2;
  EXPECT_EQ(OwnerOf(first), owner_);
  EXPECT_EQ(OwnerOf(second), owner_);

  dcerpc::PeerIdentity anonymous = first;
  anonymous.has_credentials = false;
  dcerpc::PeerIdentity tcp = first;
  tcp.transport = dcerpc::Transport::kTcp;
  dcerpc::PeerIdentity other_tcp = tcp;
  other_tcp.connection_id = 3;
  EXPECT_FALSE(owners_BeginCall(OwnerOf(anonymous), kContext));
  EXPECT_FALSE(owners_BeginCall(OwnerOf(tcp), kContext));
  EXPECT_NE(OwnerOf(tcp), OwnerOf(other_tcp));
  tcp.assoc_group_id = other_tcp.assoc_group_id = 0x10001;
  EXPECT_EQ(OwnerOf(tcp), OwnerOf(other_tcp));
  other_tcp.assoc_group_id = 0x10002;
  EXPECT_NE(OwnerOf(tcp), OwnerOf(other_tcp));

  owners_NoteConnection(first);
  owners_NoteConnection(second);
  const size_t abandoned = owners_CountAbandonedClosed();
  owners_ConnectionClosed(first);
  EXPECT_EQ(owners_CountContexts(), 1u);
  owners_ConnectionClosed(second);
  EXPECT_EQ(owners_CountContexts(), 0u);
  EXPECT_EQ(owners_CountAbandonedClosed(), abandoned + 1);
}

// An owner holds at most the limit of contexts, those being opened included; a failed open and a
// close make room again. Whether a connection's client holds contexts keeps idle connections.
TEST_F(ContextOwnersTest, AnOwnerHoldsAtMostTheLimitOfContexts) {
  owners_SetContextLimit(3);  // the owner holds kContext already
  ASSERT_TRUE(owners_BeginOpen(owner_));
  ASSERT_TRUE(owners_BeginOpen(owner_));
  EXPECT_FALSE(owners_BeginOpen(owner_));
  EXPECT_TRUE(owners_BeginOpen(other_));
  owners_EndOpen(other_, 0);
  owners_EndOpen(owner_, 0);
  owners_EndOpen(owner_, kContext + 1);
  ASSERT_TRUE(owners_BeginOpen(owner_));
  owners_EndOpen(owner_, kContext + 2);
  EXPECT_FALSE(owners_BeginOpen(owner_));
  ASSERT_TRUE(owners_BeginClose(owner_, kContext + 1));
  owners_EndClose(kContext + 1, /*closed=*/true);
  ASSERT_TRUE(owners_BeginOpen(owner_));
  owners_EndOpen(owner_, 0);

  dcerpc::PeerIdentity peer;
  peer.transport = dcerpc::Transport::kUnixStream;
  peer.has_credentials = true;
  peer.pid = owner_.pid;
  peer.uid = owner_.uid;
  EXPECT_TRUE(owners_HoldsContexts(peer));
  peer.pid = other_.pid;
  EXPECT_FALSE(owners_HoldsContexts(peer));
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
