// One client process of the key thrash test: loads the fixture's storage key under the SRK and the
// signing keys [first, first + count) under it in a context of its own, says "loaded", then for
// each "round" line on stdin uses every one of its keys once and answers "ok", or "bad KEY RESULT"
// for the first key whose answer is wrong; "quit" (or the end of stdin) closes the context.
//
// Usage: key_thrash_client USE SOCKET FIXTURE_DIR FIRST COUNT, where USE names one of kKeyUses.
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>

#include "rsa_checks.h"
#include "signing_keys_fixture.h"
#include "wrapped_keys.h"

namespace kesttcs::testing {
namespace {

using signing_keys::Bytes;

// Tcsip_GetPubKey, whose answer must be the key's public part.
TSS_RESULT GetPubKeyUse(TCS_CONTEXT_HANDLE h, TCS_KEY_HANDLE key, const Bytes& blob) {
  UINT32 size = 0;
  BYTE* data = nullptr;
  const TSS_RESULT r = Tcsip_GetPubKey(h, key, nullptr, &size, &data);
  const bool same = r == TSS_SUCCESS && Bytes(data, data + size) == wrapped_keys::PubKeyOf(blob);
  Tcs_FreeBuffer(data);
  return r != TSS_SUCCESS ? r : same ? TSS_SUCCESS : TCS_E_FAIL;
}

// Tcsip_Sign of a SHA-1 digest, whose signature must verify with OpenSSL under the key's modulus.
TSS_RESULT SignUse(TCS_CONTEXT_HANDLE h, TCS_KEY_HANDLE key, const Bytes& blob) {
  const Bytes digest = rsa_checks::Sha1(Bytes(blob.begin(), blob.begin() + 64));
  UINT32 size = 0;
  BYTE* data = nullptr;
  const TSS_RESULT r = Tcsip_Sign(h, key, UINT32(digest.size()), const_cast<BYTE*>(digest.data()),
                                  nullptr, &size, &data);
  const bool valid = r == TSS_SUCCESS && rsa_checks::VerifiesWith(wrapped_keys::ModulusOf(blob),
                                                                  digest, Bytes(data, data + size));
  Tcs_FreeBuffer(data);
  return r != TSS_SUCCESS ? r : valid ? TSS_SUCCESS : TCS_E_FAIL;
}

// The ways a round may use a key, by the name the test passes: each checks the TPM's answer
// against the key's blob.
using KeyUse = TSS_RESULT (*)(TCS_CONTEXT_HANDLE h, TCS_KEY_HANDLE key, const Bytes& blob);
struct NamedKeyUse {
  const char* name;
  KeyUse use;
};
constexpr NamedKeyUse kKeyUses[] = {{"pubkey", GetPubKeyUse}, {"sign", SignUse}};

KeyUse KeyUseNamed(const std::string& name) {
  for (const NamedKeyUse& u : kKeyUses) {
    if (name == u.name) return u.use;
  }
  return nullptr;
}

TSS_RESULT Load(TCS_CONTEXT_HANDLE h, TCS_KEY_HANDLE parent, const Bytes& blob,
                TCS_KEY_HANDLE* key) {
  return Tcsip_LoadKey2ByBlob(h, parent, UINT32(blob.size()), const_cast<BYTE*>(blob.data()),
                              nullptr, key);
}

int Run(KeyUse use, const std::string& socket, const fs::path& fixture, size_t first,
        size_t count) {
  std::optional<signing_keys::SigningKeys> keys = signing_keys::ReadFixture(fixture, first + count);
  TCS_CONTEXT_HANDLE h = 0;
  TCS_KEY_HANDLE storage = 0;
  if (!keys || Tcs_Connect(socket.c_str()) != TSS_SUCCESS || Tcsi_OpenContext(&h) != TSS_SUCCESS ||
      Load(h, wrapped_keys::kSrk, keys->storage, &storage) != TSS_SUCCESS) {
    std::cout << "cannot load the storage key" << std::endl;
    return 1;
  }
  std::vector<TCS_KEY_HANDLE> handles(count);
  for (size_t i = 0; i < count; ++i) {
    if (TSS_RESULT r = Load(h, storage, keys->signing[first + i], &handles[i])) {
      std::printf("cannot load key %zu: 0x%08X\n", first + i, r);
      return 1;
    }
  }
  std::cout << "loaded" << std::endl;
  for (std::string line; std::getline(std::cin, line) && line == "round";) {
    std::string answer = "ok";
    for (size_t i = 0; i < count && answer == "ok"; ++i) {
      if (TSS_RESULT r = use(h, handles[i], keys->signing[first + i])) {
        answer = "bad " + std::to_string(first + i) + " " + std::to_string(r);
      }
    }
    std::cout << answer << std::endl;
  }
  return Tcsi_CloseContext(h) == TSS_SUCCESS ? 0 : 1;
}

}  // namespace
}  // namespace kesttcs::testing

int main(int argc, char** argv) {
  using namespace kesttcs::testing;
  const KeyUse use = argc == 6 ? KeyUseNamed(argv[1]) : nullptr;
  if (use == nullptr) {
    std::fprintf(stderr, "usage: key_thrash_client USE SOCKET FIXTURE_DIR FIRST COUNT\n");
    return 2;
  }
  return Run(use, argv[2], argv[3], std::strtoul(argv[4], nullptr, 10),
             std::strtoul(argv[5], nullptr, 10));
}
