// The six colour filters: each equals its built-in, given the filter's inputs as they stand,
// cut to the input's extent; their keys, attributes and identities.
#include <gtest/gtest.h>

#include <map>

#include "AdjustTestSupport.h"
#include "CoreImage/CIColor.h"
#include "Filters/QVFilterColorMatrix.h"
#include "Filters/QVFilterWhitePointAdjust.h"

using namespace qvtest;

namespace {

struct ColorCase {
  const char* filter;
  const char* builtin;
  std::vector<std::string> keys;  // after inputImage
};

const std::vector<ColorCase>& colorCases() {
  static const std::vector<ColorCase> cases{
      {"QVFilterColorControls", "CIColorControls", {"inputSaturation", "inputBrightness", "inputContrast"}},
      {"QVFilterColorMatrix",
       "CIColorMatrix",
       {"inputRVector", "inputGVector", "inputBVector", "inputAVector", "inputBiasVector"}},
      {"QVFilterUnsharpMask", "CIUnsharpMask", {"inputRadius", "inputIntensity"}},
      {"QVFilterExposureAdjust", "CIExposureAdjust", {"inputEV"}},
      {"QVFilterWhitePointAdjust", "CIWhitePointAdjust", {"inputColor"}},
      {"QVFilterGammaAdjust", "CIGammaAdjust", {"inputPower"}},
  };
  return cases;
}

class ColorFilters : public BundleTest {};

// The built-in wired by hand with the filter's values of the given keys.
CIImage handWired(const ColorCase& c, const CIFilterRef& filter, const CIImage& image) {
  Dictionary inputs{{kCIInputImageKey, image}};
  for (const auto& key : c.keys) inputs[key] = filter->valueForKey(key);
  return builtinOutput(c.builtin, inputs).imageByCroppingToRect(image.extent());
}

}  // namespace

TEST_F(ColorFilters, KeysAreTheImageThenTheBuiltinsKeysInOrder) {
  for (const auto& c : colorCases()) {
    CIFilterRef f = makeFilter(c.filter);
    ASSERT_TRUE(f) << c.filter;
    std::vector<std::string> expected{kCIInputImageKey};
    expected.insert(expected.end(), c.keys.begin(), c.keys.end());
    EXPECT_EQ(f->inputKeys(), expected) << c.filter;
    EXPECT_EQ(f->outputKeys(), (std::vector<std::string>{kCIOutputImageKey})) << c.filter;
  }
}

TEST_F(ColorFilters, NilImageGivesNil) {
  for (const auto& c : colorCases()) EXPECT_FALSE(filterOutput(makeFilter(c.filter))) << c.filter;
}

TEST_F(ColorFilters, EachEqualsItsBuiltinCutToTheInputExtentWithItsDefaults) {
  const CIImage photo = testPhoto();
  ASSERT_TRUE(photo);
  const CGRect r = photo.extent();
  for (const auto& c : colorCases()) {
    CIFilterRef f = makeFilter(c.filter);
    f->setValue(photo, kCIInputImageKey);
    for (const auto& key : c.keys) EXPECT_TRUE(f->valueForKey(key)) << c.filter << " has no default for " << key;
    const CIImage out = filterOutput(f);
    ASSERT_TRUE(out) << c.filter;
    EXPECT_EQ(out.extent(), r) << c.filter;
    EXPECT_SAME_PIXELS(out, handWired(c, f, photo), r, 0.0f);
  }
}

