// Client contexts: handle generation, validation, key references, close order, per-context memory,
// and concurrent use.
#include "contexts/contexts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "base/logging.h"
#include "core_fixture.h"

namespace kesttcs {
namespace {

using ::testing::ElementsAre;

std::string Hex8(UINT32 v) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%.8X", v);
  return buf;
}

class ContextsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(core_.Start(), TSS_SUCCESS);
    SetTraceSink([this](std::string_view line) { Record("trace " + std::string(line)); });
  }

  void Record(std::string event) {
    std::lock_guard<std::mutex> lock(mu_);
    events_.push_back(std::move(event));
  }
  std::vector<std::string> Events() {
    std::lock_guard<std::mutex> lock(mu_);
    return events_;
  }
  void ClearEvents() {
    std::lock_guard<std::mutex> lock(mu_);
    events_.clear();
  }

  // Every hook writes one event, so tests see which hooks ran and in what order.
  void RegisterRecordingHooks(TSS_RESULT addResult = TSS_SUCCESS) {
    ctx_RegisterHooks(ContextHooks{
        .addKeyReference =
            [this, addResult](TCS_KEY_HANDLE k) {
              Record("add " + Hex8(k));
              return addResult;
            },
        .dropKeyReference = [this](TCS_KEY_HANDLE k) { Record("drop " + Hex8(k)); },
        .releaseUnreferencedKeys = [this] { Record("release keys"); },
        .releaseContextSessions = [this](TCS_CONTEXT_HANDLE h) { Record("sessions " + Hex8(h)); },
        .endExclusiveTransport = [this](TCS_CONTEXT_HANDLE h) { Record("transport " + Hex8(h)); },
    });
  }

  TCS_CONTEXT_HANDLE Open() {
    TCS_CONTEXT_HANDLE h = 0;
    EXPECT_EQ(Tcsi_OpenContext_Internal(&h), TSS_SUCCESS);
    return h;
  }

  std::mutex mu_;
  std::vector<std::string> events_;
  // Last, so that it goes first: shut-down traces into the sink above.
  testing::TestCore core_{testing::CoreOptions().NeedLog()};
};

TEST_F(ContextsTest, HandlesCarryTheTopNibbleAndAreUnique) {
  std::set<TCS_CONTEXT_HANDLE> handles;
  for (int i = 0; i < 10000; ++i) {
    const TCS_CONTEXT_HANDLE h = Open();
    ASSERT_EQ(h & 0xF0000000u, 0xA0000000u) << Hex8(h);
    ASSERT_TRUE(handles.insert(h).second) << "duplicate " << Hex8(h);
  }
  EXPECT_EQ(ctx_CountContexts(), 10000u);
  for (TCS_CONTEXT_HANDLE h : handles) ASSERT_EQ(ctx_ValidateContext(h), TSS_SUCCESS);
  EXPECT_EQ(Events().front(), "trace TCS:Tcsi_OpenContext_Internal\n");
  EXPECT_EQ(Tcsi_OpenContext_Internal(nullptr), TCS_E_BAD_PARAMETER);
}

TEST_F(ContextsTest, OpensWithinOneSecondDifferOnlyInTheCounter) {
  // The generator's seeds are whole seconds; retry until both opens fall in the same second.
  for (int attempt = 0; attempt < 10; ++attempt) {
    ASSERT_EQ(ctx_init(), TSS_SUCCESS);
    const std::time_t before = std::time(nullptr);
    const TCS_CONTEXT_HANDLE first = Open();
    const TCS_CONTEXT_HANDLE second = Open();
    if (std::time(nullptr) != before) continue;

    std::srand(static_cast<unsigned>(before));
    const UINT32 counter = 0xA0000000u | ((static_cast<UINT32>(std::rand()) << 16) & 0x00FF0000u);
    std::srand(static_cast<unsigned>(before) + 1);
    const UINT32 randomPart = (static_cast<UINT32>(std::rand()) << 8) & 0x00FFF000u;
    EXPECT_EQ(first, counter | randomPart);
    EXPECT_EQ(second, (counter + 1) | randomPart);
    return;
  }
  FAIL() << "never managed two opens within one second";
}

