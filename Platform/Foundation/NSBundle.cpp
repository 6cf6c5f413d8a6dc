#include "Foundation/NSBundle.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <vector>

#include "Foundation/PropertyList.h"

namespace fs = std::filesystem;

namespace {

struct BundleTable {
  std::mutex mutex;
  std::map<std::string, std::shared_ptr<NSBundle>> byPath;
  std::map<std::string, std::shared_ptr<NSBundle>> byIdentifier;
};

BundleTable& bundleTable() {
  static BundleTable* table = new BundleTable;  // bundles stay loaded for the life of the process
  return *table;
}

std::string stringForKey(const Value& info, const std::string& key) {
  const Value v = info[key];
  return v.isString() ? *v.string() : std::string();
}

// A relative path that stays inside its base: no absolute form, no "..", no empty result.
bool isContainedRelativePath(const std::string& p) {
  if (p.empty() || p[0] == '/') return false;
  for (const fs::path& component : fs::path(p)) {
    if (component == "..") return false;
  }
  return true;
}

bool isWithin(const fs::path& inner, const fs::path& outer) {
  auto i = inner.begin();
  for (auto o = outer.begin(); o != outer.end(); ++o, ++i) {
    if (o->empty() && std::next(o) == outer.end()) break;  // a trailing "/" of the base
    if (i == inner.end() || *i != *o) return false;
  }
  return true;
}

}  // namespace

NSBundle::NSBundle(std::string path, Value info) : path_(std::move(path)), info_(std::move(info)) {}

std::shared_ptr<NSBundle> NSBundle::bundleWithPath(const std::string& path) {
  if (path.empty()) return nullptr;
  std::error_code ec;
  const fs::path canonical = fs::canonical(path, ec);
  if (ec || !fs::is_directory(canonical, ec)) return nullptr;
  const std::string key = canonical.string();

  BundleTable& table = bundleTable();
  {
    std::lock_guard lock(table.mutex);
    if (auto it = table.byPath.find(key); it != table.byPath.end()) return it->second;
  }
  Value info = propertyListFromFile(key + "/Info.plist");
  if (!info.dictionary()) return nullptr;
  auto bundle = std::make_shared<NSBundle>(key, std::move(info));

  std::lock_guard lock(table.mutex);
  auto [it, inserted] = table.byPath.emplace(key, bundle);
  if (!inserted) return it->second;  // another thread opened it first
  const std::string identifier = bundle->bundleIdentifier();
  if (!identifier.empty()) table.byIdentifier.emplace(identifier, bundle);  // the first bundle opened keeps the name
  return bundle;
}

std::shared_ptr<NSBundle> NSBundle::bundleWithIdentifier(const std::string& identifier) {
  BundleTable& table = bundleTable();
  std::lock_guard lock(table.mutex);
  auto it = table.byIdentifier.find(identifier);
  return it == table.byIdentifier.end() ? nullptr : it->second;
}

std::string NSBundle::bundleIdentifier() const { return stringForKey(info_, "CFBundleIdentifier"); }
std::string NSBundle::principalClassName() const { return stringForKey(info_, "NSPrincipalClass"); }
std::string NSBundle::executableName() const { return stringForKey(info_, "CFBundleExecutable"); }

std::string NSBundle::executablePath() const {
  const std::string name = executableName();
  if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..") return {};
  std::error_code ec;
  for (const std::string& dir : {path_, path_ + "/lib"}) {
    for (const std::string& file : {name, "lib" + name + ".so", name + ".so"}) {
      const std::string candidate = dir + "/" + file;
      if (fs::is_regular_file(candidate, ec)) return candidate;
    }
  }
  return {};
}

std::string NSBundle::pathForResource(const std::string& name, const std::string& extension,
                                      const std::string& subdirectory) const {
  const std::string fileName = extension.empty() ? name : name + "." + extension;
  if (!isContainedRelativePath(fileName)) return {};
  if (!subdirectory.empty() && !isContainedRelativePath(subdirectory)) return {};
  for (const fs::path& component : fs::path(fileName)) {
    if (component == ".") return {};
  }

  std::error_code ec;
  const fs::path resources = fs::canonical(resourcePath(), ec);
  if (ec) return {};
  fs::path candidate = resources;
  if (!subdirectory.empty()) candidate /= subdirectory;
  candidate /= fileName;
  candidate = candidate.lexically_normal();
  if (!fs::exists(candidate, ec)) return {};
  // Symbolic links may point anywhere inside Resources/, never outside it.
  const fs::path resolved = fs::canonical(candidate, ec);
  if (ec || !isWithin(resolved, resources) || resolved == resources) return {};
  return candidate.string();
}

std::shared_ptr<const NSURL> NSBundle::URLForResource(const std::string& name, const std::string& extension,
                                                      const std::string& subdirectory) const {
  const std::string path = pathForResource(name, extension, subdirectory);
  if (path.empty()) return nullptr;
  return NSURL::fileURLWithPath(path);
}

std::string NSBundle::localizedStringForKey(const std::string& key, const std::string& value,
                                            const std::string& table) const {
  const std::string tableName = table.empty() ? "Localizable" : table;
  for (const std::string& language : preferredLocalizations()) {
    const std::string folder = language + ".lproj";
    Value strings;
    {
      std::lock_guard lock(stringsMutex_);
      auto it = stringsTables_.find(folder + "/" + tableName);
      if (it == stringsTables_.end()) {
        Value loaded;
        const std::string file = pathForResource(tableName, "strings", folder);
        if (!file.empty()) loaded = stringsTableFromFile(file);
        it = stringsTables_.emplace(folder + "/" + tableName, std::move(loaded)).first;
      }
      strings = it->second;
    }
    const Value found = strings[key];
    if (found.isString()) return *found.string();
  }
  return value.empty() ? key : value;
}

std::vector<std::string> NSBundle::preferredLocalizations() {
  std::string locale;
  for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* v = std::getenv(variable);
    if (v && *v) {
      locale = v;
      break;
    }
  }
  // language[_territory][.codeset][@modifier]
  locale = locale.substr(0, locale.find_first_of(".@"));
  std::vector<std::string> languages;
  const bool usable = !locale.empty() && locale != "C" && locale != "POSIX" &&
                      locale.find_first_of("/\\") == std::string::npos && locale.find("..") == std::string::npos;
  if (usable) {
    languages.push_back(locale);
    const std::string language = locale.substr(0, locale.find('_'));
    if (language != locale) languages.push_back(language);
  }
  if (std::find(languages.begin(), languages.end(), "en") == languages.end()) languages.push_back("en");
  return languages;
}
