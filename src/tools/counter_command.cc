#include "tools/counter_command.h"

#include <cstdio>
#include <vector>

#include <nlohmann/json.hpp>

#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>
#include <kesttcs/tpm_ordinals.h>

#include "tools/authorised_call.h"
#include "tools/cli_format.h"
#include "tools/secret_input.h"

namespace kesttcs::cli {
namespace {

constexpr size_t kLabelSize = 4;

// TPM_COUNTER_VALUE as the TPM's HMAC covers it: tag, label, count.
std::vector<BYTE> CounterBytes(const TPM_COUNTER_VALUE& v) {
  std::vector<BYTE> bytes;
  bytes.reserve(2 + kLabelSize + 4);
  bytes.push_back(static_cast<BYTE>(v.tag >> 8));
  bytes.push_back(static_cast<BYTE>(v.tag));
  bytes.insert(bytes.end(), v.label, v.label + kLabelSize);
  AppendUINT32(bytes, v.counter);
  return bytes;
}

std::string Explain(TSS_RESULT r) {
  if (r == TpmResult(TPM_AUTHFAIL)) return "wrong secret";
  if (r == TpmResult(TPM_BAD_COUNTER)) {
    return "no such counter (or, to increment, another counter was incremented since the TPM "
           "started: one counter per start-up)";
  }
  return "";
}

// The counter's value as the command reports it.
void Report(UINT32 id, const TPM_COUNTER_VALUE& value, Output& out) {
  const std::string label(reinterpret_cast<const char*>(value.label), kLabelSize);
  nlohmann::ordered_json& o = out.object();
  o["id"] = CodeText(id);
  o["label"] = label;
  o["value"] = value.counter;
  if (!out.json()) {
    std::printf("Counter %s (label \"%s\"): %u\n", CodeText(id).c_str(), label.c_str(),
                value.counter);
  }
}

}  // namespace

CounterCommand::CounterCommand(CLI::App& app) {
  CLI::App* counter = app.add_subcommand("counter", "The TPM's monotonic counters");
  counter->require_subcommand(1);
  counter->fallthrough();
  create_ = counter->add_subcommand("create", "Create a counter with the owner's authorisation");
  create_->add_option("--label", label_, "Four characters naming the counter")->required();
  create_->add_option("--owner-secret", ownerSource_, "FILE or '-': the owner secret");
  increment_ = counter->add_subcommand("increment", "Increment counter ID with its secret");
  read_ = counter->add_subcommand("read", "The value of counter ID");
  for (CLI::App* sub : {increment_, read_}) {
    sub->add_option("ID", idText_, "Counter id (0x for hex)")->required();
  }
  for (CLI::App* sub : {create_, increment_}) {
    sub->add_option("--secret", secretSource_, "FILE or '-': the counter's own secret");
  }
  for (CLI::App* sub : {create_, increment_, read_}) sub->fallthrough();
}

bool CounterCommand::parsed() const {
  return create_->parsed() || increment_->parsed() || read_->parsed();
}

std::optional<int> CounterCommand::CheckArguments(Output& out) {
  if (!parsed()) return std::nullopt;
  if (create_->parsed() && label_.size() != kLabelSize) {
    return out.BadArgument("--label must be exactly four characters");
  }
  if (!create_->parsed()) {
    std::optional<UINT32> id = ParseHandle(idText_);
    if (!id) return out.BadArgument("counter ID must be a number (0x for hex)");
    id_ = *id;
  }
  std::string problem;
  if (!ReadObjectAndOwnerSecrets(secretSource_, "counter secret", create_->parsed(), ownerSource_,
                                 &secret_, &owner_, &problem)) {
    return out.BadArgument(problem);
  }
  return std::nullopt;
}

std::optional<Failure> CounterCommand::Run(TcsConnection& tcs, Output& out) const {
  if (create_->parsed()) return Create(tcs, out);
  if (increment_->parsed()) return Increment(tcs, out);
  return Read(tcs, out);
}

std::optional<Failure> CounterCommand::Create(TcsConnection& tcs, Output& out) const {
  const TCS_CONTEXT_HANDLE h = tcs.context();
  std::vector<BYTE> label(label_.begin(), label_.end());
  UINT32 id = 0;
  TPM_COUNTER_VALUE value{};
  auto failure = RunOverOwnerOsap(h, owner_, secret_, [&](const TPM_ENCAUTH& encAuth) {
    std::vector<BYTE> params(encAuth.authdata, encAuth.authdata + sizeof encAuth.authdata);
    params.insert(params.end(), label.begin(), label.end());
    return AuthorisedCall{h,
                          TPM_ORD_CreateCounter,
                          params,
                          "Tcsip_CreateCounter",
                          [&, encAuth](TPM_AUTH* auth, std::vector<BYTE>* outParams) {
                            const TSS_RESULT r = Tcsip_CreateCounter(h, kLabelSize, label.data(),
                                                                     encAuth, auth, &id, &value);
                            AppendUINT32(*outParams, id);
                            const std::vector<BYTE> counter = CounterBytes(value);
                            outParams->insert(outParams->end(), counter.begin(), counter.end());
                            return r;
                          },
                          Explain};
  });
  if (failure) return failure;
  Report(id, value, out);
  return std::nullopt;
}

std::optional<Failure> CounterCommand::Increment(TcsConnection& tcs, Output& out) const {
  const TCS_CONTEXT_HANDLE h = tcs.context();
  const UINT32 id = id_;
  std::vector<BYTE> params;
  AppendUINT32(params, id);
  TPM_COUNTER_VALUE value{};
  if (auto failure = RunOverOiap(
          secret_, AuthorisedCall{h, TPM_ORD_IncrementCounter, params, "Tcsip_IncrementCounter",
                                  [&](TPM_AUTH* auth, std::vector<BYTE>* outParams) {
                                    const TSS_RESULT r =
                                        Tcsip_IncrementCounter(h, id, auth, &value);
                                    *outParams = CounterBytes(value);
                                    return r;
                                  },
                                  Explain})) {
    return failure;
  }
  Report(id, value, out);
  return std::nullopt;
}

std::optional<Failure> CounterCommand::Read(TcsConnection& tcs, Output& out) const {
  TPM_COUNTER_VALUE value{};
  if (TSS_RESULT r = Tcsip_ReadCounter(tcs.context(), id_, &value); r != 0) {
    return Failure{"Tcsip_ReadCounter", r, Explain(r)};
  }
  Report(id_, value, out);
  return std::nullopt;
}

}  // namespace kesttcs::cli
