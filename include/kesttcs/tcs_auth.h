/* The client's authorisation helper: what a caller needs to authorise TPM 1.2 commands sent through
 * the TCS, and to check the TPM's answers.
 *
 * A session object (KESTTCS_AUTH_SESSION) holds one OIAP, OSAP or DSAP session: its handle, the
 * rolling nonces and the HMAC key (the usage secret for OIAP, the shared secret for OSAP and DSAP).
 * The caller owns it (a plain structure, no allocation) and passes it to every call.
 *
 * For each authorised command the caller concatenates, in order, the parameters that the TPM 1.2
 * command definition marks for the input digest (the "1S" column, ordinal excluded), and after the
 * call the parameters marked for the output digest (return code and ordinal excluded):
 *   KestAuth_Authorize  fills the TPM_AUTH record to send: handle, a fresh nonceOdd, the continue
 *                       flag and HMAC(key, SHA1(ordinal || inParams) || nonceEven || nonceOdd ||
 *                       continue).
 *   KestAuth_Verify     checks the returned record's HMAC, HMAC(key, SHA1(0 || ordinal ||
 *                       outParams) || returned nonceEven || the session's nonceOdd || returned
 *                       continue), then rolls the session to the returned nonceEven.
 * All integers inside the parameter bytes are big-endian, as the TPM reads them.
 *
 * Results: 0; TCS_E_BAD_PARAMETER (0xE0282003) for a null or malformed argument;
 * KESTTCS_AUTH_E_VERIFY (0xE0283001) when a response HMAC does not match (the answer did not come
 * from the TPM for this session and secret: treat its outputs as untrusted);
 * KESTTCS_AUTH_E_CLOSED (0xE0283002) for a session that is not open (never begun, or ended by a
 * command sent without continue), and from KestAuth_Verify when no authorised command awaits its
 * answer; KESTTCS_AUTH_E_CRYPTO (0xE0283003) when the random source or an RSA operation fails;
 * KESTTCS_AUTH_E_SMALL_BUFFER (0xE0283004) when an output buffer is too small (the size needed is
 * written back). The KestAuth_Open* functions and KestAuth_Close also return what the service
 * answered.
 *
 * A command the TPM refuses carries no authorisation record to verify, and the TPM ends the
 * sessions it used: end the session with KestAuth_Close (which tells the service) and open a new
 * one.
 *
 * Secrets never leave the structures the caller passes; the helper keeps no copy. The helper keeps
 * no state of its own: sessions in different threads need no locking, one session is one thread's.
 *
 * Example: read the TPM's flags with the owner secret (TPM_GetCapabilityOwner, no input parameters;
 * the output digest covers the version and the two flag words).
 *
 *   #include <string.h>
 *   #include <kesttcs/tcs_auth.h>
 *   #include <kesttcs/tcs_client.h>
 *   #include <kesttcs/tpm_ordinals.h>
 *
 *   TSS_RESULT ReadOwnerFlags(TCS_CONTEXT_HANDLE hContext, UINT32* nonVolatile,
 *                             UINT32* volatileFlags) {
 *     KESTTCS_AUTH_SESSION s;
 *     TPM_SECRET owner;
 *     TPM_AUTH auth;
 *     TPM_VERSION version;
 *     BYTE out[12];
 *     TSS_RESULT rc = KestAuth_SecretFromPassword((const BYTE*)"owner pass", 10, &owner);
 *     if (rc == 0) rc = KestAuth_OpenOIAP(hContext, &owner, &s);
 *     if (rc != 0) return rc;
 *     rc = KestAuth_Authorize(&s, TPM_ORD_GetCapabilityOwner, NULL, 0, 0, &auth);
 *     if (rc == 0)
 *       rc = Tcsip_GetCapabilityOwner(hContext, &auth, &version, nonVolatile, volatileFlags);
 *     if (rc != 0) {
 *       KestAuth_Close(hContext, &s);  // refused or never sent: end the session everywhere
 *       return rc;
 *     }
 *     memcpy(out, &version, 4);  // TPM_VERSION is four bytes
 *     KestAuth_PutUINT32(out + 4, *nonVolatile);
 *     KestAuth_PutUINT32(out + 8, *volatileFlags);
 *     // Sent without continue: once verified, the TPM and the service have ended the session.
 *     return KestAuth_Verify(&s, TPM_ORD_GetCapabilityOwner, out, sizeof out, &auth);
 *   }
 */
