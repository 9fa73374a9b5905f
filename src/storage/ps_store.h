// Persistent storage's module state and the steps its operations share: the index nodes, the
// lazily opened data file, and the crash-safe change bracket. Private to src/storage.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <string>

#include <kesttcs/tcs_types.h>

#include "base/mutex.h"
#include "storage/file_system.h"
#include "storage/persistent_storage.h"
#include "storage/ps_format.h"

namespace kesttcs {

// One record slot of the file. Zero-filled when made.
struct PsNode {
  UINT32 offset = 0;
  UINT16 pubDataSize = 0;
  UINT16 blobSize = 0;
  UINT16 flags = 0;
  TSS_UUID uuid{};
  TSS_UUID parentUuid{};

  bool valid() const { return (flags & kPsFlagValid) != 0; }
  UINT32 pubDataOffset() const { return offset + kPsRecordHeaderSize; }
  UINT32 blobOffset() const { return pubDataOffset() + pubDataSize; }
};

// The node of a record whose header `header` lies at `offset`.
PsNode MakeNode(const PsRecordHeader& header, UINT32 offset);

// Newest registrations at the front, then the records loaded from the file in file order.
using PsIndex = std::deque<PsNode>;

// The valid node with `uuid`, or null.
PsNode* FindValidNode(PsIndex& index, const TSS_UUID& uuid);
// The first deleted node with exactly these sizes, or null.
PsNode* FindReusableNode(PsIndex& index, UINT16 pubDataSize, UINT16 blobSize);

// Hooks that behave as "nothing there": no key cache, no owner-held keys.
StorageHooks DefaultStorageHooks();

struct PsStore {
  // The file mutex: storage's first lock, before the index mutex. Serialises the descriptor, the
  // data file and its companions.
  Mutex fileMutex;
  FileSystem* fs GUARDED_BY(fileMutex) = &HostFileSystem();
  std::string path GUARDED_BY(fileMutex);                   // the data file; empty while closed
  std::unique_ptr<StorageFile> file GUARDED_BY(fileMutex);  // opened on first use
  // A change failed part-way and the file could not be put back yet: the next change restores it
  // first, so that a half-written file is never copied over the good .tmp copy.
  bool restorePending GUARDED_BY(fileMutex) = false;

  // The index mutex: after the file mutex, before the key cache lock.
  Mutex indexMutex ACQUIRED_AFTER(fileMutex);
  PsIndex index GUARDED_BY(indexMutex);
  StorageHooks hooks GUARDED_BY(indexMutex) = DefaultStorageHooks();
};

// The module state; lives for the whole process, its contents set by ps_init and cleared by
// ps_close.
PsStore& Store();

// The data file, opened (and created when missing) on first use; null while storage is closed or
// when it cannot be opened.
StorageFile* DataFile(PsStore& s) REQUIRES(s.fileMutex);

// Reads exactly out.size() bytes of the data file at `offset`. TCS_E_INTERNAL_ERROR on a failed or
// short read.
[[nodiscard]] TSS_RESULT ReadData(PsStore& s, std::uint64_t offset, std::span<BYTE> out)
    REQUIRES(s.fileMutex);
// Writes all of `data` at `offset`. TCS_E_INTERNAL_ERROR when not every byte was written.
[[nodiscard]] TSS_RESULT WriteData(PsStore& s, std::uint64_t offset, std::span<const BYTE> data)
    REQUIRES(s.fileMutex);

// The record count at offset 4; a short read counts as 0.
UINT32 ReadRecordCount(PsStore& s) REQUIRES(s.fileMutex);

// The change bracket: the .tmp copy (written and flushed), then `write`, then the data and the new
// checksum flushed. When `write` or a later step fails, the file is put back from the copy and the
// failure's code returned; the caller's index must then stay as before.
[[nodiscard]] TSS_RESULT RunChange(PsStore& s, const std::function<TSS_RESULT()>& write)
    REQUIRES(s.fileMutex);

// The two halves of the bracket, also offered on their own (ps_backupToTmp, ps_updateChecksum).
[[nodiscard]] TSS_RESULT BackupToTmp(PsStore& s) REQUIRES(s.fileMutex);
[[nodiscard]] TSS_RESULT UpdateChecksum(PsStore& s) REQUIRES(s.fileMutex);

// Zeroes uuid, parent uuid, flags, public data and blob of every deleted node's slot, as far as
// the file holds them.
[[nodiscard]] TSS_RESULT WipeDeletedSlots(PsStore& s) REQUIRES(s.fileMutex, s.indexMutex);

// Writes a record as writeKeyToPS describes, inside a change; the caller made the checks.
[[nodiscard]] TSS_RESULT WriteKeyRecord(PsStore& s, const TSS_UUID& keyUuid,
                                        const TSS_UUID& parentUuid, std::span<const BYTE> blob)
    REQUIRES(s.fileMutex);

// Loads the index as ps_init describes, once the path is set.
[[nodiscard]] TSS_RESULT LoadIndex(PsStore& s, bool tpmHasOwner) REQUIRES(s.fileMutex);

}  // namespace kesttcs
