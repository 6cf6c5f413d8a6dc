// The GIMP plug-in's procedures without GIMP: the PDB parameters derived from the bundle's
// filters and the checks a value from a script goes through before it reaches a filter.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <string>

#include "CoreImage/CIImage.h"
#include "CoreImage/CIVector.h"
#include "Procedures.h"
#include "ValueParsing.h"

namespace {

using nlohmann::json;
using qvgimp::FilterProcedure;
using qvgimp::InputParam;
using qvgimp::ParamKind;

class GimpProcedures : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ::setenv("QV_PLUGIN_PATH", QV_BUNDLE_DIR, 1);
    procedures_ = new std::vector<FilterProcedure>(qvgimp::bundleProcedures());
  }
  static void TearDownTestSuite() {
    delete procedures_;
    procedures_ = nullptr;
  }

  static const FilterProcedure& procedure(const std::string& filter) {
    for (const FilterProcedure& p : *procedures_)
      if (p.filter == filter) return p;
    ADD_FAILURE() << "no procedure for " << filter;
    static FilterProcedure none;
    return none;
  }
  static const InputParam& input(const FilterProcedure& p, const std::string& key) {
    for (const InputParam& i : p.inputs)
      if (i.key == key) return i;
    ADD_FAILURE() << p.procedure << " takes no " << key;
    static InputParam none;
    return none;
  }
  // The message setInputFromJSON throws, or "(no error)".
  static std::string errorOf(const FilterProcedure& p, const std::string& key, const json& value) {
    CIFilterRef filter = qvgimp::makeFilter(p);
    try {
      qvgimp::setInputFromJSON(*filter, input(p, key), value);
    } catch (const qv::ValueError& e) {
      return e.what();
    }
    return "(no error)";
  }

  static std::vector<FilterProcedure>* procedures_;
};

std::vector<FilterProcedure>* GimpProcedures::procedures_ = nullptr;

TEST_F(GimpProcedures, VectorLengthIsTheHostCoresRule) {
  int vectors = 0;
  for (const FilterProcedure& p : *procedures_) {
    CIFilterRef filter = qvgimp::makeFilter(p);
    for (const InputParam& i : p.inputs) {
      if (i.kind != ParamKind::Vector) continue;
      ++vectors;
      EXPECT_EQ(i.length, qv::vectorFormForKey(*filter, i.key).count) << p.filter << " " << i.key;
      // The default travels through the PDB form and back unchanged.
      const json def = qvgimp::inputJSON(*filter, i);
      EXPECT_EQ(errorOf(p, i.key, def), "(no error)") << p.filter << " " << i.key << " " << def.dump();
    }
  }
  EXPECT_GT(vectors, 0) << "the bundle has no vector input to check";
}

TEST_F(GimpProcedures, WrongVectorArityNamesTheKey) {
  const FilterProcedure& bump = procedure("QVFilterBumpDistortion");
  ASSERT_EQ(input(bump, "inputCenter").kind, ParamKind::Vector);
  EXPECT_EQ(errorOf(bump, "inputCenter", json::array({0.5, 0.5, 0.5})),
            "inputCenter expects 2 numbers (\"x y\") (CIVector), got 3 numbers");
  EXPECT_EQ(errorOf(bump, "inputCenter", json::array()),
            "inputCenter expects 2 numbers (\"x y\") (CIVector), got 0 numbers");
  EXPECT_EQ(errorOf(bump, "inputCenter", json::array({0.3, 0.7})), "(no error)");
  EXPECT_EQ(errorOf(bump, "inputCenter", json::array({10, "x"})), "inputCenter: expects numbers only");
}

TEST_F(GimpProcedures, NumbersBeyondTheHostLimitAreRefused) {
  const FilterProcedure& blur = procedure("QVFilterBlur");
  const InputParam& radius = input(blur, "inputRadius");
  ASSERT_EQ(radius.kind, ParamKind::Number);
  // The radius has a minimum but no maximum: the host core's magnitude limit refuses 1e16.
  EXPECT_EQ(errorOf(blur, "inputRadius", 1e16), "inputRadius expects a number from -1e15 to 1e15, got 1e+16");
  EXPECT_EQ(errorOf(blur, "inputRadius", std::numeric_limits<double>::quiet_NaN()),
            "inputRadius expects a number from -1e15 to 1e15, got nan");
  EXPECT_EQ(errorOf(blur, "inputRadius", 1e15), "(no error)");
  // The procedure's own range rule stays, with its message.
  EXPECT_EQ(errorOf(blur, "inputRadius", -5.0).rfind("inputRadius: -5 is out of range (", 0), 0u)
      << errorOf(blur, "inputRadius", -5.0);
}

