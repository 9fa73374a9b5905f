#include "storage/event_log_file.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <system_error>

#include <kesttcs/tcs_results.h>

#include "base/logging.h"
#include "storage/file_system.h"
#include "tpm12/sha1.h"

namespace kesttcs {
namespace {

constexpr BYTE kMagic[4] = {'K', 'T', 'E', 'V'};
constexpr UINT32 kFormatVersion = 1;
constexpr size_t kHeaderSize = 8;
// versionInfo, PCR index, event type, value length, event length.
constexpr size_t kRecordFixedSize = 4 + 4 + 4 + 4 + 4;
constexpr size_t kDigestSize = 20;

void PutUint32(std::vector<BYTE>& out, UINT32 v) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<BYTE>(v >> (8 * i)));
}

// A little-endian reader that checks the length before every access.
class Reader {
 public:
  explicit Reader(std::span<const BYTE> bytes) : bytes_(bytes) {}
  bool Uint32(UINT32& v) {
    if (left() < 4) return false;
    v = 0;
    for (int i = 0; i < 4; ++i) v |= UINT32{bytes_[pos_ + i]} << (8 * i);
    pos_ += 4;
    return true;
  }
  bool Bytes(size_t n, std::vector<BYTE>& out) {
    if (left() < n) return false;
    out.assign(bytes_.begin() + pos_, bytes_.begin() + pos_ + n);
    pos_ += n;
    return true;
  }
  size_t left() const { return bytes_.size() - pos_; }
  size_t pos() const { return pos_; }

 private:
  std::span<const BYTE> bytes_;
  size_t pos_ = 0;
};

// One record's body (after its length); false when it does not parse or leaves bytes over.
bool ParseRecord(std::span<const BYTE> body, LoggedEvent& e) {
  Reader r(body);
  std::vector<BYTE> version;
  if (!r.Bytes(4, version) || !r.Uint32(e.ulPcrIndex) || !r.Uint32(e.eventType) ||
      !r.Uint32(e.ulPcrValueLength) || !r.Bytes(e.ulPcrValueLength, e.pcrValue) ||
      !r.Uint32(e.ulEventLength)) {
    return false;
  }
  const size_t eventBytes = static_cast<int32_t>(e.ulEventLength) > 0 ? e.ulEventLength : 0;
  if (!r.Bytes(eventBytes, e.event) || r.left() != 0) return false;
  e.versionInfo = {version[0], version[1], version[2], version[3]};
  return true;
}

std::optional<std::vector<BYTE>> ReadWholeFile(const std::string& path) {
  const std::unique_ptr<StorageFile> file = HostFileSystem().OpenForReading(path);
  if (file == nullptr) return std::nullopt;
  const std::optional<std::uint64_t> size = file->Size();
  if (!size) return std::nullopt;
  std::vector<BYTE> bytes(*size);
  const std::optional<std::size_t> read = file->Read(0, bytes);
  if (!read) return std::nullopt;
  bytes.resize(*read);
  return bytes;
}

// The open events file; closed when the log drops its append hook.
class EventsFile {
 public:
  EventsFile(std::unique_ptr<StorageFile> file, std::uint64_t end)
      : file_(std::move(file)), end_(end) {}

  // Called by the event log under its own lock, so appends never overlap.
  void Append(const LoggedEvent& e) {
    const std::vector<BYTE> record = EncodeEventRecord(e);
    // A failed write loses this event from the file only; the log in memory keeps it.
    if (!file_->Write(end_, record)) {
      TcsTrace("event_log:events file write fail", nullptr);
      return;
    }
    end_ += record.size();
  }

 private:
  const std::unique_ptr<StorageFile> file_;
  std::uint64_t end_;
};

// Moves the file aside and says why, in the trace and the event log.
void SetAside(const std::string& dataDir, const std::string& why) {
  const std::string path = dataDir + kEventsFileName;
  const std::string backup = dataDir + kEventsBackupName;
  std::rename(path.c_str(), backup.c_str());
  const std::string text = path + " set aside as " + backup + ": " + why;
  const char* strings[] = {text.c_str()};
  ReportServiceEvent(kEventEventsFileSetAside, 0, 1, strings);
  TcsTrace(text.c_str(), nullptr);
}