TEST_F(ContextsTest, CloseReleasesInOrderAndOnlyOnce) {
  RegisterRecordingHooks();
  const TCS_CONTEXT_HANDLE other = Open();
  const TCS_CONTEXT_HANDLE h = Open();
  ASSERT_EQ(ctx_AddKeyReference(h, 0x22330001), TSS_SUCCESS);
  ASSERT_EQ(ctx_AddKeyReference(h, 0x22330002), TSS_SUCCESS);
  ASSERT_EQ(ctx_AddKeyReference(other, 0x22330003), TSS_SUCCESS);
  ASSERT_NE(getSomeMemory(h, 10), nullptr);
  ASSERT_NE(getSomeMemory(other, 10), nullptr);
  ClearEvents();

  EXPECT_EQ(Tcsi_CloseContext_Internal(h), TSS_SUCCESS);
  EXPECT_THAT(
      Events(),
      ElementsAre("sessions " + Hex8(h), "drop 22330002", "drop 22330001",
                  "trace TCS:tcscm:Tcsi_CloseContext_Internal:key_mgr_ref_count hcontext=0x" +
                      Hex8(h) + "\n",
                  "release keys", "transport " + Hex8(h)));
  EXPECT_EQ(ctx_ValidateContext(h), TCS_E_INVALID_CONTEXT);
  EXPECT_EQ(ctx_CountMemoryBlocks(h), 0u);
  EXPECT_EQ(ctx_CountContexts(), 1u);
  EXPECT_EQ(ctx_ValidateContext(other), TSS_SUCCESS);
  EXPECT_EQ(ctx_CountMemoryBlocks(other), 1u);

  // A second close, or a handle never issued, releases nothing.
  ClearEvents();
  EXPECT_EQ(Tcsi_CloseContext_Internal(h), TCS_E_INVALID_CONTEXT);
  EXPECT_EQ(Tcsi_CloseContext_Internal(0xA0000000), TCS_E_INVALID_CONTEXT);
  EXPECT_EQ(Tcsi_CloseContext_Internal(0), TCS_E_INVALID_CONTEXT);
  EXPECT_THAT(Events(), ElementsAre());
}

TEST_F(ContextsTest, InternalContextIsAlwaysValidAndReleasedWithoutLeavingTheList) {
  EXPECT_EQ(ctx_ValidateContext(kInternalContextHandle), TSS_SUCCESS);
  RegisterRecordingHooks();
  const TCS_CONTEXT_HANDLE client = Open();
  ASSERT_NE(getSomeMemory(kInternalContextHandle, 8), nullptr);
  ASSERT_NE(getSomeMemory(client, 8), nullptr);
  EXPECT_EQ(ctx_AddKeyReference(kInternalContextHandle, 0x22330001), TCS_E_FAIL);
  ClearEvents();

  EXPECT_EQ(Tcsi_CloseContext_Internal(kInternalContextHandle), TSS_SUCCESS);
  EXPECT_THAT(Events(), ElementsAre("sessions 30000000",
                                    "trace TCS:tcscm:Tcsi_CloseContext_Internal:key_mgr_ref_count "
                                    "hcontext=0x30000000\n",
                                    "release keys", "transport 30000000"));
  EXPECT_EQ(ctx_CountMemoryBlocks(kInternalContextHandle), 0u);
  EXPECT_EQ(ctx_CountContexts(), 1u);
  EXPECT_EQ(ctx_CountMemoryBlocks(client), 1u);
  // Closing it again is just as valid.
  EXPECT_EQ(Tcsi_CloseContext_Internal(kInternalContextHandle), TSS_SUCCESS);
  EXPECT_EQ(ctx_ValidateContext(kInternalContextHandle), TSS_SUCCESS);
}

