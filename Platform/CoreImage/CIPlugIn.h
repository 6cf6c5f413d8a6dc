// CIPlugIn: the image-unit loader. An image-unit bundle is a directory
//
//   <Name>.plugin/Info.plist              CFBundleIdentifier, NSPrincipalClass, CFBundleExecutable
//   <Name>.plugin/<CFBundleExecutable>    a shared library exporting the class table
//   <Name>.plugin/Resources/Description.plist
//                                         the filter description: one entry per filter class
//
// Loading opens the library, fetches its class table through the exported entry point, calls
// the principal class's load:, reads the filter description and registers every filter class
// it names with CIFilter::registerFilter, after which CIFilter::filterWithName creates them
// like any built-in. A class the description names but the library does not offer is skipped.
// A bundle that fails at any step registers nothing and says why.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "CoreImage/CIFilter.h"

// ---- What a plug-in library exports ----

// Bumped whenever CIPlugInClass or CIPlugInClassTable change shape; the loader refuses a
// library built against another layout.
inline constexpr int kCIPlugInClassTableVersion = 1;

// One class of a plug-in library.
struct CIPlugInClass {
  std::string name;
  std::string superclassName;
  // Filter classes: a new instance, fully initialised. Empty for other classes.
  std::function<CIFilterRef()> makeFilter;
  // The principal class: its load: with the host's opaque argument. Empty for other classes.
  std::function<bool(void* host)> load;
};

struct CIPlugInClassTable {
  int version = kCIPlugInClassTableVersion;
  std::vector<CIPlugInClass> classes;

  const CIPlugInClass* classNamed(const std::string& name) const {
    for (const auto& c : classes)
      if (c.name == name) return &c;
    return nullptr;
  }
};

// The C entry point every plug-in library exports under this name.
inline constexpr const char* kCIPlugInClassTableSymbol = "CIPlugInGetClassTable";
extern "C" {
typedef const CIPlugInClassTable* (*CIPlugInClassTableFunction)(void);
}

// ---- Filter description keys (Resources/Description.plist) ----
// The description is a dictionary keyed by filter class name. Each entry holds
// kCIAttributeFilterDisplayName (string), kCIAttributeFilterCategories (array of strings) and,
// for filters that declare no attributes themselves, one attribute dictionary per input key.
// In those, a kCIAttributeDefault or kCIAttributeIdentity of class "CIVector" or "CIColor" is
// written as its string form ("[0 0 1 1]", "1.0 1.0 1.0 1.0").
inline constexpr const char* kCIPlugInDescriptionResource = "Description";
inline constexpr const char* kCIPlugInDescriptionExtension = "plist";

// ---- The loader ----
class CIPlugIn {
 public:
  // Loads one bundle. True on success, and when a bundle with the same identifier (or the
  // same path) is already loaded; false with *error set to a one-line reason otherwise.
  static bool loadPlugIn(const std::string& bundlePath, std::string* error);

  // Loads every bundle the search path names: each entry is a *.plugin bundle or a directory
  // whose *.plugin entries are loaded in name order. A directory that does not exist is
  // skipped. Returns one "PATH: REASON" line per bundle that failed.
  static std::vector<std::string> loadAllPlugIns(const std::vector<std::string>& searchPath);

  // Paths of the bundles loaded so far, in load order.
  static std::vector<std::string> loadedPlugIns();

  // The filter description of a bundle, parsed and checked: the entries of the classes to
  // register. Exposed for the tools that inspect a bundle; nil with *error on failure.
  static Value readFilterDescription(const std::string& path, std::string* error);
};
