#include "EffectTestSupport.h"
#include "Filters/QVFilterBorder.h"

using namespace effects;

namespace {

class Border : public qvtest::BundleTest {
 protected:
  CIImage border(const CIImage& image, Value type, Value width, CIColorRef color = CIColor::colorWithRed(1, 0, 0, 1)) {
    return outputWith("QVFilterBorder",
                      {{kCIInputImageKey, image}, {"inputBorderType", type}, {kCIInputWidthKey, width}, {kCIInputColorKey, color}});
  }
};

}  // namespace

TEST_F(Border, KeysInOrder) {
  const auto filter = qvtest::makeFilter("QVFilterBorder");
  ASSERT_TRUE(filter);
  EXPECT_EQ(filter->inputKeys(),
            (std::vector<std::string>{"inputImage", "inputColor", "inputBorderType", "inputWidth"}));
  EXPECT_EQ(filter->outputKeys(), (std::vector<std::string>{"outputImage"}));
}

TEST_F(Border, DefaultsAndIdentitiesGiveAnOpaqueWhiteBand) {
  const auto filter = qvtest::makeFilter("QVFilterBorder");
  const CIColorRef color = CIColor::fromValue(filter->valueForKey(kCIInputColorKey));
  ASSERT_TRUE(color);
  EXPECT_EQ(color->red(), 1.0);
  EXPECT_EQ(color->green(), 1.0);
  EXPECT_EQ(color->blue(), 1.0);
  EXPECT_EQ(color->alpha(), 1.0);

  QVFilterBorder direct;
  direct.setInputColor(CIColor::colorWithRed(0.2, 0.3, 0.4, 0.5));
  direct.setIdentities();
  ASSERT_TRUE(direct.inputColor());
  EXPECT_EQ(direct.inputColor()->red(), 1.0);
  EXPECT_EQ(direct.inputColor()->blue(), 1.0);
  EXPECT_EQ(direct.inputColor()->alpha(), 1.0);
}

TEST_F(Border, WidthZeroInsideEqualsTheInput) {
  const CIImage input = makeTestImageWithAlpha(40, 30, {5, 7});
  const CIImage out = border(input, 0, 0);
  EXPECT_EQ(out.extent(), input.extent());
  EXPECT_EQ(maxDifference(out, input, input.extent()), 0.0f);
}

TEST_F(Border, WidthZeroOutsideShowsTheColourThroughTransparency) {
  const CIImage input = makeTestImageWithAlpha(40, 30);
  const CIImage out = border(input, 1, 0);
  EXPECT_EQ(out.extent(), input.extent());
  for (auto [x, y] : {std::pair{3, 4}, {20, 15}, {39, 29}}) {
    const auto in = px(input, x, y);
    expectPixelNear(px(out, x, y), {in[0] + (1 - in[3]), in[1], in[2], 1.0f}, 1e-5f, "source over red");
  }
}

TEST_F(Border, WidthIsRoundedDown) {
  const CIImage input = solid(0, 0, 1, 1, CGRectMake(0, 0, 50, 40));
  EXPECT_EXTENT(border(input, 1, 2.9), 0, 0, 54, 44);   // 2.9 -> 2
  // -1.5 -> -2, not -1: the background shrinks inside the picture, and the composite (the
  // picture's extent) moves by (-2, -2).
  EXPECT_EXTENT(border(input, 1, -1.5), -2, -2, 50, 40);
}

TEST_F(Border, OutsideGrowsByTheBandAndKeepsTheLowerLeftCorner) {
  const CIImage input = makeTestImage(100, 50, {10, 20});
  const CIImage out = border(input, 1, 5);
  EXPECT_EXTENT(out, 10, 20, 110, 60);
  // The picture occupies (15, 25, 100, 50).
  const CIImage picturePart = out.imageByCroppingToRect(CGRectMake(15, 25, 100, 50))
                                  .imageByApplyingTransform(CGAffineTransformMakeTranslation(-5, -5));
  EXPECT_EQ(maxDifference(picturePart, input, input.extent()), 0.0f);
  expectPixelNear(px(out, 10, 20), {1, 0, 0, 1}, 1e-6f, "band corner");
  expectPixelNear(px(out, 119, 79), {1, 0, 0, 1}, 1e-6f, "band far corner");
  expectPixelNear(px(out, 60, 22), {1, 0, 0, 1}, 1e-6f, "band bottom");
}

