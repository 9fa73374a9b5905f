/*
 * A Windows client's keyed and authorised commands (keyed_scenario.sh and service_host_test.exe run
 * it against kesttcsd.exe): widl client stubs of kesttcs.idl with the implicit binding handle, over
 * the service's named pipe "\pipe\KestTCS".
 *
 *   keyed_client.exe KEY_BLOB PASS_PHRASE_FILE
 *
 * Loads the key blob under the SRK (Tcsip_LoadKey2ByBlob, authorised in an OIAP session with the
 * well-known SRK secret) and reads its public key (Tcsip_GetPubKey, authorised with the key's usage
 * secret, the SHA-1 of the pass phrase). This client computes every command's HMAC and checks every
 * response's, so the TPM's acceptance is the judge of both sides' arithmetic; a wrong usage secret
 * must come back as TPM_AUTHFAIL. The public key read must be the one inside the blob.
 *
 * Prints one line per check; the exit status is the number of failed checks.
 */
#include <windows.h>
/* <bcrypt.h> relies on the declarations of <windows.h>. */
#include <bcrypt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kesttcs_h.h"
#include "widl_client.h"

enum { kOrdinalGetPubKey = 0x21, kOrdinalLoadKey2 = 0x41 };
/* The TPM's TPM_AUTHFAIL as the service hands TPM results on. */
#define kTpmAuthFail 0xE0280001u
enum { kSrkHandle = 0x40000000u, kMaxFile = 8192 };

/* SHA-1 (key null) or HMAC-SHA-1 under a 20-byte key, over `count` parts; nonzero on success. */
static int Digest(const BYTE* key, const BYTE* const* parts, const ULONG* sizes, int count,
                  BYTE out[20]) {
  BCRYPT_ALG_HANDLE algorithm = NULL;
  BCRYPT_HASH_HANDLE hash = NULL;
  int ok = 0;
  if (BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_SHA1_ALGORITHM, NULL,
                                  key != NULL ? BCRYPT_ALG_HANDLE_HMAC_FLAG : 0) != 0) {
    return 0;
  }
  if (BCryptCreateHash(algorithm, &hash, NULL, 0, (PUCHAR)key, key != NULL ? 20 : 0, 0) == 0) {
    ok = 1;
    for (int i = 0; ok && i < count; ++i)
      ok = BCryptHashData(hash, (PUCHAR)parts[i], sizes[i], 0) == 0;
    ok = ok && BCryptFinishHash(hash, out, 20, 0) == 0;
    BCryptDestroyHash(hash);
  }
  BCryptCloseAlgorithmProvider(algorithm, 0);
  return ok;
}

static void Be32(UINT32 value, BYTE out[4]) {
  out[0] = (BYTE)(value >> 24);
  out[1] = (BYTE)(value >> 16);
  out[2] = (BYTE)(value >> 8);
  out[3] = (BYTE)value;
}

static UINT32 ReadBe32(const BYTE* p) {
  return ((UINT32)p[0] << 24) | ((UINT32)p[1] << 16) | ((UINT32)p[2] << 8) | p[3];
}

/* The parameter digest of a command or response: SHA-1 of `first` (the ordinal, or the return code
 * and the ordinal), then `rest`. */
static void ParamDigest(const BYTE* first, ULONG firstSize, const BYTE* rest, ULONG restSize,
                        BYTE out[20]) {
  const BYTE* parts[] = {first, rest};
  const ULONG sizes[] = {firstSize, restSize};
  Digest(NULL, parts, sizes, rest != NULL ? 2 : 1, out);
}

/* The OIAP HMAC over a parameter digest and the session's nonces. */
static void SessionHmac(const BYTE secret[20], const BYTE digest[20], const TPM_NONCE* even,
                        const TPM_NONCE* odd, TSS_BOOL continueSession, BYTE out[20]) {
  const BYTE* parts[] = {digest, even->nonce, odd->nonce, &continueSession};
  const ULONG sizes[] = {20, 20, 20, 1};
  Digest(secret, parts, sizes, 4, out);
}