TEST_F(ContextsTest, KeyReferenceRules) {
  RegisterRecordingHooks(TCS_E_INVALID_KEY);
  const TCS_CONTEXT_HANDLE h = Open();
  ClearEvents();
  EXPECT_EQ(ctx_AddKeyReference(h ^ 1, 0x22330001), TCS_E_FAIL);
  EXPECT_THAT(Events(), ElementsAre());

  // The key cache's answer is passed back; the key is recorded all the same, so the key cache hears
  // of each key once per context.
  EXPECT_EQ(ctx_AddKeyReference(h, 0x22330001), TCS_E_INVALID_KEY);
  EXPECT_EQ(ctx_AddKeyReference(h, 0x22330001), TSS_SUCCESS);
  EXPECT_THAT(Events(), ElementsAre("add 22330001"));

  // Hooks registered later replace only the members they set.
  ctx_RegisterHooks(ContextHooks{.addKeyReference = [](TCS_KEY_HANDLE) { return TSS_SUCCESS; }});
  EXPECT_EQ(ctx_AddKeyReference(h, 0x22330002), TSS_SUCCESS);
  ClearEvents();
  EXPECT_EQ(Tcsi_CloseContext_Internal(h), TSS_SUCCESS);
  EXPECT_EQ(Events().at(1), "drop 22330002");
  EXPECT_EQ(Events().at(2), "drop 22330001");
}

TEST_F(ContextsTest, FreeMemory) {
  const TCS_CONTEXT_HANDLE a = Open();
  const TCS_CONTEXT_HANDLE b = Open();
  const TCS_CONTEXT_HANDLE c = Open();

  // A context without memory, and a pointer never handed out: 0, nothing happens.
  BYTE stray[4];
  EXPECT_EQ(Tcsi_FreeMemory_Internal(a, stray), TSS_SUCCESS);
  EXPECT_EQ(Tcsi_FreeMemory_Internal(a, nullptr), TSS_SUCCESS);

  // Blocks are usable over their full size and aligned for any scalar.
  void* a1 = getSomeMemory(a, 100);
  void* a2 = getSomeMemory(a, 0);
  void* b1 = getSomeMemory(b, 7);
  void* c1 = getSomeMemory(c, 4096);
  for (void* p : {a1, a2, b1, c1}) {
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % alignof(std::max_align_t), 0u);
  }
  std::memset(a1, 0xA5, 100);
  std::memset(c1, 0xC3, 4096);
  EXPECT_EQ(ctx_CountAllMemoryBlocks(), 4u);

  EXPECT_EQ(Tcsi_FreeMemory_Internal(a, stray), TSS_SUCCESS);
  EXPECT_EQ(Tcsi_FreeMemory_Internal(a, static_cast<BYTE*>(b1)), TSS_SUCCESS);  // b's block
  EXPECT_EQ(ctx_CountMemoryBlocks(b), 1u);
  EXPECT_EQ(Tcsi_FreeMemory_Internal(0x12345678, static_cast<BYTE*>(a1)), TCS_E_INVALID_CONTEXT);
  EXPECT_EQ(ctx_CountMemoryBlocks(a), 2u);

  EXPECT_EQ(Tcsi_FreeMemory_Internal(a, static_cast<BYTE*>(a1)), TSS_SUCCESS);
  EXPECT_EQ(ctx_CountMemoryBlocks(a), 1u);
  EXPECT_EQ(Tcsi_FreeMemory_Internal(a, static_cast<BYTE*>(a1)), TSS_SUCCESS);  // already gone

  // Null frees the whole context; the first context in the table takes no others with it.
  EXPECT_EQ(Tcsi_FreeMemory_Internal(a, nullptr), TSS_SUCCESS);
  EXPECT_EQ(ctx_CountMemoryBlocks(a), 0u);
  EXPECT_EQ(ctx_CountMemoryBlocks(b), 1u);
  EXPECT_EQ(ctx_CountMemoryBlocks(c), 1u);

  // The RPC layer's release after marshalling reports what it found.
  EXPECT_EQ(ctx_ReleaseMemory(a, a2), TCS_E_MEMORY_NOT_OWNED);
  EXPECT_EQ(ctx_ReleaseMemory(b, stray), TCS_E_INTERNAL_ERROR);
  EXPECT_EQ(ctx_ReleaseMemory(b, b1), TSS_SUCCESS);
  EXPECT_EQ(ctx_ReleaseMemory(b, b1), TCS_E_MEMORY_NOT_OWNED);
  ctx_FreeContextMemory(c);
  EXPECT_EQ(ctx_CountAllMemoryBlocks(), 0u);

  // Whatever is still tracked at final is freed (the leak checker of the asan build watches this).
  ASSERT_NE(getSomeMemory(0x55555555, 64), nullptr);
}

