// The user's languages from the environment, and strings looked up in them with English as
// the fallback.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>

#include "Foundation/NSBundle.h"
#include "Foundation/PropertyList.h"

namespace fs = std::filesystem;

namespace {

class Environment {
 public:
  Environment(const char* lcAll, const char* lcMessages, const char* lang) {
    set("LC_ALL", lcAll);
    set("LC_MESSAGES", lcMessages);
    set("LANG", lang);
  }
  ~Environment() {
    for (const auto& [name, value] : saved_) {
      if (value)
        setenv(name.c_str(), value->c_str(), 1);
      else
        unsetenv(name.c_str());
    }
  }

 private:
  void set(const char* name, const char* value) {
    const char* old = std::getenv(name);
    saved_.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
    if (value)
      setenv(name, value, 1);
    else
      unsetenv(name);
  }
  std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

using Languages = std::vector<std::string>;

}  // namespace

TEST(NSBundleLocalization, PreferredLanguagesFromTheEnvironment) {
  {
    Environment env(nullptr, nullptr, nullptr);
    EXPECT_EQ(NSBundle::preferredLocalizations(), Languages{"en"});
  }
  {
    Environment env(nullptr, nullptr, "de_DE.UTF-8");
    EXPECT_EQ(NSBundle::preferredLocalizations(), (Languages{"de_DE", "de", "en"}));
  }
  {
    Environment env("fr_CA@euro", "de", "it");  // LC_ALL wins
    EXPECT_EQ(NSBundle::preferredLocalizations(), (Languages{"fr_CA", "fr", "en"}));
  }
  {
    Environment env("", "de", "it");  // empty counts as unset
    EXPECT_EQ(NSBundle::preferredLocalizations(), (Languages{"de", "en"}));
  }
  {
    Environment env(nullptr, nullptr, "C.UTF-8");
    EXPECT_EQ(NSBundle::preferredLocalizations(), Languages{"en"});
  }
  {
    Environment env(nullptr, nullptr, "en_GB");
    EXPECT_EQ(NSBundle::preferredLocalizations(), (Languages{"en_GB", "en"}));
  }
  {
    Environment env(nullptr, nullptr, "../../etc");  // never a path
    EXPECT_EQ(NSBundle::preferredLocalizations(), Languages{"en"});
  }
}

TEST(NSBundleLocalization, StringsComeFromTheUsersLanguageThenEnglish) {
  const fs::path dir = fs::temp_directory_path() / ("qv-l10n-" + std::to_string(getpid()));
  fs::create_directories(dir / "Resources/en.lproj");
  fs::create_directories(dir / "Resources/de.lproj");
  ASSERT_TRUE(
      writePropertyList(Dictionary{{"CFBundleIdentifier", "org.qvfilter.test.l10n"}}, (dir / "Info.plist").string()));
  std::ofstream(dir / "Resources/en.lproj/Localizable.strings")
      << "\"None\" = \"None\";\n\"Only\" = \"English only\";\n";
  std::ofstream(dir / "Resources/de.lproj/Localizable.strings") << "\"None\" = \"Keine\";\n";
  const auto bundle = NSBundle::bundleWithPath(dir.string());
  ASSERT_NE(bundle, nullptr);
  {
    Environment env(nullptr, nullptr, "de_AT.UTF-8");
    EXPECT_EQ(bundle->localizedStringForKey("None", ""), "Keine");
    EXPECT_EQ(bundle->localizedStringForKey("Only", ""), "English only");  // missing in German
    EXPECT_EQ(bundle->localizedStringForKey("Nowhere", ""), "Nowhere");
  }
  {
    Environment env(nullptr, nullptr, "sv_SE");
    EXPECT_EQ(bundle->localizedStringForKey("None", ""), "None");
  }
  fs::remove_all(dir);
}
