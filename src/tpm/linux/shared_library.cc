#include "tpm/shared_library.h"

#include <dlfcn.h>

namespace kesttcs {

std::unique_ptr<SharedLibrary> SharedLibrary::Load(const std::string& path, std::string* why) {
  void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    const char* error = ::dlerror();
    *why = error != nullptr ? error : "unknown error";
    return nullptr;
  }
  return std::unique_ptr<SharedLibrary>(new SharedLibrary(handle));
}

SharedLibrary::~SharedLibrary() { ::dlclose(handle_); }

void* SharedLibrary::Symbol(const char* name) const { return ::dlsym(handle_, name); }

}  // namespace kesttcs
