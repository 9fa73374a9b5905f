// Persistent storage of registered keys: the file "KestData.dat" in the data directory (layout in
// docs/formats.md) and the in-memory index of its record slots, with the lookups key loading needs
// and the writes behind the registration operations (registered_keys.h).
//
// The index lists the records registered since start-up first, newest first, then the records
// loaded from the file in file order; a deleted node keeps its slot's offset and sizes and is
// reused by the first record of exactly the same sizes.
//
// Every change of the file (register, unregister, blob update, the SRK placeholder, the wipe at
// close) is made crash-safe: the "KestData.tmp" copy is written and flushed first, the change is
// written in place, then the data and the new checksum are flushed. A change that fails part-way
// puts the file back from the copy and leaves the index as it was; start-up (ps_checkAndRestore)
// does the same for a change a crash interrupted.
//
// Lifecycle: ps_init opens storage and loads the index, ps_close wipes deleted slots and closes it
// again; every other function may run from any thread in between (the lookups find nothing and
// the writes fail with TCS_E_INTERNAL_ERROR while storage is closed). The start-up steps
// ps_moveToBak and ps_checkAndRestore run before ps_init.
//
// Locks: the file mutex serialises every use of the data file (its one lazily opened descriptor)
// and of its companion files; the index mutex guards the index and the hooks. Where both are held
// the file mutex comes first; both come before the key cache lock, which hooks may take.
#pragma once

#include <functional>
#include <optional>
#include <span>
#include <string>

#include <kesttcs/tcs_types.h>

#include "storage/file_system.h"
#include "tpm12/tpm_structures.h"

