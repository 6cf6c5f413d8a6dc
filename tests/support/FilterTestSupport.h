// Helpers of the filter tests: the plug-in bundle loaded once per test program, the fixed
// test photo (tests/data/photo.png, 320 x 240) and filters of the bundle made with their
// defaults. Include from tests compiled with QV_BUNDLE_DIR and QV_SOURCE_DIR (every unit test
// folder is).
#pragma once

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "CoreImage/CIFilter.h"
#include "CoreImage/CIImage.h"
#include "CoreImage/CIPlugIn.h"

namespace qvtest {

// Loads the bundle that the build made (QV_BUNDLE_DIR) once per process; true when it is
// loaded. The loader's message is kept for the failure report.
inline bool loadBundleOnce(std::string* error = nullptr) {
  static std::once_flag once;
  static bool loaded = false;
  static std::string message;
  std::call_once(once, [] { loaded = CIPlugIn::loadPlugIn(QV_BUNDLE_DIR, &message); });
  if (error) *error = message;
  return loaded;
}

// The filters registered from the bundle: the classes its filter description names, in name
// order. Empty when the bundle cannot be loaded (the bundle tests then say why).
inline std::vector<std::string> bundleFilterNames() {
  if (!loadBundleOnce()) return {};
  std::string error;
  const Value description =
      CIPlugIn::readFilterDescription(std::string(QV_BUNDLE_DIR) + "/Resources/Description.plist", &error);
  std::vector<std::string> names;
  if (const Dictionary* d = description.dictionary())
    for (const auto& [name, entry] : *d) names.push_back(name);
  return names;
}

// The path of the fixed test photo.
inline std::string testPhotoPath() { return std::string(QV_SOURCE_DIR) + "/tests/data/photo.png"; }

// The fixed test photo, decoded (320 x 240 at the origin, opaque).
inline CIImage testPhoto() {
  static const CIImage photo = CIImage::imageWithContentsOfFile(testPhotoPath());
  return photo;
}

// A filter created by name with its defaults set (nil for an unknown name).
inline CIFilterRef makeFilter(const std::string& name) {
  CIFilterRef filter = CIFilter::filterWithName(name);
  if (filter) filter->setDefaults();
  return filter;
}

// The image a filter publishes under kCIOutputImageKey (nil for a nil filter).
inline CIImage filterOutput(const CIFilterRef& filter) {
  return filter ? CIImage::fromValue(filter->valueForKey(kCIOutputImageKey)) : CIImage();
}

// A fixture whose every test has the bundle loaded.
class BundleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(loadBundleOnce(&error)) << error;
  }
};

}  // namespace qvtest
