// Every filter the plug-in bundle registers, rendered with its defaults on the test photo and
// compared with its reference tests/golden/filters/<Name>.png. A filter without a reference
// fails: adding a filter to the bundle means adding (and looking at) its reference render.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "CoreGraphics/CGGeometry.h"
#include "FilterTestSupport.h"
#include "Golden.h"

using namespace qvtest;

namespace {

// The rectangle to render: the output's extent in whole pixels, or the photo's where the
// output is infinite.
CGRect renderRect(const CIImage& out) {
  const CGRect e = out.extent();
  if (CGRectIsInfinite(e)) return testPhoto().extent();
  return CGRectIntegral(e);
}

// Outputs far larger than the photo (a frame texture's full size) are compared at the photo's
// width, so that the references stay small; the rest at their own size.
CIImage comparedOutput(const CIImage& out, const CGRect& rect) {
  const double width = CGRectGetWidth(testPhoto().extent());
  if (rect.size.width <= 2 * width) return out;
  CIFilterRef scale = CIFilter::filterWithName("CILanczosScaleTransform");
  scale->setDefaults();
  scale->setValue(out.imageByCroppingToRect(rect), kCIInputImageKey);
  scale->setValue(width / rect.size.width, kCIInputScaleKey);
  return CIImage::fromValue(scale->valueForKey(kCIOutputImageKey));
}

class RegisteredFilter : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(loadBundleOnce(&error)) << error;
  }
};

}  // namespace

TEST(FilterRegistry, BundleLoadsAndRegistersItsFilters) {
  std::string error;
  ASSERT_TRUE(loadBundleOnce(&error)) << error;
  const std::vector<std::string> names = bundleFilterNames();
  EXPECT_FALSE(names.empty());
  // Every filter of the description is created by its name and reports that name.
  for (const auto& name : names) {
    CIFilterRef f = CIFilter::filterWithName(name);
    ASSERT_TRUE(f) << name;
    EXPECT_EQ(f->name(), name);
    EXPECT_TRUE(name.rfind("QVFilter", 0) == 0) << name;
  }
  // The registry answers the same names among all its filters.
  const std::vector<std::string> all = CIFilter::filterNamesInCategory("");
  for (const auto& name : names) EXPECT_TRUE(std::find(all.begin(), all.end(), name) != all.end()) << name;
}

TEST(FilterRegistry, TestPhotoIsThe320x240Picture) {
  const CIImage photo = testPhoto();
  ASSERT_TRUE(photo) << testPhotoPath();
  EXPECT_EQ(photo.extent(), CGRectMake(0, 0, 320, 240));
}

TEST_P(RegisteredFilter, RendersItsDefaultsOnThePhotoAsItsReference) {
  const std::string name = GetParam();
  CIFilterRef f = makeFilter(name);
  ASSERT_TRUE(f) << name;
  const CIImage photo = testPhoto();
  ASSERT_TRUE(photo);
  f->setValue(photo, kCIInputImageKey);
  const CIImage out = filterOutput(f);
  ASSERT_TRUE(out) << name << " gives no image with its defaults";
  const CGRect rect = renderRect(out);
  ASSERT_FALSE(CGRectIsEmpty(rect)) << name << " gives an empty image";
  ASSERT_LE(rect.size.width * rect.size.height, 4096.0 * 4096.0) << name << ": " << NSStringFromRect(rect);
  const CIImage compared = comparedOutput(out, rect);
  expectMatchesGolden(compared, compared == out ? rect : CGRectIntegral(compared.extent()), "filters/" + name);
}

INSTANTIATE_TEST_SUITE_P(Bundle, RegisteredFilter, ::testing::ValuesIn(bundleFilterNames()),
                         [](const ::testing::TestParamInfo<std::string>& info) { return info.param; });
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(RegisteredFilter);
