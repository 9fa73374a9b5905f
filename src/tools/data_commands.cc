#include "tools/data_commands.h"

#include <cstdio>
#include <fstream>

#include <nlohmann/json.hpp>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>
#include <kesttcs/tpm_ordinals.h>

#include "tools/cli_format.h"
#include "tools/key_format.h"
#include "tools/secret_input.h"
#include "tools/tpm_pubkey_pem.h"

namespace kesttcs::cli {

namespace {

using Bytes = std::vector<BYTE>;

// The PCRs a TPM 1.2 has, and so the three bytes of a TPM_PCR_SELECTION.
constexpr UINT32 kPcrCount = 24;
constexpr TCS_KEY_HANDLE kSrkHandle = 0x40000000;
constexpr BYTE kSelectBytes = kPcrCount / 8;
constexpr size_t kAuthDataUsageOffset = 10;  // in a TPM_KEY or TPM_KEY12
constexpr size_t kSigSchemeOffset = 6;       // in a TPM_PUBKEY
constexpr UINT32 kSchemeRsaPkcs1Sha1 = 2;    // TPM_SS_RSASSAPKCS1v15_SHA1

void PutAll(Bytes& out, std::span<const BYTE> more) {
  out.insert(out.end(), more.begin(), more.end());
}
void Put32(Bytes& out, UINT32 v) {
  BYTE b[4];
  KestAuth_PutUINT32(b, v);
  PutAll(out, b);
}
Bytes Sha1(std::span<const BYTE> in) {
  TPM_DIGEST digest{};
  if (KestAuth_Sha1(in.data(), static_cast<UINT32>(in.size()), &digest) != 0) return {};
  return Bytes(std::begin(digest.digest), std::end(digest.digest));
}
// Copies a buffer the client library handed out, and frees it.
Bytes Own(BYTE* block, UINT32 size) {
  Bytes out(block, block + (block != nullptr ? size : 0));
  Tcs_FreeBuffer(block);
  return out;
}

Bytes Selection(const std::vector<UINT32>& pcrs) {
  Bytes s = {0, kSelectBytes, 0, 0, 0};
  for (UINT32 p : pcrs) s[2 + p / 8] |= BYTE(1u << (p % 8));
  return s;
}

// What the TPM's refusal means for the user, for the codes a caller can do something about.
std::string Explain(TSS_RESULT r) {
  if (r == TpmResult(TPM_WRONGPCRVAL)) {
    return "the data is sealed to PCR values that differ from the PCRs' current values "
           "(TPM_WRONGPCRVAL): a PCR it is bound to has changed since it was sealed";
  }
  if (r == TpmResult(TPM_AUTHFAIL)) return "the key secret is wrong";
  if (r == TpmResult(TPM_AUTH2FAIL)) return "the data secret is wrong";
  if (r == TpmResult(TPM_INVALID_KEYUSAGE) || r == TpmResult(TPM_INAPPROPRIATE_ENC)) {
    return "the key cannot be used for this";
  }
  if (r == TpmResult(TPM_DECRYPT_ERROR) || r == TpmResult(TPM_BAD_DATASIZE)) {
    return "the input is not data sealed to this key";
  }
  if (r == TCS_E_INVALID_KEY) return "the key cannot be loaded";
  if (r == TCS_E_KEY_NOT_REGISTERED) return "no key is registered under this UUID";
  return {};
}

Failure Refused(const std::string& operation, TSS_RESULT r) {
  return Failure{operation, r, Explain(r)};
}

// One OIAP session with `secret` for one command: authorised, then its answer checked.
class OneCommandSession {
 public:
  OneCommandSession(TCS_CONTEXT_HANDLE h) : h_(h) {}
  ~OneCommandSession() { static_cast<void>(KestAuth_Close(h_, &s_)); }
  OneCommandSession(const OneCommandSession&) = delete;
  OneCommandSession& operator=(const OneCommandSession&) = delete;

