// The shipped texture collection, through the store on the built bundle: every kind has
// textures, every texture gives an image of its file's size, and its pixels are what a
// texture of its kind should be (opaque greyscale masks, transparent frame centres).
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "CoreImage/CIPlugIn.h"
#include "Foundation/NSBundle.h"
#include "RenderSupport.h"
#include "Textures/_QVFilterTextureStore.h"

namespace {

class ShippedTextures : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    std::string error;
    ASSERT_TRUE(CIPlugIn::loadPlugIn(QV_BUNDLE_DIR, &error)) << error;
    _QVFilterTextureStore::_resetForTesting(nullptr);
  }
  static NSURLRef url(const std::string& s) { return NSURL::URLWithString(s); }
};

}  // namespace

TEST_F(ShippedTextures, StoreReadsTheBundleFoundByItsIdentifier) {
  auto bundle = _QVFilterTextureStore::_bundle();
  ASSERT_TRUE(bundle);
  EXPECT_EQ(bundle->bundleIdentifier(), "org.qvfilter.filters.imageunits");
  EXPECT_TRUE(_QVFilterTextureStore::allTexturesMap().dictionary());
}

TEST_F(ShippedTextures, EveryKindHasItsTexturesAndSubTags) {
  const std::map<std::string, std::pair<std::size_t, std::size_t>> shipped = {
      {"mask", {6, 3}}, {"composite", {9, 3}}, {"tile", {6, 2}}, {"border", {5, 3}}};
  const Value map = _QVFilterTextureStore::allTexturesMap();
  for (const auto& [kind, counts] : shipped) {
    const auto identifiers = _QVFilterTextureStore::filteredTextureKeysContainingTags({kind});
    EXPECT_EQ(identifiers.size(), counts.first) << kind;
    std::set<std::string> subTags;
    for (const auto& id : identifiers) {
      const Value record = _QVFilterTextureStore::textureForTextureIdentifier(url(id));
      ASSERT_TRUE(record) << id;
      EXPECT_TRUE(record["displayName"].string()) << id;
      const Value tags = record["tags"];
      ASSERT_TRUE(tags.array()) << id;
      ASSERT_EQ(tags.array()->size(), 2u) << id;
      subTags.insert(*(*tags.array())[1].string());
    }
    EXPECT_EQ(subTags.size(), counts.second) << kind;
  }
}

TEST_F(ShippedTextures, ConstraintsPinFourOverlaysAndUseEveryDestination) {
  const std::set<std::string> attributes = {"MinX", "MidX", "MaxX", "MinY", "MidY", "MaxY", "width", "height"};
  std::set<std::string> destinations;
  int constrained = 0;
  for (const auto& id : _QVFilterTextureStore::filteredTextureKeysContainingTags({"composite"})) {
    const Value record = _QVFilterTextureStore::textureForTextureIdentifier(url(id));
    const Value rules = record["constraints"];
    if (!rules.array()) continue;
    ++constrained;
    bool positioned = false;
    for (const auto& rule : *rules.array()) {
      const std::string dst = *rule["destinationAttribute"].string(), src = *rule["sourceAttribute"].string();
      EXPECT_TRUE(attributes.count(dst) && attributes.count(src)) << id;
      destinations.insert(dst);
      const bool size = dst == "width" || dst == "height";
      EXPECT_FALSE(size && positioned) << id << ": size rule after a position rule";
      positioned = positioned || !size;
      if (rule["offset"]) {
        EXPECT_TRUE(src.find('X') != std::string::npos || src.find('Y') != std::string::npos) << id;
      }
    }
  }
  EXPECT_EQ(constrained, 5);
  EXPECT_EQ(destinations, attributes);
}

TEST_F(ShippedTextures, EveryTextureGivesAnImageOfItsFileSize) {
  for (const auto& id : _QVFilterTextureStore::filteredTextureKeysContainingTags({})) {
    CIImage image = _QVFilterTextureStore::imageForTextureIdentifier(url(id), CGSizeMake(64, 64));
    ASSERT_TRUE(image) << id;
    const CGRect e = image.extent();
    EXPECT_GE(std::max(e.size.width, e.size.height), 512) << id;
    EXPECT_LE(std::max(e.size.width, e.size.height), 4096) << id;
  }
}

TEST_F(ShippedTextures, MasksAreOpaqueGreyAndBordersHaveClearCentres) {
  for (const auto& id : _QVFilterTextureStore::filteredTextureKeysContainingTags({"mask"})) {
    CIImage image = _QVFilterTextureStore::imageForTextureIdentifier(url(id), CGSizeMake(0, 0));
    const CGRect e = image.extent();
    auto px = renderRGBA8(image, CGRectMake(e.size.width / 2 - 2, e.size.height / 2 - 2, 4, 4));
    for (std::size_t i = 0; i < px.size(); i += 4) {
      EXPECT_EQ(px[i + 3], 255) << id;
      EXPECT_NEAR(px[i], px[i + 1], 3) << id;
      EXPECT_NEAR(px[i], px[i + 2], 3) << id;
    }
  }
  for (const auto& id : _QVFilterTextureStore::filteredTextureKeysContainingTags({"border"})) {
    CIImage image = _QVFilterTextureStore::imageForTextureIdentifier(url(id), CGSizeMake(0, 0));
    const CGRect e = image.extent();
    auto centre = renderRGBA8(image, CGRectMake(e.size.width / 2, e.size.height / 2, 1, 1));
    EXPECT_EQ(centre[3], 0) << id;
    auto corner = renderRGBA8(image, CGRectMake(2, 2, 1, 1));
    EXPECT_GT(corner[3], 200) << id;
  }
}

// A tile repeats without a seam: the step from its last column to its first (and last row to
// first) is no larger than the usual step between neighbouring columns (rows), within a margin
// for the weave's thread edges and the JPEG blocks.
TEST_F(ShippedTextures, TilesRepeatWithoutASeam) {
  for (const auto& id : _QVFilterTextureStore::filteredTextureKeysContainingTags({"tile"})) {
    CIImage image = _QVFilterTextureStore::imageForTextureIdentifier(url(id), CGSizeMake(0, 0));
    const CGRect e = image.extent();
    const auto w = std::size_t(e.size.width), h = std::size_t(e.size.height);
    auto px = renderRGBA8(image, e);
    auto lum = [&](std::size_t x, std::size_t y) {
      const std::uint8_t* p = &px[(y * w + x) * 4];
      return (int(p[0]) + int(p[1]) + int(p[2])) / 3.0;
    };
    double inner = 0, wrapX = 0, innerY = 0, wrapY = 0;
    std::size_t samples = 0;
    for (std::size_t k = 0; k < h; ++k) {
      for (std::size_t x = 0; x + 1 < w; x += 61) inner += std::abs(lum(x, k) - lum(x + 1, k)), ++samples;
      wrapX += std::abs(lum(w - 1, k) - lum(0, k));
    }
    inner /= double(samples);
    wrapX /= double(h);
    samples = 0;
    for (std::size_t k = 0; k < w; ++k) {
      for (std::size_t y = 0; y + 1 < h; y += 61) innerY += std::abs(lum(k, y) - lum(k, y + 1)), ++samples;
      wrapY += std::abs(lum(k, h - 1) - lum(k, 0));
    }
    innerY /= double(samples);
    wrapY /= double(w);
    EXPECT_LE(wrapX, 3 * inner + 1) << id;
    EXPECT_LE(wrapY, 3 * innerY + 1) << id;
  }
}
