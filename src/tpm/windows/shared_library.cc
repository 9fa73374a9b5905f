#include "tpm/shared_library.h"

#include <windows.h>

namespace kesttcs {

std::unique_ptr<SharedLibrary> SharedLibrary::Load(const std::string& path, std::string* why) {
  HMODULE module = ::LoadLibraryA(path.c_str());
  if (module == nullptr) {
    *why = "LoadLibrary failed with error " + std::to_string(::GetLastError());
    return nullptr;
  }
  return std::unique_ptr<SharedLibrary>(new SharedLibrary(module));
}

SharedLibrary::~SharedLibrary() { ::FreeLibrary(static_cast<HMODULE>(handle_)); }

void* SharedLibrary::Symbol(const char* name) const {
  return reinterpret_cast<void*>(::GetProcAddress(static_cast<HMODULE>(handle_), name));
}

}  // namespace kesttcs
