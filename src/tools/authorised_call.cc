#include "tools/authorised_call.h"

namespace kesttcs::cli {
namespace {

std::optional<Failure> RunOnSession(KESTTCS_AUTH_SESSION& session, const AuthorisedCall& c) {
  TPM_AUTH auth{};
  if (TSS_RESULT r = KestAuth_Authorize(&session, c.ordinal, c.inParams.data(),
                                        static_cast<UINT32>(c.inParams.size()), 0, &auth);
      r != 0) {
    static_cast<void>(KestAuth_Close(c.hContext, &session));
    return Failure{"KestAuth_Authorize", r};
  }
  std::vector<BYTE> outParams;
  if (TSS_RESULT r = c.call(&auth, &outParams); r != 0) {
    static_cast<void>(KestAuth_Close(c.hContext, &session));
    return Failure{c.operation, r, c.explain(r)};
  }
  if (TSS_RESULT r = KestAuth_Verify(&session, c.ordinal, outParams.data(),
                                     static_cast<UINT32>(outParams.size()), &auth);
      r != 0) {
    return Failure{"KestAuth_Verify", r,
                   "the TPM answered, but its answer does not carry the secret's proof: do not "
                   "trust this TPM path"};
  }
  return std::nullopt;
}

}  // namespace

std::optional<Failure> RunOverOiap(const TPM_SECRET& secret, const AuthorisedCall& c) {
  KESTTCS_AUTH_SESSION session{};
  if (TSS_RESULT r = KestAuth_OpenOIAP(c.hContext, &secret, &session); r != 0) {
    return Failure{"Tcsip_OIAP", r};
  }
  return RunOnSession(session, c);
}

std::optional<Failure> RunOverOwnerOsap(
    TCS_CONTEXT_HANDLE hContext, const TPM_SECRET& ownerSecret, const TPM_SECRET& newSecret,
    const std::function<AuthorisedCall(const TPM_ENCAUTH& encAuth)>& makeCall) {
  KESTTCS_AUTH_SESSION session{};
  if (TSS_RESULT r = KestAuth_OpenOSAP(hContext, KESTTCS_ET_OWNER, 0, &ownerSecret, &session);
      r != 0) {
    return Failure{"Tcsip_OSAP", r};
  }
  TPM_ENCAUTH encAuth{};
  if (TSS_RESULT r = KestAuth_EncAuth(&session, &newSecret, KESTTCS_ADIP_EVEN, &encAuth); r != 0) {
    static_cast<void>(KestAuth_Close(hContext, &session));
    return Failure{"KestAuth_EncAuth", r};
  }
  return RunOnSession(session, makeCall(encAuth));
}

void AppendUINT32(std::vector<BYTE>& out, UINT32 value) {
  BYTE b[4];
  KestAuth_PutUINT32(b, value);
  out.insert(out.end(), b, b + 4);
}

}  // namespace kesttcs::cli
