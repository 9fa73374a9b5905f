#include "service/message_file.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

#include "base/logging.h"
#include "base/mutex.h"
#include "service/host_paths.h"
#include "service/profile_file.h"

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

struct MessageTable {
  Mutex mu;  // a leaf
  bool loaded GUARDED_BY(mu) = false;
  std::map<std::string, std::string> texts GUARDED_BY(mu);
};

MessageTable& Table() {
  static MessageTable table;
  return table;
}

// A text's line ends are written "\n" in the file, since the profile reader trims what surrounds a
// value.
std::string Unescape(const std::string& value) {
  std::string text;
  for (size_t i = 0; i < value.size(); ++i) {
    if (value[i] == '\\' && i + 1 < value.size() && value[i + 1] == 'n') {
      text += '\n';
      ++i;
    } else {
      text += value[i];
    }
  }
  return text;
}

std::string SectionName(UINT16 id) {
  char name[8];
  std::snprintf(name, sizeof(name), "%04x", id);
  return name;
}

// The texts of the chosen language; empty when the file is missing or malformed.
std::map<std::string, std::string> ReadTexts(const std::string& path, const std::string& locale) {
  ProfileFile file;
  if (!ReadProfileFile(path, &file)) return {};
  if (file.malformedLine > 0) {
    TcsTracef("Multilang.lng:malformed line %d, texts stay English", file.malformedLine);
    return {};
  }
  const auto& sections = file.sections;
  auto chosen = sections.find(SectionName(LanguageIdFromLocale(locale)));
  if (chosen == sections.end() || chosen->second.count("LANGUAGE") == 0) {
    chosen = sections.find(SectionName(kEnglishLanguageId));
  }
  std::map<std::string, std::string> texts;
  if (chosen == sections.end()) return texts;
  for (const auto& [key, value] : chosen->second) texts.emplace(key, Unescape(value));
  return texts;
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
