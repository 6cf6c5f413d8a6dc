#include <gtest/gtest.h>

#include <algorithm>

#include "CoreImage/Builtins/BuiltinFilter.h"
#include "CoreImage/CIColor.h"
#include "CoreImage/CIFilter.h"
#include "CoreImage/CIVector.h"
#include "RenderSupport.h"

namespace {

// A filter declared through an input table.
class TestTableFilter : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    CIImage in = inputImageForKey(kCIInputImageKey);
    if (!in) return {};
    return in.imageByApplyingTransform(CGAffineTransformMakeTranslation(inputDouble("inputShift"), 0));
  }
};

// A filter described by attribute dictionaries only, with its own description of one input.
class TestDescribedFilter : public CIFilter {
 public:
  CIImage outputImage() const override { return CIImage::fromValue(valueForKey(kCIInputImageKey)); }
  Value customAttributes() const override {
    return Value(Dictionary{{"inputAmount", Value(Dictionary{{kCIAttributeClass, "NSNumber"},
                                                             {kCIAttributeDefault, 7}})},
                            {"inputRadius", Value(Dictionary{})},
                            {"inputName", Value(Dictionary{{kCIAttributeClass, "NSString"}})},
                            {"inputLabel", Value(Dictionary{{kCIAttributeClass, "NSString"}})},
                            {"inputUndescribed", Value(Dictionary{})},
                            {"notADictionary", Value(3)}});
  }
};

void registerTestFilters() {
  static bool done = [] {
    CIInputSpec shift;
    shift.key = "inputShift";
    shift.attributeClass = "NSNumber";
    shift.type = kCIAttributeTypeDistance;
    shift.defaultValue = 2;
    shift.identity = 0;
    shift.min = 0;
    shift.sliderMax = 10.5;
    shift.displayName = "Shift";
    registerBuiltin<TestTableFilter>("TestTableFilter", "Test Table", {"TestCategoryA", kCICategoryStillImage},
                                     {imageInputSpec(), shift});
    CIFilterRegistration reg;
    reg.name = "TestDescribedFilter";
    reg.make = [] { return CIFilterRef(std::make_shared<TestDescribedFilter>()); };
    reg.displayName = "Described";
    reg.categories = {"TestCategoryA", "TestCategoryB"};
    reg.inputAttributes = Dictionary{
        {"inputImage", Value(Dictionary{{kCIAttributeClass, "CIImage"}})},
        {"inputAmount", Value(Dictionary{{kCIAttributeClass, "NSNumber"}, {kCIAttributeDefault, 1.5},
                                         {kCIAttributeMax, 4}})},
        {"inputRadius", Value(Dictionary{{kCIAttributeClass, "NSNumber"}, {kCIAttributeDefault, 3}})},
        {"inputName", Value(Dictionary{{kCIAttributeClass, "NSString"}, {kCIAttributeDefault, "described"}})},
        {"inputLabel", Value(Dictionary{{kCIAttributeClass, "NSNumber"}, {kCIAttributeDefault, 4}})}};
    CIFilter::registerFilter(reg);
    return true;
  }();
  (void)done;
}

}  // namespace

TEST(CIFilterRegistry, UnknownNameIsNil) {
  EXPECT_EQ(CIFilter::filterWithName("NoSuchFilter"), nullptr);
  EXPECT_EQ(CIFilter::filterWithName(""), nullptr);
  EXPECT_EQ(CIFilter::registrationForName("NoSuchFilter"), nullptr);
}

TEST(CIFilterRegistry, CategoriesListSortedNames) {
  registerTestFilters();
  auto a = CIFilter::filterNamesInCategory("TestCategoryA");
  EXPECT_EQ(a, (std::vector<std::string>{"TestDescribedFilter", "TestTableFilter"}));
  auto b = CIFilter::filterNamesInCategory("TestCategoryB");
  EXPECT_EQ(b, (std::vector<std::string>{"TestDescribedFilter"}));
  auto both = CIFilter::filterNamesInCategories({"TestCategoryA", kCICategoryBuiltIn});
  EXPECT_EQ(both, (std::vector<std::string>{"TestTableFilter"}));
  auto all = CIFilter::filterNamesInCategory("");
  EXPECT_TRUE(std::is_sorted(all.begin(), all.end()));
  EXPECT_NE(std::find(all.begin(), all.end(), "TestTableFilter"), all.end());
  EXPECT_TRUE(CIFilter::filterNamesInCategory("NoSuchCategory").empty());
}

