// Frees a libcrypto object with its own function, for std::unique_ptr:
// std::unique_ptr<EVP_PKEY, Freer<EVP_PKEY_free>>.
#pragma once

namespace kesttcs::client {

template <auto kFree>
struct Freer {
  template <typename T>
  void operator()(T* object) const {
    kFree(object);
  }
};

}  // namespace kesttcs::client
