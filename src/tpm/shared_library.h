// A driver library loaded at run time: dlopen on Linux (linux/shared_library.cc), LoadLibraryA on
// Windows (windows/shared_library.cc). The library stays loaded while the object lives; the
// addresses it hands out are valid only that long.
#pragma once

#include <memory>
#include <string>

namespace kesttcs {

class SharedLibrary {
 public:
  // Loads `path` (a bare name is searched for as the platform searches for libraries). Null on
  // failure, with *why saying what went wrong.
  static std::unique_ptr<SharedLibrary> Load(const std::string& path, std::string* why);

  ~SharedLibrary();
  SharedLibrary(const SharedLibrary&) = delete;
  SharedLibrary& operator=(const SharedLibrary&) = delete;

  // The address of the exported function `name`, or null when the library has none.
  template <typename Function>
  Function Find(const char* name) const {
    return reinterpret_cast<Function>(Symbol(name));
  }

 private:
  explicit SharedLibrary(void* handle) : handle_(handle) {}
  void* Symbol(const char* name) const;

  void* handle_;
};

}  // namespace kesttcs
