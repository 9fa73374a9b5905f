#include "tools/key_create_command.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <vector>

#include <nlohmann/json.hpp>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_capabilities.h>
#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>
#include <kesttcs/tpm_ordinals.h>

#include "tools/authorised_call.h"
#include "tools/cli_format.h"
#include "tools/key_format.h"
#include "tools/secret_input.h"
#include "tools/service_home.h"
#include "tools/written_file.h"

namespace kesttcs::cli {
namespace {

constexpr TCS_KEY_HANDLE kSrkHandle = 0x40000000;
// Where authDataUsage lies in a TPM_KEY: after version (4), keyUsage (2) and keyFlags (4).
constexpr size_t kAuthDataUsageOffset = 10;

// What the TPM is asked for, by the --usage name: keyUsage, encScheme, sigScheme.
struct KeyKind {
  UINT16 usage;
  UINT16 encScheme;
  UINT16 sigScheme;
};
constexpr UINT16 kEsNone = 1, kEsOaep = 3;       // TPM_ES_NONE, TPM_ES_RSAESOAEP_SHA1_MGF1
constexpr UINT16 kSsNone = 1, kSsPkcs1Sha1 = 2;  // TPM_SS_NONE, TPM_SS_RSASSAPKCS1v15_SHA1
const std::map<std::string, KeyKind> kKinds = {
    {"sign", {0x0010, kEsNone, kSsPkcs1Sha1}},
    {"storage", {0x0011, kEsOaep, kSsNone}},
    {"bind", {0x0014, kEsOaep, kSsNone}},
};

constexpr char kNoOwner[] =
    "the TPM has no owner, so it has no SRK to wrap keys with; take ownership first with "
    "`kesttcs-cli provision`";

void Append16(std::vector<BYTE>& out, UINT16 value) {
  BYTE b[2];
  KestAuth_PutUINT16(b, value);
  out.insert(out.end(), b, b + 2);
}

// The TPM_KEY asked of TPM_CreateWrapKey: version 1.1, not migratable, RSA with two primes and the
// default exponent, bound to no PCR; the TPM fills in the public key and the private part.
std::vector<BYTE> KeyInfo(const KeyKind& kind, UINT32 bits, bool needsAuth) {
  std::vector<BYTE> b = {1, 1, 0, 0};
  Append16(b, kind.usage);
  AppendUINT32(b, 0);  // keyFlags
  b.push_back(needsAuth ? 1 : 0);
  AppendUINT32(b, 1);  // TPM_ALG_RSA
  Append16(b, kind.encScheme);
  Append16(b, kind.sigScheme);
  AppendUINT32(b, 12);  // the RSA parameters that follow
  AppendUINT32(b, bits);
  AppendUINT32(b, 2);
  AppendUINT32(b, 0);
  AppendUINT32(b, 0);  // PCRInfoSize
  AppendUINT32(b, 0);  // pubKey
  AppendUINT32(b, 0);  // encData
  return b;
}

// The SRK secret the service is configured with when it is given as 40 hex digits; the
// well-known secret otherwise (also when the file cannot be read).
TPM_SECRET ConfiguredSrkSecret() {
  TPM_SECRET secret{};
  if (const std::optional<TPM_DIGEST> hex = ParseDigest(ServiceConfigValue("TPM", "srk_secret"))) {
    std::memcpy(secret.authdata, hex->digest, sizeof secret.authdata);
  } else {
    KestAuth_WellKnownSecret(&secret);
  }
  return secret;
}

const char* CreateFailureText(TSS_RESULT r) {
  if (r == TpmResult(TPM_AUTHFAIL)) {
    return "the parent key's secret is wrong (the TPM answered TPM_AUTHFAIL; after repeated "
           "wrong secrets it refuses authorisation for a while)";
  }
  if (r == TpmResult(TPM_DEFEND_LOCK_RUNNING)) {
    return "the TPM refuses authorisation for a while after repeated wrong secrets";
  }
  if (r == TpmResult(TPM_NOSRK)) return kNoOwner;
  if (r == TpmResult(TPM_INVALID_KEYUSAGE) || r == TpmResult(TPM_BAD_KEY_PROPERTY)) {
    return "the parent cannot wrap this key (the parent must be a storage key, and the TPM must "
           "support the size asked)";
  }
  return "the TPM did not create the key";
}

}  // namespace

KeyCreateCommand::KeyCreateCommand(CLI::App& app) {
  CLI::App* key = app.add_subcommand("key", "Make keys in the TPM");
  key->require_subcommand(1);
  key->fallthrough();
  create_ = key->add_subcommand(
      "create",
      "Create an RSA key wrapped by the SRK or a registered storage key and write its TPM_KEY blob "
      "to FILE (load it with Tcsip_LoadKey2ByBlob, or register it with `keys register`). The "
      "parent's secret: for the SRK the service's srk_secret when it is 40 hex digits, else the "
      "well-known secret; for a registered parent the well-known secret when the parent needs no "
      "authorisation, else typed at the terminal. The new key needs no authorisation unless "
      "--auth or --auth-secret gives it a secret");
  create_->add_option("--parent", parentText_, "srk, or the UUID of a registered storage key")
      ->required();
  create_->add_option("--usage", usageText_, "sign, storage or bind")
      ->required()
      ->check(CLI::IsMember({"sign", "storage", "bind"}));
  create_->add_option("--out", outFile_, "FILE for the key blob; must not exist unless --force")
      ->required();
  create_->add_option("--bits", bits_, "RSA modulus size: 512, 1024 or 2048 (storage keys 2048)")
      ->capture_default_str()
      ->check(CLI::IsMember({512, 1024, 2048}));
  create_->add_flag("--auth", auth_, "Give the key a usage secret, typed at the terminal");
  create_->add_option("--auth-secret", authSource_,
                      "FILE holding the pass phrase of the key's usage secret (implies --auth)");
  create_->add_option("--parent-secret", parentSource_,
                      "FILE or '-': the parent's secret as a pass phrase, instead of the default");
  create_->add_flag("--force", force_, "Replace FILE if it exists");
  create_->fallthrough();
}

bool KeyCreateCommand::parsed() const { return create_->parsed(); }

std::optional<int> KeyCreateCommand::CheckArguments(Output& out) {
  if (!parsed()) return std::nullopt;
  const std::optional<TSS_UUID> parent = ParseUuid(parentText_);
  if (!parent) return out.BadArgument("--parent must be srk or a UUID: " + parentText_);
  if (!SameUuid(*parent, kSrkUuid)) parentUuid_ = *parent;
  if (usageText_ == "storage" && bits_ != 2048) {
    return out.BadArgument("a storage key must have 2048 bits");
  }
  std::error_code ec;
  if (!force_ && std::filesystem::exists(outFile_, ec)) {
    return out.BadArgument(outFile_ + " exists; use --force to replace it");
  }
  if (auth_ || !authSource_.empty()) {
    std::string problem;
    const std::optional<TPM_SECRET> secret = ReadSecret(
        authSource_.empty() ? "-" : authSource_, "usage secret of the new key", true, &problem);
    if (!secret) return out.BadArgument(problem);
    usageSecret_ = *secret;
    auth_ = true;
  } else {
    KestAuth_WellKnownSecret(&usageSecret_);
  }
  return std::nullopt;
}

std::optional<Failure> KeyCreateCommand::ParentSecret(TcsConnection& tcs,
                                                      TPM_SECRET* secret) const {
  std::string source = parentSource_;
  if (source.empty() && !parentUuid_) {
    *secret = ConfiguredSrkSecret();
    return std::nullopt;
  }
  if (source.empty()) {
    std::vector<BYTE> blob;
    if (TSS_RESULT r = tcs.RegisteredKeyBlob(*parentUuid_, &blob); r != 0) {
      return Failure{"Tcsi_GetRegisteredKeyBlob", r, "cannot read the parent key's blob"};
    }
    const bool needsAuth = blob.size() <= kAuthDataUsageOffset || blob[kAuthDataUsageOffset] != 0;
    source = needsAuth ? "-" : "";
  }
  std::string problem;
  const std::optional<TPM_SECRET> read =
      ReadSecret(source, "secret of the parent key", false, &problem);
  if (!read) return Failure{"key create", TCS_E_BAD_PARAMETER, problem};
  *secret = *read;
  return std::nullopt;
}

std::optional<Failure> KeyCreateCommand::Run(TcsConnection& tcs, Output& out) const {
  UINT32 hasOwner = 0;
  if (TSS_RESULT r = tcs.TpmProperty(TPM_CAP_PROP_OWNER, &hasOwner); r != 0) {
    return Failure{"Tcsip_GetCapability", r};
  }
  if (hasOwner == 0) return Failure{"key create", TpmResult(TPM_NOSRK), kNoOwner};
  TCS_KEY_HANDLE parent = kSrkHandle;
  if (parentUuid_) {
    const TSS_RESULT r = Tcsip_LoadKeyByUUID(tcs.context(), *parentUuid_, nullptr, &parent);
    if (r == TCS_E_KEY_NOT_REGISTERED) {
      return Failure{"Tcsip_LoadKeyByUUID", r,
                     "no key is registered as " + UuidText(*parentUuid_) +
                         " (`kesttcs-cli keys list` shows the registered keys)"};
    }
    if (r != 0) return Failure{"Tcsip_LoadKeyByUUID", r, "the parent key cannot be loaded"};
  }
  TPM_SECRET parentSecret{};
  if (auto f = ParentSecret(tcs, &parentSecret)) return f;

  // The new key's usage secret by ADIP on the even nonce, its migration secret (the same: the key
  // is not migratable) on the odd one.
  KESTTCS_AUTH_SESSION session{};
  if (TSS_RESULT r =
          KestAuth_OpenOSAP(tcs.context(), KESTTCS_ET_KEYHANDLE, parent, &parentSecret, &session);
      r != 0) {
    return Failure{"Tcsip_OSAP", r, "cannot open an authorisation session on the parent key"};
  }
  TPM_ENCAUTH usage{}, migration{};
  std::vector<BYTE> keyInfo = KeyInfo(kKinds.at(usageText_), bits_, auth_);
  TPM_AUTH auth{};
  TSS_RESULT r = KestAuth_EncAuth(&session, &usageSecret_, KESTTCS_ADIP_EVEN, &usage);
  if (r == 0) r = KestAuth_NewNonceOdd(&session);
  if (r == 0) r = KestAuth_EncAuth(&session, &usageSecret_, KESTTCS_ADIP_ODD, &migration);
  std::vector<BYTE> digest(usage.authdata, usage.authdata + sizeof usage.authdata);
  digest.insert(digest.end(), migration.authdata, migration.authdata + sizeof migration.authdata);
  digest.insert(digest.end(), keyInfo.begin(), keyInfo.end());
  if (r == 0) {
    r = KestAuth_Authorize(&session, TPM_ORD_CreateWrapKey, digest.data(),
                           static_cast<UINT32>(digest.size()), 0, &auth);
  }
  if (r != 0) {
    static_cast<void>(KestAuth_Close(tcs.context(), &session));
    return Failure{"KestAuth_Authorize", r};
  }
  UINT32 size = 0;
  BYTE* data = nullptr;
  r = Tcsip_CreateWrapKey(tcs.context(), parent, usage, migration,
                          static_cast<UINT32>(keyInfo.size()), keyInfo.data(), &auth, &size, &data);
  if (r != 0) return Failure{"Tcsip_CreateWrapKey", r, CreateFailureText(r)};
  const std::vector<BYTE> blob(data, data + size);
  Tcs_FreeBuffer(data);
  if (TSS_RESULT v = KestAuth_Verify(&session, TPM_ORD_CreateWrapKey, blob.data(),
                                     static_cast<UINT32>(blob.size()), &auth);
      v != 0) {
    return Failure{"KestAuth_Verify", v,
                   "the TPM's answer does not carry the parent secret's proof: the key is not "
                   "written"};
  }
  if (std::string problem = WriteAtomically(outFile_, blob, force_); !problem.empty()) {
    return Failure{"key create", TCS_E_FAIL, problem};
  }
  const std::string parentName = parentUuid_ ? UuidText(*parentUuid_) : "srk";
  nlohmann::ordered_json& o = out.object();
  o["file"] = outFile_;
  o["parent"] = parentName;
  o["usage"] = KeyUsageName(blob);
  o["bits"] = bits_;
  o["auth"] = auth_;
  o["blob_bytes"] = blob.size();
  if (!out.json()) {
    std::printf("Created a %u-bit %s key under %s (%s); its %zu-byte key blob is in %s\n", bits_,
                KeyUsageName(blob).c_str(), parentUuid_ ? parentName.c_str() : "the SRK",
                auth_ ? "with a usage secret" : "no usage secret", blob.size(), outFile_.c_str());
  }
  return std::nullopt;
}

}  // namespace kesttcs::cli