namespace kesttcs {

// The TCS and TPM key handle the SRK is entered under.
inline constexpr TCS_KEY_HANDLE kSrkKeyHandle = 0x40000000;
// The TPM handle of a cached key that is not loaded.
inline constexpr TPM_KEY_HANDLE kNoTpmHandle = 0xFFFFFFFF;

// What the key cache holds of one key: the enumeration takes these instead of the stored blob's.
struct CachedKeyFacts {
  TSS_VERSION version{};
  BYTE authDataUsage = 0;
  TPM_KEY_HANDLE tpmHandle = kNoTpmHandle;
};

// How storage reaches the managers above it. The key cache and the owner-held key list register
// their parts at their init; a part nobody registered behaves as "nothing there".
struct StorageHooks {
  // Key cache: the SRK record was loaded; enter `srk` under kSrkKeyHandle (TCS and TPM handle) and
  // the SRK UUID. Called by ps_init with both storage mutexes held.
  std::function<void(const TPM_KEY& srk)> addSrkToKeyCache{};
  // Key cache: what it holds of the key registered as `uuid`, nothing when it holds none. Called
  // with both storage mutexes held.
  std::function<std::optional<CachedKeyFacts>(const TSS_UUID& uuid)> findCachedKey{};
  // Owner-held key list: the key it keeps loaded as `uuid`, nothing when none. Called without the
  // storage mutexes.
  std::function<std::optional<TPM_KEY>(const TSS_UUID& uuid)> findOwnerHeldKey{};
};

// Installs the members of `hooks` that are set; they stay until ps_close. Takes the index mutex.
void ps_RegisterHooks(StorageHooks hooks);
// The file system every storage function goes through until ps_close; null restores the real one.
// Takes the file mutex.
void ps_SetFileSystem(FileSystem* fileSystem);
// The registered hooks (the defaults where none was registered). Takes the index mutex.
StorageHooks ps_CurrentHooks();

// ---- Start-up and shut-down ----

// Sets the registered keys aside while the TPM has no owner: renames a non-empty `dataFile` to
// "KestData.dat.bak". An existing ".bak" is kept and the file stays in place. Returns 0.
[[nodiscard]] TSS_RESULT ps_moveToBak(const std::string& dataFile);

// Checks a non-empty `dataFile`'s checksum. On a mismatch the file is restored from a usable
// "KestData.tmp" copy (the state before an interrupted change); without one the file is kept and
// loading takes the records that parse. Either way a service event reports the mismatch
// ("KestData.dat checksum mismatch; ..."). Always returns 0: a mismatch never stops start-up.
[[nodiscard]] TSS_RESULT ps_checkAndRestore(const std::string& dataFile);

// Opens storage on `dataFile` (created empty when missing) and loads the index:
//  1. the record count at offset 4 (a short read counts as 0);
//  2. when no record has the SRK UUID and the TPM has an owner, an SRK placeholder record is
//     written as a change: uuid SRK, parent NULL, the 47-byte TCPA_KEY template;
//  3. a node per record slot, in file order; the SRK record's blob is handed to the
//     addSrkToKeyCache hook.
// A pub data size over 2048 or a blob size over 4096 ends loading with success, keeping the nodes
// read before it and the one just begun; so does a record that does not fit in the file. Returns 0,
// or TCS_E_INTERNAL_ERROR when the file cannot be opened or a read fails (storage is then closed).
[[nodiscard]] TSS_RESULT ps_init(const std::string& dataFile, bool tpmHasOwner);

// Wipes the deleted slots on disk (as a change, when there are any), frees the index, closes the
// descriptor, and puts the hooks and the file system back to their defaults.
void ps_close();

// Closes the descriptor, deletes the data file and empties the index (after the TPM owner was
// cleared, registered keys can no longer be loaded). Returns 0, or TCS_E_INTERNAL_ERROR when the
// file cannot be deleted.
[[nodiscard]] TSS_RESULT ps_delete();

// ---- Lookups (index mutex; the blob reads take the file mutex first) ----

// True for the SRK UUID always, else when a valid node has `uuid`.
bool isUUIDRegistered(const TSS_UUID& uuid);

// Copies the parent UUID of the valid node with `uuid` to *parentUuid. TCS_E_FAIL when absent.
[[nodiscard]] TSS_RESULT getParentUUIDByUUID(const TSS_UUID& uuid, TSS_UUID* parentUuid);

// kPsTypeSystem for the SRK UUID; for the valid node with `parentUuid`, kPsTypeSystem when its
// parent is in the system storage (flag 0x2) and kPsTypeUser when not; kPsTypeAbsent otherwise.
int getParentPSTypeByUUID(const TSS_UUID& parentUuid);

// Copies the stored blob of the valid node with `uuid` into `buffer` and its length to *size.
// TCS_E_FAIL when absent or when the blob is longer than the buffer; TCS_E_INTERNAL_ERROR when the
// file cannot be read.
[[nodiscard]] TSS_RESULT getKeyBlobByUUID(const TSS_UUID& uuid, std::span<BYTE> buffer,
                                          UINT16* size);

// The UUID of the first valid node (in index order) whose public data holds `modulus` after its
// 4-byte length; nothing when none does. Public data over 2048 bytes, or a failed read, ends the
// search.
std::optional<TSS_UUID> getUUIDByPub(std::span<const BYTE> modulus);
bool isPubRegistered(std::span<const BYTE> modulus);

// ---- Writes (file mutex, then index mutex; each a crash-safe change) ----

// Writes a record for `blob` registered as `keyUuid` under `parentUuid`, without the registration
// checks (Tcsi_RegisterKey_Internal makes them): flags valid, plus 0x2 when the parent is the NULL
// UUID or getParentPSTypeByUUID says system; the public data marshalled from the blob's key. The
// slot is the first deleted one of exactly the same sizes, else a new one appended (the record
// count grows). On success the node is reused or pushed at the head of the index. TCS_E_FAIL when
// the blob does not parse as a TCPA_KEY, its public data or the blob is over the limits, the
// parent is absent, or writing fails (the file is then as before); TCS_E_INTERNAL_ERROR while
// storage is closed.
[[nodiscard]] TSS_RESULT writeKeyToPS(const TSS_UUID& keyUuid, const TSS_UUID& parentUuid,
                                      std::span<const BYTE> blob);

// Unregisters `uuid`: clears its node's valid bit and wipes every deleted slot on disk (uuid,
// parent uuid, flags, public data and blob zeroed; the two sizes kept). TCS_E_KEY_NOT_REGISTERED
// when no valid node has the UUID; TCS_E_FAIL when writing fails (the key stays registered).
[[nodiscard]] TSS_RESULT removeRegisteredKey(const TSS_UUID& uuid);

// Overwrites a stored blob in place: walks the index and stops at the first node that has `uuid`
// or is deleted, and writes the first blob-size bytes of `blob` over that record's blob (stopping
// at a deleted node is intended: the named key's blob then stays as it was). Returns 0 also when
// no node matched; TCS_E_FAIL when `blob` is shorter than the stored blob or writing fails (the
// file is then as before).
[[nodiscard]] TSS_RESULT updateKeyBlob(const TSS_UUID& uuid, std::span<const BYTE> blob);

// ---- The change steps, offered on their own ----

// Recomputes the checksum over the data file from offset 4 and writes it at offset 0, flushing
// the data before and the checksum after. A read error writes nothing. TCS_E_INTERNAL_ERROR on
// failure.
[[nodiscard]] TSS_RESULT ps_updateChecksum();
// Replaces "KestData.tmp" with a flushed copy of the data file. TCS_E_INTERNAL_ERROR on failure.
[[nodiscard]] TSS_RESULT ps_backupToTmp();
// True when the file at `path` holds at least 4 bytes and its stored checksum matches.
bool ps_checkFile(const std::string& path);

}  // namespace kesttcs
