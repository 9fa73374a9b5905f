// The TPM lock's two mutexes: recursion, releases only by the owner, the time-out; and the guard's
// hand-over of s3_lock.
#include "tpm/tpm_lock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace kesttcs {
namespace {

using std::chrono::milliseconds;

TEST(TpmLockTest, OwnedRecursiveMutexIsRecursiveAndOnlyItsOwnerReleasesIt) {
  OwnedRecursiveMutex mu;
  mu.lock();
  ASSERT_TRUE(mu.try_lock_for(milliseconds(0)));  // again, on the same thread
  bool released = true;
  bool taken = true;
  std::thread([&] {
    released = mu.Release();
    taken = mu.try_lock_for(milliseconds(10));
  }).join();
  EXPECT_FALSE(released);
  EXPECT_FALSE(taken);
  EXPECT_TRUE(mu.Release());
  // Still held once: another thread cannot have it.
  std::thread([&] { taken = mu.try_lock(); }).join();
  EXPECT_FALSE(taken);
  EXPECT_TRUE(mu.Release());
  EXPECT_FALSE(mu.Release());  // not held: harmless
  std::thread([&] {
    taken = mu.try_lock();
    if (taken) mu.unlock();
  }).join();
  EXPECT_TRUE(taken);
}

TEST(TpmLockTest, GuardKeepsTheQueueAndLetsS3Go) {
  bool s3Free = false;
  bool queueFree = true;
  {
    TpmLockGuard outer(0x46);
    // The holder takes it again, as a request manager called by a holder does.
    [&] {
      TpmLockGuard inner(0x46);
      // Power handling may take s3_lock while a command runs, but not the queue.
      std::thread([&] {
        S3Hold hold = S3Hold::Take();
        s3Free = true;
        queueFree = hold.HoldQueueFor(milliseconds(10));
      }).join();
    }();
  }
  EXPECT_TRUE(s3Free);
  EXPECT_FALSE(queueFree);
  std::thread([&] { queueFree = S3Hold::Take().HoldQueueFor(milliseconds(1000)); }).join();
  EXPECT_TRUE(queueFree);
}

}  // namespace
}  // namespace kesttcs