TEST(CIFilterRegistry, AttributesFromTheInputTable) {
  registerTestFilters();
  auto f = CIFilter::filterWithName("TestTableFilter");
  ASSERT_TRUE(f);
  EXPECT_EQ(f->name(), "TestTableFilter");
  EXPECT_EQ(f->inputKeys(), (std::vector<std::string>{"inputImage", "inputShift"}));
  EXPECT_EQ(f->outputKeys(), (std::vector<std::string>{kCIOutputImageKey}));
  const Dictionary attrs = f->attributes();
  EXPECT_EQ(attrs.at(kCIAttributeFilterName), Value("TestTableFilter"));
  EXPECT_EQ(attrs.at(kCIAttributeFilterDisplayName), Value("Test Table"));
  const Array* cats = attrs.at(kCIAttributeFilterCategories).array();
  ASSERT_TRUE(cats);
  EXPECT_EQ(*cats, (Array{Value("TestCategoryA"), Value(kCICategoryStillImage), Value(kCICategoryBuiltIn)}));
  const Value shift = attrs.at("inputShift");
  ASSERT_TRUE(shift.dictionary());
  EXPECT_EQ(shift[kCIAttributeClass], Value("NSNumber"));
  EXPECT_EQ(shift[kCIAttributeType], Value(kCIAttributeTypeDistance));
  EXPECT_EQ(shift[kCIAttributeDefault], Value(2));
  EXPECT_TRUE(shift[kCIAttributeDefault].isInteger());
  EXPECT_EQ(shift[kCIAttributeIdentity], Value(0));
  EXPECT_EQ(shift[kCIAttributeMin], Value(0));
  EXPECT_EQ(shift[kCIAttributeSliderMax], Value(10.5));
  EXPECT_EQ(shift[kCIAttributeDisplayName], Value("Shift"));
  // Unset members are absent.
  EXPECT_EQ(shift.dictionary()->count(kCIAttributeMax), 0u);
  EXPECT_EQ(shift.dictionary()->count(kCIAttributeSliderMin), 0u);
  EXPECT_EQ(shift.dictionary()->count(kCIAttributeDescription), 0u);
  EXPECT_EQ(attrs.at("inputImage")[kCIAttributeClass], Value("CIImage"));
}

TEST(CIFilterRegistry, SetDefaultsTakesEachDefault) {
  registerTestFilters();
  auto f = CIFilter::filterWithName("TestTableFilter");
  EXPECT_TRUE(f->valueForKey("inputShift").isNil());
  f->setDefaults();
  EXPECT_EQ(f->valueForKey("inputShift"), Value(2));
  EXPECT_TRUE(f->valueForKey(kCIInputImageKey).isNil());
}

TEST(CIFilterRegistry, OutputImageThroughKeyValueCoding) {
  registerTestFilters();
  auto f = CIFilter::filterWithName("TestTableFilter");
  f->setDefaults();
  EXPECT_TRUE(f->outputImage().isNil());  // nil input image -> nil output
  EXPECT_TRUE(CIImage::fromValue(f->valueForKey(kCIOutputImageKey)).isNil());
  auto img = makeTestImage(10, 10);
  f->setValue(img, kCIInputImageKey);
  EXPECT_EQ(CIImage::fromValue(f->valueForKey(kCIOutputImageKey)).extent(), CGRectMake(2, 0, 10, 10));
  f->setValue(Value(), kCIInputImageKey);
  EXPECT_TRUE(f->valueForKey(kCIInputImageKey).isNil());
}

