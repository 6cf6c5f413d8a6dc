// The zoom blur against its definition computed in double precision, at angles in every
// direction, towards and away from the centre, with lines that leave the picture and lines of
// more samples than the cap; and tiled renders against whole ones for the same settings.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "BlurTestSupport.h"
#include "CoreImage/Builtins/ZoomBlurKernel.h"

using blurtest::applyFilter;
using blurtest::Floats;

namespace {

// Bilinear sample of channel c at (x, y), texel centres at whole + 0.5, transparent outside.
double bilinear(const Floats& f, double x, double y, int c) {
  const double fx = x - 0.5, fy = y - 0.5;
  const double x0 = std::floor(fx), y0 = std::floor(fy);
  const double wx = fx - x0, wy = fy - y0;
  const auto at = [&](double i, double j) { return double(f.at(std::int64_t(i), std::int64_t(j), c)); };
  return (1 - wx) * (1 - wy) * at(x0, y0) + wx * (1 - wy) * at(x0 + 1, y0) + (1 - wx) * wy * at(x0, y0 + 1) +
         wx * wy * at(x0 + 1, y0 + 1);
}

// The definition: the mean of ceil(length) + 1 samples (at most kMaxLineSamples) evenly spaced
// from the pixel's centre over length = min(amount, distance) towards the centre, or -amount away.
double zoomOracle(const Floats& in, std::int64_t x, std::int64_t y, double cx, double cy, double amount, int c) {
  const double px = double(x) + 0.5, py = double(y) + 0.5;
  const double vx = px - cx, vy = py - cy, d = std::hypot(vx, vy);
  double length = 0, dx = 0, dy = 0;
  if (d > 0) {
    length = amount > 0 ? std::min(amount, d) : -amount;
    dx = (amount > 0 ? -1 : 1) * vx / d;
    dy = (amount > 0 ? -1 : 1) * vy / d;
  }
  const int n = std::min(int(std::ceil(length)) + 1, qv::blur::kMaxLineSamples);
  double s = 0;
  for (int k = 0; k < n; ++k) {
    const double t = n > 1 ? length * k / (n - 1) : 0.0;
    s += bilinear(in, px + t * dx, py + t * dy, c);
  }
  return s / n;
}

struct ZoomCase {
  double cx, cy, amount;
};

class ZoomBlurDefinition : public ::testing::TestWithParam<ZoomCase> {};

}  // namespace

TEST_P(ZoomBlurDefinition, EveryPixelIsTheMeanAlongItsLine) {
  const ZoomCase z = GetParam();
  const CIImage image = blurtest::photo(64, 48, {-7, 3});
  const Floats in = Floats::render(image, image.extent());
  const CIImage out = applyFilter("CIZoomBlur", image, {{"inputCenter", blurtest::vec(z.cx, z.cy)}, {"inputAmount", Value(z.amount)}});
  ASSERT_FALSE(out.isNil());
  // Every pixel the blur reaches, including the fringe outside the picture.
  const CGRect r = CGRectIntersection(out.extent(), CGRectInset(image.extent(), -12, -12));
  const Floats f = Floats::render(out, r, 4096, 1);
  double worst = 0;
  for (std::int64_t y = std::int64_t(CGRectGetMinY(r)); y < std::int64_t(CGRectGetMaxY(r)); ++y)
    for (std::int64_t x = std::int64_t(CGRectGetMinX(r)); x < std::int64_t(CGRectGetMaxX(r)); ++x)
      for (int c = 0; c < 4; ++c)
        worst = std::max(worst, std::fabs(double(f.at(x, y, c)) - zoomOracle(in, x, y, z.cx, z.cy, z.amount, c)));
  // Samples are placed in single precision relative to each pixel: a few 1e-5 of a pixel off.
  EXPECT_LT(worst, 2e-4);
  // Tiles whose borders cut the lines give the same bits as one tile.
  EXPECT_TRUE(bitwiseEqual(f.v, Floats::render(out, r, 16, 2).v));
  EXPECT_TRUE(bitwiseEqual(f.v, Floats::render(out, r, 27, 2).v));
}

INSTANTIATE_TEST_SUITE_P(ZoomBlur, ZoomBlurDefinition,
                         ::testing::Values(ZoomCase{20.5, 30.5, 4}, ZoomCase{13.3, 41.7, 7.5},
                                           ZoomCase{13.3, 41.7, -6}, ZoomCase{-40, -25, 20},
                                           ZoomCase{100, 10, 33.2},
                                           // A centre whose squared distance overflows a double.
                                           ZoomCase{1e300, -3e299, 12}, ZoomCase{-2e200, 5e200, -9},
                                           // More samples than the cap: spread evenly.
                                           ZoomCase{30, 20, 400}, ZoomCase{30, 20, -300}));