#ifndef KESTTCS_TCS_AUTH_H
#define KESTTCS_TCS_AUTH_H

#include <kesttcs/tcs_types.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef KESTTCS_CLIENT_API
#ifdef _WIN32
/* The Windows library is static: nothing to export. */
#define KESTTCS_CLIENT_API
#else
#define KESTTCS_CLIENT_API __attribute__((visibility("default")))
#endif
#endif

#define KESTTCS_AUTH_E_VERIFY ((TSS_RESULT)0xE0283001)
#define KESTTCS_AUTH_E_CLOSED ((TSS_RESULT)0xE0283002)
#define KESTTCS_AUTH_E_CRYPTO ((TSS_RESULT)0xE0283003)
#define KESTTCS_AUTH_E_SMALL_BUFFER ((TSS_RESULT)0xE0283004)

/* Session kinds. */
#define KESTTCS_AUTH_OIAP 1u
#define KESTTCS_AUTH_OSAP 2u
#define KESTTCS_AUTH_DSAP 3u

/* Entity types of OSAP and DSAP (TPM_ENTITY_TYPE, low byte). */
#define KESTTCS_ET_KEYHANDLE 0x0001u
#define KESTTCS_ET_OWNER 0x0002u
#define KESTTCS_ET_SRK 0x0004u
#define KESTTCS_ET_KEY 0x0005u
#define KESTTCS_ET_DEL_OWNER_BLOB 0x0007u
#define KESTTCS_ET_DEL_ROW 0x0008u
#define KESTTCS_ET_DEL_KEY_BLOB 0x0009u

/* Protocol ids: TPM_TakeOwnership's, and that of the commands that change a secret by ADIP
 * (TPM_ChangeAuth, TPM_ChangeAuthOwner). */
#define KESTTCS_PID_OWNER 0x0005u
#define KESTTCS_PID_ADCP 0x0004u

typedef struct tdKESTTCS_AUTH_SESSION {
  UINT32 kind;            /* KESTTCS_AUTH_OIAP, _OSAP or _DSAP; 0 before a Begin, kept at the end */
  TCS_AUTHHANDLE handle;  /* the TPM's session handle */
  TPM_NONCE nonceEven;    /* the TPM's latest nonce */
  TPM_NONCE nonceOdd;     /* the nonce of the next (or last) authorised command */
  TSS_BOOL nonceOddFresh; /* nonceOdd was set for the next command and not used yet */
  TSS_BOOL open;          /* the session can authorise another command */
  TSS_BOOL pending;       /* a command was authorised and its answer is not verified yet */
  TPM_SECRET key;         /* HMAC key: usage secret (OIAP) or shared secret (OSAP, DSAP) */
} KESTTCS_AUTH_SESSION;

/* ---- Secrets ---- */

/* The well-known secret: 20 zero bytes. */
KESTTCS_CLIENT_API void KestAuth_WellKnownSecret(TPM_SECRET* secret);
/* A secret from a pass phrase: SHA-1 of its bytes. */
KESTTCS_CLIENT_API TSS_RESULT KestAuth_SecretFromPassword(const BYTE* password, UINT32 size,
                                                          TPM_SECRET* secret);

/* SHA-1 of `size` bytes (a PCR's extension digest, a value to sign). */
KESTTCS_CLIENT_API TSS_RESULT KestAuth_Sha1(const BYTE* data, UINT32 size, TPM_DIGEST* digest);

