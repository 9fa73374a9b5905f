// The message language file: the shipped file read for a German and an English locale, a missing
// file, a malformed one, and a translation whose conversions differ from the English text.
#include "service/message_file.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <string>

#include "temp_dir.h"

namespace kesttcs {
namespace {

const std::string kShipped = std::string(KESTTCS_SOURCE_DIR) + "/packaging/Multilang.lng";

TEST(MessageFileTest, LocalesMapToWindowsLanguageIds) {
  EXPECT_EQ(LanguageIdFromLocale("de_DE.UTF-8"), 0x0407);
  EXPECT_EQ(LanguageIdFromLocale("en_US.UTF-8"), 0x0409);
  EXPECT_EQ(LanguageIdFromLocale("fr_FR"), 0x040c);
  EXPECT_EQ(LanguageIdFromLocale("zh_CN.GB18030"), 0x0804);
  for (const char* other : {"", "C", "POSIX", "C.UTF-8", "xx_YY"}) {
    EXPECT_EQ(LanguageIdFromLocale(other), 0x0409) << other;
  }
}

TEST(MessageFileTest, AGermanLocalePicksTheGermanTextsAndWithoutTheFileEnglishStands) {
  LoadMessageFile(kShipped, "de_DE.UTF-8");
  EXPECT_EQ(MessageText("ServiceInstalled", "%s installed.\n"), "%s installiert.\n");
  EXPECT_EQ(MessageText("StoppingService", "Stopping %s."), "%s wird angehalten.");
  EXPECT_EQ(MessageText("NoSuchKey", "built-in"), "built-in");

  LoadMessageFile(kShipped, "en_GB.UTF-8");
  EXPECT_EQ(MessageText("ServiceInstalled", "%s installed.\n"), "%s installed.\n");

  testing::TempDir dir;
  LoadMessageFile(dir.path() + "/Multilang.lng", "de_DE.UTF-8");
  EXPECT_EQ(MessageText("ServiceInstalled", "%s installed.\n"), "%s installed.\n");
}

// The shipped file's lines "key=text" of one section, line ends as written ("\\n").
std::map<std::string, std::string> ShippedSection(const std::string& name) {
  std::ifstream in(kShipped);
  std::map<std::string, std::string> texts;
  std::string line, section;
  while (std::getline(in, line)) {
    if (!line.empty() && line[0] == '[') section = line;
    const size_t equals = line.find('=');
    if (section == "[" + name + "]" && equals != std::string::npos) {
      texts[line.substr(0, equals)] = line.substr(equals + 1);
    }
  }
  return texts;
}

TEST(MessageFileTest, EveryShippedGermanTextHasItsEnglishOneAndIsUsed) {
  const auto english = ShippedSection("0409");
  const auto german = ShippedSection("0407");
  ASSERT_EQ(english.size(), german.size());
  LoadMessageFile(kShipped, "de_DE.UTF-8");
  for (const auto& [key, text] : german) {
    if (key == "LANGUAGE") continue;
    ASSERT_EQ(english.count(key), 1u) << key;
    // Both as the file writes them, so their conversions compare as the service compares them.
    EXPECT_NE(MessageText(key.c_str(), english.at(key).c_str()), english.at(key)) << key;
  }
}

TEST(MessageFileTest, AMalformedFileOrABadTranslationLeavesEnglish) {
  testing::TempDir dir;
  const std::string path = dir.path() + "/Multilang.lng";
  std::ofstream(path) << "[0407]\nLANGUAGE=Deutsch\nServiceRemoved=%s entfernt.\nno equals sign\n";
  LoadMessageFile(path, "de_DE");
  EXPECT_EQ(MessageText("ServiceRemoved", "%s removed.\n"), "%s removed.\n");

  // A section without LANGUAGE is not chosen; a text with other conversions is not used.
  std::ofstream(path) << "[0407]\nServiceRemoved=%s entfernt.\n[0409]\nLANGUAGE=English\n"
                         "ServiceRemoved=%d gone %s\nServiceInstalled=%s is installed.\\n\n";
  LoadMessageFile(path, "de_DE");
  EXPECT_EQ(MessageText("ServiceRemoved", "%s removed.\n"), "%s removed.\n");
  EXPECT_EQ(MessageText("ServiceInstalled", "%s installed.\n"), "%s is installed.\n");
}

}  // namespace
}  // namespace kesttcs
