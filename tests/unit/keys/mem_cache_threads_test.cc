// The key cache under concurrent callers: threads entering, looking up, referencing, moving and
// removing their own keys while others sweep unreferenced keys and walk the whole table. Run under
// ThreadSanitizer in CI; here it checks that every thread's view stays consistent.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "core_fixture.h"
#include "keys/key_equality.h"
#include "keys/mem_cache.h"
#include "storage/key_blob.h"
#include "storage/test_keys.h"

namespace kesttcs {
namespace {

constexpr int kWorkers = 4;
constexpr int kRounds = 300;

TPM_KEY KeyNumbered(int n) {
  TPM_KEY key;
  EXPECT_TRUE(ParseKeyBlob(testing::KeyBlob({.fill = BYTE(n)}), &key));
  key.pubKey.key.push_back(BYTE(n >> 8));  // unique beyond 256 keys
  ++key.pubKey.keyLength;
  return key;
}

TEST(MemCacheThreadsTest, ConcurrentCallersKeepEveryEntryConsistent) {
  testing::TestCore core;
  ASSERT_EQ(core.Start(), TSS_SUCCESS);
  // Referenced for good (the first entry), so the sweeps never send anything.
  ASSERT_EQ(add_mem_cache_entry(kSrkKeyHandle, kSrkKeyHandle, KeyNumbered(0), std::nullopt,
                                kNoTcsKeyHandle),
            TSS_SUCCESS);

  std::atomic<int> failures{0};
  std::atomic<bool> done{false};
  auto check = [&](bool ok) {
    if (!ok) ++failures;
  };
  std::vector<std::thread> threads;
  for (int w = 0; w < kWorkers; ++w) {
    threads.emplace_back([&, w] {
      for (int round = 0; round < kRounds; ++round) {
        const TCS_KEY_HANDLE handle = nextTcsKeyHandle();
        const TPM_KEY key = KeyNumbered(w * kRounds + round + 1);
        check(add_mem_cache_entry(handle, kNoTpmHandle, key, std::nullopt, kSrkKeyHandle) ==
              TSS_SUCCESS);
        // A sweep may take the key before its first reference, as a context closing elsewhere
        // may in the service; the loader then finds it gone. Held, the sweeps leave it.
        if (incKeyRefCount(handle) != TSS_SUCCESS) {
          check(!getKeyEntryByKeyHandle(handle).has_value());
          continue;
        }
        check(getHandleByKey(key) == handle);
        check(setSlotByHandle(handle, 0x01000000 + handle) == TSS_SUCCESS);
        check(getHandleBySlot(0x01000000 + handle) == handle);
        check(setSlotBySlot(0x01000000 + handle, kNoTpmHandle) == TSS_SUCCESS);
        const std::optional<TPM_KEY> copy = getKeyByHandle(handle);
        check(copy.has_value() && keysEqual(*copy, key));
        check(getKeyEntryByKeyHandle(handle)->parentTcsHandle == kSrkKeyHandle);
        // Every other round the key is removed while held, else released for a sweep.
        if (round % 2 == 0) {
          check(removeEntryByHandle(handle) == TSS_SUCCESS);
        } else {
          check(decKeyRefCount(handle) == TSS_SUCCESS);
        }
      }
    });
  }
  std::thread sweeper([&] {
    while (!done) {
      removeUnreferencedKeys();
      static_cast<void>(getHandleByEncData(KeyNumbered(1).encData));
      static_cast<void>(isKeyInCache(KeyNumbered(2)));
    }
  });
  for (std::thread& t : threads) t.join();
  done = true;
  sweeper.join();
  removeUnreferencedKeys();

  EXPECT_EQ(failures.load(), 0);
  EXPECT_TRUE(getKeyEntryByKeyHandle(kSrkKeyHandle).has_value());
  EXPECT_EQ(nextTcsKeyHandle(), kFirstTcsKeyHandle + kWorkers * kRounds);
  for (TCS_KEY_HANDLE h = kFirstTcsKeyHandle; h < kFirstTcsKeyHandle + kWorkers * kRounds; ++h) {
    EXPECT_FALSE(getKeyEntryByKeyHandle(h).has_value()) << std::hex << h;
  }
  EXPECT_TRUE(core.SentAfterStart().empty());
}

}  // namespace
}  // namespace kesttcs