  std::optional<Failure> OpenOiap(const TPM_SECRET& secret) {
    if (TSS_RESULT r = KestAuth_OpenOIAP(h_, &secret, &s_)) return Failure{"Tcsip_OIAP", r};
    return std::nullopt;
  }
  std::optional<Failure> OpenOsap(TCS_KEY_HANDLE key, const TPM_SECRET& secret) {
    if (TSS_RESULT r = KestAuth_OpenOSAP(h_, KESTTCS_ET_KEYHANDLE, key, &secret, &s_)) {
      return Failure{"Tcsip_OSAP", r};
    }
    return std::nullopt;
  }
  std::optional<Failure> EncAuth(const TPM_SECRET& secret, TPM_ENCAUTH* encAuth) {
    if (TSS_RESULT r = KestAuth_EncAuth(&s_, &secret, KESTTCS_ADIP_EVEN, encAuth)) {
      return Failure{"KestAuth_EncAuth", r};
    }
    return std::nullopt;
  }
  std::optional<Failure> Authorize(UINT32 ordinal, const Bytes& in) {
    if (TSS_RESULT r = KestAuth_Authorize(&s_, ordinal, in.data(), UINT32(in.size()), 0, &auth_)) {
      return Failure{"KestAuth_Authorize", r};
    }
    return std::nullopt;
  }
  std::optional<Failure> Verify(UINT32 ordinal, const Bytes& out) {
    if (TSS_RESULT r = KestAuth_Verify(&s_, ordinal, out.data(), UINT32(out.size()), &auth_)) {
      return Failure{"KestAuth_Verify", r,
                     "the TPM's answer does not carry the secret's proof: it is not trusted"};
    }
    return std::nullopt;
  }
  TPM_AUTH* auth() { return &auth_; }

