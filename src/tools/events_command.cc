#include "tools/events_command.h"

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>

#include "tools/cli_format.h"

namespace kesttcs::cli {
namespace {

using nlohmann::ordered_json;

constexpr UINT32 kMaxPcrIndex = 0xFFFF;
constexpr size_t kDigestSize = 20;
// The structure version events logged here carry.
constexpr TSS_VERSION kEventVersion = {1, 2, 0, 0};

struct FreeBuffer {
  void operator()(void* p) const { Tcs_FreeBuffer(p); }
};
using EventArray = std::unique_ptr<TSS_PCR_EVENT, FreeBuffer>;

std::span<const BYTE> DataOf(const BYTE* data, UINT32 length) {
  if (data == nullptr || static_cast<int32_t>(length) <= 0) return {};
  return {data, length};
}

// The value a PCR holds after its events' digests were extended into zeros; nothing when an
// event's digest is not 20 bytes (such a log cannot be replayed).
std::optional<TPM_DIGEST> Replay(const std::vector<const TSS_PCR_EVENT*>& events) {
  TPM_DIGEST value{};
  for (const TSS_PCR_EVENT* e : events) {
    if (e->ulPcrValueLength != kDigestSize || e->rgbPcrValue == nullptr) return std::nullopt;
    BYTE both[2 * kDigestSize];
    std::memcpy(both, value.digest, kDigestSize);
    std::memcpy(both + kDigestSize, e->rgbPcrValue, kDigestSize);
    if (KestAuth_Sha1(both, sizeof(both), &value) != 0) return std::nullopt;
  }
  return value;
}

// The events of one PCR (through the count form of Tcsi_GetPcrEvent, then one
// Tcsi_GetPcrEventsByPcr), or of every PCR.
std::optional<Failure> FetchEvents(TcsConnection& tcs, std::optional<UINT32> pcr, UINT32* count,
                                   EventArray* events) {
  TSS_PCR_EVENT* raw = nullptr;
  if (!pcr) {
    const TSS_RESULT r = Tcsi_GetPcrEventLog(tcs.context(), count, &raw);
    events->reset(raw);
    if (r != 0) return Failure{"Tcsi_GetPcrEventLog", r};
    return std::nullopt;
  }
  if (TSS_RESULT r = Tcsi_GetPcrEvent(tcs.context(), *pcr, count, nullptr); r != 0) {
    return Failure{"Tcsi_GetPcrEvent", r};
  }
  if (*count == 0) return std::nullopt;
  const TSS_RESULT r = Tcsi_GetPcrEventsByPcr(tcs.context(), *pcr, 0, count, &raw);
  events->reset(raw);
  if (r != 0) return Failure{"Tcsi_GetPcrEventsByPcr", r};
  return std::nullopt;
}

}  // namespace

EventsCommand::EventsCommand(CLI::App& app)
    : events_(
          app.add_subcommand("events", "The PCR event log, and whether it replays to the PCRs")),
      log_(
          events_->add_subcommand("log", "Extend PCR N with the SHA-1 of FILE and log the event")) {
  events_->add_option("--pcr", pcrText_, "Only the events of PCR N");
  log_->add_option("--pcr", logPcrText_, "PCR index")->required();
  log_->add_option("--type", typeText_, "Event type, a decimal number")->required();
  log_->add_option("--data", dataFile_, "File holding the event data (at most 65536 bytes)")
      ->required();
  for (CLI::App* sub : {events_, log_}) sub->fallthrough();
}

bool EventsCommand::parsed() const { return events_->parsed(); }

std::optional<int> EventsCommand::CheckArguments(Output& out) {
  if (log_->parsed()) {
    pcr_ = ParseNumber(logPcrText_, 0, kMaxPcrIndex);
    if (!pcr_) return out.BadArgument("events log --pcr must be a PCR number");
    const std::optional<UINT32> type = ParseNumber(typeText_, 0, 0xFFFFFFFF);
    if (!type) return out.BadArgument("events log --type must be a decimal number");
    type_ = *type;
    std::optional<std::vector<BYTE>> data = ReadWholeFile(dataFile_);
    if (!data) return out.BadArgument("cannot read " + dataFile_);
    if (data->size() > kMaxEventData) return out.BadArgument(dataFile_ + " is over 65536 bytes");
    data_ = std::move(*data);
  } else if (!pcrText_.empty()) {
    pcr_ = ParseNumber(pcrText_, 0, kMaxPcrIndex);
    if (!pcr_) return out.BadArgument("events --pcr must be a PCR number");
  }
  return std::nullopt;
}

std::optional<Failure> EventsCommand::Run(TcsConnection& tcs, Output& out) const {
  return log_->parsed() ? Log(tcs, out) : List(tcs, out);
}

std::optional<Failure> EventsCommand::List(TcsConnection& tcs, Output& out) const {
  UINT32 count = 0;
  EventArray events;
  if (auto f = FetchEvents(tcs, pcr_, &count, &events)) return f;

  ordered_json listed = ordered_json::array();
  std::map<UINT32, std::vector<const TSS_PCR_EVENT*>> byPcr;
  for (UINT32 i = 0; i < count; ++i) {
    const TSS_PCR_EVENT& e = events.get()[i];
    std::vector<const TSS_PCR_EVENT*>& list = byPcr[e.ulPcrIndex];
    const std::string digest = HexString(DataOf(e.rgbPcrValue, e.ulPcrValueLength));
    const std::string data = HexString(DataOf(e.rgbEvent, e.ulEventLength));
    listed.push_back({{"pcr", e.ulPcrIndex},
                      {"number", list.size()},
                      {"type", e.eventType},
                      {"digest", digest},
                      {"data", data}});
    if (!out.json()) {
      std::printf("PCR %2u #%zu type %u digest %s data %s\n", e.ulPcrIndex, list.size(),
                  e.eventType, digest.c_str(), data.empty() ? "-" : data.c_str());
    }
    list.push_back(&e);
  }

  ordered_json pcrs = ordered_json::array();
  for (const auto& [index, list] : byPcr) {
    TPM_DIGEST current{};
    if (TSS_RESULT r = tcs.PcrRead(index, &current); r != 0) return Failure{"Tcsip_PcrRead", r};
    const std::optional<TPM_DIGEST> replayed = Replay(list);
    const bool matches =
        replayed && std::memcmp(replayed->digest, current.digest, kDigestSize) == 0;
    const std::string replayedText = replayed ? HexString(replayed->digest) : "";
    pcrs.push_back({{"index", index},
                    {"events", list.size()},
                    {"replayed", replayed ? ordered_json(replayedText) : ordered_json(nullptr)},
                    {"tpm", HexString(current.digest)},
                    {"matches", matches}});
    if (!out.json()) {
      std::printf("PCR %2u: %zu events, %s\n", index, list.size(),
                  matches    ? "replay gives the TPM's value"
                  : replayed ? ("replay gives " + replayedText + ", the TPM holds " +
                                HexString(current.digest))
                                   .c_str()
                             : "cannot be replayed: a digest is not 20 bytes");
    }
  }
  if (!out.json() && count == 0) std::printf("no events\n");
  out.object()["events"] = listed;
  out.object()["pcrs"] = pcrs;
  return std::nullopt;
}

std::optional<Failure> EventsCommand::Log(TcsConnection& tcs, Output& out) const {
  TPM_DIGEST digest{};
  if (TSS_RESULT r = KestAuth_Sha1(data_.data(), static_cast<UINT32>(data_.size()), &digest);
      r != 0) {
    return Failure{"KestAuth_Sha1", r};
  }
  TPM_DIGEST value{};
  if (TSS_RESULT r = tcs.Extend(*pcr_, digest, &value); r != 0) return Failure{"Tcsip_Extend", r};
  std::vector<BYTE> data = data_;
  TSS_PCR_EVENT event{};
  event.versionInfo = kEventVersion;
  event.ulPcrIndex = *pcr_;
  event.eventType = type_;
  event.ulPcrValueLength = kDigestSize;
  event.rgbPcrValue = digest.digest;
  event.ulEventLength = static_cast<UINT32>(data.size());
  event.rgbEvent = data.empty() ? nullptr : data.data();
  UINT32 number = 0;
  if (TSS_RESULT r = Tcsi_LogPcrEvent(tcs.context(), event, &number); r != 0) {
    return Failure{"Tcsi_LogPcrEvent", r,
                   "PCR " + std::to_string(*pcr_) + " was extended, but the event was not logged"};
  }
  out.object()["pcr"] = *pcr_;
  out.object()["number"] = number;
  out.object()["digest"] = HexString(digest.digest);
  out.object()["value"] = HexString(value.digest);
  if (!out.json()) {
    std::printf("PCR %2u: event %u logged, extended with %s, now %s\n", *pcr_, number,
                HexString(digest.digest).c_str(), HexString(value.digest).c_str());
  }
  return std::nullopt;
}

}  // namespace kesttcs::cli
