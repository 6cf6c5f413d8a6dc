#include <limits>

#include "EffectTestSupport.h"
#include "Filters/QVFilterStereoscopic.h"
#include "Framework/QVFilterKernelLoader.h"

using namespace effects;

namespace {

class Stereoscopic : public qvtest::BundleTest {
 protected:
  CIImage stereo(const CIImage& image, Value scale, Value intensity) {
    return outputWith("QVFilterStereoscopic",
                      {{kCIInputImageKey, image}, {kCIInputScaleKey, scale}, {kCIInputIntensityKey, intensity}});
  }
  // Black 100 x 100 with white lower-left and upper-right quadrants.
  static CIImage quadrants() {
    const CIFilterRef over = CIFilter::filterWithName("CISourceOverCompositing");
    over->setDefaults();
    over->setValue(solid(1, 1, 1, 1, CGRectMake(0, 0, 50, 50)), kCIInputImageKey);
    const CIFilterRef over2 = CIFilter::filterWithName("CISourceOverCompositing");
    over2->setDefaults();
    over2->setValue(solid(1, 1, 1, 1, CGRectMake(50, 50, 50, 50)), kCIInputImageKey);
    over2->setValue(solid(0, 0, 0, 1, CGRectMake(0, 0, 100, 100)), kCIInputBackgroundImageKey);
    over->setValue(over2->outputImage(), kCIInputBackgroundImageKey);
    return over->outputImage();
  }
};

class StereoscopicSubclass : public QVFilterStereoscopic {};

}  // namespace

TEST_F(Stereoscopic, KeysInOrder) {
  const auto filter = qvtest::makeFilter("QVFilterStereoscopic");
  ASSERT_TRUE(filter);
  EXPECT_EQ(filter->inputKeys(), (std::vector<std::string>{"inputImage", "inputScale", "inputIntensity"}));
}

TEST_F(Stereoscopic, MissingInputGivesNil) { EXPECT_FALSE(stereo(CIImage(), 0.5, 1.0)); }

TEST_F(Stereoscopic, ZeroIntensityLeavesThePicture) {
  const CIImage input = makeTestImage(60, 40);
  const CIImage out = stereo(input, 0.7, 0.0);
  EXPECT_EQ(out.extent(), input.extent());
  EXPECT_EQ(maxDifference(out, input, input.extent()), 0.0f);
  EXPECT_EQ(maxDifference(stereo(input, 0.7, -2.0), input, input.extent()), 0.0f);
}

TEST_F(Stereoscopic, ScaleOneAtTheOriginSitsOnThePicture) {
  const CIImage input = makeTestImage(60, 40);
  const CIImage out = stereo(input, 1.0, 1.0);
  EXPECT_EQ(out.extent(), input.extent());
  EXPECT_LT(maxDifference(out, input, input.extent()), 1e-6f);
  EXPECT_LT(maxDifference(stereo(input, Value(), Value()), input, input.extent()), 1e-6f);
}

TEST_F(Stereoscopic, HalfScalePutsRedRightAndCyanLeft) {
  const CIImage input = quadrants();
  const CIImage out = stereo(input, 0.5, 1.0);
  EXPECT_EQ(out.extent(), input.extent());
  // The lower-left white quadrant scaled to (0, 0, 25, 25) lands as red at (50, 25) and as
  // cyan at (0, 25); the upper-right one as cyan at (25, 50).
  expectPixelNear(px(out, 60, 35), {1, 0, 0, 1}, 1e-5f, "red layer on the right half");
  expectPixelNear(px(out, 35, 60), {0, 1, 1, 1}, 1e-5f, "cyan layer on the left half");
  expectPixelNear(px(out, 10, 90), {0, 0, 0, 1}, 1e-6f, "above the layers");
  expectPixelNear(px(out, 60, 10), {0, 0, 0, 1}, 1e-6f, "below the layers");
  expectPixelNear(px(out, 10, 10), {1, 1, 1, 1}, 1e-6f, "picture");
}

TEST_F(Stereoscopic, InputsAreClamped) {
  const CIImage input = quadrants();
  const CGRect r = input.extent();
  EXPECT_EQ(maxDifference(stereo(input, -1.0, 1.0), stereo(input, 0.0, 1.0), r), 0.0f);
  EXPECT_EQ(maxDifference(stereo(input, 5.0, 1.0), stereo(input, 2.0, 1.0), r), 0.0f);
  EXPECT_EQ(maxDifference(stereo(input, 0.5, 3.0), stereo(input, 0.5, 1.0), r), 0.0f);
  EXPECT_EQ(maxDifference(stereo(input, std::numeric_limits<double>::quiet_NaN(), 1.0), stereo(input, 0.0, 1.0), r),
            0.0f);
  EXPECT_GT(maxDifference(stereo(input, 0.5, 1.0), stereo(input, 0.5, 0.5), r), 0.1f);
  // Scale 2: the layers grow beyond the picture and are cut to its extent.
  EXPECT_EQ(stereo(input, 2.0, 1.0).extent(), r);
}

TEST_F(Stereoscopic, TwoKernelsInFileOrderLoadedOnce) {
  const std::size_t before = QVFilterKernelResourceLoadCount();
  { StereoscopicSubclass first; }
  const std::size_t afterFirst = QVFilterKernelResourceLoadCount();
  EXPECT_LE(afterFirst, before + 1);
  { QVFilterStereoscopic base; }
  { StereoscopicSubclass again; }
  EXPECT_EQ(QVFilterKernelResourceLoadCount(), afterFirst);
  ASSERT_TRUE(QVFilterStereoscopic::QVFilterStereoscopic_DesaturateKernel());
  ASSERT_TRUE(QVFilterStereoscopic::QVFilterStereoscopic_StereoscopicKernel());
  EXPECT_EQ(QVFilterStereoscopic::QVFilterStereoscopic_DesaturateKernel()->name(), "stereoscopicDesaturate");
  EXPECT_EQ(QVFilterStereoscopic::QVFilterStereoscopic_StereoscopicKernel()->name(), "stereoscopicMix");
}