// Replays the file into the log, or sets it aside; returns the length of the whole records kept
// (0 when the file is new or was set aside).
size_t Replay(const std::string& dataDir, const PcrReader& read) {
  const std::optional<std::vector<BYTE>> bytes = ReadWholeFile(dataDir + kEventsFileName);
  if (!bytes || bytes->empty()) return 0;
  const std::optional<ParsedEventsFile> parsed = ParseEventsFile(*bytes);
  if (!parsed) {
    SetAside(dataDir, "not an events file");
    return 0;
  }
  if (const std::optional<UINT32> pcr = FirstMismatchingPcr(parsed->events, read)) {
    SetAside(dataDir, "replaying PCR " + std::to_string(*pcr) + " does not give the TPM's value");
    return 0;
  }
  if (event_log_restore(parsed->events) != TSS_SUCCESS) {
    SetAside(dataDir, "an event names a PCR this TPM does not have");
    return 0;
  }
  return parsed->wholeLength;
}

}  // namespace

std::vector<BYTE> EventsFileHeader() {
  std::vector<BYTE> out(kMagic, kMagic + sizeof(kMagic));
  PutUint32(out, kFormatVersion);
  return out;
}

std::vector<BYTE> EncodeEventRecord(const LoggedEvent& e) {
  std::vector<BYTE> out;
  out.reserve(4 + kRecordFixedSize + e.pcrValue.size() + e.event.size());
  PutUint32(out, static_cast<UINT32>(kRecordFixedSize + e.pcrValue.size() + e.event.size()));
  out.insert(out.end(), {e.versionInfo.bMajor, e.versionInfo.bMinor, e.versionInfo.bRevMajor,
                         e.versionInfo.bRevMinor});
  PutUint32(out, e.ulPcrIndex);
  PutUint32(out, e.eventType);
  PutUint32(out, e.ulPcrValueLength);
  out.insert(out.end(), e.pcrValue.begin(), e.pcrValue.end());
  PutUint32(out, e.ulEventLength);
  out.insert(out.end(), e.event.begin(), e.event.end());
  return out;
}

std::optional<ParsedEventsFile> ParseEventsFile(std::span<const BYTE> bytes) {
  Reader header(bytes);
  std::vector<BYTE> magic;
  UINT32 version = 0;
  if (!header.Bytes(sizeof(kMagic), magic) || std::memcmp(magic.data(), kMagic, 4) != 0 ||
      !header.Uint32(version) || version != kFormatVersion) {
    return std::nullopt;
  }
  ParsedEventsFile parsed;
  parsed.wholeLength = kHeaderSize;
  Reader r(bytes.subspan(kHeaderSize));
  UINT32 length = 0;
  while (r.Uint32(length) && r.left() >= length) {
    LoggedEvent e;
    if (!ParseRecord(bytes.subspan(kHeaderSize + r.pos(), length), e)) return std::nullopt;
    std::vector<BYTE> skipped;
    static_cast<void>(r.Bytes(length, skipped));
    parsed.events.push_back(std::move(e));
    parsed.wholeLength = kHeaderSize + r.pos();
  }
  return parsed;
}

std::optional<UINT32> FirstMismatchingPcr(std::span<const LoggedEvent> events,
                                          const PcrReader& read) {
  std::map<UINT32, TPM_PCRVALUE> replayed;
  for (const LoggedEvent& e : events) {
    auto [it, added] = replayed.try_emplace(e.ulPcrIndex, TPM_PCRVALUE{});
    if (e.pcrValue.size() != kDigestSize) return e.ulPcrIndex;
    BYTE both[2 * kDigestSize];
    std::memcpy(both, it->second.digest, kDigestSize);
    std::memcpy(both + kDigestSize, e.pcrValue.data(), kDigestSize);
    static_cast<void>(SHA1(it->second.digest, both, sizeof(both)));
  }
  for (const auto& [pcr, value] : replayed) {
    TPM_PCRVALUE current{};
    if (read(pcr, &current) != TSS_SUCCESS ||
        std::memcmp(current.digest, value.digest, kDigestSize) != 0) {
      return pcr;
    }
  }
  return std::nullopt;
}

TSS_RESULT event_log_attach_file(const std::string& dataDir, const PcrReader& read) {
  const size_t kept = Replay(dataDir, read);
  const std::string path = dataDir + kEventsFileName;
  // A record cut short by a crash is dropped; a new file starts with its header.
  std::unique_ptr<StorageFile> file;
  std::uint64_t end = kept;
  if (kept == 0) {
    const std::vector<BYTE> header = EventsFileHeader();
    file = HostFileSystem().Create(path);
    if (file == nullptr || !file->Write(0, header)) return TCS_E_FAIL;
    end = header.size();
  } else {
    std::error_code error;
    std::filesystem::resize_file(path, kept, error);
    if (error) return TCS_E_FAIL;
    file = HostFileSystem().OpenForUpdate(path);
    if (file == nullptr) return TCS_E_FAIL;
  }
  auto events = std::make_shared<EventsFile>(std::move(file), end);
  event_log_set_append_hook([events](const LoggedEvent& e) { events->Append(e); });
  return TSS_SUCCESS;
}

}  // namespace kesttcs
