#include "tools/keys_commands.h"

#include <cstdio>

#include <kesttcs/tcs_results.h>
#include <kesttcs/tcs_service_state.h>

#include "tools/cli_format.h"
#include "tools/kestdata_check.h"
#include "tools/key_cache_format.h"
#include "tools/key_format.h"
#include "tools/key_tree.h"
#include "tools/service_home.h"

namespace kesttcs::cli {
namespace {

using nlohmann::ordered_json;

// The service's storage file: below $KESTTCS_HOME as the service finds it, else where the unit
// puts the home.
std::string DefaultDataFile() { return ServiceHome() + "/data/KestData.dat"; }

std::string Hex32(UINT32 value) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%08x", value);
  return text;
}

std::optional<Failure> List(TcsConnection& tcs, Output& out) {
  std::vector<TSS_KM_KEYINFO> infos;
  if (TSS_RESULT r = tcs.RegisteredKeys(&infos); r != 0) {
    return Failure{"Tcsi_EnumRegisteredKeys", r};
  }
  std::vector<ListedKey> keys;
  for (const TSS_KM_KEYINFO& info : infos) {
    std::vector<BYTE> blob;
    const TSS_RESULT r = tcs.RegisteredKeyBlob(info.keyUUID, &blob);
    // A key the service will not hand out (a blob over 1024 bytes) is listed without its usage.
    if (r != 0 && !IsTcsFamily(r)) return Failure{"Tcsi_GetRegisteredKeyBlob", r};
    keys.push_back({info, r == 0 ? KeyUsageName(blob) : "unknown"});
  }
  const KeyTree tree = BuildKeyTree(keys);
  out.object() = KeyTreeJson(tree);
  if (!out.json()) std::fputs(KeyTreeText(tree).c_str(), stdout);
  return std::nullopt;
}

std::optional<Failure> Loaded(Output& out) {
  KESTTCS_KEY_CACHE cache{};
  if (TSS_RESULT r = KestTcs_GetKeyCache(&cache); r != 0) {
    return Failure{"KestTcs_GetKeyCache", r,
                   "the service does not report its key cache (an older service?)"};
  }
  out.object() = KeyCacheJson(cache);
  if (!out.json()) std::fputs(KeyCacheText(cache).c_str(), stdout);
  KestTcs_FreeKeyCache(&cache);
  return std::nullopt;
}

}  // namespace

KeysCommand::KeysCommand(CLI::App& app)
    : keys_(app.add_subcommand("keys", "Registered keys")),
      list_(keys_->add_subcommand("list", "The registered keys as a tree under the SRK")),
      register_(keys_->add_subcommand("register", "Register a key blob under a UUID")),
      unregister_(keys_->add_subcommand("unregister", "Unregister the key with UUID U")),
      check_(keys_->add_subcommand("check", "Check the storage file without the service")),
      loaded_(keys_->add_subcommand(
          "loaded",
          "The service's key cache: each key's TCS handle, its TPM slot (or \"swapped\" when "
          "its saved context waits outside the TPM, \"not loaded\" when it is loaded again from "
          "its blob on next use), its parent, how many contexts hold it, and its UUID when "
          "registered; with the swaps since the service started")) {
  keys_->require_subcommand(1);
  register_->add_option("--uuid", uuidText_, "The key's UUID")->required();
  register_->add_option("--parent", parentText_, "The parent's UUID, or srk")->required();
  register_->add_option("--blob", blobFile_, "File holding the TPM_KEY blob")->required();
  unregister_->add_option("U", uuidText_, "The key's UUID")->required();
  dataFile_ = DefaultDataFile();
  check_->add_option("--file", dataFile_, "The storage file")->capture_default_str();
  for (CLI::App* sub : {keys_, list_, register_, unregister_, check_, loaded_}) sub->fallthrough();
}

bool KeysCommand::parsed() const { return keys_->parsed(); }

bool KeysCommand::needsNoService() const { return check_->parsed(); }

std::optional<int> KeysCommand::CheckArguments(Output& out) {
  if (register_->parsed() || unregister_->parsed()) {
    const std::optional<TSS_UUID> uuid = ParseUuid(uuidText_);
    if (!uuid) return out.BadArgument("not a UUID: " + uuidText_);
    uuid_ = *uuid;
  }
  if (register_->parsed()) {
    const std::optional<TSS_UUID> parent = ParseUuid(parentText_);
    if (!parent) return out.BadArgument("not a UUID: " + parentText_);
    parent_ = *parent;
    std::optional<std::vector<BYTE>> blob = ReadWholeFile(blobFile_);
    if (!blob) return out.BadArgument("cannot read " + blobFile_);
    blob_ = std::move(*blob);
  }
  return std::nullopt;
}

int KeysCommand::Check(Output& out) const {
  const std::optional<std::vector<BYTE>> file = ReadWholeFile(dataFile_);
  if (!file) {
    std::fprintf(stderr, "kesttcs-cli: cannot read %s\n", dataFile_.c_str());
    out.object()["error"] = "cannot read " + dataFile_;
    return out.Finish(kExitFailure);
  }
  const KestDataReport report = CheckKestData(*file);
  ordered_json& o = out.object();
  o["file"] = dataFile_;
  o["checksum_ok"] = report.checksumMatches();
  o["checksum_stored"] = Hex32(report.storedChecksum);
  o["checksum_computed"] = Hex32(report.computedChecksum);
  o["record_count"] = report.recordCount;
  o["valid"] = report.validRecords;
  o["deleted"] = report.deletedRecords;
  o["problems"] = report.problems;
  if (!out.json()) {
    std::printf("%s: ", dataFile_.c_str());
    if (report.empty) {
      std::printf("empty (no key was ever registered)\n");
    } else {
      std::printf("checksum %s (stored %s, computed %s), %u record slots: %u valid, %u deleted\n",
                  report.checksumMatches() ? "ok" : "MISMATCH",
                  Hex32(report.storedChecksum).c_str(), Hex32(report.computedChecksum).c_str(),
                  report.recordCount, report.validRecords, report.deletedRecords);
    }
    for (const std::string& problem : report.problems) std::printf("  %s\n", problem.c_str());
  }
  const bool badRecords = !report.problems.empty();
  if (!report.checksumMatches()) {
    return out.Finish(badRecords ? kExitChecksumAndRecords : kExitChecksumMismatch);
  }
  return out.Finish(badRecords ? kExitMalformedRecords : 0);
}

std::optional<Failure> KeysCommand::Run(TcsConnection& tcs, Output& out) const {
  if (list_->parsed()) return List(tcs, out);
  if (loaded_->parsed()) return Loaded(out);
  if (register_->parsed()) {
    if (TSS_RESULT r = tcs.RegisterKey(parent_, uuid_, blob_); r != 0) {
      return Failure{"Tcsi_RegisterKey", r};
    }
    out.object()["registered"] = UuidText(uuid_);
    out.object()["parent"] = UuidText(parent_);
    if (!out.json())
      std::printf("registered %s under %s\n", UuidText(uuid_).c_str(), UuidText(parent_).c_str());
  }
  if (unregister_->parsed()) {
    if (TSS_RESULT r = tcs.UnregisterKey(uuid_); r != 0) return Failure{"Tcsip_UnregisterKey", r};
    out.object()["unregistered"] = UuidText(uuid_);
    if (!out.json()) std::printf("unregistered %s\n", UuidText(uuid_).c_str());
  }
  return std::nullopt;
}

}  // namespace kesttcs::cli
