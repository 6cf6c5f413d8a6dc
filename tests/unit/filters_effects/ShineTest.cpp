#include "EffectTestSupport.h"
#include "Filters/QVFilterShineStraight.h"
#include "Framework/QVFilterKernelLoader.h"

using namespace effects;

namespace {

class Shine : public qvtest::BundleTest {
 protected:
  CIImage shine(const std::string& name, const CIImage& image, Value source, Value alpha) {
    return outputWith(name, {{kCIInputImageKey, image}, {"inputLightSource", source}, {"inputAlpha", alpha}});
  }
};

// A subclass of the kernel-using shine, as a host or a later filter might make.
class ShineStraightSubclass : public QVFilterShineStraight {};

}  // namespace

TEST_F(Shine, KeysInOrder) {
  for (const char* name : {"QVFilterShine", "QVFilterShineStraight", "QVFilterShineCurved"}) {
    const auto filter = qvtest::makeFilter(name);
    ASSERT_TRUE(filter) << name;
    EXPECT_EQ(filter->inputKeys(), (std::vector<std::string>{"inputImage", "inputLightSource", "inputAlpha"})) << name;
  }
}

TEST_F(Shine, ZeroAlphaReturnsTheInputItself) {
  const CIImage input = makeTestImage(30, 20);
  for (const char* name : {"QVFilterShine", "QVFilterShineStraight", "QVFilterShineCurved"}) {
    EXPECT_TRUE(shine(name, input, 0, 0.0) == input) << name;
    EXPECT_TRUE(shine(name, input, 0, Value()) == input) << name;
  }
}

TEST_F(Shine, AlphaIsOnlyASwitch) {
  const CIImage input = makeTestImage(60, 40);
  for (const char* name : {"QVFilterShine", "QVFilterShineStraight"})
    EXPECT_EQ(maxDifference(shine(name, input, 0, 0.3), shine(name, input, 0, 1.0), input.extent()), 0.0f) << name;
}

TEST_F(Shine, TopCentreLightOnAWidePicture) {
  // Light source 1 on (0, 0, 200, 100): from (100, 100) to (100, 50); the lower half gets the
  // flat 5 % white.
  const CIImage black = solid(0, 0, 0, 1, CGRectMake(0, 0, 200, 100));
  const CIImage out = shine("QVFilterShine", black, 1, 1.0);
  EXPECT_EQ(out.extent(), black.extent());
  for (auto [x, y] : {std::pair{0, 0}, {100, 25}, {199, 49}})
    expectPixelNear(px(out, x, y), {0.05f, 0.05f, 0.05f, 1}, 1e-5f, "flat lower half");
  // Row 99 (centre y = 99.5): 0.5 pixel below the light, t = 0.01.
  const float top = 0.8f + (0.05f - 0.8f) * 0.01f;
  expectPixelNear(px(out, 100, 99), {top, top, top, 1}, 1e-4f, "near the light");
  const float mid = 0.8f + (0.05f - 0.8f) * (24.5f / 50.0f);
  expectPixelNear(px(out, 10, 75), {mid, mid, mid, 1}, 1e-4f, "half way");
}

TEST_F(Shine, LeftAndRightLightsAreMirrorImages) {
  const CIImage grey = solid(0.3, 0.3, 0.3, 1, CGRectMake(0, 0, 80, 60));
  for (const char* name : {"QVFilterShine", "QVFilterShineStraight"}) {
    const CIImage left = shine(name, grey, 0, 1.0), right = shine(name, grey, 2, 1.0);
    const CIImage mirrored = right.imageByApplyingTransform(CGAffineTransformMake(-1, 0, 0, 1, 80, 0));
    EXPECT_LT(maxDifference(left, mirrored, grey.extent()), 1e-5f) << name;
    EXPECT_GT(maxDifference(left, right, grey.extent()), 0.1f) << name;
  }
}

TEST_F(Shine, CurvedIsThePlainShine) {
  const CIImage input = makeTestImage(64, 48, {3, 5});
  for (int source : {0, 1, 2})
    EXPECT_EQ(maxDifference(shine("QVFilterShineCurved", input, source, 1.0), shine("QVFilterShine", input, source, 1.0),
                            input.extent()),
              0.0f)
        << source;
}

TEST_F(Shine, StraightEndsAtAnEdgeThroughTheCentre) {
  const CIImage black = solid(0, 0, 0, 1, CGRectMake(0, 0, 200, 100));
  const CIImage out = shine("QVFilterShineStraight", black, 1, 1.0);
  EXPECT_EQ(out.extent(), black.extent());
  // Beyond the edge (y < 50) the picture is untouched; on the light's side the highlight shows.
  expectPixelNear(px(out, 100, 20), {0, 0, 0, 1}, 1e-6f, "beyond the edge");
  expectPixelNear(px(out, 5, 48), {0, 0, 0, 1}, 1e-6f, "just beyond the edge");
  const float top = 0.8f + (0.05f - 0.8f) * 0.01f;
  expectPixelNear(px(out, 100, 99), {top, top, top, 1}, 1e-4f, "near the light");
  // The edge lies on y = 50 and is softened over one pixel: row 50 (centre 50.5) is kept
  // whole, row 49 (centre 49.5) is gone.
  const float row50 = 0.8f + (0.05f - 0.8f) * (49.5f / 50.0f);
  expectPixelNear(px(out, 100, 50), {row50, row50, row50, 1}, 1e-4f, "first kept row");
  expectPixelNear(px(out, 100, 49), {0, 0, 0, 1}, 1e-6f, "first cut row");
}

TEST_F(Shine, OtherLightSourcesAndMissingInputGiveNil) {
  const CIImage input = makeTestImage(20, 20);
  for (const char* name : {"QVFilterShine", "QVFilterShineStraight", "QVFilterShineCurved"}) {
    EXPECT_FALSE(shine(name, input, 3, 1.0)) << name;
    EXPECT_FALSE(shine(name, input, -1, 1.0)) << name;
    EXPECT_FALSE(shine(name, CIImage(), 0, 1.0)) << name;
  }
}

TEST_F(Shine, SubclassesDoNotReloadTheKernel) {
  const std::size_t before = QVFilterKernelResourceLoadCount();
  { ShineStraightSubclass first; }
  const std::size_t afterFirst = QVFilterKernelResourceLoadCount();
  EXPECT_LE(afterFirst, before + 1);
  { QVFilterShineStraight base; }
  { ShineStraightSubclass again; }
  EXPECT_EQ(QVFilterKernelResourceLoadCount(), afterFirst);
  ASSERT_TRUE(QVFilterShineStraight::straightMaskKernel());
  EXPECT_EQ(QVFilterShineStraight::straightMaskKernel()->name(), "shineStraightMask");
  EXPECT_EQ(ShineStraightSubclass()._maskKernel(), QVFilterShineStraight::straightMaskKernel());
  EXPECT_FALSE(QVFilterShine()._maskKernel());
}
