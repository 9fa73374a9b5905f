// The key cache: the service's one table of every key a client loaded through it. It maps the TCS
// key handles clients hold to the TPM slots the keys have now, and keeps each key's structure (to
// reload or re-identify it), its UUID and parent, how many contexts reference it, when it last got
// or used a slot (for least-recently-used eviction) and the context it was swapped out with.
//
// Entries are kept newest first, and every look-up answers with the first entry that matches from
// the newest. Look-ups hand out copies: an entry may be removed by another thread as soon as the
// cache mutex is released, so nothing that points into the table leaves it.
//
// Lifecycle: mem_cache_init empties the table, resets the two counters and opens persistent
// storage (which enters the SRK); mem_cache_final closes storage and empties the table. The
// functions may run from any thread in between; outside it they work on an empty table.
//
// Locks: the cache mutex guards the table and every field of every entry. Lock order: the
// context-list mutex, then the storage file and index mutexes, then the cache mutex; where the TPM
// lock and the cache mutex are both held, the TPM lock comes first (a resume repairs the cache with
// the TPM held across the sleep); nothing takes the cache mutex while holding the session mutex.
// The handle counter and the stamp counter each have a leaf mutex of their own (nothing is taken
// while holding one). Operations that need several steps take the cache mutex per step: an entry
// found in one step may be gone in the next.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <kesttcs/tcs_types.h>

#include "storage/persistent_storage.h"
#include "tpm12/tpm_structures.h"

