// Fixture bundles for the texture library's tests: a temporary directory with an Info.plist,
// Resources/TextureIndex.plist and Resources/Textures/ files written by the test.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
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

// Inserts an EXIF segment holding only an orientation tag right after a JPEG's SOI marker.
inline void addJPEGOrientation(const fs::path& path, int orientation) {
  std::ifstream in(path, std::ios::binary);
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), {});
  in.close();
  const unsigned char exif[] = {0xFF, 0xE1, 0x00, 0x22, 'E', 'x', 'i', 'f', 0, 0,
                                'M', 'M', 0x00, 0x2A, 0x00, 0x00, 0x00, 0x08,  // TIFF header, IFD at 8
                                0x00, 0x01,                                    // one entry
                                0x01, 0x12, 0x00, 0x03, 0x00, 0x00, 0x00, 0x01,  // Orientation, SHORT, 1
                                0x00, static_cast<unsigned char>(orientation), 0x00, 0x00,
                                0x00, 0x00, 0x00, 0x00};  // no next IFD
  bytes.insert(bytes.begin() + 2, reinterpret_cast<const char*>(exif), reinterpret_cast<const char*>(exif) + sizeof exif);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), std::streamsize(bytes.size()));
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
  CGImageDestinationAddImage(dest, image, Dictionary{});
  ASSERT_TRUE(CGImageDestinationFinalize(dest)) << path;
  if (orientation != 1 && type == kUTTypeJPEG) addJPEGOrientation(path, orientation);
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
    if (writeIndex) {
      EXPECT_TRUE(writePropertyList(Value(Dictionary{{"textures", Value(textures)}}),
                                    (dir / "Resources" / "TextureIndex.plist").string()));
    }
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
