#include "EffectTestSupport.h"

using namespace effects;

namespace {

class Reflection : public qvtest::BundleTest {
 protected:
  CIImage reflect(const CIImage& image, Value alpha, Value proportion, Value offset) {
    return outputWith("QVFilterReflection", {{kCIInputImageKey, image},
                                             {"inputAlphaNought", alpha},
                                             {"inputProportion", proportion},
                                             {"inputOffset", offset}});
  }
};

}  // namespace

TEST_F(Reflection, KeysInOrder) {
  const auto filter = qvtest::makeFilter("QVFilterReflection");
  ASSERT_TRUE(filter);
  EXPECT_EQ(filter->inputKeys(),
            (std::vector<std::string>{"inputImage", "inputAlphaNought", "inputProportion", "inputOffset"}));
}

TEST_F(Reflection, ZeroOpacityOrProportionReturnsTheInputItself) {
  const CIImage input = makeTestImage(30, 20);
  EXPECT_TRUE(reflect(input, 0.0, 0.5, 4) == input);
  EXPECT_TRUE(reflect(input, 0.5, 0.0, 4) == input);
  EXPECT_TRUE(reflect(input, Value(), 0.5, 4) == input);
  EXPECT_TRUE(reflect(input, 0.5, Value(), 4) == input);
}

TEST_F(Reflection, MissingInputGivesNil) { EXPECT_FALSE(reflect(CIImage(), 0.5, 0.5, 4)); }

TEST_F(Reflection, LiftsTheResultAboveZero) {
  // H = 200, o = 10, p = 0.5: the reflection spans -110..-10, the union -110..200, lifted by 110.
  const CIImage input = makeTestImage(50, 200);
  const CIImage out = reflect(input, 0.5, 0.5, 10);
  EXPECT_EXTENT(out, 0, 0, 50, 310);
  const CIImage picture = out.imageByCroppingToRect(CGRectMake(0, 110, 50, 200))
                              .imageByApplyingTransform(CGAffineTransformMakeTranslation(0, -110));
  EXPECT_EQ(maxDifference(picture, input, input.extent()), 0.0f);
  // The gap is transparent, the reflection's top row mirrors the picture's bottom row at 0.5.
  EXPECT_EQ(px(out, 25, 105)[3], 0.0f);
  const auto bottom = px(input, 25, 0);
  expectPixelNear(px(out, 25, 99), {bottom[0] * 0.5f, bottom[1] * 0.5f, bottom[2] * 0.5f, 0.5f}, 0.01f,
                  "reflection top");
}

TEST_F(Reflection, FullProportionFadesToTransparentAtTheFarEdge) {
  const CIImage input = solid(1, 1, 1, 1, CGRectMake(0, 0, 20, 100));
  const CIImage out = reflect(input, 1.0, 1.0, 0);
  EXPECT_EXTENT(out, 0, 0, 20, 200);
  float previous = 2.0f;
  for (int y = 99; y >= 0; --y) {
    const float a = px(out, 10, y)[3];
    EXPECT_LE(a, previous + 1e-6f) << y;
    previous = a;
  }
  EXPECT_GT(px(out, 10, 99)[3], 0.97f);
  EXPECT_LT(px(out, 10, 0)[3], 0.02f);
}

TEST_F(Reflection, ProportionAboveOneKeepsTheWholeReflectionUnfaded) {
  const CIImage input = solid(1, 1, 1, 1, CGRectMake(0, 0, 20, 100));
  const CIImage out = reflect(input, 1.0, 2.0, 0);
  // g = 200 reaches below the reflection, which stays whole (100 rows).
  EXPECT_EXTENT(out, 0, 0, 20, 200);
  // The fade would reach 0 at depth 200; at the far edge (depth 100) about half remains.
  EXPECT_NEAR(px(out, 10, 0)[3], 0.5f, 0.02f);
}

TEST_F(Reflection, NegativeOffsetOverlapsUnderThePicture) {
  const CIImage input = solid(0, 0, 1, 1, CGRectMake(0, 300, 20, 100));
  const CIImage out = reflect(input, 1.0, 1.0, -10);
  // The reflection spans 210..310; its top 10 rows lie under the opaque picture.
  EXPECT_EXTENT(out, 0, 210, 20, 190);
  expectPixelNear(px(out, 10, 305), {0, 0, 1, 1}, 1e-6f, "picture over the reflection");
  EXPECT_GT(px(out, 10, 299)[3], 0.85f);
}

TEST_F(Reflection, FractionalOffsetRoundsOutward) {
  // A picture high above 0 is not moved; an offset of 2.5 puts the reflection 3 pixels below.
  const CIImage input = solid(1, 1, 1, 1, CGRectMake(0, 100, 20, 50));
  const CIImage out = reflect(input, 1.0, 1.0, 2.5);
  EXPECT_EXTENT(out, 0, 47, 20, 103);
  for (int y : {97, 98, 99}) EXPECT_EQ(px(out, 10, y)[3], 0.0f) << y;
  EXPECT_GT(px(out, 10, 96)[3], 0.9f);
}

TEST_F(Reflection, OpacityAboveOneIsNotClamped) {
  const CIImage input = solid(1, 1, 1, 1, CGRectMake(0, 200, 20, 100));
  const CIImage one = reflect(input, 1.0, 1.0, 0);
  const CIImage two = reflect(input, 2.0, 1.0, 0);
  // Half way down the fade: the steeper ramp of a0 = 2 is still more opaque.
  EXPECT_GT(px(two, 10, 150)[3], px(one, 10, 150)[3] + 0.1f);
}

TEST_F(Reflection, BottomBetweenMinusOneAndZeroStaysPut) {
  // Picture at y = 49.5, H = 50, o = 0, p = 1: the reflection's bottom lies at -0.5; floor(0.5)
  // is 0, so nothing moves.
  const CIImage input = solid(1, 1, 1, 1, CGRectMake(0, 49.5, 20, 50));
  const CIImage out = reflect(input, 1.0, 1.0, 0);
  EXPECT_EQ(CGRectGetMinY(out.extent()), -0.5);
}
