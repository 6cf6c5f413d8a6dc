// QVFilterBlur and QVFilterZoomBlur: the chosen blur over clamped edges, the zoom blur's
// proportional centre and whole-pixel radius, and what each returns for odd inputs.
#include <gtest/gtest.h>

#include <cmath>

#include "AdjustTestSupport.h"
#include "Filters/QVFilterBlur.h"
#include "Filters/QVFilterZoomBlur.h"
#include "Framework/QVFilterKernelLoader.h"

using namespace qvtest;

namespace {

class BlurFilters : public BundleTest {};

CIImage handZoomed(const CIImage& image, double x, double y, double amount) {
  return builtinOutput("CIZoomBlur", {{kCIInputImageKey, image}, {kCIInputCenterKey, vec(x, y)}, {"inputAmount", amount}})
      .imageByCroppingToRect(image.extent());
}

}  // namespace

// ---- Blur ----

TEST_F(BlurFilters, BlurKeysAndDescribedDefaults) {
  CIFilterRef f = makeFilter("QVFilterBlur");
  ASSERT_TRUE(f);
  EXPECT_EQ(f->inputKeys(), (std::vector<std::string>{kCIInputImageKey, kCIInputRadiusKey, "inputBlurFilterName"}));
  EXPECT_EQ(f->outputKeys(), (std::vector<std::string>{kCIOutputImageKey}));
  EXPECT_FALSE(f->customAttributes());
  // The defaults come from the bundle's description.
  EXPECT_EQ(f->valueForKey("inputBlurFilterName"), Value("CIGaussianBlur"));
  EXPECT_GT(f->valueForKey(kCIInputRadiusKey).doubleValue(), 0.0);
}

TEST_F(BlurFilters, BlurNilImageGivesNil) { EXPECT_FALSE(filterOutput(makeFilter("QVFilterBlur"))); }

TEST_F(BlurFilters, BlurWithAnUnknownNameReturnsTheInputImageItself) {
  const CIImage image = makeTestImage(20, 10);
  CIFilterRef f = makeFilter("QVFilterBlur");
  ASSERT_TRUE(f);
  f->setValue(image, kCIInputImageKey);
  f->setValue("CINoSuchBlur", "inputBlurFilterName");
  const CIImage out = filterOutput(f);
  EXPECT_TRUE(out == image);
  // No name at all, or a name that is not a string: the same.
  f->setValue(Value(), "inputBlurFilterName");
  EXPECT_TRUE(filterOutput(f) == image);
  f->setValue(3, "inputBlurFilterName");
  EXPECT_TRUE(filterOutput(f) == image);
}

TEST_F(BlurFilters, BlurLoadsItsKernelOncePerProcess) {
  ASSERT_TRUE(QVFilterBlur::noOpKernel());
  const std::size_t loads = QVFilterKernelResourceLoadCount();
  QVFilterBlur a, b;
  CIFilterRef c = makeFilter("QVFilterBlur");
  EXPECT_EQ(QVFilterKernelResourceLoadCount(), loads);
}

TEST_F(BlurFilters, BlurEqualsTheChosenBlurOfTheClampedImage) {
  const CIImage photo = testPhoto();
  const CGRect r = photo.extent();
  for (const char* blur : {"CIGaussianBlur", "CIBoxBlur", "CIDiscBlur"}) {
    CIFilterRef f = makeFilter("QVFilterBlur");
    f->setValue(photo, kCIInputImageKey);
    f->setValue(blur, "inputBlurFilterName");
    f->setValue(6.0, kCIInputRadiusKey);
    const CIImage out = filterOutput(f);
    ASSERT_TRUE(out) << blur;
    EXPECT_EQ(out.extent(), r) << blur;
    const CIImage expected =
        builtinOutput(blur, {{kCIInputImageKey, photo.imageByClampingToExtent()}, {kCIInputRadiusKey, 6.0}})
            .imageByCroppingToRect(r);
    EXPECT_SAME_PIXELS(out, expected, r, 1e-5f);
    EXPECT_DIFFERENT_PIXELS(out, photo, r);
  }
}

TEST_F(BlurFilters, GaussianRadius20KeepsTheEdgePixelsOpaqueAndUndarkened) {
  const CIImage photo = testPhoto();
  const CGRect r = photo.extent();
  CIFilterRef f = makeFilter("QVFilterBlur");
  f->setValue(photo, kCIInputImageKey);
  f->setValue("CIGaussianBlur", "inputBlurFilterName");
  f->setValue(20.0, kCIInputRadiusKey);
  const CIImage out = filterOutput(f);
  ASSERT_TRUE(out);
  EXPECT_EQ(out.extent(), r);
  // The outermost rows and columns: opaque, and no darker than a blur of the image without
  // edge extension would be (that one fades towards transparent black).
  const CIImage fringed = builtinOutput("CIGaussianBlur", {{kCIInputImageKey, photo}, {kCIInputRadiusKey, 20.0}});
  for (const CGRect edge : {CGRectMake(0, 0, r.size.width, 1), CGRectMake(0, r.size.height - 1, r.size.width, 1),
                            CGRectMake(0, 0, 1, r.size.height), CGRectMake(r.size.width - 1, 0, 1, r.size.height)}) {
    const auto px = pixels(out, edge);
    const auto fr = pixels(fringed, edge);
    for (std::size_t i = 3; i < px.size(); i += 4) {
      ASSERT_NEAR(px[i], 1.0f, 1e-4f) << NSStringFromRect(edge) << " pixel " << i / 4;
      ASSERT_LT(fr[i], 0.9f);  // the unclamped blur does fade here: the check can fail
    }
  }
}

