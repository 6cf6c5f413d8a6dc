#include "EffectTestSupport.h"
#include "Filters/QVFilterWatermark.h"

using namespace effects;

namespace {

class Watermark : public qvtest::BundleTest {
 protected:
  CIImage mark(const CIImage& image, const CIImage& watermark, Value alpha, Value position) {
    return outputWith("QVFilterWatermark", {{kCIInputImageKey, image},
                                            {"inputWatermarkImage", watermark},
                                            {"inputWatermarkAlpha", alpha},
                                            {"inputWatermarkPosition", position}});
  }
};

}  // namespace

TEST_F(Watermark, KeysInOrder) {
  const auto filter = qvtest::makeFilter("QVFilterWatermark");
  ASSERT_TRUE(filter);
  EXPECT_EQ(filter->inputKeys(), (std::vector<std::string>{"inputImage", "inputWatermarkImage", "inputWatermarkAlpha",
                                                           "inputWatermarkPosition"}));
}

TEST_F(Watermark, WithoutAWatermarkTheInputComesBackItself) {
  const CIImage input = makeTestImage(30, 20);
  EXPECT_TRUE(mark(input, CIImage(), 1.0, 5) == input);
  EXPECT_FALSE(mark(CIImage(), CIImage(), 1.0, 5));
}

TEST_F(Watermark, MissingPictureGivesNil) {
  EXPECT_FALSE(mark(CIImage(), solid(1, 1, 1, 1, CGRectMake(0, 0, 10, 10)), 1.0, 5));
}

TEST_F(Watermark, OffsetsOfTheNinePlaces) {
  EXPECT_EQ(QVFilterWatermark::watermarkOffset(3, 400, 300, 100, 50), CGPointMake(300, 250));
  EXPECT_EQ(QVFilterWatermark::watermarkOffset(2, 401, 300, 100, 50), CGPointMake(150.5, 250));
  EXPECT_EQ(QVFilterWatermark::watermarkOffset(1, 400, 300, 100, 50), CGPointMake(0, 250));
  EXPECT_EQ(QVFilterWatermark::watermarkOffset(4, 400, 300, 100, 50), CGPointMake(0, 125));
  EXPECT_EQ(QVFilterWatermark::watermarkOffset(5, 400, 300, 100, 50), CGPointMake(150, 125));
  EXPECT_EQ(QVFilterWatermark::watermarkOffset(6, 400, 300, 100, 50), CGPointMake(300, 125));
  EXPECT_EQ(QVFilterWatermark::watermarkOffset(7, 400, 300, 100, 50), CGPointMake(0, 0));
  EXPECT_EQ(QVFilterWatermark::watermarkOffset(8, 400, 300, 100, 50), CGPointMake(150, 0));
  EXPECT_EQ(QVFilterWatermark::watermarkOffset(9, 400, 300, 100, 50), CGPointMake(300, 0));
  for (std::uint64_t p : {0ull, 10ull, 12ull, 1000ull})
    EXPECT_EQ(QVFilterWatermark::watermarkOffset(p, 400, 300, 100, 50), CGPointMake(0, 0)) << p;
}

TEST_F(Watermark, TopRightPlacement) {
  const CIImage picture = solid(0, 0, 0, 1, CGRectMake(0, 0, 400, 300));
  const CIImage out = mark(picture, solid(1, 1, 1, 1, CGRectMake(0, 0, 100, 50)), 1.0, 3);
  EXPECT_EQ(out.extent(), picture.extent());
  expectPixelNear(px(out, 300, 250), {1, 1, 1, 1}, 1e-6f, "watermark corner");
  expectPixelNear(px(out, 399, 299), {1, 1, 1, 1}, 1e-6f, "watermark far corner");
  expectPixelNear(px(out, 299, 250), {0, 0, 0, 1}, 1e-6f, "left of the watermark");
  expectPixelNear(px(out, 300, 249), {0, 0, 0, 1}, 1e-6f, "below the watermark");
}

TEST_F(Watermark, HalfPixelOffsetIsNotRounded) {
  const CIImage picture = solid(0, 0, 0, 1, CGRectMake(0, 0, 401, 300));
  const CIImage out = mark(picture, solid(1, 1, 1, 1, CGRectMake(0, 0, 100, 50)), 1.0, 2);
  // The watermark covers 150.5..250.5: the two edge columns are half covered.
  EXPECT_NEAR(px(out, 150, 270)[0], 0.5f, 0.01f);
  EXPECT_NEAR(px(out, 250, 270)[0], 0.5f, 0.01f);
  EXPECT_NEAR(px(out, 200, 270)[0], 1.0f, 1e-6f);
}

TEST_F(Watermark, LargerWatermarkIsCentredAndCut) {
  const CIImage picture = solid(0, 0, 0, 1, CGRectMake(0, 0, 100, 80));
  const CIImage out = mark(picture, solid(0, 1, 0, 1, CGRectMake(0, 0, 300, 200)), 1.0, 5);
  EXPECT_EQ(out.extent(), picture.extent());
  for (auto [x, y] : {std::pair{0, 0}, {99, 79}, {50, 40}}) expectPixelNear(px(out, x, y), {0, 1, 0, 1}, 1e-6f, "cover");
}

TEST_F(Watermark, OriginsAreIgnored) {
  const CIImage picture = solid(0, 0, 0, 1, CGRectMake(50, 50, 100, 100));
  const CIImage out = mark(picture, solid(1, 1, 1, 1, CGRectMake(0, 0, 60, 60)), 1.0, 7);
  EXPECT_EQ(out.extent(), picture.extent());
  expectPixelNear(px(out, 55, 55), {1, 1, 1, 1}, 1e-6f, "watermark at its own origin");
  expectPixelNear(px(out, 65, 65), {0, 0, 0, 1}, 1e-6f, "picture beyond it");
}

TEST_F(Watermark, OutOfRangePositionsActAsBottomLeft) {
  const CIImage picture = makeTestImage(80, 60);
  const CIImage watermark = solid(1, 1, 1, 1, CGRectMake(0, 0, 20, 10));
  const CIImage seven = mark(picture, watermark, 0.7, 7);
  for (Value p : {Value(12), Value(0), Value()})
    EXPECT_EQ(maxDifference(mark(picture, watermark, 0.7, p), seven, picture.extent()), 0.0f);
  EXPECT_GT(maxDifference(mark(picture, watermark, 0.7, 9), seven, picture.extent()), 0.1f);
}

TEST_F(Watermark, OpacityScalesTheWatermark) {
  const CIImage picture = solid(0, 0, 0, 1, CGRectMake(0, 0, 40, 40));
  const CIImage watermark = solid(1, 1, 1, 1, CGRectMake(0, 0, 10, 10));
  expectPixelNear(px(mark(picture, watermark, 0.5, 7), 5, 5), {0.5f, 0.5f, 0.5f, 1}, 1e-6f, "half");
  // A missing opacity reads as 0: the picture alone.
  EXPECT_EQ(maxDifference(mark(picture, watermark, Value(), 7), picture, picture.extent()), 0.0f);
}
