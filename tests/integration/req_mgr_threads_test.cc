// Many threads sending through the request manager to the embedded TPM of a core that is up: every
// exchange completes with its own, whole response.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "core_fixture.h"
#include "service/startup.h"
#include "tpm/req_mgr.h"
#include "tpm12/marshal.h"

namespace kesttcs {
namespace {

TEST(ReqMgrThreadsTest, EightThreadsOfGetRandomAllSucceed) {
  constexpr int kThreads = 8;
  constexpr int kCommandsPerThread = 1000;
  testing::TestCore core(testing::CoreOptions().Backend("libtpms"));
  ASSERT_EQ(core.Start(), TSS_SUCCESS) << StartupFailureText();

  std::atomic<int> good{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&good, t] {
      // Each thread asks for its own size so that a response handed to the wrong caller shows.
      const UINT32 size = 8 + static_cast<UINT32>(t);
      for (int i = 0; i < kCommandsPerThread; ++i) {
        std::array<BYTE, kTpmBlobSize> blob{};
        BlobWriter w(blob, kTpmHeaderSize);
        if (LoadBlob_UINT32(w, size) != TSS_SUCCESS ||
            LoadBlob_Header(TPM_TAG_RQU_COMMAND, w.offset(), 0x46, blob) != TSS_SUCCESS ||
            req_mgr_submit(blob) != TSS_SUCCESS) {
          continue;
        }
        UINT32 paramSize = 0;
        if (UnloadBlob_Header(blob, &paramSize) != TSS_SUCCESS || paramSize != 14 + size) continue;
        BlobReader params = ResponseParams(blob, paramSize);
        UINT32 returned = 0;
        if (UnloadBlob_UINT32(params, &returned) == TSS_SUCCESS && returned == size) ++good;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(good.load(), kThreads * kCommandsPerThread);
}

}  // namespace
}  // namespace kesttcs
