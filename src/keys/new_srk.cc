#include "keys/new_srk.h"

#include <atomic>

namespace kesttcs {

namespace {
std::atomic<NewSrkHook> g_new_srk_hook{nullptr};
}  // namespace

void SetNewSrkHook(NewSrkHook hook) { g_new_srk_hook = hook; }

void HandOverNewSrk(std::span<const BYTE> srkKey) {
  if (NewSrkHook hook = g_new_srk_hook.load()) hook(srkKey);
}

}  // namespace kesttcs
