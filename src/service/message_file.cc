#include "service/message_file.h"

#include <ini.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

#include "base/logging.h"
#include "base/mutex.h"
#include "service/host_paths.h"

namespace kesttcs {
namespace {

struct LanguageName {
  const char* code;
  UINT16 id;
};
constexpr LanguageName kLanguages[] = {
    {"en", 0x0409}, {"de", 0x0407}, {"fr", 0x040c}, {"zh", 0x0804}, {"ja", 0x0411},
    {"ko", 0x0412}, {"es", 0x0c0a}, {"it", 0x0410}, {"ru", 0x0419}, {"pt", 0x0416},
    {"nl", 0x0413}, {"pl", 0x0415}, {"sv", 0x041d}, {"tr", 0x041f}, {"cs", 0x0405},
};

// The section's texts by key, lower-cased section names as inih hands them over.
using Sections = std::map<std::string, std::map<std::string, std::string>>;

struct MessageTable {
  Mutex mu;  // a leaf
  bool loaded GUARDED_BY(mu) = false;
  std::map<std::string, std::string> texts GUARDED_BY(mu);
};

MessageTable& Table() {
  static MessageTable table;
  return table;
}

// A text's line ends are written "\n" in the file, since inih trims what surrounds a value.
std::string Unescape(const char* value) {
  std::string text;
  for (const char* p = value; *p != '\0'; ++p) {
    if (p[0] == '\\' && p[1] == 'n') {
      text += '\n';
      ++p;
    } else {
      text += *p;
    }
  }
  return text;
}

int CollectLine(void* user, const char* section, const char* name, const char* value) {
  (*static_cast<Sections*>(user))[section][name] = Unescape(value);
  return 1;
}

std::string SectionName(UINT16 id) {
  char name[8];
  std::snprintf(name, sizeof(name), "%04x", id);
  return name;
}

// The texts of the chosen language; empty when the file is missing or malformed.
std::map<std::string, std::string> ReadTexts(const std::string& path, const std::string& locale) {
  Sections sections;
  const int line = ini_parse(path.c_str(), CollectLine, &sections);
  if (line > 0) {
    TcsTracef("Multilang.lng:malformed line %d, texts stay English", line);
    return {};
  }
  if (line != 0) return {};
  auto chosen = sections.find(SectionName(LanguageIdFromLocale(locale)));
  if (chosen == sections.end() || chosen->second.count("LANGUAGE") == 0) {
    chosen = sections.find(SectionName(kEnglishLanguageId));
  }
  return chosen == sections.end() ? std::map<std::string, std::string>{} : chosen->second;
}

// The printf conversions of `text` in order ("%s%u"), "%%" left out.
std::string Conversions(const std::string& text) {
  std::string found;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') continue;
    size_t j = i + 1;
    while (j < text.size() && std::strchr("-+ #0123456789.lhzjt", text[j]) != nullptr) ++j;
    if (j < text.size() && text[j] != '%') found += text.substr(i, j - i + 1);
    i = j;
  }
  return found;
}

}  // namespace

UINT16 LanguageIdFromLocale(const std::string& locale) {
  std::string code;
  for (char c : locale) {
    if (!std::isalpha(static_cast<unsigned char>(c))) break;
    code += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  for (const LanguageName& language : kLanguages) {
    if (code == language.code) return language.id;
  }
  return kEnglishLanguageId;
}

void LoadMessageFile(const std::string& path, const std::string& locale) {
  std::map<std::string, std::string> texts = ReadTexts(path, locale);
  MessageTable& table = Table();
  MutexLock lock(table.mu);
  table.texts = std::move(texts);
  table.loaded = true;
}

std::string MessageText(const char* key, const char* english) {
  MessageTable& table = Table();
  {
    MutexLock lock(table.mu);
    if (table.loaded) {
      auto it = table.texts.find(key);
      if (it == table.texts.end() || Conversions(it->second) != Conversions(english)) {
        return english;
      }
      return it->second;
    }
  }
  const char* lang = std::getenv("LANG");
  LoadMessageFile(ResolveHomeDirectory() + "/" + kMessageFileName, lang != nullptr ? lang : "");
  return MessageText(key, english);
}

}  // namespace kesttcs
