// Fixture bundles for the texture library's tests: a temporary directory with an Info.plist,
// Resources/TextureIndex.plist and Resources/Textures/ files written by the test.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Foundation/NSBundle.h"
#include "Foundation/PropertyList.h"
#include "Framework/QVFilterImageUnitsConstants.h"
#include "ImageIO/ImageIO.h"
#include "Textures/_QVFilterTextureStore.h"

namespace qvtex {

namespace fs = std::filesystem;

inline fs::path makeTempDir(const std::string& stem) {
  static int counter = 0;
  fs::path dir = fs::temp_directory_path() /
                 ("qv-textures-" + stem + "-" + std::to_string(::getpid()) + "-" + std::to_string(counter++));
  fs::remove_all(dir);
  fs::create_directories(dir / "Resources" / "Textures");
  return dir;
}

// Writes an 8-bit RGB(A) image whose pixel (x, y) is colour(x, y).
template <class F>
inline void writeImage(const fs::path& path, std::size_t w, std::size_t h, const std::string& type, F colour,
                       int orientation = 1) {
  auto image = CGImageCreateBlank(w, h);
  for (std::size_t y = 0; y < h; ++y)
    for (std::size_t x = 0; x < w; ++x) {
      const std::array<std::uint8_t, 4> c = colour(x, y);
      std::copy(c.begin(), c.end(), image->row(y) + x * 4);
    }
  image->hasAlpha = type == kUTTypePNG;
  auto dest = CGImageDestinationCreateWithURL(path.string(), type, 1);
  ASSERT_TRUE(dest) << path;
  Dictionary props;
  if (orientation != 1) props[kCGImagePropertyOrientation] = orientation;
  CGImageDestinationAddImage(dest, image, props);
  ASSERT_TRUE(CGImageDestinationFinalize(dest)) << path;
}

// A fixture bundle with the plug-in's identifier and the given "textures" map.
struct FixtureBundle {
  fs::path dir;
  std::shared_ptr<NSBundle> bundle;

  explicit FixtureBundle(const std::string& stem, const Dictionary& textures, bool writeIndex = true) {
    dir = makeTempDir(stem);
    Dictionary info{{"CFBundleIdentifier", QVFilterImageUnitsBundleIdentifier},
                    {"CFBundleName", "Fixture"}};
    EXPECT_TRUE(writePropertyList(Value(info), (dir / "Info.plist").string()));
    if (writeIndex)
      EXPECT_TRUE(writePropertyList(Value(Dictionary{{"textures", Value(textures)}}),
                                    (dir / "Resources" / "TextureIndex.plist").string()));
  }
  void open() {
    bundle = std::make_shared<NSBundle>(dir.string(), propertyListFromFile((dir / "Info.plist").string()));
    _QVFilterTextureStore::_resetForTesting(bundle);
  }
  fs::path texturePath(const std::string& name) const { return dir / "Resources" / "Textures" / name; }
  ~FixtureBundle() {
    std::error_code ec;
    fs::remove_all(dir, ec);
  }
};

inline Value record(const std::string& fileName, std::vector<std::string> tags) {
  Array t;
  for (auto& s : tags) t.push_back(s);
  return Dictionary{{"fileName", fileName}, {"tags", Value(t)}, {"displayName", fileName}};
}

inline NSURLRef url(const std::string& s) { return NSURL::URLWithString(s); }

}  // namespace qvtex
