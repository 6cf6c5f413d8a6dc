#ifdef QV_HAVE_IMAGEUNITS
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>

#include "CoreImage/CIVector.h"
#include "Filters/QVFilterProportionalCrop.h"
#include "Filters/QVFilterRotate.h"
#include "Framework/QVFilter.h"
#include "Framework/QVFilterImageUnitsClasses.h"
#include "Framework/QVFilterImageUnitsConstants.h"
#include "Framework/QVFilterImageUnitsPlugin.h"
#include "PlugInTestSupport.h"

using qvtest::plugInFilter;

namespace {

const std::vector<std::string> kPlugInFilters = {"QVFilterRotate", "QVFilterResize", "QVFilterSquareCrop",
                                                 "QVFilterProportionalCrop"};

// A subclass that describes one input of its superclass anew: its entry must replace the
// superclass's entry whole.
class ProportionalCropWithOwnExtent : public QVFilterProportionalCrop {
 public:
  Value customAttributes() const override {
    return QVFilterAttributesByAdding(QVFilterProportionalCrop::customAttributes(),
                                      Dictionary{{kCIInputExtentKey, Dictionary{{kCIAttributeClass, "CIVector"}}}});
  }
};

// A direct subclass of QVFilter that describes one input.
class OneInputFilter : public QVFilter {
 public:
  Value customAttributes() const override {
    return QVFilterAttributesByAdding(QVFilter::customAttributes(),
                                      Dictionary{{"inputLevel", Dictionary{{kCIAttributeDefault, 8}}}});
  }
  CIImage outputImage() const override { return {}; }
};

}  // namespace

class Framework : public qvtest::PlugInTest {};

TEST(FrameworkConstants, ExportedNamesAndKeys) {
  const std::string identifier = QVFilterImageUnitsBundleIdentifier;
  const std::string suffix = "filters.imageunits";
  ASSERT_GT(identifier.size(), suffix.size());
  EXPECT_EQ(identifier.substr(identifier.size() - suffix.size()), suffix);
  EXPECT_STREQ(QVFilterInputImageKey, "inputImage");
  EXPECT_STREQ(QVFilterRotateName, "QVFilterRotate");
  EXPECT_STREQ(QVFilterResizeName, "QVFilterResize");
  EXPECT_STREQ(QVFilterBorderName, "QVFilterBorder");
  EXPECT_STREQ(QVFilterReflectionName, "QVFilterReflection");
  EXPECT_STREQ(QVFilterWatermarkName, "QVFilterWatermark");
  EXPECT_STREQ(QVFilterBlurName, "QVFilterBlur");
  EXPECT_STREQ(QVFilterShineStraightName, "QVFilterShineStraight");
  EXPECT_STREQ(QVFilterShineCurvedName, "QVFilterShineCurved");
  EXPECT_STREQ(kQVInputEdgeKey, "inputEdge");
  EXPECT_STREQ(kQVInputAlphaKey, "inputAlpha");
  EXPECT_STREQ(kQVInputAlphaNoughtKey, "inputAlphaNought");
  EXPECT_STREQ(kQVInputOffsetKey, "inputOffset");
  EXPECT_STREQ(kQVInputBorderTypeKey, "inputBorderType");
  EXPECT_STREQ(kQVInputProportionKey, "inputProportion");
  EXPECT_STREQ(kQVInputLightSourceKey, "inputLightSource");
}

TEST(FrameworkPlugin, LoadAcceptsWhateverArgument) {
  int something = 42;
  EXPECT_TRUE(QVFilterImageUnitsPlugin::load(nullptr));
  EXPECT_TRUE(QVFilterImageUnitsPlugin::load(&something));
  EXPECT_TRUE(QVFilterImageUnitsPlugin::load(reinterpret_cast<void*>(std::uintptr_t{1})));
}

TEST(FrameworkPlugin, ClassTableHeadsWithThePrincipalClass) {
  const CIPlugInClassTable& table = QVFilterImageUnitsClasses();
  EXPECT_EQ(table.version, kCIPlugInClassTableVersion);
  const CIPlugInClass* principal = table.classNamed("QVFilterImageUnitsPlugin");
  ASSERT_TRUE(principal);
  ASSERT_TRUE(principal->load);
  EXPECT_TRUE(principal->load(nullptr));
  EXPECT_FALSE(principal->makeFilter);
}

TEST_F(Framework, EveryPlugInFilterIsRegisteredByItsClassName) {
  for (const auto& name : kPlugInFilters) {
    CIFilterRef filter = CIFilter::filterWithName(name);
    ASSERT_TRUE(filter) << name;
    EXPECT_EQ(filter->name(), name);
    const CIFilterRegistration* registration = CIFilter::registrationForName(name);
    ASSERT_TRUE(registration) << name;
    EXPECT_FALSE(registration->displayName.empty());
    EXPECT_NE(registration->displayName, name);  // the description's display name
  }
  const auto geometry = CIFilter::filterNamesInCategory(kCICategoryGeometryAdjustment);
  for (const auto& name : kPlugInFilters)
    EXPECT_NE(std::find(geometry.begin(), geometry.end(), name), geometry.end()) << name;
}

