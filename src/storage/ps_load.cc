// Loading the index from the data file at start-up.
#include <array>
#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "base/logging.h"
#include "storage/key_blob.h"
#include "storage/ps_store.h"

namespace kesttcs {
namespace {

// The SRK placeholder's TCPA_KEY: version 1.1.0.0, a storage key without flags whose use always
// needs authorisation, RSA 2048 with two primes and the default exponent, OAEP (SHA-1, MGF1)
// encryption, no signature scheme, and neither PCR info, public key nor encrypted part.
constexpr std::array<BYTE, 47> kSrkPlaceholderBlob = {
    0x01, 0x01, 0x00, 0x00,  // ver
    0x00, 0x11,              // keyUsage: storage
    0x00, 0x00, 0x00, 0x00,  // keyFlags
    0x01,                    // authDataUsage: always
    0x00, 0x00, 0x00, 0x01,  // algorithmID: RSA
    0x00, 0x03,              // encScheme: OAEP with SHA-1 and MGF1
    0x00, 0x01,              // sigScheme: none
    0x00, 0x00, 0x00, 0x0C,  // parmSize
    0x00, 0x00, 0x08, 0x00,  // RSA keyLength: 2048
    0x00, 0x00, 0x00, 0x02,  // RSA numPrimes
    0x00, 0x00, 0x00, 0x00,  // RSA exponentSize: the default exponent
    0x00, 0x00, 0x00, 0x00,  // PCRInfoSize
    0x00, 0x00, 0x00, 0x00,  // pubKey keyLength
    0x00, 0x00, 0x00, 0x00,  // encSize
};

// Walks the record headers from offset 8, at most `count` of them.
class RecordWalker {
 public:
  enum class Step {
    kRecord,     // a record within the limits and the file
    kOversize,   // a size over its limit: loading ends here
    kEnd,        // no more records: the count is reached or the next one does not fit the file
    kReadError,  // the file could not be read
  };

  RecordWalker(UINT32 count, std::uint64_t fileSize) : left_(count), fileSize_(fileSize) {}

  Step Next(PsStore& s, PsRecordHeader* header, UINT32* offset) REQUIRES(s.fileMutex) {
    if (left_ == 0 || !Fits(kPsRecordHeaderSize)) return Step::kEnd;
    PsRecordHeaderBytes bytes;
    if (ReadData(s, next_, bytes) != TSS_SUCCESS) return Step::kReadError;
    *header = DecodeRecordHeader(bytes);
    *offset = static_cast<UINT32>(next_);
    if (header->pubDataSize > kPsMaxPubDataSize || header->blobSize > kPsMaxBlobSize) {
      return Step::kOversize;
    }
    const std::uint64_t size =
        std::uint64_t{kPsRecordHeaderSize} + header->pubDataSize + header->blobSize;
    if (!Fits(size)) return Step::kEnd;
    next_ += size;
    --left_;
    return Step::kRecord;
  }

 private:
  // Whether `size` bytes from the next record's offset lie within the file (and the offsets a
  // node can hold).
  bool Fits(std::uint64_t size) const {
    return next_ + size <= fileSize_ && next_ <= std::numeric_limits<UINT32>::max();
  }

  UINT32 left_;
  const std::uint64_t fileSize_;
  std::uint64_t next_ = kPsFirstRecordOffset;
};

// A walk over the records the file holds now; nothing when its size cannot be read.
std::optional<RecordWalker> WalkFromStart(PsStore& s) REQUIRES(s.fileMutex) {
  StorageFile* file = DataFile(s);
  if (file == nullptr) return std::nullopt;
  const std::optional<std::uint64_t> size = file->Size();
  if (!size) return std::nullopt;
  return RecordWalker(ReadRecordCount(s), *size);
}

// The node of an oversize record holds what was read up to the size over its limit: the blob size
// only when the public data size passed, the flags never.
PsNode MakeBegunNode(const PsRecordHeader& header, UINT32 offset) {
  PsNode node = MakeNode(header, offset);
  node.flags = 0;
  if (header.pubDataSize > kPsMaxPubDataSize) node.blobSize = 0;
  return node;
}

TSS_RESULT HasSrkRecord(PsStore& s, bool* found) REQUIRES(s.fileMutex) {
  std::optional<RecordWalker> walker = WalkFromStart(s);
  if (!walker) return TCS_E_INTERNAL_ERROR;
  PsRecordHeader header;
  UINT32 offset = 0;
  *found = false;
  while (walker->Next(s, &header, &offset) == RecordWalker::Step::kRecord) {
    if (SameUuid(header.uuid, kSrkUuid)) *found = true;
  }
  return TSS_SUCCESS;
}

}  // namespace

TSS_RESULT LoadIndex(PsStore& s, bool tpmHasOwner) {
  bool srkFound = false;
  if (TSS_RESULT r = HasSrkRecord(s, &srkFound)) return r;
  if (!srkFound && tpmHasOwner) {
    TSS_RESULT r = WriteKeyRecord(s, kSrkUuid, kNullUuid, kSrkPlaceholderBlob);
    // Loading goes on without it: the SRK counts as registered all the same.
    if (r != TSS_SUCCESS) TcsTrace("ps_init:SRK placeholder record not written", &r);
  }

  std::optional<RecordWalker> walker = WalkFromStart(s);
  if (!walker) return TCS_E_INTERNAL_ERROR;
  PsIndex loaded;
  std::vector<TPM_KEY> srkKeys;
  PsRecordHeader header;
  UINT32 offset = 0;
  for (bool more = true; more;) {
    switch (walker->Next(s, &header, &offset)) {
      case RecordWalker::Step::kRecord:
        loaded.push_back(MakeNode(header, offset));
        if (SameUuid(header.uuid, kSrkUuid)) {
          std::vector<BYTE> blob(header.blobSize);
          if (TSS_RESULT r = ReadData(s, loaded.back().blobOffset(), blob)) return r;
          if (TPM_KEY srk; ParseKeyBlob(blob, &srk)) srkKeys.push_back(std::move(srk));
        }
        break;
      case RecordWalker::Step::kOversize:
        loaded.push_back(MakeBegunNode(header, offset));
        more = false;
        break;
      case RecordWalker::Step::kEnd:
        more = false;
        break;
      case RecordWalker::Step::kReadError:
        return TCS_E_INTERNAL_ERROR;
    }
  }

  MutexLock lock(s.indexMutex);
  s.index = std::move(loaded);
  for (const TPM_KEY& srk : srkKeys) s.hooks.addSrkToKeyCache(srk);
  return TSS_SUCCESS;
}

}  // namespace kesttcs
