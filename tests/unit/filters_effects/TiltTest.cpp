#include <cmath>
#include <limits>

#include "EffectTestSupport.h"
#include "Filters/QVFilterTilt.h"
#include "Framework/QVFilterKernelLoader.h"

using namespace effects;

namespace {

class Tilt : public qvtest::BundleTest {
 protected:
  CIImage tilt(const CIImage& image, Value intensity, Value offset) {
    return outputWith("QVFilterTilt", {{kCIInputImageKey, image}, {kCIInputIntensityKey, intensity}, {"inputOffset", offset}});
  }
  static CIImage boxBlur(const CIImage& image, double radius) {
    const auto blur = CIFilter::filterWithName("CIBoxBlur");
    blur->setDefaults();
    blur->setValue(image, kCIInputImageKey);
    blur->setValue(radius, kCIInputRadiusKey);
    return blur->outputImage().imageByCroppingToRect(image.extent());
  }
};

class TiltSubclass : public QVFilterTilt {};

}  // namespace

TEST_F(Tilt, KeysInOrder) {
  const auto filter = qvtest::makeFilter("QVFilterTilt");
  ASSERT_TRUE(filter);
  EXPECT_EQ(filter->inputKeys(), (std::vector<std::string>{"inputImage", "inputIntensity", "inputOffset"}));
}

TEST_F(Tilt, ZeroIntensityReturnsTheInputItself) {
  const CIImage input = makeTestImage(40, 30);
  EXPECT_TRUE(tilt(input, 0.0, 0.5) == input);
  EXPECT_TRUE(tilt(input, Value(), 0.5) == input);
}

TEST_F(Tilt, MissingInputGivesNil) { EXPECT_FALSE(tilt(CIImage(), 1.0, 0.5)); }

TEST_F(Tilt, MarginIsHalfTheHeavyRadiusRoundedOutward) {
  const CIImage input = solid(0.5, 0.5, 0.5, 1, CGRectMake(0, 0, 400, 300));
  EXPECT_EXTENT(tilt(input, 1.0, 0.5), 15, 15, 370, 270);
  EXPECT_EXTENT(tilt(input, 0.5, 0.5), 7, 7, 386, 286);
  const CIImage shifted = solid(0.5, 0.5, 0.5, 1, CGRectMake(10, 20, 100, 80));
  EXPECT_EXTENT(tilt(shifted, 2.0, 0.5), 40, 50, 40, 20);
}

TEST_F(Tilt, OffsetIsClamped) {
  const CIImage input = makeTestImage(80, 60);
  const CIImage bottom = tilt(input, 0.5, 0.0), top = tilt(input, 0.5, 1.0);
  const CGRect r = bottom.extent();
  EXPECT_EQ(maxDifference(tilt(input, 0.5, -0.5), bottom, r), 0.0f);
  EXPECT_EQ(maxDifference(tilt(input, 0.5, 7.0), top, r), 0.0f);
  EXPECT_EQ(maxDifference(tilt(input, 0.5, std::numeric_limits<double>::quiet_NaN()), bottom, r), 0.0f);
  EXPECT_EQ(maxDifference(tilt(input, 0.5, Value()), bottom, r), 0.0f);
  EXPECT_GT(maxDifference(top, bottom, r), 0.01f);
}

TEST_F(Tilt, SharpOnTheLineLightBlurAtAQuarterHeavyBlurAtHalf) {
  // 160 x 120 at intensity 0.5: radii 10 and 15. Line at o = 0.5 (y = 60).
  const CIImage input = makeTestImage(160, 120, {}, 7);
  const CIImage out = tilt(input, 0.5, 0.5);
  const CIImage light = boxBlur(input, 10), heavy = boxBlur(input, 15);
  const CGRect onLine = CGRectMake(8, 60, 144, 1);
  EXPECT_LT(maxDifference(out, input, onLine), 2e-3f);
  // Row 90 (centre 90.5) lies 0.254 picture heights from the line: almost pure light blur.
  const CGRect quarter = CGRectMake(8, 90, 144, 1);
  EXPECT_LT(maxDifference(out, light, quarter), 2e-3f);
  EXPECT_GT(maxDifference(out, heavy, quarter), 5 * maxDifference(out, light, quarter));
  // With the line at the top edge, row 50 lies more than half a height away: the heavy blur.
  const CIImage topLine = tilt(input, 0.5, 1.0);
  const CGRect far = CGRectMake(8, 50, 144, 1);
  EXPECT_LT(maxDifference(topLine, heavy, far), 1e-5f);
}

TEST_F(Tilt, TheLightBlurKeepsItsRadiusAfterTheHeavyOneIsSet) {
  const CIImage input = makeTestImage(160, 120, {}, 11);
  const CIImage out = tilt(input, 0.5, 0.5);
  const CIImage wrong = boxBlur(input, 15);
  const CIImage right = boxBlur(input, 10);
  const CGRect quarter = CGRectMake(8, 90, 144, 1);
  EXPECT_LT(maxDifference(out, right, quarter), maxDifference(out, wrong, quarter));
}

TEST_F(Tilt, KernelIsLoadedOnceAndNotForSubclasses) {
  const std::size_t before = QVFilterKernelResourceLoadCount();
  { TiltSubclass first; }
  const std::size_t afterFirst = QVFilterKernelResourceLoadCount();
  EXPECT_LE(afterFirst, before + 1);
  { QVFilterTilt base; }
  { TiltSubclass again; }
  EXPECT_EQ(QVFilterKernelResourceLoadCount(), afterFirst);
  ASSERT_TRUE(QVFilterTilt::QVFilterTiltLinearKernel());
  EXPECT_EQ(QVFilterTilt::QVFilterTiltLinearKernel()->name(), "tiltLinear");
}
