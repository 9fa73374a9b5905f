// The client's authorisation helper on bytes an attacker controls: the TPM's answers it verifies
// (KestAuth_Verify with any session state, record and output parameters) and the endorsement key it
// encrypts under (KestAuth_EncryptForOwnership with any TPM_PUBKEY bytes, raw or framed as a
// plausible key around chosen exponent and modulus bytes). The first byte picks which. Besides not
// crashing, each must give one of its documented results, leave a session it refuses as it was, and
// write no more than the room it was given.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <vector>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_results.h>

namespace kesttcs {
namespace {

// Takes the next sizeof(T) bytes into `value` (zeros past the end of the input).
template <typename T>
void TakeInto(std::span<const uint8_t>& data, T& value) {
  std::memset(&value, 0, sizeof value);
  const std::size_t n = std::min(sizeof value, data.size());
  std::memcpy(&value, data.data(), n);
  data = data.subspan(n);
}

void Check(bool holds) {
  if (!holds) std::abort();
}

void FuzzVerify(std::span<const uint8_t> data) {
  KESTTCS_AUTH_SESSION s;
  TPM_AUTH auth;
  UINT32 ordinal = 0;
  TakeInto(data, s);
  TakeInto(data, auth);
  TakeInto(data, ordinal);
  const KESTTCS_AUTH_SESSION before = s;
  const TSS_RESULT rc = KestAuth_Verify(&s, ordinal, data.data(), data.size(), &auth);
  if (rc == TSS_SUCCESS) {
    Check(std::memcmp(&s.nonceEven, &auth.NonceEven, sizeof s.nonceEven) == 0 && !s.pending);
    Check(auth.fContinueAuthSession || !s.open);
    return;
  }
  Check(rc == KESTTCS_AUTH_E_VERIFY || rc == KESTTCS_AUTH_E_CLOSED);
  Check(std::memcmp(&before, &s, sizeof s) == 0);
}

void FuzzEncryptForOwnership(std::span<const uint8_t> key, UINT16 room) {
  room %= 600;
  TPM_SECRET secret;
  KestAuth_WellKnownSecret(&secret);
  // The room exactly as large as claimed, so that an overrun shows under ASan.
  std::vector<BYTE> out(room);
  UINT32 size = room;
  const TSS_RESULT rc =
      KestAuth_EncryptForOwnership(key.data(), key.size(), &secret, out.data(), &size);
  if (rc == TSS_SUCCESS || rc == KESTTCS_AUTH_E_SMALL_BUFFER) {
    Check(size >= 64 && size <= 512 && (rc == TSS_SUCCESS) == (size <= room));
    return;
  }
  Check(rc == TCS_E_BAD_PARAMETER || rc == KESTTCS_AUTH_E_CRYPTO);
  Check(size == room);
}

// Raw bytes as the key: mostly the parser's refusals.
void FuzzRawKey(std::span<const uint8_t> data) {
  UINT16 room = 0;
  TakeInto(data, room);
  FuzzEncryptForOwnership(data, room);
}

void PutUint32(std::vector<BYTE>& blob, UINT32 v) {
  blob.resize(blob.size() + 4);
  KestAuth_PutUINT32(&blob[blob.size() - 4], v);
}

// A key whose frame agrees with its parts (RSA, OAEP, two primes, the sizes the parts have), so
// that most inputs reach the encryption: the fuzzer picks the exponent and modulus bytes (of any
// value: even, tiny, with a leading zero) and may flip one frame byte.
void FuzzFramedKey(std::span<const uint8_t> data) {
  struct {
    UINT16 room;
    BYTE exponentSize;
    BYTE flipAt;
    BYTE flipMask;
  } choice;
  TakeInto(data, choice);
  const std::size_t exponentSize = std::min<std::size_t>(choice.exponentSize % 10, data.size());
  const std::span<const uint8_t> exponent = data.first(exponentSize);
  const std::span<const uint8_t> modulus = data.subspan(exponentSize);
  std::vector<BYTE> key;
  PutUint32(key, 1);
  key.insert(key.end(), {0x00, 0x03, 0x00, 0x01});
  PutUint32(key, 12 + exponent.size());
  PutUint32(key, 8 * modulus.size());
  PutUint32(key, 2);
  PutUint32(key, exponent.size());
  key.insert(key.end(), exponent.begin(), exponent.end());
  PutUint32(key, modulus.size());
  key.insert(key.end(), modulus.begin(), modulus.end());
  key[choice.flipAt % key.size()] ^= choice.flipMask;
  FuzzEncryptForOwnership(key, choice.room);
}

}  // namespace
}  // namespace kesttcs

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::span<const uint8_t> rest(data + 1, size - 1);
  switch (data[0] % 3) {
    case 0:
      kesttcs::FuzzVerify(rest);
      break;
    case 1:
      kesttcs::FuzzRawKey(rest);
      break;
    default:
      kesttcs::FuzzFramedKey(rest);
  }
  return 0;
}
