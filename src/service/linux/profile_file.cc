// Profile files through inih.
#include "service/profile_file.h"

#include <ini.h>

#include <string_view>

namespace kesttcs {
namespace {

int CollectValue(void* user, const char* section, const char* name, const char* value) {
  std::string_view v(value);
  if (v.size() >= 2 && (v.front() == '"' || v.front() == '\'') && v.back() == v.front()) {
    v = v.substr(1, v.size() - 2);
  }
  static_cast<ProfileFile*>(user)->sections[section].emplace(name, std::string(v));
  return 1;
}

}  // namespace

bool ReadProfileFile(const std::string& path, ProfileFile* profile) {
  *profile = ProfileFile{};
  const int result = ini_parse(path.c_str(), CollectValue, profile);
  if (result < 0) return false;
  profile->malformedLine = result;
  return true;
}

}  // namespace kesttcs
