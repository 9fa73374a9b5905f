// Many threads sending through the request manager to the embedded TPM at once: every exchange
// completes with its own, whole response.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "swtpm_process.h"
#include "tpm/driver.h"
#include "tpm/req_mgr.h"
#include "tpm12/marshal.h"

namespace kesttcs {
namespace {

TEST(ReqMgrThreadsTest, EightThreadsOfGetRandomAllSucceed) {
  constexpr int kThreads = 8;
  constexpr int kCommandsPerThread = 1000;
  testing::TempDir dir;
  driver_configure("libtpms:" + dir.path() + "/tpm", dir.path());
  ASSERT_EQ(req_mgr_init(), TSS_SUCCESS) << driver_last_error();

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
  EXPECT_EQ(req_mgr_final(), TSS_SUCCESS);
  driver_unbind();
}

}  // namespace
}  // namespace kesttcs
