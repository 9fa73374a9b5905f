// Every change of the data file under injected faults: each write failing or cut short, each
// flush failing, and a crash at every byte (with and without losing what was not flushed). After
// each, a restart must find the registered keys as they were before the change or as the change
// left them, never an earlier record lost or damaged.
#include <functional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kesttcs/tcs_results.h>

#include "storage/fake_file_system.h"
#include "storage_test_support.h"

namespace kesttcs::testing {
namespace {

using Fault = FaultInjectionFileSystem::Fault;
using ::testing::AnyOf;
using ::testing::Eq;

struct Change {
  std::string name;
  bool tpmHasOwner;                   // storage opens with this owner flag
  std::function<TSS_RESULT()> apply;  // the change, once storage is open
};

class CrashSafetyTest : public StorageTest {
 protected:
  // Keys 1 to 4 under the SRK, key 2 also the parent of key 5, key 4 unregistered again (its
  // slot free for a record of the same sizes).
  void SetUp() override {
    StorageTest::SetUp();
    ASSERT_EQ(ps_init(dataFile_, false), TSS_SUCCESS);
    for (UINT32 i = 1; i <= 4; ++i) {
      ASSERT_EQ(Register(MakeUuid(i), kSrk, KeyBlob({.modulusSize = 8 + i, .fill = BYTE(i)})),
                TSS_SUCCESS);
    }
    ASSERT_EQ(Register(MakeUuid(5), MakeUuid(2), KeyBlob({.fill = 5})), TSS_SUCCESS);
    ASSERT_EQ(Tcsip_UnregisterKey_Internal(kInternalContextHandle, MakeUuid(4)), TSS_SUCCESS);
    ps_close();
    baseline_ = DataFileBytes();
  }

  // Opens storage on the baseline file through `fs` (the real file system when null) and applies
  // the change; returns the first failure.
  TSS_RESULT ApplyTo(const Change& change, FileSystem* fs) {
    ps_close();
    fs::remove(TmpFile());
    WriteFileBytes(dataFile_, baseline_);
    ps_SetFileSystem(fs);
    if (TSS_RESULT r = ps_init(dataFile_, change.tpmHasOwner)) return r;
    return change.apply();
  }

  // The keys a start-up finds after the process ends (losing what was not flushed, if asked).
  std::vector<StoredKey> KeysAfterRestart(FaultInjectionFileSystem& fake, bool powerLoss) {
    ps_close();
    if (powerLoss) fake.LoseUnsyncedData();
    Restart();
    EXPECT_TRUE(ps_checkFile(dataFile_));
    return StoredKeys();
  }

  // Runs `change` once per fault position and checks the state after each.
  void Sweep(const Change& change) {
    ASSERT_EQ(ApplyTo(change, nullptr), TSS_SUCCESS);
    Restart();
    const std::vector<StoredKey> after = StoredKeys();
    ps_close();
    WriteFileBytes(dataFile_, baseline_);
    Restart();
    const std::vector<StoredKey> before = StoredKeys();
    ASSERT_NE(before, after);

    FaultInjectionFileSystem counting;
    ASSERT_EQ(ApplyTo(change, &counting), TSS_SUCCESS);
    const FaultInjectionFileSystem::Counts total = counting.counts();
    ASSERT_GT(total.writes, 0u);

    struct Plan {
      Fault fault;
      std::uint64_t positions;
    };
    for (const Plan& plan :
         {Plan{Fault::kFailWrite, total.writes}, Plan{Fault::kShortWrite, total.writes},
          Plan{Fault::kFailSync, total.syncs}}) {
      for (std::uint64_t at = 0; at < plan.positions; ++at) {
        SCOPED_TRACE(change.name + ": fault " + std::to_string(int(plan.fault)) + " at " +
                     std::to_string(at));
        FaultInjectionFileSystem fake;
        fake.Arm(plan.fault, at);
        const TSS_RESULT r = ApplyTo(change, &fake);
        // A failed change leaves nothing behind, in the process or on disk; what the process
        // shows is what a restart finds.
        const std::vector<StoredKey> running = StoredKeys();
        if (r != TSS_SUCCESS) {
          EXPECT_EQ(running, before);
        }
        EXPECT_THAT(running, AnyOf(Eq(before), Eq(after)));
        EXPECT_EQ(KeysAfterRestart(fake, false), running);
      }
    }
    for (const bool powerLoss : {false, true}) {
      for (std::uint64_t at = 0; at < total.bytes; ++at) {
        SCOPED_TRACE(change.name + ": crash at byte " + std::to_string(at) +
                     (powerLoss ? " with power loss" : ""));
        FaultInjectionFileSystem fake;
        fake.Arm(Fault::kCrashAtByte, at);
        static_cast<void>(ApplyTo(change, &fake));
        ASSERT_TRUE(fake.crashed());
        EXPECT_THAT(KeysAfterRestart(fake, powerLoss), AnyOf(Eq(before), Eq(after)));
      }
    }
    // No start-up had to fall back to loading whatever parses.
    for (const ServiceEvent& event : events_) {
      EXPECT_EQ(event.strings.at(0), "KestData.dat checksum mismatch; restored from KestData.tmp");
    }
  }