/* Opens an OIAP session into `auth` with a fresh odd nonce; the session ends with the command. */
static TSS_RESULT OpenSession(TCS_CONTEXT_HANDLE hContext, TPM_AUTH* auth) {
  TSS_RESULT result = 0;
  memset(auth, 0, sizeof *auth);
  CALL(Tcsip_OIAP(hContext, &auth->AuthHandle, &auth->NonceEven));
  BCryptGenRandom(NULL, auth->NonceOdd.nonce, sizeof auth->NonceOdd.nonce,
                  BCRYPT_USE_SYSTEM_PREFERRED_RNG);
  return result;
}

/* Authorises the command whose input parameters (after the ordinal) are `params`. */
static void Authorise(TPM_AUTH* auth, const BYTE secret[20], UINT32 ordinal, const BYTE* params,
                      ULONG paramsSize) {
  BYTE code[4], digest[20];
  Be32(ordinal, code);
  ParamDigest(code, 4, params, paramsSize, digest);
  SessionHmac(secret, digest, &auth->NonceEven, &auth->NonceOdd, auth->fContinueAuthSession,
              auth->HMAC.authdata);
}

/* True when the response's HMAC, over the return code 0, the ordinal and `outputs`, is right. */
static int ResponseAuthentic(const TPM_AUTH* auth, const TPM_NONCE* sentOdd, const BYTE secret[20],
                             UINT32 ordinal, const BYTE* outputs, ULONG outputsSize) {
  BYTE header[8] = {0}, digest[20], expected[20];
  Be32(ordinal, header + 4);
  ParamDigest(header, 8, outputs, outputsSize, digest);
  SessionHmac(secret, digest, &auth->NonceEven, sentOdd, auth->fContinueAuthSession, expected);
  return memcmp(expected, auth->HMAC.authdata, 20) == 0;
}

static ULONG ReadFileBytes(const char* path, BYTE* out, ULONG capacity) {
  FILE* file = fopen(path, "rb");
  ULONG size = 0;
  if (file == NULL) return 0;
  size = (ULONG)fread(out, 1, capacity, file);
  fclose(file);
  return size;
}

/* The TPM_PUBKEY inside a TPM_KEY or TPM_KEY12 blob: the key parameters, then the public key, with
 * the PCR information between them left out. 0 when the blob is too short. */
static ULONG PublicPartOf(const BYTE* blob, ULONG size, BYTE* out) {
  const ULONG parmsAt = 11; /* after version or tag, usage, flags and auth usage */
  ULONG at = parmsAt + 12, parmsEnd, pcrEnd, keyEnd;
  if (size < at) return 0;
  parmsEnd = at + ReadBe32(blob + parmsAt + 8);
  if (parmsEnd + 4 > size) return 0;
  pcrEnd = parmsEnd + 4 + ReadBe32(blob + parmsEnd);
  if (pcrEnd + 4 > size) return 0;
  keyEnd = pcrEnd + 4 + ReadBe32(blob + pcrEnd);
  if (keyEnd > size) return 0;
  memcpy(out, blob + parmsAt, parmsEnd - parmsAt);
  memcpy(out + (parmsEnd - parmsAt), blob + pcrEnd, keyEnd - pcrEnd);
  return (parmsEnd - parmsAt) + (keyEnd - pcrEnd);
}