/* ---- Sessions from values the caller already has (no call to the service) ---- */

/* OIAP: the HMAC key is the entity's usage secret. */
KESTTCS_CLIENT_API TSS_RESULT KestAuth_BeginOIAP(KESTTCS_AUTH_SESSION* s, TCS_AUTHHANDLE handle,
                                                 const TPM_NONCE* nonceEven,
                                                 const TPM_SECRET* usageSecret);
/* OSAP and DSAP: the HMAC key is the shared secret HMAC(secret, nonceEvenXSAP || nonceOddXSAP),
 * where `secret` is the entity's usage secret (OSAP) or the delegation's secret (DSAP). */
KESTTCS_CLIENT_API TSS_RESULT KestAuth_BeginOSAP(KESTTCS_AUTH_SESSION* s, TCS_AUTHHANDLE handle,
                                                 const TPM_NONCE* nonceEven,
                                                 const TPM_NONCE* nonceEvenOSAP,
                                                 const TPM_NONCE* nonceOddOSAP,
                                                 const TPM_SECRET* usageSecret);
KESTTCS_CLIENT_API TSS_RESULT KestAuth_BeginDSAP(KESTTCS_AUTH_SESSION* s, TCS_AUTHHANDLE handle,
                                                 const TPM_NONCE* nonceEven,
                                                 const TPM_NONCE* nonceEvenDSAP,
                                                 const TPM_NONCE* nonceOddDSAP,
                                                 const TPM_SECRET* delegationSecret);

/* ---- Sessions opened through the service (the client library's connection) ---- */

/* Tcsip_OIAP, then KestAuth_BeginOIAP. */
KESTTCS_CLIENT_API TSS_RESULT KestAuth_OpenOIAP(TCS_CONTEXT_HANDLE hContext,
                                                const TPM_SECRET* usageSecret,
                                                KESTTCS_AUTH_SESSION* s);
/* Tcsip_OSAP with a fresh nonceOddOSAP, then KestAuth_BeginOSAP. `entityValue` is the TCS key
 * handle for key entities, the entity's value otherwise (0 for the owner and the SRK). */
KESTTCS_CLIENT_API TSS_RESULT KestAuth_OpenOSAP(TCS_CONTEXT_HANDLE hContext,
                                                TPM_ENTITY_TYPE entityType, UINT32 entityValue,
                                                const TPM_SECRET* usageSecret,
                                                KESTTCS_AUTH_SESSION* s);
/* Tcsip_DSAP with a fresh nonceOddDSAP, then KestAuth_BeginDSAP. */
KESTTCS_CLIENT_API TSS_RESULT KestAuth_OpenDSAP(TCS_CONTEXT_HANDLE hContext,
                                                TPM_ENTITY_TYPE entityType,
                                                TCS_KEY_HANDLE keyHandle, UINT32 entityValueSize,
                                                const BYTE* entityValue,
                                                const TPM_SECRET* delegationSecret,
                                                KESTTCS_AUTH_SESSION* s);
/* Ends the session: Tcsip_TerminateHandle while the TPM may still hold it (the session is open, or
 * its last command's answer was not verified), then marks it closed and clears its key and nonces
 * whatever the service answered. A session already ended needs no call (0). */
KESTTCS_CLIENT_API TSS_RESULT KestAuth_Close(TCS_CONTEXT_HANDLE hContext, KESTTCS_AUTH_SESSION* s);

/* ---- Commands ---- */

/* Gives the session a fresh random nonceOdd for its next command. KestAuth_Authorize does this
 * itself unless it was done (or nonceOdd set with nonceOddFresh) since the last command; call it
 * first when an encAuth must be computed with the command's nonceOdd. */
KESTTCS_CLIENT_API TSS_RESULT KestAuth_NewNonceOdd(KESTTCS_AUTH_SESSION* s);

