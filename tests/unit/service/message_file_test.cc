// The message language file: the shipped file read for a German and an English locale, a missing
// file, a malformed one, and a translation whose conversions differ from the English text.
#include "service/message_file.h"

#include <gtest/gtest.h>

#include <fstream>
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
