// Helpers of the mask and composite family's tests: filters of the bundle by class, a fixture
// texture catalogue of flat and patterned textures, and pixel reads.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <string>

#include "../textures/TextureTestSupport.h"
#include "FilterTestSupport.h"
#include "RenderSupport.h"

namespace qvcomp {

using namespace qvtest;
using namespace qvtex;

// A filter class of this program's own copy of the plug-in, under its registered name. The
// filters a name makes come from the loaded bundle, whose texture store is its own; the
// classes linked here read the store that the fixture catalogue is installed in.
template <class T>
struct Named : T {
  explicit Named(const std::string& name) { this->setName(name); }
};

// A filter of class T (no defaults), reading the fixture catalogue. Built-ins and the
// plug-in's other filters it creates by name come from the loaded bundle.
template <class T>
std::shared_ptr<T> make(const std::string& name) {
  std::string error;
  EXPECT_TRUE(loadBundleOnce(&error)) << error;
  return std::make_shared<Named<T>>(name);
}

inline std::string textureId(const std::string& key) { return _QVFilterTextureStore::_textureIdentifierWithKey(key); }
inline std::string tagKey(const std::string& tag) { return _QVFilterTextureStore::textureKeyForTag(tag); }

inline std::array<std::uint8_t, 4> grey(std::uint8_t v) { return {v, v, v, 255}; }

// A fixture catalogue: "white" and "black" (64 x 64, tag "mask"), "ramp" (100 x 100, black
// below row 26 from the bottom, white above), "tile256" (256 x 256, a colour pattern, tag
// "tile"), "a" and "b" (tag "pair", both 32 x 32), "lone" (tag "single"), and "missing"
// (its file absent). Installed in the texture store for the fixture's life.
class TextureCatalogueTest : public BundleTest {
 protected:
  void SetUp() override {
    BundleTest::SetUp();
    fixture = std::make_unique<FixtureBundle>(
        "composite", Dictionary{{"white", record("white.png", {"mask"})},
                                {"black", record("black.png", {"mask"})},
                                {"ramp", record("ramp.png", {"mask"})},
                                {"tile256", record("tile256.png", {"tile"})},
                                {"a", record("a.png", {"pair"})},
                                {"b", record("b.png", {"pair"})},
                                {"lone", record("a.png", {"single"})},
                                {"missing", record("missing.png", {"pair2"})}});
    writeImage(fixture->texturePath("white.png"), 64, 64, kUTTypePNG, [](auto, auto) { return grey(255); });
    writeImage(fixture->texturePath("black.png"), 64, 64, kUTTypePNG, [](auto, auto) { return grey(0); });
    // Row 0 of the file is the top row: rows from the bottom below 26 are black.
    writeImage(fixture->texturePath("ramp.png"), 100, 100, kUTTypePNG,
               [](std::size_t, std::size_t y) { return grey(99 - y < 26 ? 0 : 255); });
    writeImage(fixture->texturePath("tile256.png"), 256, 256, kUTTypePNG, [](std::size_t x, std::size_t y) {
      return std::array<std::uint8_t, 4>{static_cast<std::uint8_t>(x), static_cast<std::uint8_t>(y), 128, 255};
    });
    writeImage(fixture->texturePath("a.png"), 32, 32, kUTTypePNG, [](auto, auto) { return grey(10); });
    writeImage(fixture->texturePath("b.png"), 32, 32, kUTTypePNG, [](auto, auto) { return grey(200); });
    fixture->open();
  }
  void TearDown() override {
    _QVFilterTextureStore::_resetForTesting(nullptr);
    fixture.reset();
  }
  std::unique_ptr<FixtureBundle> fixture;
};

// Renders both images over `rect` and expects every value to be equal.
inline void expectSamePixels(const CIImage& actual, const CIImage& expected, const CGRect& rect) {
  ASSERT_TRUE(actual);
  ASSERT_TRUE(expected);
  EXPECT_EQ(actual.extent(), expected.extent());
  const auto a = renderRGBAf(actual, rect);
  const auto b = renderRGBAf(expected, rect);
  EXPECT_LE(maxAbsDifference(a, b), 1e-6f);
}

// A built-in made by name with its defaults.
inline CIFilterRef builtin(const std::string& name) {
  CIFilterRef f = CIFilter::filterWithName(name);
  if (f) f->setDefaults();
  return f;
}

}  // namespace qvcomp