TEST_F(Framework, DisplayNamesAndCategoriesComeFromTheDescription) {
  const Dictionary attributes = plugInFilter("QVFilterSquareCrop")->attributes();
  EXPECT_EQ(*Value(attributes)[kCIAttributeFilterDisplayName].string(), "Square Crop");
  const Value categories = Value(attributes)[kCIAttributeFilterCategories];
  ASSERT_TRUE(categories.array());
  EXPECT_NE(std::find(categories.array()->begin(), categories.array()->end(), Value(kCICategoryGeometryAdjustment)),
            categories.array()->end());
}

TEST_F(Framework, OutputKeysAreExactlyTheOutputImage) {
  for (const auto& name : kPlugInFilters)
    EXPECT_EQ(plugInFilter(name)->outputKeys(), std::vector<std::string>{kCIOutputImageKey}) << name;
}

TEST_F(Framework, InputKeysBeginWithTheInputImage) {
  for (const auto& name : kPlugInFilters) {
    const auto keys = plugInFilter(name)->inputKeys();
    ASSERT_FALSE(keys.empty()) << name;
    EXPECT_EQ(keys.front(), kCIInputImageKey) << name;
  }
}

TEST_F(Framework, CIFilterCustomAttributesIsNil) {
  CIFilterRef crop = CIFilter::filterWithName("CICrop");
  ASSERT_TRUE(crop);
  EXPECT_TRUE(crop->customAttributes().isNil());
  crop->setCalculatedValues();  // does nothing, and is there to call
  QVFilterRotate rotate;
  EXPECT_TRUE(rotate.customAttributes().isNil());
}

TEST_F(Framework, DirectSubclassOfQVFilterReturnsOnlyItsOwnEntries) {
  const Value attributes = OneInputFilter().customAttributes();
  ASSERT_TRUE(attributes.dictionary());
  EXPECT_EQ(attributes.dictionary()->size(), 1u);
  EXPECT_EQ(attributes["inputLevel"][kCIAttributeDefault], Value(8));
  EXPECT_TRUE(attributes["inputLevel"][kCIAttributeDefault].isInteger());
}

TEST_F(Framework, SubclassEntryReplacesTheSuperclassEntryWhole) {
  const Value attributes = ProportionalCropWithOwnExtent().customAttributes();
  ASSERT_TRUE(attributes.dictionary());
  EXPECT_EQ(attributes.dictionary()->size(), 2u);
  // inputExtent: only the subclass's attribute key, no default or identity inherited.
  const Value extent = attributes[kCIInputExtentKey];
  ASSERT_TRUE(extent.dictionary());
  EXPECT_EQ(extent.dictionary()->size(), 1u);
  EXPECT_EQ(extent[kCIAttributeClass], Value("CIVector"));
  EXPECT_TRUE(extent[kCIAttributeDefault].isNil());
  // inputRectangle: the superclass's entry, untouched.
  EXPECT_EQ(attributes["inputRectangle"].dictionary()->size(), 2u);
}

TEST(FrameworkAttributes, AddingToNilGivesOnlyTheEntries) {
  const Value result = QVFilterAttributesByAdding(Value(), Dictionary{{"inputA", Dictionary{{"k", 1}}}});
  ASSERT_TRUE(result.dictionary());
  EXPECT_EQ(result.dictionary()->size(), 1u);
  const Value merged = QVFilterAttributesByAdding(
      Value(Dictionary{{"inputA", Dictionary{{"k", 1}, {"m", 2}}}, {"inputB", Dictionary{}}}),
      Dictionary{{"inputA", Dictionary{{"n", 3}}}});
  EXPECT_EQ(merged["inputA"], Value(Dictionary{{"n", 3}}));
  EXPECT_EQ(merged["inputB"], Value(Dictionary{}));
}

TEST_F(Framework, OutputIsRebuiltOnEveryRead) {
  CIFilterRef crop = plugInFilter("QVFilterSquareCrop");
  crop->setValue(qvtest::imageOfSize(300, 200), kCIInputImageKey);
  EXPECT_RECT_EQ(qvtest::outputOf(crop).extent(), 50, 0, 200, 200);
  crop->setValue(qvtest::imageOfSize(100, 400), kCIInputImageKey);
  EXPECT_RECT_EQ(qvtest::outputOf(crop).extent(), 0, 150, 100, 100);
  crop->setValue(Value(), kCIInputImageKey);
  EXPECT_FALSE(qvtest::outputOf(crop));
}
#endif
