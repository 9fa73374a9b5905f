// The owner-held key list: keys whose owner-evict bit is set stay in the TPM across restarts of the
// service and of the TPM, so the service remembers them in "KestCtrl.dat" in the data directory
// (layout in docs/formats.md): per key its UUID, the TPM handle it holds and its TPM_KEY blob. The
// key layer re-enters the keys still loaded into the key cache at start-up (InitOwnerCtrlKey) and
// keeps the list in step as the bit is set and cleared; Tcsi_GetRegisteredKeyBlob asks the list
// first (the storage hook findOwnerHeldKey).
//
// Every change rewrites the whole file crash-safely: "KestCtrl.tmp" is written and flushed, then
// renamed over the file and the directory flushed, so a crash leaves the old list or the new one.
//
// Lifecycle: owner_keys_open reads the file (creating it when absent); ReleaseOwnCtrl frees the
// list. Outside them the list is empty and changes fail with TCS_E_INTERNAL_ERROR.
//
// Locks: one mutex guards the list and the file. It is a leaf: nothing else is taken while it is
// held, so any manager may call in while holding its own locks.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include <kesttcs/tcs_types.h>

#include "storage/file_system.h"
#include "tpm12/tpm_structures.h"

namespace kesttcs {

// The longest blob a record may carry; reading ends at a record that claims more.
inline constexpr UINT32 kOwnerHeldMaxBlobSize = 4096;

// One record of the list.
struct OwnerHeldKey {
  TSS_UUID uuid{};
  TPM_KEY_HANDLE tpmHandle = 0;
  std::vector<BYTE> blob;
};

// ---- The file's bytes (no state, no lock) ----

// The whole file for `keys`: header (checksum, count) and the records in order.
std::vector<BYTE> EncodeOwnerHeldFile(std::span<const OwnerHeldKey> keys);

// What a read of the file found.
struct OwnerHeldFileContents {
  std::vector<OwnerHeldKey> keys;
  // False when the stored checksum does not match the bytes (the records that parse are kept).
  bool checksumMatched = true;
};

// Reads `bytes` as the file. An empty file is an empty list. Reading ends, keeping the records
// before, at a record whose blob is longer than kOwnerHeldMaxBlobSize, does not fit in the file,
// does not parse as a TPM_KEY, or beyond the record count.
OwnerHeldFileContents DecodeOwnerHeldFile(std::span<const BYTE> bytes);

// ---- The list ----

// Reads `file` into the list through `fs` (which must outlive the list); a file that is absent or
// empty is written as an empty list (its 8-byte header). A file whose checksum does not match is
// traced, its records that parse are kept, and it is rewritten with them. Registers the
// findOwnerHeldKey storage hook. Returns 0, or TCS_E_INTERNAL_ERROR when the file cannot be read or
// created.
[[nodiscard]] TSS_RESULT owner_keys_open(const std::string& file,
                                         FileSystem& fs = HostFileSystem());

// Frees the list; later changes fail until the next owner_keys_open.
void ReleaseOwnCtrl();

// A copy of every record, in file order.
std::vector<OwnerHeldKey> owner_keys_list();

// The record with `uuid`, nothing when none.
std::optional<OwnerHeldKey> owner_keys_find(const TSS_UUID& uuid);

// Whether a record holds `tpmHandle`.
bool owner_keys_holds(TPM_KEY_HANDLE tpmHandle);

// Adds `key` at the end, replacing a record that holds the same TPM handle, and rewrites the file.
// TCS_E_BAD_PARAMETER for a blob over kOwnerHeldMaxBlobSize; TCS_E_INTERNAL_ERROR when the file
// cannot be written (the list is then as before).
[[nodiscard]] TSS_RESULT owner_keys_add(OwnerHeldKey key);

// Keeps the records whose flag in `keep` (one per record, in file order) is set and rewrites the
// file when any is dropped. TCS_E_BAD_PARAMETER when `keep` has the wrong length;
// TCS_E_INTERNAL_ERROR when the file cannot be written (the list is then as before).
[[nodiscard]] TSS_RESULT owner_keys_keep(const std::vector<bool>& keep);

// Removes the record holding `tpmHandle` (0 when there is none) and rewrites the file.
[[nodiscard]] TSS_RESULT owner_keys_remove(TPM_KEY_HANDLE tpmHandle);

}  // namespace kesttcs
