// Builders for the TPM command and response bytes that tests script and compare, byte for byte.
#pragma once

#include <cstring>
#include <initializer_list>
#include <vector>

#include <kesttcs/tcs_types.h>

#include "tpm12/tpm_structures.h"

namespace kesttcs::command_bytes {

using Bytes = std::vector<BYTE>;

inline Bytes U32(UINT32 v) {
  return {static_cast<BYTE>(v >> 24), static_cast<BYTE>(v >> 16), static_cast<BYTE>(v >> 8),
          static_cast<BYTE>(v)};
}
inline Bytes U16(UINT16 v) { return {static_cast<BYTE>(v >> 8), static_cast<BYTE>(v)}; }
inline Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
  return all;
}
inline Bytes Fill(size_t n, BYTE b) { return Bytes(n, b); }
// A request: tag, paramSize, ordinal, then the parameters.
inline Bytes Request(UINT16 tag, UINT32 ordinal, const Bytes& params = {}) {
  return Cat({U16(tag), U32(static_cast<UINT32>(10 + params.size())), U32(ordinal), params});
}
inline Bytes Plain(UINT32 ordinal, const Bytes& params = {}) {
  return Request(TPM_TAG_RQU_COMMAND, ordinal, params);
}
inline Bytes ToBytes(const BYTE* p, UINT32 n) { return p == nullptr ? Bytes() : Bytes(p, p + n); }
inline TPM_DIGEST Digest(BYTE b) {
  TPM_DIGEST d;
  std::memset(d.digest, b, sizeof d.digest);
  return d;
}
inline TPM_NONCE Nonce(BYTE b) {
  TPM_NONCE n;
  std::memset(n.nonce, b, sizeof n.nonce);
  return n;
}

}  // namespace kesttcs::command_bytes