TEST_F(ColorFilters, EachEqualsItsBuiltinWithOtherValues) {
  const CIImage image = makeTestImageWithAlpha(40, 30, CGPointMake(3, -4));
  const CGRect r = image.extent();
  const std::map<std::string, Dictionary> values{
      {"QVFilterColorControls", {{"inputSaturation", 0.2}, {"inputBrightness", -0.1}, {"inputContrast", 1.7}}},
      {"QVFilterColorMatrix",
       {{"inputRVector", vec(0.5, 0.2, 0.1, 0)},
        {"inputGVector", vec(0, 0.9, 0, 0)},
        {"inputBVector", vec(0.3, 0, 0.3, 0)},
        {"inputAVector", vec(0, 0, 0, 0.8)},
        {"inputBiasVector", vec(0.05, 0, 0.1, 0)}}},
      {"QVFilterUnsharpMask", {{"inputRadius", 6.0}, {"inputIntensity", 1.5}}},
      {"QVFilterExposureAdjust", {{"inputEV", -1.25}}},
      {"QVFilterWhitePointAdjust", {{"inputColor", Value(CIColor::colorWithRed(1.0, 0.8, 0.6, 1.0))}}},
      {"QVFilterGammaAdjust", {{"inputPower", 2.2}}},
  };
  for (const auto& c : colorCases()) {
    CIFilterRef f = makeFilter(c.filter);
    f->setValue(image, kCIInputImageKey);
    for (const auto& [key, v] : values.at(c.filter)) f->setValue(v, key);
    const CIImage out = filterOutput(f);
    ASSERT_TRUE(out) << c.filter;
    EXPECT_EQ(out.extent(), r) << c.filter;
    EXPECT_SAME_PIXELS(out, handWired(c, f, image), r, 0.0f);
    EXPECT_DIFFERENT_PIXELS(out, image, r);
  }
}

TEST_F(ColorFilters, NilInputReplacesTheBuiltinsDefault) {
  // A nil saturation is handed on as nil (reads as 0: grey), not left at the built-in's 1.
  const CIImage image = makeTestImage(20, 20);
  CIFilterRef f = makeFilter("QVFilterColorControls");
  f->setValue(image, kCIInputImageKey);
  f->setValue(Value(), "inputSaturation");
  const CIImage out = filterOutput(f);
  const CIImage expected = builtinOutput("CIColorControls", {{kCIInputImageKey, image},
                                                             {"inputSaturation", Value()},
                                                             {"inputBrightness", f->valueForKey("inputBrightness")},
                                                             {"inputContrast", f->valueForKey("inputContrast")}});
  EXPECT_SAME_PIXELS(out, expected.imageByCroppingToRect(image.extent()), image.extent(), 0.0f);
  const CIImage withBuiltinDefault = builtinOutput("CIColorControls", {{kCIInputImageKey, image},
                                                                       {"inputBrightness", f->valueForKey("inputBrightness")},
                                                                       {"inputContrast", f->valueForKey("inputContrast")}});
  EXPECT_DIFFERENT_PIXELS(out, withBuiltinDefault, image.extent());
}

TEST_F(ColorFilters, DefaultsOfTheDescribedFiltersMakeAVisibleChange) {
  const CIImage photo = testPhoto();
  for (const char* name : {"QVFilterColorControls", "QVFilterUnsharpMask", "QVFilterExposureAdjust", "QVFilterGammaAdjust"}) {
    CIFilterRef f = makeFilter(name);
    f->setValue(photo, kCIInputImageKey);
    EXPECT_DIFFERENT_PIXELS(filterOutput(f), photo, photo.extent());
  }
}

TEST_F(ColorFilters, ColorMatrixWithItsDefaultsLeavesTheImageUnchanged) {
  const CIImage image = makeTestImageWithAlpha(30, 20, CGPointMake(5, 6));
  CIFilterRef f = makeFilter("QVFilterColorMatrix");
  f->setValue(image, kCIInputImageKey);
  const CIImage out = filterOutput(f);
  ASSERT_TRUE(out);
  EXPECT_EQ(out.extent(), image.extent());
  EXPECT_SAME_PIXELS(out, image, image.extent(), 1e-6f);
}

