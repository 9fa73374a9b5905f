// Storage used from several threads at once, as RPC workers use it: registrations,
// unregistrations, enumerations and lookups interleave, and what they leave is what a restart
// finds. Run under ThreadSanitizer in CI.
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kesttcs/tcs_results.h>

#include "storage_test_support.h"

namespace kesttcs::testing {
namespace {

constexpr UINT32 kWriters = 4;
constexpr UINT32 kKeysPerWriter = 12;

class StorageThreadsTest : public StorageTest {};

TEST_F(StorageThreadsTest, RegisteringUnregisteringAndReadingAtOnce) {
  ASSERT_EQ(ps_init(dataFile_, true), TSS_SUCCESS);
  std::vector<std::thread> threads;
  for (UINT32 w = 0; w < kWriters; ++w) {
    threads.emplace_back([this, w] {
      for (UINT32 k = 0; k < kKeysPerWriter; ++k) {
        const UINT32 n = w * kKeysPerWriter + k;
        // Every writer's keys share two shapes, so slots freed by one are taken by another.
        EXPECT_EQ(Register(MakeUuid(n), kSrk, KeyBlob({.modulusSize = 8 + k % 2, .fill = BYTE(n)})),
                  TSS_SUCCESS);
        if (k % 3 == 2) {
          EXPECT_EQ(Tcsip_UnregisterKey_Internal(kInternalContextHandle, MakeUuid(n - 1)),
                    TSS_SUCCESS);
        }
      }
    });
  }
  for (int r = 0; r < 2; ++r) {
    threads.emplace_back([] {
      for (int i = 0; i < 50; ++i) {
        UINT32 count = 0;
        TSS_KM_KEYINFO* infos = nullptr;
        EXPECT_EQ(Tcsi_EnumRegisteredKeys_Internal(kInternalContextHandle, nullptr, &count, &infos),
                  TSS_SUCCESS);
        if (infos != nullptr) {
          EXPECT_EQ(ctx_ReleaseMemory(kInternalContextHandle, infos), TSS_SUCCESS);
        }
        Bytes blob(4096);
        UINT16 size = 0;
        static_cast<void>(getKeyBlobByUUID(MakeUuid(UINT32(i)), blob, &size));
        static_cast<void>(isUUIDRegistered(MakeUuid(UINT32(i))));
        static_cast<void>(getParentPSTypeByUUID(MakeUuid(UINT32(i))));
        static_cast<void>(getUUIDByPub(std::vector<BYTE>(8, BYTE(i))));
      }
    });
  }
  for (std::thread& t : threads) t.join();

  const std::vector<StoredKey> running = StoredKeys();
  // The SRK's placeholder and, of each writer's keys, all but the ones it unregistered.
  EXPECT_EQ(running.size(), 1 + kWriters * (kKeysPerWriter - kKeysPerWriter / 3));
  for (UINT32 n = 0; n < kWriters * kKeysPerWriter; ++n) {
    EXPECT_EQ(isUUIDRegistered(MakeUuid(n)), n % kKeysPerWriter % 3 != 1) << n;
  }
  Restart();
  std::vector<StoredKey> restarted = StoredKeys();
  EXPECT_THAT(restarted, ::testing::UnorderedElementsAreArray(running));
  EXPECT_TRUE(ps_checkFile(dataFile_));
}

}  // namespace
}  // namespace kesttcs::testing