/* Fills *auth for a command of `ordinal` whose digest parameters are inParams[0, inSize) (NULL when
 * inSize is 0): AuthHandle, NonceOdd, NonceEven (the session's), fContinueAuthSession and HMAC.
 * The command then awaits its answer (KestAuth_Verify). A session sent without continue can verify
 * that command's answer but authorise nothing more. */
KESTTCS_CLIENT_API TSS_RESULT KestAuth_Authorize(KESTTCS_AUTH_SESSION* s, TPM_COMMAND_CODE ordinal,
                                                 const BYTE* inParams, UINT32 inSize,
                                                 TSS_BOOL continueSession, TPM_AUTH* auth);

/* Checks the record the command returned (NonceEven, fContinueAuthSession, HMAC) against the
 * output digest parameters outParams[0, outSize) (NULL when outSize is 0) of a successful command,
 * with the nonceOdd the session sent (the record's NonceOdd is not trusted). On success the
 * session's nonceEven becomes the returned one, and a session the TPM ended (continue 0) is marked
 * closed. On a mismatch the session is left as it was and KESTTCS_AUTH_E_VERIFY returned. */
KESTTCS_CLIENT_API TSS_RESULT KestAuth_Verify(KESTTCS_AUTH_SESSION* s, TPM_COMMAND_CODE ordinal,
                                              const BYTE* outParams, UINT32 outSize,
                                              const TPM_AUTH* auth);

/* ADIP: encrypts `secret` for an OSAP or DSAP session as
 * secret XOR SHA1(sharedSecret || nonce), where `nonce` is the session's nonceEven for the first
 * encrypted secret of a command and its nonceOdd for the second one
 * (KESTTCS_ADIP_EVEN / KESTTCS_ADIP_ODD). The second needs the command's own nonceOdd, so it must
 * be fresh (KestAuth_NewNonceOdd first); a used one gives TCS_E_BAD_PARAMETER, as do OIAP sessions.
 */
#define KESTTCS_ADIP_EVEN 0u
#define KESTTCS_ADIP_ODD 1u
KESTTCS_CLIENT_API TSS_RESULT KestAuth_EncAuth(const KESTTCS_AUTH_SESSION* s,
                                               const TPM_SECRET* secret, UINT32 whichNonce,
                                               TPM_ENCAUTH* encAuth);

/* ---- Ownership ---- */

/* Encrypts an owner or SRK secret for Tcsip_TakeOwnership under the endorsement key:
 * RSA-OAEP with SHA-1, MGF1 and the label "TCPA". `pubEndorsementKey` is the TPM_PUBKEY that
 * Tcsip_ReadPubek returned: an RSA key for OAEP (algorithm 1, encryption scheme 3), two primes, a
 * modulus of 512 to 4096 bits whose size agrees with its key length, an odd exponent above 1 (or
 * none: 65537); anything else, or bytes left over, gives TCS_E_BAD_PARAMETER. On input *outSize is
 * the room at `out` (`out` may be NULL when it is 0); on output the bytes written, the modulus
 * size (or needed, with KESTTCS_AUTH_E_SMALL_BUFFER). */
KESTTCS_CLIENT_API TSS_RESULT KestAuth_EncryptForOwnership(const BYTE* pubEndorsementKey,
                                                           UINT32 pubEndorsementKeySize,
                                                           const TPM_SECRET* secret, BYTE* out,
                                                           UINT32* outSize);

/* ---- Byte helpers for digest parameters ---- */

/* Writes `value` big-endian at p[0..3] / p[0..1] (nothing when p is NULL). */
KESTTCS_CLIENT_API void KestAuth_PutUINT32(BYTE* p, UINT32 value);
KESTTCS_CLIENT_API void KestAuth_PutUINT16(BYTE* p, UINT16 value);

#ifdef __cplusplus
}
#endif

#endif /* KESTTCS_TCS_AUTH_H */
