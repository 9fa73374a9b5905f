// The SRK's usage secret as the service knows it (tcs_cfg.ini [TPM] srk_secret), and the service's
// own authorisation of SRK commands with it: an OIAP session opened in the service's internal
// context whose HMAC the service computes itself. The secret never leaves this module and is never
// traced.
#pragma once

#include <optional>
#include <span>

#include <kesttcs/tcs_types.h>

#include "tpm12/tpm_structures.h"

namespace kesttcs {

// What the service knows of the SRK's secret: the secret, or nothing (never authorise SRK use).
// Set at start-up before any key is loaded; the well-known secret (20 zero bytes) until then.
void SetSrkSecret(std::optional<TPM_SECRET> secret);
bool SrkSecretKnown();

// One command authorised by the service with the SRK's secret. Open() starts an OIAP session in
// the internal context; Authorize() fills the request trailer for the ordinal and the parameters
// the TPM hashes (inParamDigest = SHA-1(ordinal || hashedParams)), with continueAuthSession 0 so
// that the TPM ends the session with the command. Finish() keeps the session table straight: the
// TPM ended the session when the command succeeded; otherwise it is flushed.
class SrkSession {
 public:
  SrkSession() = default;
  SrkSession(const SrkSession&) = delete;
  SrkSession& operator=(const SrkSession&) = delete;
  // A session opened and never finished is flushed.
  ~SrkSession();

  // TCS_E_FAIL when the secret is unknown; the OIAP command's result otherwise.
  [[nodiscard]] TSS_RESULT Open();
  // The request trailer (after Open succeeded).
  [[nodiscard]] TSS_RESULT Authorize(TPM_COMMAND_CODE ordinal, std::span<const BYTE> hashedParams,
                                     TPM_AUTH* auth);
  void Finish(TSS_RESULT commandResult);

 private:
  bool open_ = false;
  TCS_AUTHHANDLE handle_ = 0;
  TPM_NONCE nonceEven_{};
};

// The TPM's SRK as a key structure without its private part: TPM_GetPubKey on the SRK authorised
// by the service (needs the secret), wrapped as a version 1.1 storage key that needs
// authorisation. A TPM that keeps the SRK's public part unreadable gives the SRK's fixed
// parameters with an empty modulus. The OIAP and GetPubKey results otherwise.
[[nodiscard]] TSS_RESULT ReadSrkKey(TPM_KEY* srk);

}  // namespace kesttcs