TEST_F(Border, InsidePaintsTheBandOverTheEdge) {
  const CIImage input = makeTestImage(100, 50, {10, 20});
  const CIImage out = border(input, 0, 5);
  EXPECT_EQ(out.extent(), input.extent());
  for (auto [x, y] : {std::pair{10, 20}, {14, 40}, {109, 69}, {60, 65}, {105, 30}})
    expectPixelNear(px(out, x, y), {1, 0, 0, 1}, 1e-6f, "band");
  for (auto [x, y] : {std::pair{15, 25}, {104, 64}, {60, 40}})
    expectPixelNear(px(out, x, y), px(input, x, y), 1e-6f, "picture");
}

TEST_F(Border, InsideKeepsTransparencyOutsideFillsIt) {
  // Opaque green with a fully transparent hole over (20, 10, 20, 20).
  std::vector<float> pixels(60 * 40 * 4, 0.0f);
  for (int row = 0; row < 40; ++row)
    for (int x = 0; x < 60; ++x) {
      const int y = 39 - row;  // row 0 is the top
      const bool hole = x >= 20 && x < 40 && y >= 10 && y < 30;
      float* p = &pixels[(static_cast<std::size_t>(row) * 60 + static_cast<std::size_t>(x)) * 4];
      p[1] = hole ? 0.0f : 1.0f;
      p[3] = hole ? 0.0f : 1.0f;
    }
  const CIImage picture = CIImage::imageWithRGBAf(pixels.data(), 60, 40);
  ASSERT_EQ(px(picture, 30, 20)[3], 0.0f);

  const CIImage inside = border(picture, 0, 3);
  EXPECT_EQ(px(inside, 30, 20), (std::array<float, 4>{0, 0, 0, 0})) << "inside keeps the hole transparent";
  const CIImage outside = border(picture, 1, 3);
  expectPixelNear(px(outside, 33, 23), {1, 0, 0, 1}, 1e-6f, "outside fills the hole with the band colour");
}

TEST_F(Border, InsideWithABandWiderThanHalfThePicture) {
  // E (0, 0, 10, 10), w = 8: the inner rectangle (0, 0, -6, -6) is standardised by the crop to
  // (-6, -6, 6, 6) and moved by (8, 8) to (2, 2, 6, 6), where the picture shows.
  const CIImage input = solid(0, 0, 1, 1, CGRectMake(0, 0, 10, 10));
  const CIImage out = border(input, 0, 8);
  EXPECT_EQ(out.extent(), input.extent());
  const CIImage mask = CIImage::imageWithColor(CIColor::colorWithString("1.0 1.0 1.0 1.0"))
                           .imageByCroppingToRect(CGRectMake(0, 0, -6, -6))
                           .imageByApplyingTransform(CGAffineTransformMakeTranslation(8, 8));
  for (int y = 0; y < 10; ++y)
    for (int x = 0; x < 10; ++x) {
      const bool picture = CGRectContainsPoint(mask.extent(), CGPointMake(x + 0.5, y + 0.5));
      expectPixelNear(px(out, x, y), picture ? std::array<float, 4>{0, 0, 1, 1} : std::array<float, 4>{1, 0, 0, 1},
                      1e-6f, "pixel");
    }
}

TEST_F(Border, OtherTypesReturnTheInputItself) {
  const CIImage input = makeTestImage(20, 10);
  for (int type : {2, 3, -1}) EXPECT_TRUE(border(input, type, 4) == input) << type;
}

TEST_F(Border, MissingInputGivesNil) {
  for (int type : {0, 1, 2}) EXPECT_FALSE(border(CIImage(), type, 4)) << type;
}

TEST_F(Border, TranslucentColour) {
  const CIColorRef halfRed = CIColor::colorWithRed(1, 0, 0, 0.5);
  const CIImage opaque = solid(0, 0, 1, 1, CGRectMake(0, 0, 30, 30));
  // Inside: the band is the colour as it is, translucent.
  expectPixelNear(px(border(opaque, 0, 4, halfRed), 1, 1), {0.5f, 0, 0, 0.5f}, 1e-6f, "translucent inside band");
  // Outside: the band lies under translucent picture pixels.
  const CIImage translucent = solid(0, 0, 1, 0.5, CGRectMake(0, 0, 30, 30));
  expectPixelNear(px(border(translucent, 1, 4, halfRed), 10, 10), {0.25f, 0, 0.5f, 0.75f}, 1e-6f,
                  "picture over translucent band");
}