TEST(ContextsUninitialisedTest, EverythingRefusesQuietlyAfterShutDown) {
  testing::TestCore core;
  ASSERT_EQ(core.Start(), TSS_SUCCESS);
  core.Stop();
  TCS_CONTEXT_HANDLE h = 1;
  EXPECT_EQ(Tcsi_OpenContext_Internal(&h), TCS_E_FAIL);
  EXPECT_EQ(h, 0u);
  EXPECT_EQ(ctx_ValidateContext(0xA0000001), TCS_E_INVALID_CONTEXT);
  EXPECT_EQ(ctx_ValidateContext(kInternalContextHandle), TSS_SUCCESS);
  EXPECT_EQ(Tcsi_CloseContext_Internal(kInternalContextHandle), TSS_SUCCESS);
  EXPECT_EQ(Tcsi_FreeMemory_Internal(kInternalContextHandle, nullptr), TSS_SUCCESS);
  EXPECT_EQ(ctx_AddKeyReference(0xA0000001, 1), TCS_E_FAIL);
  EXPECT_EQ(getSomeMemory(kInternalContextHandle, 1), nullptr);
  EXPECT_EQ(ctx_CountContexts(), 0u);
  EXPECT_EQ(ctx_CountAllMemoryBlocks(), 0u);
  ctx_RegisterHooks(ContextHooks{});
}

TEST_F(ContextsTest, ConcurrentOpenUseAndClose) {
  SetNeedLog(false);
  std::atomic<int> added{0}, dropped{0};
  ctx_RegisterHooks(ContextHooks{
      .addKeyReference =
          [&](TCS_KEY_HANDLE) {
            ++added;
            return TSS_SUCCESS;
          },
      .dropKeyReference = [&](TCS_KEY_HANDLE) { ++dropped; },
  });
  const TCS_CONTEXT_HANDLE longLived = Open();
  std::atomic<bool> failed{false};
  auto worker = [&](int seed) {
    for (int i = 0; i < 300; ++i) {
      TCS_CONTEXT_HANDLE h = 0;
      if (Tcsi_OpenContext_Internal(&h) != TSS_SUCCESS) failed = true;
      auto* out = static_cast<BYTE*>(getSomeMemory(h, 32));
      auto* shared = static_cast<BYTE*>(getSomeMemory(longLived, 16));
      if (out == nullptr || shared == nullptr) {
        failed = true;
        continue;
      }
      std::memset(out, seed, 32);
      std::memset(shared, seed, 16);
      if (ctx_AddKeyReference(h, 0x22330000u + static_cast<UINT32>(i % 5)) != TSS_SUCCESS ||
          ctx_ValidateContext(h) != TSS_SUCCESS ||
          Tcsi_FreeMemory_Internal(longLived, shared) != TSS_SUCCESS ||
          ctx_ReleaseMemory(h, out) != TSS_SUCCESS) {
        failed = true;
      }
      (void)getSomeMemory(h, 8);  // left for close to free
      (void)ctx_CountContexts();
      if (Tcsi_CloseContext_Internal(h) != TSS_SUCCESS) failed = true;
    }
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) threads.emplace_back(worker, t + 1);
  for (std::thread& t : threads) t.join();

  EXPECT_FALSE(failed);
  EXPECT_EQ(ctx_CountContexts(), 1u);
  EXPECT_EQ(ctx_CountAllMemoryBlocks(), 0u);
  EXPECT_EQ(added.load(), 4 * 300);
  EXPECT_EQ(dropped.load(), 4 * 300);
}

}  // namespace
}  // namespace kesttcs
