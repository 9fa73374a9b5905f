// kesttcs-cli seal, unseal, sign and quote: data protected by and signed with TPM keys.
//
//   seal --key UUID|srk [--pcr N ...] IN OUT   OUT gets the TPM_STORED_DATA bytes of IN sealed to
//                                              the key (and to the PCRs' current values)
//   unseal --key UUID|srk IN OUT               OUT gets the data IN sealed
//   sign --key UUID IN SIG                     SIG gets the raw signature of SHA-1(IN) by a
//                                              TPM_SS_RSASSAPKCS1v15_SHA1 key
//   quote --key UUID --pcr N ... --nonce HEX [--out PREFIX]
//                                              the TPM_QUOTE_INFO the key signed over the PCRs;
//                                              with --out, PREFIX.quoteinfo, PREFIX.sig and
//                                              PREFIX.pem for `openssl dgst -sha1 -verify`
//
// A registered key is loaded by its UUID. Secrets never come from the command line: --key-secret
// and --data-secret name a file or '-' (typed at the terminal); without them the well-known
// secret. Seal authorises with an OSAP session on the key and sends the data secret by ADIP;
// unseal, sign and quote use OIAP sessions (none for a key that needs no authorisation). Every
// answer's HMAC is checked.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include <kesttcs/tcs_types.h>

#include "tools/cli_output.h"
#include "tools/tcs_connection.h"

namespace kesttcs::cli {

class DataCommands {
 public:
  // Adds seal, unseal, sign and quote to `app`, which must outlive this object.
  explicit DataCommands(CLI::App& app);

  bool parsed() const;
  // Checks the arguments, reads the input file and the secrets once they are parsed; the exit
  // status when one of them cannot be had.
  std::optional<int> CheckArguments(Output& out);
  std::optional<Failure> Run(TcsConnection& tcs, Output& out) const;

 private:
  struct Key {
    TCS_KEY_HANDLE handle = 0;
    bool needsAuth = true;
  };
  std::optional<Failure> LoadKey(TcsConnection& tcs, Key* key) const;
  std::optional<Failure> Seal(TcsConnection& tcs, Output& out) const;
  std::optional<Failure> Unseal(TcsConnection& tcs, Output& out) const;
  std::optional<Failure> ReadPubKey(TcsConnection& tcs, const Key& key,
                                    std::vector<BYTE>* pubKey) const;
  std::optional<Failure> Sign(TcsConnection& tcs, Output& out) const;
  std::optional<Failure> Quote(TcsConnection& tcs, Output& out) const;
  std::optional<Failure> WriteOutput(const std::string& path, const std::vector<BYTE>& bytes) const;

  CLI::App* seal_;
  CLI::App* unseal_;
  CLI::App* sign_;
  CLI::App* quote_;
  std::string keyText_;
  std::vector<std::string> pcrTexts_;
  std::string nonceText_;
  std::string inPath_;
  std::string outPath_;
  std::string keySecretSource_;
  std::string dataSecretSource_;
  // Set by CheckArguments.
  TSS_UUID uuid_{};
  std::vector<UINT32> pcrs_;
  TPM_NONCE nonce_{};
  std::vector<BYTE> input_;
  TPM_SECRET keySecret_{};
  TPM_SECRET dataSecret_{};
};

}  // namespace kesttcs::cli
