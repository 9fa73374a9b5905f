#include "storage/audit_log.h"

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "base/logging.h"
#include "base/mutex.h"
#include "storage/audit_list.h"
#include "tpm/req_mgr.h"

namespace kesttcs {
namespace {

// The comment header ends in a full-width colon as the GB2312 code page writes it.
constexpr char kCommentHeader[] = "//-- Comment\xA3\xBA";
constexpr std::size_t kDumpBytesPerLine = 16;
constexpr std::size_t kStampSize = 16;  // "20070514090507" and its terminator

struct AuditFile {
  Mutex mu;  // the audit file mutex, a leaf
  std::string directory GUARDED_BY(mu);
};

AuditFile& File() {
  static AuditFile file;
  return file;
}

// The current log in `directory`; empty when there is no directory.
std::string LogPathIn(const std::string& directory) {
  return directory.empty() ? std::string() : directory + "/" + kAuditLogFileName;
}

std::string Stamp() {
  char stamp[kStampSize] = {};
  FormatCompactStamp(stamp, sizeof stamp);
  return stamp;
}

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

void Put(std::FILE* f, std::string_view text) { std::fwrite(text.data(), 1, text.size(), f); }

// Each byte as "%.2X ", 16 to a line, every line (a short last one too) ended, then one more line
// end.
void PutDump(std::FILE* f, const BYTE* data, UINT32 length) {
  std::string line;
  for (UINT32 i = 0; i < length; ++i) {
    char hex[4];
    std::snprintf(hex, sizeof hex, "%.2X ", data[i]);
    line += hex;
    if ((i + 1) % kDumpBytesPerLine == 0 || i + 1 == length) {
      Put(f, line);
      Put(f, "\n");
      line.clear();
    }
  }
  Put(f, "\n");
}

void WriteRecord(std::FILE* f, int kind, UINT32 length, const BYTE* data, bool sent) {
  switch (kind) {
    case kAuditComment:
      Put(f, kCommentHeader);
      Put(f, std::string_view(reinterpret_cast<const char*>(data), length));
      Put(f, "\n");
      return;
    case kAuditData:
      Put(f, sent ? "//--Send Data To TPM.Time:" : "//--Recv Data From TPM.Time:");
      Put(f, Stamp());
      Put(f, sent ? "\n" : "\n\n");
      break;
    case kAuditDigest:
      Put(f, "//-- Audit Digest\n");
      break;
    case kAuditDigestSigned:
      Put(f, "//-- Audit Digest Signed\n");
      break;
  }
  PutDump(f, data, length);
}

// The request manager's hook: commands and responses of audited ordinals.
void WriteExchange(UINT32 length, const BYTE* data, bool sent) {
  auditLog_write(kAuditData, length, data, sent);
}

}  // namespace

void audit_log_init(const std::string& directory) {
  audit_clear();
  {
    AuditFile& file = File();
    MutexLock lock(file.mu);
    file.directory = directory;
  }
  SetAuditHook(audit_isAudited, WriteExchange);
}

void audit_log_final() {
  SetAuditHook(nullptr, nullptr);
  audit_clear();
  AuditFile& file = File();
  MutexLock lock(file.mu);
  file.directory.clear();
}

void auditLog_write(int kind, UINT32 length, const BYTE* data, bool sent) {
  if (kind < kAuditComment || kind > kAuditDigestSigned) return;
  if (data == nullptr) length = 0;
  AuditFile& file = File();
  MutexLock lock(file.mu);
  const std::string path = LogPathIn(file.directory);
  FilePtr f(path.empty() ? nullptr : std::fopen(path.c_str(), "ab"));
  if (f == nullptr) {
    TcsTrace("Open Audit log file error.", nullptr);
    return;
  }
  WriteRecord(f.get(), kind, length, data, sent);
}

void auditLog_rotate() {
  AuditFile& file = File();
  MutexLock lock(file.mu);
  const std::string current = LogPathIn(file.directory);
  if (current.empty() || FilePtr(std::fopen(current.c_str(), "rb")) == nullptr) return;
  const std::string kept = file.directory + "/Audit" + Stamp() + ".log";
  if (std::rename(current.c_str(), kept.c_str()) != 0) {
    TcsTracef("auditLog_rotate:cannot move %s", current.c_str());
  }
}

}  // namespace kesttcs
