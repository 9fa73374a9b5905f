#include <ini.h>

#include <cstdlib>
#include <cstring>

#include "tools/service_home.h"

namespace kesttcs::cli {

std::string ServiceHome() {
  const char* home = std::getenv("KESTTCS_HOME");
  return home != nullptr && *home != '\0' ? home : "/var/lib/kesttcs";
}

std::string ServiceConfigValue(const char* section, const char* name) {
  struct Wanted {
    const char* section;
    const char* name;
    std::string value;
  } wanted{section, name, {}};
  ini_parse((ServiceHome() + "/tcs_cfg.ini").c_str(),
            [](void* user, const char* s, const char* n, const char* v) {
              auto* w = static_cast<Wanted*>(user);
              if (std::strcmp(s, w->section) == 0 && std::strcmp(n, w->name) == 0) w->value = v;
              return 1;
            },
            &wanted);
  return wanted.value;
}

}  // namespace kesttcs::cli
