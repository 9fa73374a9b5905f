// kesttcs_ifgen: writes every form of the RPC interface that comes from the operation table, so
// that none of them is kept by hand.
//   kesttcs_ifgen write SOURCE_DIR   regenerates the checked-in files (and sections) under
//   SOURCE_DIR kesttcs_ifgen check SOURCE_DIR   exits 1, naming each checked-in file that is out of
//   date kesttcs_ifgen proxies FILE       writes the client proxies (a build step; not checked in)
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>

#include "rpc/gen/generated_text.h"

namespace {

namespace gen = kesttcs::rpc::gen;

// A checked-in file that is generated whole, or (with a section name) whose part between the
// markers "/* BEGIN GENERATED <section> (kesttcs_ifgen) */" and "/* END GENERATED <section> */"
// is generated.
struct CheckedIn {
  std::string_view path;  // relative to the source directory
  std::string_view section;
  std::string (*text)();
};

constexpr CheckedIn kCheckedIn[] = {
    {"src/rpc/kesttcs.idl", "", gen::IdlFile},
    {"include/kesttcs/tcs_types.h", "TYPES", gen::TypesSection},
    {"include/kesttcs/tcs_client.h", "OPERATIONS", gen::ClientSection},
    {"docs/operations.md", "", gen::OperationsDoc},
    {"src/rpc/windows/server_routines.c", "", gen::ServerRoutinesSource},
    {"src/client/windows/client_routines.c", "", gen::WindowsClientRoutinesSource},
};

std::optional<std::string> Read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool Write(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  return static_cast<bool>(out);
}

// What `file` must hold, given what it holds now; nullopt (with a message) when a section's
// markers are missing.
std::optional<std::string> Expected(const CheckedIn& file, const std::string& current) {
  if (file.section.empty()) return file.text();
  const std::string section(file.section);
  const std::string begin = "/* BEGIN GENERATED " + section + " (kesttcs_ifgen) */\n";
  const std::string end = "/* END GENERATED " + section + " */\n";
  const size_t from = current.find(begin);
  const size_t to = from == std::string::npos ? from : current.find(end, from);
  if (to == std::string::npos) {
    std::cerr << file.path << ": no lines \"" << begin.substr(0, begin.size() - 1) << "\" and \""
              << end.substr(0, end.size() - 1) << "\"\n";
    return std::nullopt;
  }
  return current.substr(0, from) + begin + file.text() + current.substr(to);
}

// Writes (or with `check_only` compares) every checked-in file; false when one differs or fails.
bool Regenerate(const std::string& source_dir, bool check_only) {
  bool ok = true;
  for (const CheckedIn& file : kCheckedIn) {
    const std::string path = source_dir + "/" + std::string(file.path);
    const std::string current = Read(path).value_or("");
    const std::optional<std::string> expected = Expected(file, current);
    if (!expected) {
      ok = false;
    } else if (*expected != current) {
      if (check_only) {
        std::cerr << file.path
                  << ": out of date; run cmake --build --preset default --target "
                     "regenerate_interface\n";
        ok = false;
      } else if (!Write(path, *expected)) {
        std::cerr << path << ": cannot write\n";
        ok = false;
      }
    }
  }
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view mode = argc == 3 ? argv[1] : "";
  if (mode == "write" || mode == "check") return Regenerate(argv[2], mode == "check") ? 0 : 1;
  if (mode == "proxies") return Write(argv[2], gen::ProxiesSource()) ? 0 : 1;
  std::cerr << "usage: kesttcs_ifgen write SOURCE_DIR | check SOURCE_DIR | proxies FILE\n";
  return 2;
}
