#include <limits>
#include <set>
#include <vector>

#include "CoreImage/Nodes/CoreNodes.h"

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

// The distinct resampling nodes of a graph.
std::size_t transformsIn(const CIImage& image) {
  std::set<const ImageNode*> seen, transforms;
  std::vector<const ImageNode*> todo{image.node().get()};
  while (!todo.empty()) {
    const ImageNode* n = todo.back();
    todo.pop_back();
    if (!n || !seen.insert(n).second) continue;
    if (dynamic_cast<const TransformNode*>(n)) transforms.insert(n);
    for (const CIImage& i : n->inputs()) todo.push_back(i.node().get());
  }
  return transforms.size();
}

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

// The filter scales the picture once and colours each placed layer after; the layers of the
// plain recipe are coloured first and then scaled and placed each on its own. Both give the same
// pixels (to float rounding), for whole-pixel and fractional placements alike.
TEST_F(Stereoscopic, SharedScalingGivesThePixelsOfColouringEachLayerFirst) {
  auto builtin = [](const std::string& name, const std::vector<std::pair<std::string, Value>>& inputs) {
    const CIFilterRef f = CIFilter::filterWithName(name);
    f->setDefaults();
    for (const auto& [k, v] : inputs) f->setValue(v, k);
    return f->outputImage();
  };
  for (const CIImage& input : {makeTestImageWithAlpha(60, 40), makeTestImageWithAlpha(51, 37, CGPointMake(3, -2)),
                               makeTestImageWithAlpha(150, 100)}) {
    const CGRect e = input.extent();
    for (double s : {0.98, 0.73, 1.3, 0.5}) {
      const double a = 0.6;
      auto layer = [&](const CIVectorRef& r, const CIVectorRef& g, const CIVectorRef& b, bool red) {
        const CIImage scaled = builtin("CIColorMatrix", {{kCIInputImageKey, input},
                                                         {"inputRVector", r},
                                                         {"inputGVector", g},
                                                         {"inputBVector", b},
                                                         {"inputAVector", CIVector::vectorWithX(0, 0, 0, a)}})
                                   .imageByApplyingTransform(CGAffineTransformMakeScale(s, s));
        const CGRect l = scaled.extent();
        const double tx = red ? CGRectGetMaxX(e) - CGRectGetWidth(l) - CGRectGetMinX(l) : CGRectGetMinX(l) - CGRectGetMinX(e);
        const double ty = CGRectGetMidY(e) + CGRectGetHeight(l) * -0.5 - CGRectGetMinY(l);
        return scaled.imageByApplyingTransform(CGAffineTransformMakeTranslation(tx, ty)).imageByCroppingToRect(e);
      };
      const CIVectorRef zero = CIVector::vectorWithX(0, 0, 0, 0);
      const CIImage red = layer(CIVector::vectorWithX(1, 0, 0, 0), zero, zero, true);
      const CIImage cyan = layer(zero, CIVector::vectorWithX(0, 1, 0, 0), CIVector::vectorWithX(0, 0, 1, 0), false);
      const CIImage recipe = builtin(
          "CILightenBlendMode",
          {{kCIInputImageKey, red},
           {kCIInputBackgroundImageKey,
            builtin("CILightenBlendMode", {{kCIInputImageKey, cyan}, {kCIInputBackgroundImageKey, input}})}});
      const CIImage out = stereo(input, s, a);
      ASSERT_TRUE(out);
      EXPECT_EQ(out.extent(), recipe.extent());
      EXPECT_LT(maxDifference(out, recipe, e), 1e-6f) << "scale " << s;
      // Where the scaled picture and its placements keep whole pixels, both layers read one
      // resampling of it.
      const CGRect l = CGRectApplyAffineTransform(e, CGAffineTransformMakeScale(s, s));
      const double y = CGRectGetMidY(e) - CGRectGetHeight(l) * 0.5 - CGRectGetMinY(l);
      const double x = CGRectGetMaxX(e) - CGRectGetWidth(l) - CGRectGetMinX(l);
      const bool whole = CGRectEqualToRect(l, CGRectIntegral(l)) && y == std::floor(y) && x == std::floor(x) &&
                         CGRectGetMinX(l) == std::floor(CGRectGetMinX(l));
      EXPECT_EQ(transformsIn(out), whole ? 1u : 2u) << "scale " << s;
    }
  }
}
