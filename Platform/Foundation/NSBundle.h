// Bundles: a directory with an Info.plist at its top level, its resources in Resources/ and its
// shared library beside the Info.plist or in lib/:
//
//   <bundle>/Info.plist             CFBundleIdentifier, CFBundleExecutable, NSPrincipalClass...
//   <bundle>/<executable>           or <bundle>/lib/<executable>
//   <bundle>/Resources/...          resources, localized strings in Resources/<language>.lproj/
//
// A bundle opened with bundleWithPath joins a process-wide table, in which bundleWithIdentifier
// finds it again; opening the same directory twice gives the same object.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Foundation/NSURL.h"
#include "Foundation/Value.h"

class NSBundle {
 public:
  // nil when the directory holds no readable Info.plist with a dictionary in it.
  static std::shared_ptr<NSBundle> bundleWithPath(const std::string& path);
  // A bundle already opened in this process, by its CFBundleIdentifier; nil when none is.
  static std::shared_ptr<NSBundle> bundleWithIdentifier(const std::string& identifier);

  const Value& infoDictionary() const { return info_; }
  // The Info.plist value for a key, nil when absent.
  Value objectForInfoDictionaryKey(const std::string& key) const { return info_[key]; }
  std::string bundleIdentifier() const;     // CFBundleIdentifier, "" when absent
  std::string principalClassName() const;   // NSPrincipalClass, "" when absent
  std::string executableName() const;       // CFBundleExecutable, "" when absent
  const std::string& bundlePath() const { return path_; }
  std::string resourcePath() const { return path_ + "/Resources"; }
  // The bundle's shared library: the executable name (or lib<name>.so, <name>.so) beside the
  // Info.plist or in lib/; "" when there is none.
  std::string executablePath() const;

  // The URL of a resource file in Resources/ (or in Resources/<subdirectory>/): the file name
  // is name + "." + extension, or name alone when the extension is empty. nil when the file
  // does not exist or when the name or subdirectory would leave Resources/ (absolute names,
  // ".." components, symbolic links that resolve outside).
  std::shared_ptr<const NSURL> URLForResource(const std::string& name, const std::string& extension,
                                              const std::string& subdirectory = "") const;
  // The same as a file-system path; "" when not found.
  std::string pathForResource(const std::string& name, const std::string& extension,
                              const std::string& subdirectory = "") const;

  // The localized string for key from Resources/<language>.lproj/<table>.strings
  // ("Localizable" when table is empty), trying the languages of preferredLocalizations() in
  // order. A key no table holds gives value, or the key itself when value is empty.
  std::string localizedStringForKey(const std::string& key, const std::string& value,
                                    const std::string& table = "") const;

  // The user's languages, most preferred first, as .lproj folder names: from the first of
  // LC_ALL, LC_MESSAGES and LANG that is set and not empty ("de_DE.UTF-8@euro" gives "de_DE",
  // "de"), always ending in the development language "en". "C" and "POSIX" mean English.
  static std::vector<std::string> preferredLocalizations();

  // Use bundleWithPath.
  NSBundle(std::string path, Value info);

 private:
  const std::string path_;
  const Value info_;
  mutable std::mutex stringsMutex_;
  // "<language>.lproj/<table>" -> loaded table (nil: missing or unreadable)
  mutable std::map<std::string, Value> stringsTables_;
};