TEST_F(GimpProcedures, IntegersMustBeWhole) {
  int integers = 0;
  for (const FilterProcedure& p : *procedures_)
    for (const InputParam& i : p.inputs) {
      if (i.kind != ParamKind::Integer) continue;
      const auto lo = i.attributes.find(kCIAttributeMin);
      const double half = (lo != i.attributes.end() && lo->second.isNumber() ? lo->second.doubleValue() : 0.0) + 0.5;
      const auto hi = i.attributes.find(kCIAttributeMax);
      if (hi != i.attributes.end() && hi->second.isNumber() && hi->second.doubleValue() < half) continue;
      ++integers;
      EXPECT_EQ(errorOf(p, i.key, half), i.key + ": " + qv::jsonNumber(half).dump() + " is not an integer")
          << p.filter;
    }
  EXPECT_GT(integers, 0) << "the bundle has no integer input to check";
}

TEST_F(GimpProcedures, ColoursGoThroughTheHostCheck) {
  const FilterProcedure& border = procedure("QVFilterBorder");
  const InputParam& colour = input(border, "inputColor");
  ASSERT_EQ(colour.kind, ParamKind::Color);
  EXPECT_EQ(errorOf(border, "inputColor", json::array({0.2, 0.4, 0.6, 1})), "(no error)");
  EXPECT_EQ(errorOf(border, "inputColor", json::array({0.2, 0.4, 1e20, 1})),
            "inputColor expects colour components from -1e15 to 1e15, got 1e+20");
  EXPECT_EQ(errorOf(border, "inputColor", json::array({0.2, 0.4})), "inputColor: expects 4 numbers, got 2");
}

TEST_F(GimpProcedures, TextureOfAnotherCatalogueIsRefused) {
  const FilterProcedure& tile = procedure("QVFilterTextureTile");
  ASSERT_EQ(input(tile, "inputTextureName").kind, ParamKind::Texture);
  const std::string error =
      errorOf(tile, "inputTextureName", "x-qvfilter-texture://org.example.elsewhere/fabric-canvas");
  EXPECT_EQ(error.rfind("inputTextureName: ", 0), 0u) << error;
  EXPECT_NE(error.find("no loaded plug-in's catalogue"), std::string::npos) << error;
  EXPECT_EQ(errorOf(tile, "inputTextureName", ""), "(no error)");
}

TEST_F(GimpProcedures, RememberedSettingsRoundTrip) {
  for (const FilterProcedure& p : *procedures_) {
    CIFilterRef filter = qvgimp::makeFilter(p);
    const json settings = qvgimp::settingsJSON(*filter, p);
    CIFilterRef again = qvgimp::makeFilter(p);
    EXPECT_NO_THROW(qvgimp::applySettings(*again, p, settings)) << p.filter << " " << settings.dump();
    EXPECT_EQ(qvgimp::settingsJSON(*again, p), settings) << p.filter;
  }
}

TEST_F(GimpProcedures, PreviewScalesDistancesAndImagesOnly) {
  const FilterProcedure& border = procedure("QVFilterBorder");
  CIFilterRef filter = qvgimp::makeFilter(border);
  filter->setValue(Value(40.0), "inputWidth");
  filter->setValue(Value(std::int64_t{1}), "inputBorderType");
  const CIFilterRef preview = qvgimp::previewFilter(*filter, border, 0.25);
  ASSERT_TRUE(preview);
  EXPECT_NE(preview.get(), filter.get());
  EXPECT_DOUBLE_EQ(preview->valueForKey("inputWidth").doubleValue(), 10.0);     // a distance
  EXPECT_EQ(preview->valueForKey("inputBorderType").integerValue(), 1);          // not a distance
  EXPECT_DOUBLE_EQ(filter->valueForKey("inputWidth").doubleValue(), 40.0);      // left as it is
  // At full size nothing changes.
  EXPECT_DOUBLE_EQ(qvgimp::previewFilter(*filter, border, 1.0)->valueForKey("inputWidth").doubleValue(), 40.0);

  // A scaled distance stays within its minimum (the pixellation's scale is at least 1).
  const FilterProcedure& pixellate = procedure("QVFilterPixellate");
  CIFilterRef pix = qvgimp::makeFilter(pixellate);
  const auto lo = input(pixellate, "inputScale").attributes.find(kCIAttributeMin);
  ASSERT_NE(lo, input(pixellate, "inputScale").attributes.end());
  EXPECT_DOUBLE_EQ(qvgimp::previewFilter(*pix, pixellate, 0.001)->valueForKey("inputScale").doubleValue(),
                   lo->second.doubleValue());

  // An image input other than the drawable shrinks with the preview.
  const FilterProcedure& watermark = procedure("QVFilterWatermark");
  CIFilterRef mark = qvgimp::makeFilter(watermark);
  std::vector<float> pixels(200 * 100 * 4, 1.0f);
  mark->setValue(Value(CIImage::imageWithRGBAf(pixels.data(), 200, 100)), "inputWatermarkImage");
  const CIImage small = CIImage::fromValue(qvgimp::previewFilter(*mark, watermark, 0.25)->valueForKey("inputWatermarkImage"));
  ASSERT_TRUE(small);
  EXPECT_DOUBLE_EQ(small.extent().size.width, 50.0);
  EXPECT_DOUBLE_EQ(small.extent().size.height, 25.0);
}

}  // namespace