  Bytes baseline_;
};

TSS_RESULT RegisterUnder(const TSS_UUID& parent, const TSS_UUID& key, const Bytes& blob) {
  return Tcsi_RegisterKey_Internal(kInternalContextHandle, parent, key, UINT32(blob.size()),
                                   blob.data(), 0, nullptr);
}

TEST_F(CrashSafetyTest, RegisteringAppendsARecord) {
  Sweep({"register appending", false,
         [] { return RegisterUnder(MakeUuid(5), MakeUuid(6), KeyBlob({.modulusSize = 20})); }});
}

TEST_F(CrashSafetyTest, RegisteringReusesADeletedSlot) {
  // Key 4's sizes: a modulus of 12 bytes.
  Sweep({"register reusing", false,
         [] { return RegisterUnder(kSrk, MakeUuid(6), KeyBlob({.modulusSize = 12, .fill = 6})); }});
}

TEST_F(CrashSafetyTest, Unregistering) {
  Sweep({"unregister", false,
         [] { return Tcsip_UnregisterKey_Internal(kInternalContextHandle, MakeUuid(2)); }});
}

TEST_F(CrashSafetyTest, UpdatingABlobInPlace) {
  Sweep({"blob update", false,
         [] { return updateKeyBlob(MakeUuid(1), KeyBlob({.modulusSize = 9, .fill = 0x70})); }});
}

TEST_F(CrashSafetyTest, WritingTheSrkPlaceholderAtStartUp) {
  Sweep({"SRK placeholder", true, [] { return TSS_SUCCESS; }});
}

TEST_F(CrashSafetyTest, AFileThatCouldNotBePutBackIsPutBackBeforeTheNextChange) {
  const Change append = {"register appending", false, [] {
                           return RegisterUnder(kSrk, MakeUuid(6), KeyBlob({.modulusSize = 20}));
                         }};
  FaultInjectionFileSystem counting;
  ASSERT_EQ(ApplyTo(append, &counting), TSS_SUCCESS);
  const std::uint64_t writes = counting.counts().writes;
  Restart();
  const std::vector<StoredKey> expected = StoredKeys();

  // The blob, the last write before the checksum, is cut short, and the copy cannot be renamed
  // back: the file stays half-written for now.
  FaultInjectionFileSystem fake;
  fake.Arm(Fault::kShortWrite, writes - 2);
  fake.Arm(Fault::kFailRename, 0);
  ASSERT_EQ(ApplyTo(append, &fake), TCS_E_FAIL);
  EXPECT_FALSE(ps_checkFile(dataFile_));
  // The next change puts it back before it copies it, then goes ahead.
  ASSERT_EQ(RegisterUnder(kSrk, MakeUuid(6), KeyBlob({.modulusSize = 20})), TSS_SUCCESS);
  Restart();
  EXPECT_EQ(StoredKeys(), expected);
}

}  // namespace
}  // namespace kesttcs::testing
