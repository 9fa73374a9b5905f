// kesttcs-cli: status and facts of the TPM behind KestTCS, capabilities, random bytes, PCR read and
// extend, the PCR event log, registered keys, ownership, the TPM's ordinal audit, the service's
// sessions and key cache, making keys, NV storage and monotonic counters, sealing, signing and
// quotes, over the client library. Human output by default, one JSON object with --json. Exit
// status in tools/cli_output.h.
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <kesttcs/tcs_capabilities.h>
#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>
#include <kesttcs/tcs_service_state.h>

#include "tools/audit_command.h"
#include "tools/cli_format.h"
#include "tools/cli_output.h"
#include "tools/counter_command.h"
#include "tools/data_commands.h"
#include "tools/endpoint_probe.h"
#include "tools/events_command.h"
#include "tools/key_create_command.h"
#include "tools/keys_commands.h"
#include "tools/nv_command.h"
#include "tools/owner_commands.h"
#include "tools/tcs_connection.h"

namespace kesttcs::cli {
namespace {

using nlohmann::ordered_json;

constexpr UINT32 kMaxRandomBytes = 4096;
constexpr UINT32 kMaxPcrIndex = 0xFFFF;

std::vector<BYTE> SubCap(UINT32 value) {
  return {static_cast<BYTE>(value >> 24), static_cast<BYTE>(value >> 16),
          static_cast<BYTE>(value >> 8), static_cast<BYTE>(value)};
}

// One TPM property as a number.
std::optional<Failure> TpmProperty(TcsConnection& tcs, UINT32 property, UINT32* value) {
  if (TSS_RESULT r = tcs.TpmProperty(property, value); r != 0) {
    return Failure{"Tcsip_GetCapability", r};
  }
  return std::nullopt;
}

std::optional<Failure> TpmVersion(TcsConnection& tcs, std::string* version) {
  std::vector<BYTE> answer;
  std::optional<std::string> text;
  if (tcs.TpmCapability(TPM_CAP_VERSION_VAL, {}, &answer) == 0) {
    text = VersionFromVersionInfo(answer);
  } else if (TSS_RESULT r = tcs.TpmCapability(TPM_CAP_VERSION, {}, &answer); r != 0) {
    return Failure{"Tcsip_GetCapability", r};
  } else {
    text = VersionFromVersion(answer);
  }
  if (!text) return Failure{"Tcsip_GetCapability", TCS_E_BAD_PARAMETER};
  *version = *text;
  return std::nullopt;
}

// The RPC status of a service that does not offer the service-state interface (the Windows
// service serves the TCS interface alone).
constexpr UINT32 kRpcUnknownInterface = 0x000006B5;  // RPC_S_UNKNOWN_IF

// The power state goes first: while the platform sleeps TPM commands wait, so the TPM facts are
// read only when TPM traffic flows. A service without the service-state interface reports none.
std::optional<Failure> Status(TcsConnection& tcs, const std::string& endpoint, Output& out) {
  KESTTCS_POWER_STATE power{};
  const TSS_RESULT stateResult = KestTcs_GetPowerState(&power);
  const bool reported = stateResult == 0;
  if (!reported &&
      (stateResult != TCS_E_COMM_FAILURE || Tcs_LastRpcStatus() != kRpcUnknownInterface)) {
    return Failure{"KestTcs_GetPowerState", stateResult,
                   "the service does not report its power state (an older service?)"};
  }
  ordered_json& o = out.object();
  o["endpoint"] = endpoint;
  o["reachable"] = true;
  if (reported) {
    o["power_state"] = PowerStateText(power.state);
    o["tpm_last_restart"] = power.lastTpmRestart;
  }
  if (!out.json()) {
    std::printf("KestTCS at %s: reachable\n", endpoint.c_str());
    if (reported) {
      std::printf("Power state:   %s\n", PowerStateText(power.state).c_str());
      std::printf("TPM restarted: %s\n", RestartTimeText(power.lastTpmRestart).c_str());
    } else {
      std::printf("Power state:   not reported by the service\n");
    }
  }
  if (reported && power.state != KESTTCS_POWER_RUNNING) return std::nullopt;

  std::string version;
  if (auto f = TpmVersion(tcs, &version)) return f;
  std::vector<BYTE> manufacturer;
  if (TSS_RESULT r =
          tcs.TpmCapability(TPM_CAP_PROPERTY, SubCap(TPM_CAP_PROP_MANUFACTURER), &manufacturer);
      r != 0) {
    return Failure{"Tcsip_GetCapability", r};
  }
  UINT32 keySlots = 0, sessions = 0, pcrs = 0, owner = 0;
  if (auto f = TpmProperty(tcs, TPM_CAP_PROP_KEYS, &keySlots)) return f;
  if (auto f = TpmProperty(tcs, TPM_CAP_PROP_MAX_AUTHSESS, &sessions)) return f;
  if (auto f = TpmProperty(tcs, TPM_CAP_PROP_PCR, &pcrs)) return f;
  if (auto f = TpmProperty(tcs, TPM_CAP_PROP_OWNER, &owner)) return f;

  o["tpm_version"] = version;
  o["manufacturer"] = ManufacturerText(manufacturer);
  o["key_slots"] = keySlots;
  o["auth_sessions"] = sessions;
  o["pcr_count"] = pcrs;
  o["owner"] = owner != 0;
  if (!out.json()) {
    std::printf("TPM version:   %s\n", version.c_str());
    std::printf("Manufacturer:  %s\n", ManufacturerText(manufacturer).c_str());
    std::printf("Key slots:     %u\n", keySlots);
    std::printf("Auth sessions: %u\n", sessions);
    std::printf("PCRs:          %u\n", pcrs);
    std::printf("Owner:         %s\n", owner != 0 ? "yes" : "no");
  }
  return std::nullopt;
}

// The TCS capability areas; an area the service does not answer is shown with its result.
std::optional<Failure> Caps(TcsConnection& tcs, Output& out) {
  struct Query {
    const char* name;
    UINT32 area;
    UINT32 subCap;
    std::function<ordered_json(const std::vector<BYTE>&)> decode;
  };
  auto flag = [](const std::vector<BYTE>& a) { return ordered_json(!a.empty() && a[0] != 0); };
  auto version = [](const std::vector<BYTE>& a) {
    return ordered_json(VersionFromVersion(a).value_or(HexString(a)));
  };
  const std::vector<Query> queries = {
      {"tcs_version", TSS_TCSCAP_VERSION, 0, version},
      {"alg_sha1", TSS_TCSCAP_ALG, 0x23, flag},
      {"alg_hmac", TSS_TCSCAP_ALG, 0x24, flag},
      {"alg_mgf1", TSS_TCSCAP_ALG, 0x26, flag},
      {"alg_rsa", TSS_TCSCAP_ALG, 0x20, flag},
      {"alg_des", TSS_TCSCAP_ALG, 0x21, flag},
      {"alg_3des", TSS_TCSCAP_ALG, 0x22, flag},
      {"alg_aes128", TSS_TCSCAP_ALG, 0x25, flag},
      {"alg_aes192", TSS_TCSCAP_ALG, 0x27, flag},
      {"alg_aes256", TSS_TCSCAP_ALG, 0x28, flag},
      {"key_cache", TSS_TCSCAP_CACHING, TSS_TCSCAP_PROP_KEYCACHE, flag},
      {"auth_cache", TSS_TCSCAP_CACHING, TSS_TCSCAP_PROP_AUTHCACHE, flag},
      {"persistent_storage", TSS_TCSCAP_PERSSTORAGE, 0, flag},
      {"manufacturer_id", TSS_TCSCAP_MANUFACTURER, TSS_TCSCAP_PROP_MANUFACTURER_ID,
       [](const std::vector<BYTE>& a) { return ordered_json(ManufacturerText(a)); }},
      {"manufacturer", TSS_TCSCAP_MANUFACTURER, TSS_TCSCAP_PROP_MANUFACTURER_STR,
       [](const std::vector<BYTE>& a) { return ordered_json(Utf16LeText(a)); }},
      {"platform_class", TSS_TCSCAP_PLATFORM_CLASS, TSS_TCSCAP_PROP_HOST_PLATFORM,
       [](const std::vector<BYTE>& a) { return ordered_json(HexString(a)); }},
  };
  ordered_json& o = out.object();
  for (const Query& q : queries) {
    std::vector<BYTE> answer;
    const TSS_RESULT r = tcs.TcsCapability(q.area, SubCap(q.subCap), &answer);
    // A lost connection is a failure of the command, not an unanswered area.
    if (r != 0 && !IsTcsFamily(r)) return Failure{"Tcsi_GetCapability", r};
    o[q.name] = r == 0 ? q.decode(answer)
                       : ordered_json{{"error", CodeText(r)}, {"name", ResultCodeName(r)}};
    if (!out.json()) {
      const std::string value =
          r == 0 ? (o[q.name].is_string() ? o[q.name].get<std::string>() : o[q.name].dump())
                 : "not answered: " + CodeText(r) + " (" + ResultCodeName(r) + ")";
      std::printf("%-20s %s\n", q.name, value.c_str());
    }
  }
  return std::nullopt;
}

std::optional<Failure> Random(TcsConnection& tcs, UINT32 count, Output& out) {
  std::vector<BYTE> bytes;
  if (TSS_RESULT r = tcs.Random(count, &bytes); r != 0) return Failure{"Tcsip_GetRandom", r};
  out.object()["count"] = bytes.size();
  out.object()["random"] = HexString(bytes);
  if (!out.json()) std::printf("%s\n", HexString(bytes).c_str());
  return std::nullopt;
}

std::optional<Failure> PcrRead(TcsConnection& tcs, std::optional<UINT32> index, Output& out) {
  UINT32 first = 0, count = 1;
  if (index) {
    first = *index;
  } else if (auto f = TpmProperty(tcs, TPM_CAP_PROP_PCR, &count)) {
    return f;
  }
  ordered_json pcrs = ordered_json::array();
  for (UINT32 i = first; i < first + count; ++i) {
    TPM_DIGEST value{};
    if (TSS_RESULT r = tcs.PcrRead(i, &value); r != 0) return Failure{"Tcsip_PcrRead", r};
    const std::string hex = HexString(value.digest);
    pcrs.push_back({{"index", i}, {"value", hex}});
    if (!out.json()) std::printf("PCR %2u: %s\n", i, hex.c_str());
  }
  out.object()["pcrs"] = pcrs;
  return std::nullopt;
}

std::optional<Failure> PcrExtend(TcsConnection& tcs, UINT32 index, const TPM_DIGEST& digest,
                                 Output& out) {
  TPM_DIGEST value{};
  if (TSS_RESULT r = tcs.Extend(index, digest, &value); r != 0) return Failure{"Tcsip_Extend", r};
  const std::string hex = HexString(value.digest);
  out.object()["index"] = index;
  out.object()["value"] = hex;
  if (!out.json()) std::printf("PCR %2u: %s\n", index, hex.c_str());
  return std::nullopt;
}

int Main(int argc, char** argv) {
  CLI::App app{"kesttcs-cli: administration and diagnostics for the KestTCS service"};
  app.set_help_all_flag("--help-all", "Help for every command");
  std::string endpoint = kDefaultEndpoint;
  bool json = false;
  app.add_option("--endpoint", endpoint, "The service's endpoint")->capture_default_str();
  app.add_flag("--json", json, "One JSON object on stdout");
  app.require_subcommand(1);
  app.fallthrough();

  CLI::App* status = app.add_subcommand("status", "Service reachable and facts about the TPM");
  CLI::App* caps = app.add_subcommand("caps", "The service's capability areas");
  CLI::App* random = app.add_subcommand("random", "N random bytes from the TPM");
  std::string randomCount;
  random->add_option("N", randomCount, "Number of bytes (1 to 4096)")->required();
  CLI::App* pcr = app.add_subcommand("pcr", "Read or extend PCRs");
  pcr->require_subcommand(1);
  pcr->fallthrough();
  CLI::App* pcrRead = pcr->add_subcommand("read", "The value of PCR N, or of every PCR");
  std::string readIndex;
  pcrRead->add_option("N", readIndex, "PCR index");
  CLI::App* pcrExtend = pcr->add_subcommand("extend", "Extend PCR N with a 20-byte digest");
  std::string extendIndex, extendDigest;
  pcrExtend->add_option("N", extendIndex, "PCR index")->required();
  pcrExtend->add_option("HEX", extendDigest, "Digest, 40 hex digits")->required();
  for (CLI::App* sub : {status, caps, random, pcrRead, pcrExtend}) sub->fallthrough();
  EventsCommand events(app);
  KeysCommand keys(app);
  OwnerCommands owner(app);
  AuditCommand audit(app);
  NvCommand nv(app);
  CounterCommand counter(app);
  DataCommands data(app);
  KeyCreateCommand keyCreate(app);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : kExitBadArgument;
  }

