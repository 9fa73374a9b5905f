// Keys for tests of registered keys: TPM_KEY blobs laid out from the description in
// docs/formats.md (not by the marshalling code), and UUIDs.
#pragma once

#include <cstdio>
#include <cstring>
#include <ostream>
#include <vector>

#include <kesttcs/tcs_types.h>

inline bool operator==(const TSS_UUID& a, const TSS_UUID& b) {
  return std::memcmp(&a, &b, sizeof(TSS_UUID)) == 0;
}
inline void PrintTo(const TSS_UUID& u, std::ostream* os) {
  char text[40];
  std::snprintf(text, sizeof(text), "{%08x-%04x-%04x-%02x%02x-...%02x}", u.ulTimeLow, u.usTimeMid,
                u.usTimeHigh, u.bClockSeqHigh, u.bClockSeqLow, u.rgbNode[5]);
  *os << text;
}

namespace kesttcs::testing {

// A TPM_KEY blob: version 1.1.0.0, `keyUsage`, no flags, `authDataUsage`, RSA parameters, no PCR
// info, a modulus of `modulusSize` bytes counting up from `fill`, and `encSize` bytes of encrypted
// part.
struct KeyBlobSpec {
  std::size_t modulusSize = 8;
  BYTE fill = 0xA0;
  std::size_t encSize = 4;
  BYTE authDataUsage = 0;
  UINT16 keyUsage = 0x0010;
};

inline std::vector<BYTE> KeyBlob(const KeyBlobSpec& spec) {
  auto u32 = [](std::vector<BYTE>& b, std::size_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) b.push_back(BYTE(v >> shift));
  };
  std::vector<BYTE> b = {1, 1, 0, 0, BYTE(spec.keyUsage >> 8), BYTE(spec.keyUsage),
                         0, 0, 0, 0, spec.authDataUsage};
  u32(b, 1);                        // algorithmID: RSA
  b.insert(b.end(), {0, 3, 0, 1});  // encScheme OAEP, sigScheme none
  u32(b, 12);                       // parmSize
  u32(b, spec.modulusSize * 8);     // RSA keyLength
  u32(b, 2);                        // numPrimes
  u32(b, 0);                        // exponentSize
  u32(b, 0);                        // PCRInfoSize
  u32(b, spec.modulusSize);
  for (std::size_t i = 0; i < spec.modulusSize; ++i) b.push_back(BYTE(spec.fill + i));
  u32(b, spec.encSize);
  b.insert(b.end(), spec.encSize, BYTE(spec.fill ^ 0xFF));
  return b;
}

// A UUID whose every field differs with `n`.
inline TSS_UUID MakeUuid(UINT32 n) {
  return TSS_UUID{0x10000000 + n, UINT16(0x2000 + n), UINT16(0x3000 + n),
                  BYTE(n),        BYTE(n >> 8),       {0x66, 0x77, 0x88, 0x99, BYTE(n), 0xAA}};
}

}  // namespace kesttcs::testing
