// A driver library loaded at run time: dlopen on Linux (linux/shared_library.cc), LoadLibraryA on
// Windows (windows/shared_library.cc). The library stays loaded while the object lives; the
// addresses it hands out are valid only that long.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "base/mutex.h"

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

// A driver library bound once, lazily: Bind loads the library and lets `resolve` take the entry
// points it needs. A failed binding unloads the library and is tried again by the next Bind; a
// successful one keeps the library, and whatever `resolve` stored, for the object's life.
class LibraryBinding {
 public:
  // Stores the entry points it finds; false, with *why set, when one it needs is missing.
  using Resolver = std::function<bool(const SharedLibrary& library, std::string* why)>;

  explicit LibraryBinding(std::string path) : path_(std::move(path)) {}

  // 0 bound (at once when already bound, without a lock); 1 when the library did not load or
  // `resolve` failed, with *why saying why. Takes the binding mutex (a leaf) otherwise.
  [[nodiscard]] int Bind(const Resolver& resolve, std::string* why);
  const std::string& path() const { return path_; }

 private:
  const std::string path_;
  Mutex mu_;
  // Set once binding succeeded; what `resolve` stored never changes afterwards.
  std::atomic<bool> bound_{false};
  std::unique_ptr<SharedLibrary> library_ GUARDED_BY(mu_);
};

}  // namespace kesttcs