  Output out(json);
  // Arguments are checked before the service is asked anything.
  std::optional<UINT32> count, index;
  std::optional<TPM_DIGEST> digest;
  if (random->parsed()) {
    count = ParseNumber(randomCount, 1, kMaxRandomBytes);
    if (!count) return out.BadArgument("random N must be a number from 1 to 4096");
  }
  if (pcrRead->parsed() && !readIndex.empty()) {
    index = ParseNumber(readIndex, 0, kMaxPcrIndex);
    if (!index) return out.BadArgument("pcr read N must be a PCR number");
  }
  if (pcrExtend->parsed()) {
    index = ParseNumber(extendIndex, 0, kMaxPcrIndex);
    if (!index) return out.BadArgument("pcr extend N must be a PCR number");
    digest = ParseDigest(extendDigest);
    if (!digest) return out.BadArgument("pcr extend HEX must be 40 hex digits");
  }
  if (events.parsed()) {
    if (std::optional<int> status = events.CheckArguments(out)) return *status;
  }
  if (keys.parsed()) {
    if (std::optional<int> status = keys.CheckArguments(out)) return *status;
    if (keys.needsNoService()) return keys.Check(out);
  }
  if (std::optional<int> status = owner.CheckArguments(out)) return *status;
  if (std::optional<int> status = audit.CheckArguments(out)) return *status;
  if (std::optional<int> status = nv.CheckArguments(out)) return *status;
  if (std::optional<int> status = counter.CheckArguments(out)) return *status;
  if (std::optional<int> status = data.CheckArguments(out)) return *status;
  if (std::optional<int> status = keyCreate.CheckArguments(out)) return *status;

