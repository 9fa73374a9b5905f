#include "rpc/result_codes.h"

#include <algorithm>
#include <string>
#include <vector>

namespace kesttcs {
namespace {

struct KnownResult {
  TSS_RESULT code;
  std::string name;
  const char* text;
};

// TPM codes are known by their TPM_E_ name: TPM_AUTHFAIL passed through is TPM_E_AUTHFAIL.
std::string TpmEName(const char* tpm_name) { return std::string("TPM_E_") + (tpm_name + 4); }

const std::vector<KnownResult>& KnownResults() {
#define KESTTCS_SERVICE_ENTRY(name, value, text) KnownResult{value, #name, text},
#define KESTTCS_TPM_ENTRY(name, value) \
  KnownResult{kTcsErrorBase | value, TpmEName(#name), "TPM return code"},
  static const std::vector<KnownResult> known = {
      KnownResult{TSS_SUCCESS, "TSS_SUCCESS", "success"},
      KESTTCS_SERVICE_RESULTS(KESTTCS_SERVICE_ENTRY)  //
      KESTTCS_TPM_RESULTS(KESTTCS_TPM_ENTRY)          //
  };
#undef KESTTCS_SERVICE_ENTRY
#undef KESTTCS_TPM_ENTRY
  return known;
}

const KnownResult* Find(TSS_RESULT result) {
  const auto& known = KnownResults();
  auto it = std::find_if(known.begin(), known.end(),
                         [result](const KnownResult& k) { return k.code == result; });
  return it == known.end() ? nullptr : &*it;
}

}  // namespace

const char* ResultName(TSS_RESULT result) {
  const KnownResult* known = Find(result);
  return known ? known->name.c_str() : "UNKNOWN";
}

const char* ResultText(TSS_RESULT result) {
  const KnownResult* known = Find(result);
  return known ? known->text : "unknown result";
}

}  // namespace kesttcs
