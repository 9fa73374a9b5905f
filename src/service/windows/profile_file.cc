// Profile files through the Windows profile API: the section names, each section's key names, then
// each value with GetPrivateProfileStringA.
#include "service/profile_file.h"

#include <windows.h>

#include <vector>

namespace kesttcs {
namespace {

// A profile read into a buffer that grows until the answer fits: the API says "too small" by
// filling all but its last one (lists) or two (single values) bytes.
template <typename Read>
std::vector<char> ReadGrowing(Read read) {
  std::vector<char> buffer(1024);
  for (;;) {
    const DWORD length = read(buffer.data(), static_cast<DWORD>(buffer.size()));
    if (length + 2 < buffer.size()) {
      buffer.resize(length + 1);
      return buffer;
    }
    buffer.resize(buffer.size() * 2);
  }
}

// The names of a "\0"-separated list ended by an empty name.
std::vector<std::string> Names(const std::vector<char>& list) {
  std::vector<std::string> names;
  for (const char* p = list.data(); p < list.data() + list.size() && *p != '\0';
       p += names.back().size() + 1) {
    names.emplace_back(p);
  }
  return names;
}

}  // namespace

bool ReadProfileFile(const std::string& path, ProfileFile* profile) {
  *profile = ProfileFile{};
  const DWORD attributes = GetFileAttributesA(path.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
    return false;
  }
  const char* file = path.c_str();
  const auto sections = Names(ReadGrowing(
      [&](char* out, DWORD size) { return GetPrivateProfileSectionNamesA(out, size, file); }));
  for (const std::string& section : sections) {
    const auto keys = Names(ReadGrowing([&](char* out, DWORD size) {
      return GetPrivateProfileStringA(section.c_str(), nullptr, "", out, size, file);
    }));
    auto& values = profile->sections[section];
    for (const std::string& key : keys) {
      const auto value = ReadGrowing([&](char* out, DWORD size) {
        return GetPrivateProfileStringA(section.c_str(), key.c_str(), "", out, size, file);
      });
      values.emplace(key, std::string(value.data()));
    }
  }
  return true;
}

}  // namespace kesttcs