TEST(CIFilterRegistry, DescribedAttributesAndCustomReplacementWhole) {
  registerTestFilters();
  auto f = CIFilter::filterWithName("TestDescribedFilter");
  ASSERT_TRUE(f);
  // The input keys are the described keys.
  EXPECT_EQ(f->inputKeys(),
            (std::vector<std::string>{"inputAmount", "inputImage", "inputLabel", "inputName", "inputRadius"}));
  const Dictionary attrs = f->attributes();
  // The filter's own entry replaced the described one whole: no CIAttributeMax survives.
  const Value amount = attrs.at("inputAmount");
  EXPECT_EQ(amount[kCIAttributeDefault], Value(7));
  EXPECT_EQ(amount.dictionary()->count(kCIAttributeMax), 0u);
  // An empty entry states nothing and replaces nothing: the described default stands; for an
  // input the description leaves out, the empty entry is the input's attributes.
  EXPECT_EQ(attrs.at("inputRadius")[kCIAttributeDefault], Value(3));
  EXPECT_EQ(attrs.at("inputUndescribed"), Value(Dictionary{}));
  // An entry whose every attribute the description already states with the same value adds
  // nothing either: the description's default stays. One that differs replaces it whole.
  EXPECT_EQ(attrs.at("inputName")[kCIAttributeDefault], Value("described"));
  EXPECT_EQ(attrs.at("inputLabel"), Value(Dictionary{{kCIAttributeClass, "NSString"}}));
  // A non-dictionary custom entry is ignored.
  EXPECT_EQ(attrs.count("notADictionary"), 0u);
  f->setDefaults();
  EXPECT_EQ(f->valueForKey("inputAmount"), Value(7));
  EXPECT_EQ(f->valueForKey("inputRadius"), Value(3));
  EXPECT_EQ(f->valueForKey("inputName"), Value("described"));
  EXPECT_TRUE(f->valueForKey("inputLabel").isNil());
}

TEST(CIFilterRegistry, BaseCustomAttributesIsNilAndApplyWithoutKernelIsNil) {
  registerTestFilters();
  auto f = CIFilter::filterWithName("TestTableFilter");
  EXPECT_TRUE(f->customAttributes().isNil());
  EXPECT_TRUE(f->apply(nullptr, {}, {}).isNil());
}

TEST(CIFilterRegistry, ReRegisteringReplaces) {
  CIFilterRegistration reg;
  reg.name = "TestReplaceFilter";
  reg.make = [] { return CIFilterRef(std::make_shared<TestDescribedFilter>()); };
  reg.displayName = "One";
  CIFilter::registerFilter(reg);
  reg.displayName = "Two";
  CIFilter::registerFilter(reg);
  EXPECT_EQ(CIFilter::registrationForName("TestReplaceFilter")->displayName, "Two");
  EXPECT_EQ(CIFilter::filterWithName("TestReplaceFilter")->attributes().at(kCIAttributeFilterDisplayName), Value("Two"));
}

TEST(CIFilterRegistry, CopyTakesEveryStoredValue) {
  registerTestFilters();
  auto f = CIFilter::filterWithName("TestTableFilter");
  f->setValue(5, "inputShift");
  f->setValue(makeTestImage(4, 4), kCIInputImageKey);
  CIFilterRef copy = f->copy();
  ASSERT_TRUE(copy);
  EXPECT_NE(copy, f);
  EXPECT_EQ(copy->name(), "TestTableFilter");
  EXPECT_EQ(copy->valueForKey("inputShift"), Value(5));
  EXPECT_EQ(copy->valueForKey(kCIInputImageKey), f->valueForKey(kCIInputImageKey));
  // The copy is independent of the original.
  copy->setValue(1, "inputShift");
  EXPECT_EQ(f->valueForKey("inputShift"), Value(5));
}

TEST(CIFilterRegistry, ArchivesHoldInputsButNeverImages) {
  registerTestFilters();
  auto f = CIFilter::filterWithName("TestDescribedFilter");
  f->setValue(2.5, "inputAmount");
  f->setValue(CIColor::colorWithRed(0.5, 0.25, 1, 0.75), "inputColor");
  f->setValue(CIVector::vectorWithX(1, 2, 3), "inputVector");
  f->setValue(makeTestImage(4, 4), kCIInputImageKey);
  const auto data = CIFilter::archivedDataWithFilter(*f);
  ASSERT_TRUE(data);
  EXPECT_EQ(data->find(kCIInputImageKey), std::string::npos);
  CIFilterRef back = CIFilter::filterWithArchivedData(*data);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->name(), "TestDescribedFilter");
  EXPECT_EQ(back->valueForKey("inputAmount"), Value(2.5));
  EXPECT_EQ(CIColor::fromValue(back->valueForKey("inputColor"))->stringRepresentation(), "0.5 0.25 1.0 0.75");
  EXPECT_EQ(back->valueForKey("inputVector").object<CIVector>()->stringRepresentation(), "[1 2 3]");
  EXPECT_TRUE(back->valueForKey(kCIInputImageKey).isNil());
  // An archive naming no registered class gives nil.
  std::string renamed = *data;
  renamed.replace(renamed.find("TestDescribedFilter"), 19, "NoSuchRegistered123");
  EXPECT_FALSE(CIFilter::filterWithArchivedData(renamed));
}
