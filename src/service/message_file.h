// The message language file "Multilang.lng" in the home directory: an ini file whose sections are
// named by a Windows language id in four hex digits ("0409", "0407"). The language is the user's
// default (from the locale: LANG's language part, en → 0409, de → 0407, fr → 040c, zh → 0804, ...)
// when its section holds the key "LANGUAGE", otherwise 0409. The service's console and event texts
// are looked up by key in that section, with the built-in English text as the fallback.
//
// A missing file, or one with a malformed line, leaves every text English; the malformed line is
// traced once. The file is read on the first look-up; the table is guarded by a leaf mutex.
#pragma once

#include <string>

#include <kesttcs/tcs_types.h>

namespace kesttcs {

inline constexpr char kMessageFileName[] = "Multilang.lng";
inline constexpr UINT16 kEnglishLanguageId = 0x0409;

// The Windows language id of a locale name such as "de_DE.UTF-8"; 0409 for an unknown language, an
// empty name, "C" or "POSIX".
UINT16 LanguageIdFromLocale(const std::string& locale);

// Reads `path` for the language of `locale`, replacing what an earlier load or the first look-up
// read. Tests and hosts that know their home call it; otherwise the first look-up reads the file
// in ResolveHomeDirectory() for $LANG.
void LoadMessageFile(const std::string& path, const std::string& locale);

// The text for `key` in the chosen language, or `english`. A printf format: the translation is
// used only when its conversions are the same, in the same order, as the English text's.
std::string MessageText(const char* key, const char* english);

}  // namespace kesttcs