namespace kesttcs {

inline constexpr TCS_KEY_HANDLE kFirstTcsKeyHandle = 0x22330000;
inline constexpr UINT32 kFirstLoadStamp = 1;
// What the TPM saves of a swapped-out key must fit here.
inline constexpr std::size_t kContextBlobSize = 2048;
// The absent answer of the handle look-ups.
inline constexpr TCS_KEY_HANDLE kNoTcsKeyHandle = 0xFFFFFFFF;

// One cached key.
struct mem_cache_entry {
  // The key's TPM slot while it is resident; while it is swapped out, the slot it had when its
  // context was saved (so the swap-in finds it); kNoTpmHandle when not loaded. The SRK's is
  // always kSrkKeyHandle.
  TPM_KEY_HANDLE tpmHandle = kNoTpmHandle;
  // The handle clients hold: unique in the table, never reused while the service runs.
  TCS_KEY_HANDLE tcsKeyHandle = kNoTcsKeyHandle;
  // How many client contexts reference the key; never below 0.
  std::int32_t refCount = 0;
  // The stamp counter's value when the key last got or used a slot; 0 once the slot is cleared.
  // The smallest stamp is the least recently used key.
  UINT32 loadStamp = 0;
  // The UUID the key is registered under in persistent storage, or the NULL UUID.
  TSS_UUID uuid{};
  // The parent's `uuid` when the key was entered (the NULL UUID without a parent entry).
  TSS_UUID parentUuid{};
  // The key as the marshaller unpacked it (key flags masked as the marshaller masks them), PCRInfo
  // included.
  TPM_KEY key;
  // The exact bytes the key was loaded from, when the loader gave them: what a reload sends, so
  // that bits the unpacked structure drops still reach the TPM. Empty when unknown.
  std::vector<BYTE> keyBlob;
  // True while the key is resident under `tpmHandle`; false while swapped out or evicted.
  bool inTpm = false;
  // Length of the saved context in `contextBlob`; 0 when none is held.
  UINT32 contextSize = 0;
  std::array<BYTE, kContextBlobSize> contextBlob{};
  // The parent entry's TCS handle, kNoTcsKeyHandle for none. The parent is found again by handle,
  // so a parent removed meanwhile is simply not found.
  TCS_KEY_HANDLE parentTcsHandle = kNoTcsKeyHandle;
};

// ---- Creation and removal ----

// Empties the table, sets the TCS handle counter to kFirstTcsKeyHandle and the stamp counter to
// kFirstLoadStamp, registers the cache's context and storage hooks, then opens persistent storage
// on `dataFile` and loads its index (ps_init), which enters the SRK record's key. Returns ps_init's
// result (storage is closed again when it fails).
[[nodiscard]] TSS_RESULT mem_cache_init(const std::string& dataFile, bool tpmHasOwner);

// Closes persistent storage (ps_close), then empties the table. The hooks stay safe to call.
void mem_cache_final();

// Enters a key: traces "add_mem_cache_entry start" and "add_mem_cache_entry: parent_handle =
// 0x%08X"; with a parent handle other than kNoTcsKeyHandle looks the parent up (traces
// "add_mem_cache_entry call getKeyEntryByKeyHandle" and "add_mem_cache_entry: parent =0x%08x")
// and returns TCS_E_FAIL when it is not cached. When an entry with `tcsKeyHandle` exists nothing
// is added and the result is 0. Otherwise the new entry goes to the head: resident, a stamp taken
// when `tpmHandle` is a slot, `uuid` or the NULL UUID, the parent's handle and UUID, `blob` (the
// exact bytes, may be empty), and refCount 1 when the table was empty before, else 0 (a key gains
// references only through the contexts that load it; the first one ever entered, normally the
// SRK, starts with one so that it stays). Traces "add_mem_cache_entry end". Takes the cache mutex.
[[nodiscard]] TSS_RESULT add_mem_cache_entry(TCS_KEY_HANDLE tcsKeyHandle, TPM_KEY_HANDLE tpmHandle,
                                             const TPM_KEY& key, std::optional<TSS_UUID> uuid,
                                             TCS_KEY_HANDLE parentTcsHandle,
                                             std::span<const BYTE> blob = {});

// Records a new SRK: removes the entry with `tcsKeyHandle` if there is one and enters `key` afresh
// at the head under the same handle with the SRK UUID and refCount 1, resident, a stamp taken when
// `tpmHandle` is a slot. Returns 0. Takes the cache mutex once for both steps.
[[nodiscard]] TSS_RESULT replaceEntry(TCS_KEY_HANDLE tcsKeyHandle, TPM_KEY_HANDLE tpmHandle,
                                      const TPM_KEY& key);

// Removes the entry with `tcsKeyHandle`. TCS_E_FAIL when there is none.
[[nodiscard]] TSS_RESULT removeEntryByHandle(TCS_KEY_HANDLE tcsKeyHandle);

// Removes every entry that no context references; one still resident in a slot is evicted from the
// TPM first (EvictTpmKey; its failure does not keep the entry). Holds the cache mutex throughout,
// the TPM commands included.
void removeUnreferencedKeys();
// The same for every entry, referenced or not.
void removeAllKeys();

// ---- Reference counts (driven by the contexts' key references) ----

// refCount += 1. TCS_E_FAIL when the key is not cached.
[[nodiscard]] TSS_RESULT incKeyRefCount(TCS_KEY_HANDLE tcsKeyHandle);
// refCount -= 1 when it is above 0. Returns 0 whenever the key is cached, TCS_E_FAIL when not.
[[nodiscard]] TSS_RESULT decKeyRefCount(TCS_KEY_HANDLE tcsKeyHandle);

// ---- Counters (each behind its leaf mutex) ----

// The next TCS key handle (the counter's old value). Taken only for a key that matches no cached
// key: a key loaded again while cached keeps its handle.
TCS_KEY_HANDLE nextTcsKeyHandle();
// The next load stamp (the counter's old value).
UINT32 nextLoadStamp();

// ---- Look-ups (cache mutex; copies, never references into the table) ----

// The slot of `tcsKeyHandle`; kSrkKeyHandle answers itself without a look-up. kNoTpmHandle when
// absent.
TPM_KEY_HANDLE getSlotByHandle(TCS_KEY_HANDLE tcsKeyHandle);
// The TCS handle of the key in slot `tpmHandle`; kNoTcsKeyHandle when absent.
TCS_KEY_HANDLE getHandleBySlot(TPM_KEY_HANDLE tpmHandle);
std::optional<mem_cache_entry> getKeyEntryByKeyHandle(TCS_KEY_HANDLE tcsKeyHandle);
// By slot; kNoTpmHandle finds nothing.
std::optional<TPM_KEY> getKeyBySlot(TPM_KEY_HANDLE tpmHandle);
std::optional<TPM_STORE_PUBKEY> getPubKeyBySlot(TPM_KEY_HANDLE tpmHandle);
std::optional<TPM_KEY> getKeyByHandle(TCS_KEY_HANDLE tcsKeyHandle);
// The same as getKeyByHandle: every look-up answers with a copy.
inline std::optional<TPM_KEY> getKeyCopyByHandle(TCS_KEY_HANDLE tcsKeyHandle) {
  return getKeyByHandle(tcsKeyHandle);
}
std::optional<TPM_STORE_PUBKEY> getPubKeyByHandle(TCS_KEY_HANDLE tcsKeyHandle);
// The key's algorithm parameters and public key.
std::optional<TPM_PUBKEY> getKeyParmsAndPubByHandle(TCS_KEY_HANDLE tcsKeyHandle);
// The exact bytes the key was entered with; nothing when absent or not given.
std::optional<std::vector<BYTE>> getKeyBlobByHandle(TCS_KEY_HANDLE tcsKeyHandle);
// The UUID of the key whose public key is `pubKey` (length and bytes).
std::optional<TSS_UUID> getUuidByPubKey(const TPM_STORE_PUBKEY& pubKey);
// The UUID of the key whose encData starts with `encData` over the entry's encSize, when that
// UUID is not the NULL UUID.
std::optional<TSS_UUID> getUuidByEncData(std::span<const BYTE> encData);
// The TCS handle of the key matched as by getUuidByEncData (whatever its UUID); 0 when absent.
TCS_KEY_HANDLE getHandleByEncData(std::span<const BYTE> encData);
// Copies the key registered as `uuid` to *key. TCS_E_FAIL when absent.
[[nodiscard]] TSS_RESULT getKeyByUuid(const TSS_UUID& uuid, TPM_KEY* key);
std::optional<TPM_STORE_PUBKEY> getPubKeyByUuid(const TSS_UUID& uuid);
// By public key: the slot (kNoTpmHandle when absent) and the TCS handle (kNoTcsKeyHandle).
TPM_KEY_HANDLE getSlotByPubKey(const TPM_STORE_PUBKEY& pubKey);
TCS_KEY_HANDLE getHandleByPubKey(const TPM_STORE_PUBKEY& pubKey);
// The public key of the parent of the key whose public key is `pubKey`.
std::optional<TPM_STORE_PUBKEY> getParentPubKeyByPubKey(const TPM_STORE_PUBKEY& pubKey);
// By keysEqual: the slot (kNoTpmHandle when absent) and the TCS handle (kNoTcsKeyHandle).
TPM_KEY_HANDLE getSlotByKey(const TPM_KEY& key);
TCS_KEY_HANDLE getHandleByKey(const TPM_KEY& key);
// The parent key of the first key with the same public key; nothing without a match or a parent.
std::optional<TPM_KEY> getParentKeyByKey(const TPM_KEY& key);
// True when a cached key has the same public key and the same encData (size and bytes).
bool isKeyInCache(const TPM_KEY& key);

// ---- Updates (cache mutex; TCS_E_FAIL when the entry is absent) ----

// On the key in slot `oldTpmHandle`: to kNoTpmHandle clears the stamp and the resident flag, to a
// slot takes a new stamp; then the slot becomes `newTpmHandle`.
[[nodiscard]] TSS_RESULT setSlotBySlot(TPM_KEY_HANDLE oldTpmHandle, TPM_KEY_HANDLE newTpmHandle);
// The same on the key found by TCS handle, except that the resident flag is left as it is.
[[nodiscard]] TSS_RESULT setSlotByHandle(TCS_KEY_HANDLE tcsKeyHandle, TPM_KEY_HANDLE newTpmHandle);
// A new stamp for the key in slot `tpmHandle` (it was just used).
[[nodiscard]] TSS_RESULT touchSlot(TPM_KEY_HANDLE tpmHandle);
// Makes `parentTcsHandle` the parent of `childTcsHandle`; TCS_E_FAIL when either is absent.
[[nodiscard]] TSS_RESULT setParentByHandle(TCS_KEY_HANDLE childTcsHandle,
                                           TCS_KEY_HANDLE parentTcsHandle);
// Replaces the key's encData (and encSize) with `encData`; the exact bytes follow.
[[nodiscard]] TSS_RESULT setEncDataByHandle(TCS_KEY_HANDLE tcsKeyHandle,
                                            std::span<const BYTE> encData);
// On the first key whose encData equals `oldEncData`, writes `newEncData` over it (the length
// stays). TCS_E_INTERNAL_ERROR when no key holds `oldEncData`; TCS_E_BAD_PARAMETER when the two
// lengths differ.
[[nodiscard]] TSS_RESULT replaceEncData(std::span<const BYTE> oldEncData,
                                        std::span<const BYTE> newEncData);
// When the key registered as `uuid` holds `oldEncData`, writes `newEncData` over it and stores the
// repacked key (its exact bytes, when known) in persistent storage under `uuid` (updateKeyBlob,
// after the cache mutex is released: storage comes before the cache). TCS_E_FAIL when the key
// registered as `uuid` is not cached or holds other encData; TCS_E_BAD_PARAMETER when the two
// lengths differ; otherwise the storage write's result.
[[nodiscard]] TSS_RESULT updateRegisteredEncData(const TSS_UUID& uuid,
                                                 std::span<const BYTE> oldEncData,
                                                 std::span<const BYTE> newEncData);

}  // namespace kesttcs