/* Tcsip_GetPubKey of hKey authorised with `secret`; the public key goes to `out`. */
static TSS_RESULT GetPubKey(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE hKey, const BYTE secret[20],
                            int* authentic, BYTE* out, ULONG* outSize) {
  TSS_RESULT result = 0;
  TPM_AUTH auth;
  TPM_NONCE odd;
  UINT32 size = 0;
  BYTE* pubKey = NULL;
  *authentic = 0;
  if ((result = OpenSession(hContext, &auth)) != 0) return result;
  odd = auth.NonceOdd;
  Authorise(&auth, secret, kOrdinalGetPubKey, NULL, 0);
  CALL(Tcsip_GetPubKey(hContext, hKey, &auth, &size, &pubKey));
  if (result == 0 && pubKey != NULL && size <= *outSize) {
    *authentic = ResponseAuthentic(&auth, &odd, secret, kOrdinalGetPubKey, pubKey, size);
    memcpy(out, pubKey, size);
    *outSize = size;
  }
  MIDL_user_free(pubKey);
  return result;
}

int main(int argc, char** argv) {
  static BYTE blob[kMaxFile], expected[kMaxFile], pubKey[kMaxFile];
  BYTE phrase[256], keySecret[20], wrongSecret[20];
  const BYTE srkSecret[20] = {0};
  TSS_RESULT result = 0;
  TCS_CONTEXT_HANDLE hContext = 0;
  TCS_KEY_HANDLE hKey = 0;
  TPM_AUTH auth;
  TPM_NONCE odd;
  ULONG blobSize, phraseSize, expectedSize, pubKeySize = sizeof pubKey;
  int authentic = 0;
  if (argc != 3) {
    fprintf(stderr, "usage: %s KEY_BLOB PASS_PHRASE_FILE\n", argv[0]);
    return 2;
  }
  blobSize = ReadFileBytes(argv[1], blob, sizeof blob);
  phraseSize = ReadFileBytes(argv[2], phrase, sizeof phrase);
  expectedSize = PublicPartOf(blob, blobSize, expected);
  Check(expectedSize != 0 && phraseSize != 0, "key blob and pass phrase read", blobSize);
  if (!Bind("ncacn_np", NULL, "\\pipe\\KestTCS") || expectedSize == 0) return failures + 1;
  {
    const BYTE* parts[] = {phrase};
    const ULONG sizes[] = {phraseSize};
    Digest(NULL, parts, sizes, 1, keySecret);
    memcpy(wrongSecret, keySecret, sizeof wrongSecret);
    wrongSecret[0] ^= 1;
  }

  CALL(Tcsi_OpenContext(&hContext));
  Check(result == 0, "Tcsi_OpenContext", result);
  result = OpenSession(hContext, &auth);
  Check(result == 0, "Tcsip_OIAP", result);
  odd = auth.NonceOdd;
  Authorise(&auth, srkSecret, kOrdinalLoadKey2, blob, blobSize);
  CALL(Tcsip_LoadKey2ByBlob(hContext, kSrkHandle, blobSize, blob, &auth, &hKey));
  Check(result == 0 && hKey != 0, "Tcsip_LoadKey2ByBlob under the SRK, authorised", result);
  Check(result == 0 && ResponseAuthentic(&auth, &odd, srkSecret, kOrdinalLoadKey2, NULL, 0),
        "its response HMAC checks out", 0);

  result = GetPubKey(hContext, hKey, keySecret, &authentic, pubKey, &pubKeySize);
  Check(result == 0 && authentic,
        "Tcsip_GetPubKey with the key's usage secret, response HMAC right", result);
  Check(result == 0 && pubKeySize == expectedSize && memcmp(pubKey, expected, expectedSize) == 0,
        "the public key read is the blob's", pubKeySize);
  pubKeySize = sizeof pubKey;
  result = GetPubKey(hContext, hKey, wrongSecret, &authentic, pubKey, &pubKeySize);
  Check(result == kTpmAuthFail, "a wrong usage secret is refused with TPM_AUTHFAIL", result);

  CALL(Tcsip_EvictKey(hContext, hKey));
  Check(result == 0, "Tcsip_EvictKey", result);
  CALL(Tcsi_CloseContext(hContext));
  Check(result == 0, "Tcsi_CloseContext", result);
  return failures;
}
