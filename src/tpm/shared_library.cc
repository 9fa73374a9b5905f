#include "tpm/shared_library.h"

namespace kesttcs {

int LibraryBinding::Bind(const Resolver& resolve, std::string* why) {
  if (bound_.load(std::memory_order_acquire)) return 0;
  MutexLock lock(mu_);
  if (bound_.load(std::memory_order_relaxed)) return 0;
  std::string loadError;
  std::unique_ptr<SharedLibrary> library = SharedLibrary::Load(path_, &loadError);
  if (library == nullptr) {
    *why = "cannot load " + path_ + ": " + loadError;
    return 1;
  }
  if (!resolve(*library, why)) return 1;
  library_ = std::move(library);
  bound_.store(true, std::memory_order_release);
  return 0;
}

}  // namespace kesttcs