 private:
  TCS_CONTEXT_HANDLE h_;
  KESTTCS_AUTH_SESSION s_{};
  TPM_AUTH auth_{};
};

}  // namespace

DataCommands::DataCommands(CLI::App& app) {
  seal_ = app.add_subcommand("seal", "Seal the file IN to a TPM storage key (and PCR values)");
  unseal_ = app.add_subcommand("unseal", "Unseal the file IN that seal wrote");
  sign_ = app.add_subcommand("sign", "Sign the SHA-1 of the file IN with a TPM signing key");
  quote_ = app.add_subcommand("quote", "PCR values signed by a TPM key, for a verifier");
  for (CLI::App* sub : {seal_, unseal_, sign_, quote_}) {
    sub->fallthrough();
    sub->add_option("--key", keyText_, "The key: a registered key's UUID, or srk")->required();
    sub->add_option("--key-secret", keySecretSource_,
                    "FILE or '-': the key's secret (default: well-known)");
  }
  for (CLI::App* sub : {seal_, unseal_}) {
    sub->add_option("--data-secret", dataSecretSource_,
                    "FILE or '-': the sealed data's secret (default: well-known)");
  }
  seal_->add_option("--pcr", pcrTexts_, "Bind to PCR N's current value (repeatable)");
  quote_->add_option("--pcr", pcrTexts_, "Quote PCR N (repeatable)")->required();
  quote_->add_option("--nonce", nonceText_, "The verifier's nonce, 40 hex digits")->required();
  quote_->add_option("--out", outPath_,
                     "Write PREFIX.quoteinfo, PREFIX.sig and PREFIX.pem for openssl");
  for (CLI::App* sub : {seal_, unseal_, sign_}) {
    sub->add_option("IN", inPath_, "Input file")->required();
  }
  seal_->add_option("OUT", outPath_, "Where the sealed data goes")->required();
  unseal_->add_option("OUT", outPath_, "Where the unsealed data goes")->required();
  sign_->add_option("SIG", outPath_, "Where the raw signature goes")->required();
}

bool DataCommands::parsed() const {
  return seal_->parsed() || unseal_->parsed() || sign_->parsed() || quote_->parsed();
}

std::optional<int> DataCommands::CheckArguments(Output& out) {
  if (!parsed()) return std::nullopt;
  const std::optional<TSS_UUID> uuid = ParseUuid(keyText_);
  if (!uuid) return out.BadArgument("--key must be a UUID or srk");
  uuid_ = *uuid;
  for (const std::string& text : pcrTexts_) {
    const std::optional<UINT32> pcr = ParseNumber(text, 0, kPcrCount - 1);
    if (!pcr) return out.BadArgument("--pcr must be a PCR number from 0 to 23");
    pcrs_.push_back(*pcr);
  }
  if (quote_->parsed()) {
    const std::optional<TPM_DIGEST> nonce = ParseDigest(nonceText_);
    if (!nonce) return out.BadArgument("--nonce must be 40 hex digits");
    static_assert(sizeof nonce->digest == sizeof nonce_.nonce);
    std::copy(std::begin(nonce->digest), std::end(nonce->digest), nonce_.nonce);
  } else {
    std::optional<Bytes> input = ReadWholeFile(inPath_);
    if (!input) return out.BadArgument("cannot read " + inPath_);
    input_ = std::move(*input);
  }
  std::string problem;
  std::optional<TPM_SECRET> key = ReadSecret(keySecretSource_, "key secret", false, &problem);
  if (!key) return out.BadArgument(problem);
  keySecret_ = *key;
  if (seal_->parsed() || unseal_->parsed()) {
    std::optional<TPM_SECRET> data =
        ReadSecret(dataSecretSource_, "data secret", seal_->parsed(), &problem);
    if (!data) return out.BadArgument(problem);
    dataSecret_ = *data;
  }
  return std::nullopt;
}

std::optional<Failure> DataCommands::Run(TcsConnection& tcs, Output& out) const {
  if (seal_->parsed()) return Seal(tcs, out);
  if (unseal_->parsed()) return Unseal(tcs, out);
  if (sign_->parsed()) return Sign(tcs, out);
  return Quote(tcs, out);
}

std::optional<Failure> DataCommands::LoadKey(TcsConnection& tcs, Key* key) const {
  // The service keeps the SRK resident under its handle; it always needs its secret.
  key->needsAuth = true;
  if (SameUuid(uuid_, kSrkUuid)) {
    key->handle = kSrkHandle;
    return std::nullopt;
  }
  if (TSS_RESULT r = Tcsip_LoadKeyByUUID(tcs.context(), uuid_, nullptr, &key->handle)) {
    return Refused("Tcsip_LoadKeyByUUID", r);
  }
  // Another key needs a session unless its blob says it never does.
  Bytes blob;
  if (TSS_RESULT r = tcs.RegisteredKeyBlob(uuid_, &blob)) {
    return Refused("Tcsi_GetRegisteredKeyBlob", r);
  }
  key->needsAuth = blob.size() <= kAuthDataUsageOffset || blob[kAuthDataUsageOffset] != 0;
  return std::nullopt;
}

std::optional<Failure> DataCommands::WriteOutput(const std::string& path,
                                                 const Bytes& bytes) const {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
  file.close();
  if (!file) return Failure{"writing " + path, TCS_E_FAIL, "the output file cannot be written"};
  return std::nullopt;
}

std::optional<Failure> DataCommands::Seal(TcsConnection& tcs, Output& out) const {
  Key key;
  if (auto f = LoadKey(tcs, &key)) return f;
  // TPM_PCR_INFO: the selection, digestAtRelease (the composite of the PCRs' values now), and
  // digestAtCreation, which the TPM fills in.
  Bytes pcrInfo;
  if (!pcrs_.empty()) {
    const Bytes selection = Selection(pcrs_);
    Bytes composite = selection;
    Put32(composite, UINT32(pcrs_.size() * sizeof(TPM_DIGEST)));
    for (UINT32 pcr = 0; pcr < kPcrCount; ++pcr) {
      if (!(selection[2 + pcr / 8] & (1u << (pcr % 8)))) continue;
      TPM_DIGEST value{};
      if (TSS_RESULT r = tcs.PcrRead(pcr, &value)) return Failure{"Tcsip_PcrRead", r};
      PutAll(composite, value.digest);
    }
    pcrInfo = selection;
    PutAll(pcrInfo, Sha1(composite));
    pcrInfo.resize(pcrInfo.size() + sizeof(TPM_DIGEST));
  }
  OneCommandSession session(tcs.context());
  if (auto f = session.OpenOsap(key.handle, keySecret_)) return f;
  TPM_ENCAUTH encAuth{};
  if (auto f = session.EncAuth(dataSecret_, &encAuth)) return f;
  Bytes in(encAuth.authdata, encAuth.authdata + sizeof encAuth.authdata);
  Put32(in, UINT32(pcrInfo.size()));
  PutAll(in, pcrInfo);
  Put32(in, UINT32(input_.size()));
  PutAll(in, input_);
  if (auto f = session.Authorize(TPM_ORD_Seal, in)) return f;
  UINT32 size = 0;
  BYTE* sealed = nullptr;
  if (TSS_RESULT r = Tcsip_Seal(tcs.context(), key.handle, encAuth, UINT32(pcrInfo.size()),
                                pcrInfo.data(), UINT32(input_.size()),
                                const_cast<BYTE*>(input_.data()), session.auth(), &size, &sealed)) {
    return Refused("Tcsip_Seal", r);
  }
  const Bytes blob = Own(sealed, size);
  if (auto f = session.Verify(TPM_ORD_Seal, blob)) return f;
  if (auto f = WriteOutput(outPath_, blob)) return f;
  nlohmann::ordered_json& o = out.object();
  o["sealed_bytes"] = blob.size();
  o["pcrs"] = pcrs_;
  o["file"] = outPath_;
  if (!out.json()) {
    std::printf("Sealed %zu bytes into %s (%zu bytes)%s\n", input_.size(), outPath_.c_str(),
                blob.size(), pcrs_.empty() ? "" : ", bound to the PCRs' current values");
  }
  return std::nullopt;
}

std::optional<Failure> DataCommands::Unseal(TcsConnection& tcs, Output& out) const {
  Key key;
  if (auto f = LoadKey(tcs, &key)) return f;
  OneCommandSession keySession(tcs.context()), dataSession(tcs.context());
  if (key.needsAuth) {
    if (auto f = keySession.OpenOiap(keySecret_)) return f;
    if (auto f = keySession.Authorize(TPM_ORD_Unseal, input_)) return f;
  }
  if (auto f = dataSession.OpenOiap(dataSecret_)) return f;
  if (auto f = dataSession.Authorize(TPM_ORD_Unseal, input_)) return f;
  UINT32 size = 0;
  BYTE* data = nullptr;
  if (TSS_RESULT r = Tcsip_UnSeal(
          tcs.context(), key.handle, UINT32(input_.size()), const_cast<BYTE*>(input_.data()),
          key.needsAuth ? keySession.auth() : nullptr, dataSession.auth(), &size, &data)) {
    if (r == TCS_E_BAD_PARAMETER) {
      return Failure{"Tcsip_UnSeal", r, "the input is not sealed data (TPM_STORED_DATA)"};
    }
    return Refused("Tcsip_UnSeal", r);
  }
  const Bytes secret = Own(data, size);
  Bytes outParams;
  Put32(outParams, UINT32(secret.size()));
  PutAll(outParams, secret);
  if (key.needsAuth) {
    if (auto f = keySession.Verify(TPM_ORD_Unseal, outParams)) return f;
  }
  if (auto f = dataSession.Verify(TPM_ORD_Unseal, outParams)) return f;
  if (auto f = WriteOutput(outPath_, secret)) return f;
  out.object()["unsealed_bytes"] = secret.size();
  out.object()["file"] = outPath_;
  if (!out.json()) std::printf("Unsealed %zu bytes into %s\n", secret.size(), outPath_.c_str());
  return std::nullopt;
}

// A key with a usage secret shows its public part only to a command authorised with that secret.
std::optional<Failure> DataCommands::ReadPubKey(TcsConnection& tcs, const Key& key,
                                                Bytes* pubKey) const {
  OneCommandSession session(tcs.context());
  if (key.needsAuth) {
    if (auto f = session.OpenOiap(keySecret_)) return f;
    if (auto f = session.Authorize(TPM_ORD_GetPubKey, {})) return f;
  }
  UINT32 size = 0;
  BYTE* pub = nullptr;
  if (TSS_RESULT r = Tcsip_GetPubKey(tcs.context(), key.handle,
                                     key.needsAuth ? session.auth() : nullptr, &size, &pub)) {
    return Refused("Tcsip_GetPubKey", r);
  }
  *pubKey = Own(pub, size);
  if (key.needsAuth) return session.Verify(TPM_ORD_GetPubKey, *pubKey);
  return std::nullopt;
}

std::optional<Failure> DataCommands::Sign(TcsConnection& tcs, Output& out) const {
  Key key;
  if (auto f = LoadKey(tcs, &key)) return f;
  Bytes pubKey;
  if (auto f = ReadPubKey(tcs, key, &pubKey)) return f;
  if (pubKey.size() < kSigSchemeOffset + 2 ||
      (UINT32(pubKey[kSigSchemeOffset]) << 8 | pubKey[kSigSchemeOffset + 1]) !=
          kSchemeRsaPkcs1Sha1) {
    return Failure{"Tcsip_GetPubKey", TCS_E_BAD_PARAMETER,
                   "the key does not sign with TPM_SS_RSASSAPKCS1v15_SHA1"};
  }
  Bytes digest = Sha1(input_);
  OneCommandSession session(tcs.context());
  Bytes in;
  Put32(in, UINT32(digest.size()));
  PutAll(in, digest);
  if (key.needsAuth) {
    if (auto f = session.OpenOiap(keySecret_)) return f;
    if (auto f = session.Authorize(TPM_ORD_Sign, in)) return f;
  }
  UINT32 size = 0;
  BYTE* sig = nullptr;
  if (TSS_RESULT r = Tcsip_Sign(tcs.context(), key.handle, UINT32(digest.size()), digest.data(),
                                key.needsAuth ? session.auth() : nullptr, &size, &sig)) {
    return Refused("Tcsip_Sign", r);
  }
  const Bytes signature = Own(sig, size);
  if (key.needsAuth) {
    Bytes outParams;
    Put32(outParams, UINT32(signature.size()));
    PutAll(outParams, signature);
    if (auto f = session.Verify(TPM_ORD_Sign, outParams)) return f;
  }
  if (auto f = WriteOutput(outPath_, signature)) return f;
  out.object()["sha1"] = HexString(digest);
  out.object()["signature_bytes"] = signature.size();
  out.object()["file"] = outPath_;
  if (!out.json()) {
    std::printf("SHA-1 %s signed: %zu bytes into %s\n", HexString(digest).c_str(), signature.size(),
                outPath_.c_str());
  }
  return std::nullopt;
}

std::optional<Failure> DataCommands::Quote(TcsConnection& tcs, Output& out) const {
  Key key;
  if (auto f = LoadKey(tcs, &key)) return f;
  const Bytes selection = Selection(pcrs_);
  OneCommandSession session(tcs.context());
  Bytes in(nonce_.nonce, nonce_.nonce + sizeof nonce_.nonce);
  PutAll(in, selection);
  if (key.needsAuth) {
    if (auto f = session.OpenOiap(keySecret_)) return f;
    if (auto f = session.Authorize(TPM_ORD_Quote, in)) return f;
  }
  UINT32 compositeSize = 0, sigSize = 0;
  BYTE *compositeBlock = nullptr, *sig = nullptr;
  if (TSS_RESULT r =
          Tcsip_Quote(tcs.context(), key.handle, nonce_, UINT32(selection.size()),
                      const_cast<BYTE*>(selection.data()), key.needsAuth ? session.auth() : nullptr,
                      &compositeSize, &compositeBlock, &sigSize, &sig)) {
    return Refused("Tcsip_Quote", r);
  }
  const Bytes composite = Own(compositeBlock, compositeSize);
  const Bytes signature = Own(sig, sigSize);
  if (key.needsAuth) {
    Bytes outParams = composite;
    Put32(outParams, UINT32(signature.size()));
    PutAll(outParams, signature);
    if (auto f = session.Verify(TPM_ORD_Quote, outParams)) return f;
  }
  Bytes pubKey;
  if (auto f = ReadPubKey(tcs, key, &pubKey)) return f;
  const std::optional<std::string> pem = PubKeyPem(pubKey);
  if (!pem) {
    return Failure{"Tcsip_GetPubKey", TCS_E_BAD_PARAMETER, "the key is no RSA key"};
  }
  // TPM_QUOTE_INFO: version 1.1.0.0, "QUOT", the composite's SHA-1, the nonce.
  Bytes quoteInfo = {1, 1, 0, 0, 'Q', 'U', 'O', 'T'};
  PutAll(quoteInfo, Sha1(composite));
  PutAll(quoteInfo, nonce_.nonce);
  if (!outPath_.empty()) {
    if (auto f = WriteOutput(outPath_ + ".quoteinfo", quoteInfo)) return f;
    if (auto f = WriteOutput(outPath_ + ".sig", signature)) return f;
    if (auto f = WriteOutput(outPath_ + ".pem", Bytes(pem->begin(), pem->end()))) return f;
  }
  // The PCR values as the composite carries them, in index order.
  nlohmann::ordered_json pcrs = nlohmann::ordered_json::object();
  size_t at = selection.size() + 4;
  for (UINT32 pcr = 0; pcr < kPcrCount; ++pcr) {
    if (!(selection[2 + pcr / 8] & (1u << (pcr % 8)))) continue;
    if (at + sizeof(TPM_DIGEST) > composite.size()) break;
    pcrs[std::to_string(pcr)] =
        HexString(std::span<const BYTE>(composite).subspan(at, sizeof(TPM_DIGEST)));
    at += sizeof(TPM_DIGEST);
  }
  nlohmann::ordered_json& o = out.object();
  o["pcrs"] = pcrs;
  o["nonce"] = HexString(nonce_.nonce);
  o["quote_info"] = HexString(quoteInfo);
  o["signature"] = HexString(signature);
  o["public_key"] = *pem;
  if (!out.json()) {
    for (const auto& [index, value] : pcrs.items()) {
      std::printf("PCR %2s: %s\n", index.c_str(), value.get<std::string>().c_str());
    }
    std::printf("TPM_QUOTE_INFO: %s\nSignature:      %s\n%s", HexString(quoteInfo).c_str(),
                HexString(signature).c_str(), pem->c_str());
    if (!outPath_.empty()) {
      std::printf("Verify with: openssl dgst -sha1 -verify %s.pem -signature %s.sig %s.quoteinfo\n",
                  outPath_.c_str(), outPath_.c_str(), outPath_.c_str());
    }
  }
  return std::nullopt;
}

}  // namespace kesttcs::cli