  std::string reason;
  TSS_RESULT openResult = 0;
  std::unique_ptr<TcsConnection> tcs = TcsConnection::Open(endpoint, &reason, &openResult);
  if (!tcs) {
    if (!reason.empty()) return out.Unreachable(endpoint, reason);
    return out.TcsError({"Tcsi_OpenContext", openResult});
  }

  std::optional<Failure> failure;
  if (status->parsed()) failure = Status(*tcs, endpoint, out);
  if (caps->parsed()) failure = Caps(*tcs, out);
  if (random->parsed()) failure = Random(*tcs, *count, out);
  if (pcrRead->parsed()) failure = PcrRead(*tcs, index, out);
  if (pcrExtend->parsed()) failure = PcrExtend(*tcs, *index, *digest, out);
  if (events.parsed()) failure = events.Run(*tcs, out);
  if (keys.parsed()) failure = keys.Run(*tcs, out);
  if (owner.parsed()) failure = owner.Run(*tcs, out);
  if (audit.parsed()) failure = audit.Run(*tcs, out);
  if (nv.parsed()) failure = nv.Run(*tcs, out);
  if (counter.parsed()) failure = counter.Run(*tcs, out);
  if (data.parsed()) failure = data.Run(*tcs, out);
  if (keyCreate.parsed()) failure = keyCreate.Run(*tcs, out);
  if (failure) return out.TcsError(*failure);
  return out.Finish();
}

}  // namespace
}  // namespace kesttcs::cli

int main(int argc, char** argv) { return kesttcs::cli::Main(argc, argv); }