TEST_F(BlurFilters, BlurWithTheZoomBlurSeesTheImageWithoutEdgeExtension) {
  const CIImage image = makeTestImage(60, 40, CGPointMake(10, 20));
  CIFilterRef f = makeFilter("QVFilterBlur");
  f->setValue(image, kCIInputImageKey);
  f->setValue("QVFilterZoomBlur", "inputBlurFilterName");
  f->setValue(9.5, kCIInputRadiusKey);
  const CIImage out = filterOutput(f);
  ASSERT_TRUE(out);
  EXPECT_EQ(out.extent(), image.extent());
  // The zoom blur of the image itself (it pulls pixels towards its centre only, so it needs
  // no extended edges): centre (0.5, 0.5) -> (40, 40), amount floor(9.5) = 9.
  EXPECT_SAME_PIXELS(out, handZoomed(image, 40, 40, 9), image.extent(), 0.0f);
}

// ---- Zoom blur ----

TEST_F(BlurFilters, ZoomBlurKeysAndAttributes) {
  CIFilterRef f = makeFilter("QVFilterZoomBlur");
  ASSERT_TRUE(f);
  EXPECT_EQ(f->inputKeys(), (std::vector<std::string>{kCIInputImageKey, kCIInputCenterKey, kCIInputRadiusKey}));
  QVFilterZoomBlur zoom;
  const Value attrs = zoom.customAttributes();
  ASSERT_TRUE(attrs.dictionary());
  EXPECT_EQ(keysOf(*attrs.dictionary()), (std::vector<std::string>{kCIInputCenterKey}));
  const Dictionary* center = attributeEntry(attrs, kCIInputCenterKey);
  ASSERT_TRUE(center);
  EXPECT_EQ(keysOf(*center), (std::vector<std::string>{kCIAttributeDefault, kCIAttributeMax, kCIAttributeMin}));
  EXPECT_EQ(center->at(kCIAttributeMin), vec(0, 0));
  EXPECT_EQ(center->at(kCIAttributeMax), vec(1, 1));
  EXPECT_EQ(center->at(kCIAttributeDefault), vec(0.5, 0.5));
  EXPECT_EQ(f->valueForKey(kCIInputCenterKey), vec(0.5, 0.5));
  EXPECT_GT(f->valueForKey(kCIInputRadiusKey).doubleValue(), 0.0);
}

TEST_F(BlurFilters, ZoomBlurNilImageGivesNil) { EXPECT_FALSE(filterOutput(makeFilter("QVFilterZoomBlur"))); }

TEST_F(BlurFilters, ZoomBlurRadius7Point9BlursByAnAmountOf7) {
  const CIImage image = makeTestImage(64, 48);
  CIFilterRef f = makeFilter("QVFilterZoomBlur");
  f->setValue(image, kCIInputImageKey);
  f->setValue(7.9, kCIInputRadiusKey);
  const CIImage out = filterOutput(f);
  ASSERT_TRUE(out);
  EXPECT_SAME_PIXELS(out, handZoomed(image, 32, 24, 7), image.extent(), 0.0f);
  EXPECT_DIFFERENT_PIXELS(out, handZoomed(image, 32, 24, 8), image.extent());
}

TEST_F(BlurFilters, ZoomBlurCentreIsInProportionsOfTheExtent) {
  // Centre (0.5, 0.5) of an image at (10, 20) of 100 x 50 is (60, 45).
  const CIImage image = makeTestImage(100, 50, CGPointMake(10, 20));
  CIFilterRef f = makeFilter("QVFilterZoomBlur");
  f->setValue(image, kCIInputImageKey);
  f->setValue(vec(0.5, 0.5), kCIInputCenterKey);
  f->setValue(12, kCIInputRadiusKey);
  const CIImage out = filterOutput(f);
  ASSERT_TRUE(out);
  EXPECT_EQ(out.extent(), image.extent());
  EXPECT_SAME_PIXELS(out, handZoomed(image, 60, 45, 12), image.extent(), 0.0f);
  EXPECT_DIFFERENT_PIXELS(out, handZoomed(image, 50, 25, 12), image.extent());
}

TEST_F(BlurFilters, ZoomBlurFallsBackToTheDeclaredDefaultsForNilInputs) {
  const CIImage image = makeTestImage(100, 50, CGPointMake(10, 20));
  CIFilterRef bare = CIFilter::filterWithName("QVFilterZoomBlur");  // no setDefaults
  bare->setValue(image, kCIInputImageKey);
  CIFilterRef withDefaults = makeFilter("QVFilterZoomBlur");
  const double radius = withDefaults->valueForKey(kCIInputRadiusKey).doubleValue();
  const CIImage out = filterOutput(bare);
  ASSERT_TRUE(out);
  EXPECT_SAME_PIXELS(out, handZoomed(image, 60, 45, std::floor(radius)), image.extent(), 0.0f);
}
