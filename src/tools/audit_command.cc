#include "tools/audit_command.h"

#include <cstdio>
#include <vector>

#include <nlohmann/json.hpp>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_results.h>
#include <kesttcs/tpm_ordinals.h>

#include "tools/cli_format.h"
#include "tools/secret_input.h"

namespace kesttcs::cli {

AuditCommand::AuditCommand(CLI::App& app) {
  CLI::App* audit = app.add_subcommand("audit", "The ordinals the TPM audits");
  audit->require_subcommand(1);
  audit->fallthrough();
  set_ = audit->add_subcommand("set", "Have the TPM (and the service's audit log) audit ORDINAL");
  clear_ = audit->add_subcommand("clear", "Stop auditing ORDINAL");
  for (CLI::App* sub : {set_, clear_}) {
    sub->add_option("ORDINAL", ordinalText_, "TPM_ORD_ name, or number (0x for hex)")->required();
    sub->add_option("--owner-secret", ownerSource_, "FILE or '-': the owner secret");
  }
  show_ = audit->add_subcommand("show", "The audited ordinals and the TPM's audit digest");
  for (CLI::App* sub : {set_, clear_, show_}) sub->fallthrough();
}

bool AuditCommand::parsed() const { return set_->parsed() || clear_->parsed() || show_->parsed(); }

std::optional<int> AuditCommand::CheckArguments(Output& out) {
  if (!set_->parsed() && !clear_->parsed()) return std::nullopt;
  std::optional<UINT32> ordinal = ParseOrdinal(ordinalText_);
  if (!ordinal) return out.BadArgument("ORDINAL must be a TPM_ORD_ name or a number");
  ordinal_ = *ordinal;
  std::string problem;
  std::optional<TPM_SECRET> owner = ReadSecret(ownerSource_, "owner secret", false, &problem);
  if (!owner) return out.BadArgument(problem);
  owner_ = *owner;
  return std::nullopt;
}

std::optional<Failure> AuditCommand::Run(TcsConnection& tcs, Output& out) const {
  if (show_->parsed()) return Show(tcs, out);
  return SetStatus(tcs, set_->parsed(), out);
}

std::optional<Failure> AuditCommand::SetStatus(TcsConnection& tcs, bool audited,
                                               Output& out) const {
  // The input digest covers ordinalToAudit and the one-byte auditState.
  BYTE params[5];
  KestAuth_PutUINT32(params, ordinal_);
  params[4] = audited ? 1 : 0;
  KESTTCS_AUTH_SESSION session{};
  TPM_AUTH auth{};
  if (TSS_RESULT r = KestAuth_OpenOIAP(tcs.context(), &owner_, &session); r != 0) {
    return Failure{"Tcsip_OIAP", r};
  }
  if (TSS_RESULT r = KestAuth_Authorize(&session, TPM_ORD_SetOrdinalAuditStatus, params,
                                        sizeof params, 0, &auth);
      r != 0) {
    static_cast<void>(KestAuth_Close(tcs.context(), &session));
    return Failure{"KestAuth_Authorize", r};
  }
  if (TSS_RESULT r = tcs.SetOrdinalAuditStatus(&auth, ordinal_, audited); r != 0) {
    const char* why = r == TpmResult(TPM_AUTHFAIL)   ? "the owner secret is wrong"
                      : r == TpmResult(TPM_BADINDEX) ? "the TPM does not audit this ordinal"
                                                     : "the TPM refused the audit change";
    return Failure{"Tcsip_SetOrdinalAuditStatus", r, why};
  }
  if (TSS_RESULT r = KestAuth_Verify(&session, TPM_ORD_SetOrdinalAuditStatus, nullptr, 0, &auth);
      r != 0) {
    return Failure{"KestAuth_Verify", r,
                   "the TPM changed the audit, but its answer does not carry the owner secret's "
                   "proof"};
  }
  nlohmann::ordered_json& o = out.object();
  o["ordinal"] = OrdinalName(ordinal_);
  o["audited"] = audited;
  if (!out.json()) {
    std::printf("%s is %s audited.\n", OrdinalName(ordinal_).c_str(),
                audited ? "now" : "no longer");
  }
  return std::nullopt;
}

std::optional<Failure> AuditCommand::Show(TcsConnection& tcs, Output& out) const {
  TPM_DIGEST digest{};
  std::vector<UINT32> ordinals;
  if (TSS_RESULT r = tcs.AuditDigest(&digest, &ordinals); r != 0) {
    return Failure{"Tcsip_GetAuditDigest", r};
  }
  nlohmann::ordered_json names = nlohmann::ordered_json::array();
  for (UINT32 o : ordinals) names.push_back(OrdinalName(o));
  nlohmann::ordered_json& o = out.object();
  o["digest"] = HexString(digest.digest);
  o["ordinals"] = names;
  if (!out.json()) {
    std::printf("Audit digest: %s\n", o["digest"].get<std::string>().c_str());
    std::printf("%zu audited ordinals\n", ordinals.size());
    for (const auto& name : names) std::printf("  %s\n", name.get<std::string>().c_str());
  }
  return std::nullopt;
}

}  // namespace kesttcs::cli
