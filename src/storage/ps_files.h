// The data file's companions and the file-level steps around changes: the "KestData.tmp" copy taken
// before each change and restored from after a failed or interrupted one, the "KestData.dat.bak"
// set-aside, and the checksum check. Everything goes through the given file system; nothing here
// keeps state or takes a lock (callers hold the storage file mutex where it exists).
#pragma once

#include <string>

#include <kesttcs/tcs_types.h>

#include "storage/file_system.h"

namespace kesttcs {

// "KestData.tmp" beside the data file, and "KestData.dat.bak" (the data file's name + ".bak").
std::string TmpPathOf(const std::string& dataFile);
std::string BakPathOf(const std::string& dataFile);

// True when `path` holds at least 4 bytes and the stored checksum equals the computed one.
bool ChecksumMatches(FileSystem& fs, const std::string& path);

// Replaces the .tmp copy with the bytes of `data`: the old copy is deleted, the new one written,
// flushed, and its name made durable, so that once this returns 0 the copy survives a crash.
// TCS_E_INTERNAL_ERROR when any step fails.
[[nodiscard]] TSS_RESULT CopyToTmp(FileSystem& fs, StorageFile& data, const std::string& dataFile);

// Puts the data file back from its .tmp copy when the copy is usable (empty, the copy of an empty
// file, or with a matching checksum): renames it over the data file and makes that durable. The
// caller must have closed its descriptor of the data file. False when there is no usable copy or
// the rename fails; the data file is then as it was.
[[nodiscard]] bool RestoreFromTmp(FileSystem& fs, const std::string& dataFile);

}  // namespace kesttcs
