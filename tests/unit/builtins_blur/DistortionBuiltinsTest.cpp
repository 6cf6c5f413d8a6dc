#include <gtest/gtest.h>

#include <cmath>

#include "BlurTestSupport.h"

using blurtest::applyFilter;
using blurtest::Floats;
using blurtest::vec;

namespace {

// Opaque image whose red is x/64 and green y/64 at pixel centres: bilinear sampling of it is
// exact, so a distortion's sample position can be read back from the colour.
CIImage rampImage() {
  std::vector<float> px(64 * 64 * 4);
  for (int row = 0; row < 64; ++row)
    for (int x = 0; x < 64; ++x) {
      float* p = &px[std::size_t(row * 64 + x) * 4];
      p[0] = (float(x) + 0.5f) / 64.0f;
      p[1] = (float(63 - row) + 0.5f) / 64.0f;
      p[2] = 0.25f;
      p[3] = 1;
    }
  return CIImage::imageWithRGBAf(px.data(), 64, 64);
}

}  // namespace

TEST(BumpDistortion, ZeroScaleReturnsTheInput) {
  const CIImage image = rampImage();
  EXPECT_EQ(applyFilter("CIBumpDistortion", image, {{"inputScale", Value(0)}}), image);
  EXPECT_EQ(applyFilter("CIBumpDistortion", image, {{"inputRadius", Value(0)}}), image);
}

TEST(BumpDistortion, ExtentIsTheInputs) {
  const CIImage image = blurtest::photo(50, 30, {7, 9});
  EXPECT_TRUE(CGRectEqualToRect(applyFilter("CIBumpDistortion", image).extent(), image.extent()));
}

TEST(BumpDistortion, SamplesAtTheMappedPoint) {
  const CIImage image = rampImage();
  const double cx = 30, cy = 34, r = 20;
  for (double scale : {0.5, -0.7, 1.0}) {
    const CIImage out = applyFilter("CIBumpDistortion", image,
                              {{"inputCenter", vec(cx, cy)}, {"inputRadius", Value(r)}, {"inputScale", Value(scale)}});
    const Floats f = Floats::render(out, CGRectMake(0, 0, 64, 64));
    for (int y = 4; y < 60; y += 3)
      for (int x = 4; x < 60; x += 3) {
        const double px = x + 0.5, py = y + 0.5, d = std::hypot(px - cx, py - cy);
        double qx = px, qy = py;
        if (d < r) {
          const double k = 1 - ((r - d) / r) * scale;
          qx = cx + (px - cx) * k * k;
          qy = cy + (py - cy) * k * k;
        }
        if (qx < 0.5 || qx > 63.5 || qy < 0.5 || qy > 63.5) continue;  // edge clamp region
        ASSERT_NEAR(f.at(x, y, 0), qx / 64.0, 1e-5) << scale << " at " << x << "," << y;
        ASSERT_NEAR(f.at(x, y, 1), qy / 64.0, 1e-5) << scale << " at " << x << "," << y;
      }
  }
}

TEST(BumpDistortion, PositiveScaleMagnifiesTheCentre) {
  const CIImage image = rampImage();
  const CIImage out = applyFilter("CIBumpDistortion", image,
                            {{"inputCenter", vec(32, 32)}, {"inputRadius", Value(30)}, {"inputScale", Value(0.5)}});
  const Floats f = Floats::render(out, CGRectMake(0, 0, 64, 64));
  // Two pixels apart near the centre show less than two pixels of the input.
  EXPECT_LT((f.at(34, 32, 0) - f.at(32, 32, 0)) * 64, 1.0);
}

TEST(Pixellate, ScaleOneOnAWholeCentreIsTheIdentity) {
  const CIImage image = blurtest::photo(40, 30);
  const CIImage out = applyFilter("CIPixellate", image, {{"inputScale", Value(1)}});
  const Floats a = Floats::render(image, image.extent()), b = Floats::render(out, image.extent());
  EXPECT_LT(maxAbsDifference(a.v, b.v), 1e-7);
}

TEST(Pixellate, SquaresAreAlignedOnTheCentreAndShowTheirMiddle) {
  const CIImage image = rampImage();
  const CIImage out = applyFilter("CIPixellate", image, {{"inputCenter", vec(25, 25)}, {"inputScale", Value(8)}});
  EXPECT_TRUE(CGRectEqualToRect(out.extent(), image.extent()));
  const Floats f = Floats::render(out, CGRectMake(0, 0, 64, 64));
  for (int y = 0; y < 64; ++y)
    for (int x = 0; x < 64; ++x) {
      const double i = std::floor((x + 0.5 - 25) / 8), j = std::floor((y + 0.5 - 25) / 8);
      const double sx = 25 + (i + 0.5) * 8, sy = 25 + (j + 0.5) * 8;
      if (sx > 63.5 || sy > 63.5 || sx < 0.5 || sy < 0.5) continue;
      ASSERT_NEAR(f.at(x, y, 0), sx / 64, 1e-5) << x << "," << y;
      ASSERT_NEAR(f.at(x, y, 1), sy / 64, 1e-5) << x << "," << y;
    }
  // A square's corner lies on the centre: pixels 24 and 25 are in different squares.
  EXPECT_NE(f.at(24, 30, 0), f.at(25, 30, 0));
  EXPECT_EQ(f.at(25, 30, 0), f.at(32, 30, 0));
  EXPECT_NE(f.at(32, 30, 0), f.at(33, 30, 0));
}

TEST(Pixellate, BadScalesAreReadAsOne) {
  const CIImage image = blurtest::photo(16, 16);
  const Floats ref = Floats::render(applyFilter("CIPixellate", image, {{"inputScale", Value(1)}}), image.extent());
  for (double s : {0.0, -5.0, std::nan("")}) {
    const Floats f = Floats::render(applyFilter("CIPixellate", image, {{"inputScale", Value(s)}}), image.extent());
    EXPECT_TRUE(bitwiseEqual(f.v, ref.v)) << s;
  }
}