TEST_F(ColorFilters, WhitePointWithItsDefaultWhiteLeavesTheImageUnchanged) {
  const CIImage photo = testPhoto();
  CIFilterRef f = makeFilter("QVFilterWhitePointAdjust");
  f->setValue(photo, kCIInputImageKey);
  EXPECT_EQ(f->valueForKey("inputColor"), Value(CIColor::colorWithRed(1, 1, 1, 1)));
  const CIImage out = filterOutput(f);
  ASSERT_TRUE(out);
  EXPECT_EQ(out.extent(), photo.extent());
  EXPECT_SAME_PIXELS(out, photo, photo.extent(), 1e-5f);
}

TEST_F(ColorFilters, UnsharpMaskKeepsTheInputExtentWhateverTheRadius) {
  const CIImage image = makeTestImage(50, 40, CGPointMake(-7.5, 12));
  for (double radius : {0.0, 1.0, 2.5, 20.0, 100.0}) {
    CIFilterRef f = makeFilter("QVFilterUnsharpMask");
    f->setValue(image, kCIInputImageKey);
    f->setValue(radius, kCIInputRadiusKey);
    const CIImage out = filterOutput(f);
    ASSERT_TRUE(out) << radius;
    EXPECT_EQ(out.extent(), image.extent()) << radius;
  }
}

TEST_F(ColorFilters, ColorMatrixAttributesAreExactlyTheFiveVectors) {
  QVFilterColorMatrix f;
  const Value attrs = f.customAttributes();
  ASSERT_TRUE(attrs.dictionary());
  EXPECT_EQ(keysOf(*attrs.dictionary()), (std::vector<std::string>{"inputAVector", "inputBVector", "inputBiasVector",
                                                                    "inputGVector", "inputRVector"}));
  const std::map<std::string, Value> expected{{"inputRVector", vec(1, 0, 0, 0)},
                                              {"inputGVector", vec(0, 1, 0, 0)},
                                              {"inputBVector", vec(0, 0, 1, 0)},
                                              {"inputAVector", vec(0, 0, 0, 1)},
                                              {"inputBiasVector", vec(0, 0, 0, 0)}};
  for (const auto& [key, v] : expected) {
    const Dictionary* entry = attributeEntry(attrs, key);
    ASSERT_TRUE(entry) << key;
    EXPECT_EQ(keysOf(*entry), (std::vector<std::string>{kCIAttributeDefault, kCIAttributeIdentity})) << key;
    EXPECT_EQ(entry->at(kCIAttributeDefault), v) << key;
    EXPECT_EQ(entry->at(kCIAttributeIdentity), v) << key;
  }
  // setDefaults takes them.
  CIFilterRef made = makeFilter("QVFilterColorMatrix");
  for (const auto& [key, v] : expected) EXPECT_EQ(made->valueForKey(key), v) << key;
}

TEST_F(ColorFilters, ColorMatrixVectorMakeHoldsFourValuesInOrder) {
  const CIVectorRef v = QVFilterColorMatrixVectorMake(0.25, -1, 3.5, 0);
  ASSERT_TRUE(v);
  EXPECT_EQ(v->count(), 4u);
  EXPECT_EQ(v->values(), (std::vector<double>{0.25, -1, 3.5, 0}));
}

TEST_F(ColorFilters, WhitePointAttributesAreOnlyTheColour) {
  QVFilterWhitePointAdjust f;
  const Value attrs = f.customAttributes();
  ASSERT_TRUE(attrs.dictionary());
  EXPECT_EQ(keysOf(*attrs.dictionary()), (std::vector<std::string>{"inputColor"}));
  const Dictionary* entry = attributeEntry(attrs, "inputColor");
  ASSERT_TRUE(entry);
  EXPECT_EQ(keysOf(*entry), (std::vector<std::string>{kCIAttributeDefault, kCIAttributeIdentity}));
  EXPECT_EQ(entry->at(kCIAttributeDefault), Value(CIColor::colorWithRed(1, 1, 1, 1)));
  EXPECT_EQ(entry->at(kCIAttributeIdentity), Value(CIColor::colorWithRed(1, 1, 1, 1)));
}
