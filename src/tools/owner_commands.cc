#include "tools/owner_commands.h"

#include <cstdio>
#include <map>
#include <vector>

#include <nlohmann/json.hpp>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_capabilities.h>
#include <kesttcs/tcs_results.h>
#include <kesttcs/tcs_service_state.h>
#include <kesttcs/tpm_ordinals.h>

#include "tools/authorised_call.h"
#include "tools/cli_format.h"
#include "tools/key_format.h"
#include "tools/secret_input.h"

namespace kesttcs::cli {
namespace {

using nlohmann::ordered_json;

// The SRK the TPM is asked to make: a 2048-bit RSA storage key (OAEP, no signatures) that needs
// authorisation, bound to no PCR. The TPM fills in the public key.
const std::vector<BYTE> kSrkParams = {
    0x01, 0x01, 0x00, 0x00,  // version 1.1
    0x00, 0x11,              // storage key
    0x00, 0x00, 0x00, 0x00,  // no flags
    0x01,                    // authorisation always
    0x00, 0x00, 0x00, 0x01,  // RSA
    0x00, 0x03,              // OAEP with SHA-1 and MGF1
    0x00, 0x01,              // no signature scheme
    0x00, 0x00, 0x00, 0x0C,  // RSA parameters: 12 bytes
    0x00, 0x00, 0x08, 0x00,  //   2048 bits
    0x00, 0x00, 0x00, 0x02,  //   two primes
    0x00, 0x00, 0x00, 0x00,  //   the default exponent
    0x00, 0x00, 0x00, 0x00,  // no PCR binding
    0x00, 0x00, 0x00, 0x00,  // public key: filled in by the TPM
    0x00, 0x00, 0x00, 0x00,  // private part: filled in by the TPM
};

constexpr char kOwnerSet[] =
    "the TPM already has an owner; clear it first with `kesttcs-cli owner clear` (with the owner "
    "secret) or through the firmware's TPM menu";

constexpr char kNotEnabled[] =
    "the TPM is disabled or deactivated (as it is after its owner was cleared); enable and "
    "activate it with physical presence, e.g. in the firmware's TPM menu, then provision again";

// A secret encrypted for TPM_TakeOwnership under the endorsement key.
std::optional<Failure> EncryptSecret(const std::vector<BYTE>& pubek, const TPM_SECRET& secret,
                                     std::vector<BYTE>* out) {
  out->resize(512);
  UINT32 size = static_cast<UINT32>(out->size());
  if (TSS_RESULT r = KestAuth_EncryptForOwnership(pubek.data(), static_cast<UINT32>(pubek.size()),
                                                  &secret, out->data(), &size);
      r != 0) {
    return Failure{"KestAuth_EncryptForOwnership", r,
                   "cannot encrypt the secrets under the TPM's endorsement key"};
  }
  out->resize(size);
  return std::nullopt;
}

std::string Sha1Hex(std::span<const BYTE> bytes) {
  TPM_DIGEST digest{};
  if (KestAuth_Sha1(bytes.data(), static_cast<UINT32>(bytes.size()), &digest) != 0) return {};
  return HexString(digest.digest);
}

// The SRK's public modulus as the report shows it: its size and its SHA-1.
ordered_json SrkReport(const std::vector<BYTE>& srk) {
  ordered_json report = {{"usage", KeyUsageName(srk)}, {"blob_bytes", srk.size()}};
  if (std::optional<std::span<const BYTE>> modulus = KeyModulus(srk)) {
    report["modulus_bits"] = modulus->size() * 8;
    report["modulus_sha1"] = Sha1Hex(*modulus);
  }
  return report;
}

std::optional<Failure> Sessions(Output& out) {
  KESTTCS_SESSION_TABLE table{};
  if (TSS_RESULT r = KestTcs_GetSessionTable(&table); r != 0) {
    return Failure{"KestTcs_GetSessionTable", r,
                   "the service does not report its sessions (an older service?)"};
  }
  std::map<TCS_CONTEXT_HANDLE, std::vector<TCS_AUTHHANDLE>> byContext;
  for (UINT32 i = 0; i < table.count; ++i) {
    byContext[table.sessions[i].hContext].push_back(table.sessions[i].authHandle);
  }
  ordered_json contexts = ordered_json::array();
  for (const auto& [hContext, handles] : byContext) {
    ordered_json list = ordered_json::array();
    for (TCS_AUTHHANDLE h : handles) list.push_back(CodeText(h));
    contexts.push_back(
        {{"context", CodeText(hContext)}, {"sessions", handles.size()}, {"handles", list}});
  }
  ordered_json& o = out.object();
  o["max_sessions"] = table.maxSessions;
  o["used"] = table.count;
  o["contexts"] = contexts;
  if (!out.json()) {
    std::printf("%u of %u TPM sessions held for %zu contexts\n", table.count, table.maxSessions,
                byContext.size());
    for (const ordered_json& c : contexts) {
      std::string handles;
      for (const ordered_json& h : c["handles"]) handles += " " + h.get<std::string>();
      std::printf("  context %s: %zu%s\n", c["context"].get<std::string>().c_str(),
                  c["sessions"].get<size_t>(), handles.c_str());
    }
  }
  return std::nullopt;
}

}  // namespace

OwnerCommands::OwnerCommands(CLI::App& app) {
  provision_ = app.add_subcommand(
      "provision",
      "Take ownership of the TPM and make its SRK. Secrets are the SHA-1 of a pass phrase read "
      "from FILE, or typed at the terminal with '-'; without the option, the well-known secret");
  provision_->add_option("--owner-secret", ownerSource_, "FILE or '-': the new owner secret");
  provision_->add_option("--srk-secret", srkSource_, "FILE or '-': the new SRK secret");
  CLI::App* owner = app.add_subcommand("owner", "The TPM's owner");
  owner->require_subcommand(1);
  owner->fallthrough();
  ownerClear_ = owner->add_subcommand(
      "clear", "Clear the TPM's owner (and with it the SRK and every key registered under it)");
  ownerClear_->add_option("--owner-secret", ownerSource_, "FILE or '-': the owner secret");
  sessions_ = app.add_subcommand("sessions", "The service's authorisation sessions, per context");
  for (CLI::App* sub : {provision_, ownerClear_, sessions_}) sub->fallthrough();
}

bool OwnerCommands::parsed() const {
  return provision_->parsed() || ownerClear_->parsed() || sessions_->parsed();
}

std::optional<int> OwnerCommands::CheckArguments(Output& out) {
  if (!provision_->parsed() && !ownerClear_->parsed()) return std::nullopt;
  std::string problem;
  std::optional<TPM_SECRET> owner =
      ReadSecret(ownerSource_, "owner secret", provision_->parsed(), &problem);
  if (!owner) return out.BadArgument(problem);
  owner_ = *owner;
  if (provision_->parsed()) {
    std::optional<TPM_SECRET> srk = ReadSecret(srkSource_, "SRK secret", true, &problem);
    if (!srk) return out.BadArgument(problem);
    srk_ = *srk;
    srkWellKnown_ = srkSource_.empty();
  }
  return std::nullopt;
}

std::optional<Failure> OwnerCommands::Run(TcsConnection& tcs, Output& out) const {
  if (provision_->parsed()) return Provision(tcs, out);
  if (ownerClear_->parsed()) return ClearOwner(tcs, out);
  return Sessions(out);
}

std::optional<Failure> OwnerCommands::Provision(TcsConnection& tcs, Output& out) const {
  UINT32 hasOwner = 0;
  if (TSS_RESULT r = tcs.TpmProperty(TPM_CAP_PROP_OWNER, &hasOwner); r != 0) {
    return Failure{"Tcsip_GetCapability", r};
  }
  if (hasOwner != 0) return Failure{"provision", TpmResult(TPM_OWNER_SET), kOwnerSet};
  std::vector<BYTE> pubek, encOwner, encSrk;
  if (TSS_RESULT r = tcs.ReadPubek(&pubek); r != 0) {
    return Failure{"Tcsip_ReadPubek", r,
                   r == TpmResult(TPM_DISABLED) || r == TpmResult(TPM_DEACTIVATED)
                       ? kNotEnabled
                       : "the TPM does not give out its endorsement key (it has none, or reading "
                         "it was disabled)"};
  }
  if (auto f = EncryptSecret(pubek, owner_, &encOwner)) return f;
  if (auto f = EncryptSecret(pubek, srk_, &encSrk)) return f;

  // The input digest: protocol id, both encrypted secrets with their sizes, the SRK's parameters.
  std::vector<BYTE> digestIn = {0x00, static_cast<BYTE>(KESTTCS_PID_OWNER)};
  AppendUINT32(digestIn, static_cast<UINT32>(encOwner.size()));
  digestIn.insert(digestIn.end(), encOwner.begin(), encOwner.end());
  AppendUINT32(digestIn, static_cast<UINT32>(encSrk.size()));
  digestIn.insert(digestIn.end(), encSrk.begin(), encSrk.end());
  digestIn.insert(digestIn.end(), kSrkParams.begin(), kSrkParams.end());

  KESTTCS_AUTH_SESSION session{};
  TPM_AUTH auth{};
  if (TSS_RESULT r = KestAuth_OpenOIAP(tcs.context(), &owner_, &session); r != 0) {
    return Failure{"Tcsip_OIAP", r};
  }
  if (TSS_RESULT r = KestAuth_Authorize(&session, TPM_ORD_TakeOwnership, digestIn.data(),
                                        static_cast<UINT32>(digestIn.size()), 0, &auth);
      r != 0) {
    static_cast<void>(KestAuth_Close(tcs.context(), &session));
    return Failure{"KestAuth_Authorize", r};
  }
  std::vector<BYTE> srk;
  if (TSS_RESULT r = tcs.TakeOwnership(encOwner, encSrk, kSrkParams, &auth, &srk); r != 0) {
    return Failure{"Tcsip_TakeOwnership", r,
                   r == TpmResult(TPM_OWNER_SET)  ? kOwnerSet
                   : r == TpmResult(TPM_DISABLED) ? kNotEnabled
                                                  : "the TPM refused to take an owner"};
  }
  if (TSS_RESULT r = KestAuth_Verify(&session, TPM_ORD_TakeOwnership, srk.data(),
                                     static_cast<UINT32>(srk.size()), &auth);
      r != 0) {
    return Failure{"KestAuth_Verify", r,
                   "the TPM took an owner, but its answer does not carry the owner secret's "
                   "proof: do not trust this TPM path"};
  }
  ordered_json& o = out.object();
  o["owner"] = true;
  o["owner_secret"] = ownerSource_.empty() ? "well-known" : "given";
  o["srk_secret"] = srkWellKnown_ ? "well-known" : "given";
  o["srk"] = SrkReport(srk);
  if (!out.json()) {
    std::printf("The TPM has a new owner (%s owner secret, %s SRK secret).\n",
                ownerSource_.empty() ? "well-known" : "given",
                srkWellKnown_ ? "well-known" : "given");
    if (o["srk"].contains("modulus_bits")) {
      std::printf("SRK: %u-bit RSA storage key, modulus SHA-1 %s\n",
                  o["srk"]["modulus_bits"].get<unsigned>(),
                  o["srk"]["modulus_sha1"].get<std::string>().c_str());
    }
  }
  return std::nullopt;
}

std::optional<Failure> OwnerCommands::ClearOwner(TcsConnection& tcs, Output& out) const {
  KESTTCS_AUTH_SESSION session{};
  TPM_AUTH auth{};
  if (TSS_RESULT r = KestAuth_OpenOIAP(tcs.context(), &owner_, &session); r != 0) {
    return Failure{"Tcsip_OIAP", r};
  }
  if (TSS_RESULT r = KestAuth_Authorize(&session, TPM_ORD_OwnerClear, nullptr, 0, 0, &auth);
      r != 0) {
    static_cast<void>(KestAuth_Close(tcs.context(), &session));
    return Failure{"KestAuth_Authorize", r};
  }
  if (TSS_RESULT r = tcs.OwnerClear(&auth); r != 0) {
    const char* why = r == TpmResult(TPM_AUTHFAIL)         ? "the owner secret is wrong"
                      : r == TpmResult(TPM_NOSRK)          ? "the TPM has no owner"
                      : r == TpmResult(TPM_CLEAR_DISABLED) ? "clearing by the owner was disabled"
                                                           : "the TPM refused to clear its owner";
    return Failure{"Tcsip_OwnerClear", r, why};
  }
  if (TSS_RESULT r = KestAuth_Verify(&session, TPM_ORD_OwnerClear, nullptr, 0, &auth); r != 0) {
    return Failure{"KestAuth_Verify", r,
                   "the TPM cleared its owner, but its answer does not carry the owner secret's "
                   "proof"};
  }
  out.object()["owner"] = false;
  if (!out.json()) {
    std::printf(
        "The TPM's owner is cleared; the SRK and its keys are gone. The TPM is now disabled and "
        "deactivated until it is enabled with physical presence.\n");
  }
  return std::nullopt;
}

}  // namespace kesttcs::cli
