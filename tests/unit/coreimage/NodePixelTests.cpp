// What the core nodes compute, pixel by pixel, against plain formulas.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "CoreImage/CIColor.h"
#include "CoreImage/ImageNode.h"
#include "RenderSupport.h"

namespace {
std::array<float, 4> px(const std::vector<float>& v, int w, int col, int rowFromTop) {
  const float* p = &v[(std::size_t(rowFromTop) * std::size_t(w) + std::size_t(col)) * 4];
  return {p[0], p[1], p[2], p[3]};
}
}  // namespace

TEST(TransformPixels, HalfPixelShiftAveragesNeighbours) {
  const auto src = makeTestPixels(8, 4);
  const auto img = CIImage::imageWithRGBAf(src.data(), 8, 4);
  const auto moved = img.imageByApplyingTransform(CGAffineTransformMakeTranslation(0.5, 0));
  EXPECT_EQ(moved.extent(), CGRectMake(0.5, 0, 8, 4));
  const auto out = renderRGBAf(moved, CGRectMake(0, 0, 9, 4));
  for (int row = 0; row < 4; ++row) {
    for (int x = 1; x < 8; ++x) {
      const auto a = px(src, 8, x - 1, row), b = px(src, 8, x, row), o = px(out, 9, x, row);
      for (int k = 0; k < 4; ++k) EXPECT_NEAR(o[k], 0.5f * (a[k] + b[k]), 1e-6) << x << "," << row;
    }
    // Edges: half transparent.
    EXPECT_NEAR(px(out, 9, 0, row)[3], 0.5f, 1e-6);
    EXPECT_NEAR(px(out, 9, 8, row)[3], 0.5f, 1e-6);
  }
}

TEST(TransformPixels, DownscaleAveragesAndKeepsFlatRegionsFlat) {
  const auto flat = CIImage::imageWithColor(CIColor::colorWithRed(0.3, 0.6, 0.9, 1)).imageByCroppingToRect(CGRectMake(0, 0, 64, 64));
  const auto small = flat.imageByApplyingTransform(CGAffineTransformMakeScale(0.125, 0.2));
  EXPECT_EQ(small.extent(), CGRectMake(0, 0, 8, 12.8));
  const auto out = renderRGBAf(small, CGRectMake(2, 2, 4, 8));
  const auto ref = renderRGBAf(flat, CGRectMake(10, 10, 1, 1));
  for (std::size_t i = 0; i < out.size(); ++i) EXPECT_NEAR(out[i], ref[i % 4], 1e-5);
  // A fine checkerboard shrunk by 4 becomes its mean (no aliasing to one of the colours).
  std::vector<float> checker(64 * 64 * 4);
  for (int y = 0; y < 64; ++y)
    for (int x = 0; x < 64; ++x)
      for (int k = 0; k < 4; ++k) checker[(std::size_t(y) * 64 + std::size_t(x)) * 4 + std::size_t(k)] = k == 3 ? 1.0f : float((x + y) % 2);
  const auto c = CIImage::imageWithRGBAf(checker.data(), 64, 64).imageByApplyingTransform(CGAffineTransformMakeScale(0.25, 0.25));
  const auto co = renderRGBAf(c, CGRectMake(4, 4, 8, 8));
  for (std::size_t i = 0; i < co.size(); i += 4) EXPECT_NEAR(co[i], 0.5f, 0.02f);
}

TEST(CropPixels, PixelCentreInclusion) {
  const auto src = makeTestPixels(6, 1);
  const auto img = CIImage::imageWithRGBAf(src.data(), 6, 1);
  // Centres 0.5 .. 5.5: [0.6, 4.4) keeps pixels 1, 2, 3 exactly and clears the rest.
  const auto crop = img.imageByCroppingToRect(CGRectMake(0.6, 0, 3.8, 1));
  EXPECT_DOUBLE_EQ(CGRectGetMinX(crop.extent()), 0.6);
  EXPECT_DOUBLE_EQ(CGRectGetMaxX(crop.extent()), 0.6 + 3.8);
  const auto out = renderRGBAf(crop, CGRectMake(0, 0, 6, 1));
  for (int x = 0; x < 6; ++x) {
    const bool kept = x >= 1 && x <= 3;
    for (int k = 0; k < 4; ++k) EXPECT_EQ(out[std::size_t(x * 4 + k)], kept ? src[std::size_t(x * 4 + k)] : 0.0f) << x;
  }
}

TEST(ClampPixels, EdgesRepeatForever) {
  const auto src = makeTestPixels(5, 4);
  const auto img = CIImage::imageWithRGBAf(src.data(), 5, 4, CGPointMake(10, 10)).imageByClampingToExtent();
  // Far left of the bottom row = bottom-left pixel; far top-right = top-right pixel.
  const auto bl = pixelAt(img, -1000, -500), tr = pixelAt(img, 1e6, 1e6), side = pixelAt(img, 12, 2000);
  for (int k = 0; k < 4; ++k) {
    EXPECT_EQ(bl[k], px(src, 5, 0, 3)[k]);
    EXPECT_EQ(tr[k], px(src, 5, 4, 0)[k]);
    EXPECT_EQ(side[k], px(src, 5, 2, 0)[k]);
  }
}

TEST(BitmapPixels, FractionalOriginResamples) {
  const auto img = makeTestImage(4, 4, CGPointMake(0.5, 0));
  EXPECT_EQ(img.extent(), CGRectMake(0.5, 0, 4, 4));
  EXPECT_NEAR(pixelAt(img, 0, 0)[3], 0.5f, 1e-6);
}

TEST(ColorManagement, EncodedSourcesDecodeToLinearOnlyWhenManaged) {
  const std::uint8_t one[4] = {128, 64, 255, 255};
  const auto img = CIImage::imageWithRGBA8(one, 1, 1, 4);
  const auto managed = pixelAt(img, 0, 0, true), raw = pixelAt(img, 0, 0, false);
  EXPECT_NEAR(managed[0], std::pow((128 / 255.0 + 0.055) / 1.055, 2.4), 1e-6);
  EXPECT_NEAR(managed[1], std::pow((64 / 255.0 + 0.055) / 1.055, 2.4), 1e-6);
  EXPECT_NEAR(raw[0], 128 / 255.0, 1e-7);
  EXPECT_NEAR(raw[1], 64 / 255.0, 1e-7);
  EXPECT_EQ(managed[2], 1.0f);
  EXPECT_EQ(managed[3], 1.0f);
}

namespace {
// The bilinear sample of a turned image, written out plainly: the sample position of output
// pixel (X, Y) (plane coordinates, y up) through the inverse transform, snapped to a whole
// texel index within 1e-9, the 2 x 2 texels weighted by the fractions, zero weights and texels
// outside the image skipped, in the order row by row, left to right.
std::vector<float> turnedByFormula(const std::vector<float>& src, int w, int h, const CGAffineTransform& t,
                                   const PixelRect& out) {
  CGAffineTransform inv = CGAffineTransformInvert(t);
  auto snap = [](double v) {
    const double r = std::round(v);
    return std::fabs(v - r) < 1e-9 ? r : v;
  };
  inv.a = snap(inv.a), inv.b = snap(inv.b), inv.c = snap(inv.c), inv.d = snap(inv.d);
  std::vector<float> result(std::size_t(out.width * out.height) * 4, 0.0f);
  for (std::int64_t Y = out.y; Y < out.maxY(); ++Y)
    for (std::int64_t X = out.x; X < out.maxX(); ++X) {
      const double cx = double(X) + 0.5, cy = double(Y) + 0.5;
      const double u = snap(inv.a * cx + inv.c * cy + inv.tx - 0.5);
      const double v = snap(inv.b * cx + inv.d * cy + inv.ty - 0.5);
      const double fu = std::floor(u), fv = std::floor(v);
      const float ax = float(u - fu), ay = float(v - fv);
      const float wx[2] = {1.0f - ax, ax}, wy[2] = {1.0f - ay, ay};
      float acc[4] = {0, 0, 0, 0};
      for (int j = 0; j < 2; ++j)
        for (int i = 0; i < 2; ++i) {
          const std::int64_t xx = std::int64_t(fu) + i, yy = std::int64_t(fv) + j;
          if (wx[i] == 0.0f || wy[j] == 0.0f || xx < 0 || xx >= w || yy < 0 || yy >= h) continue;
          const float weight = wx[i] * wy[j];
          const float* p = &src[std::size_t(((h - 1 - yy) * w + xx) * 4)];
          for (int k = 0; k < 4; ++k) acc[k] += weight * p[k];
        }
      float* o = &result[std::size_t(((out.maxY() - 1 - Y) * out.width + (X - out.x)) * 4)];
      for (int k = 0; k < 4; ++k) o[k] = acc[k];
    }
  return result;
}
}  // namespace

// Turned images equal the formula bit for bit, in every tiling and on two threads: the inline
// rounding of the sample position and the unchecked reads inside the tile change no bit. Angles
// whose sample positions fall on whole texels (a quarter turn) or just below zero (the -0.0
// that std::round gives) are among them.
TEST(TransformPixels, TurnedImageEqualsTheBilinearFormulaBitForBit) {
  constexpr int w = 61, h = 43;
  const auto src = makeTestPixels(w, h, 7, true);
  const auto img = CIImage::imageWithRGBAf(src.data(), w, h);
  const double pi = std::acos(-1.0);
  const CGAffineTransform turns[] = {
      CGAffineTransformMakeRotation(0.08726646259971647),
      CGAffineTransformMakeRotation(-0.3),
      CGAffineTransformMakeRotation(pi / 2),
      CGAffineTransformTranslate(CGAffineTransformMakeRotation(pi / 2), 0.25, -0.5),
      CGAffineTransformMakeRotation(pi / 4),
      // Turned and enlarged a little: still one texel's footprint, so still bilinear.
      CGAffineTransformTranslate(CGAffineTransformScale(CGAffineTransformMakeRotation(0.5), 1.1, 1.05), 3.5, -2.25),
  };
  for (const CGAffineTransform& t : turns) {
    const CIImage turned = img.imageByApplyingTransform(t);
    const PixelRect r = PixelRect::covering(turned.extent()).outset(2, 2);
    const std::vector<float> expected = turnedByFormula(src, w, h, t, r);
    for (const auto& [threads, tile] : {std::pair{1, 0}, std::pair{1, 16}, std::pair{2, 24}, std::pair{1, 40}}) {
      const std::vector<float> got = renderRGBAf(turned, r.cgRect(), renderOptions(threads, tile, false));
      ASSERT_EQ(got.size(), expected.size());
      std::size_t differing = 0;
      for (std::size_t i = 0; i < got.size(); ++i)
        differing += std::memcmp(&got[i], &expected[i], sizeof(float)) != 0;
      EXPECT_EQ(differing, 0u) << "transform " << t.a << " " << t.b << " " << t.c << " " << t.d << " " << t.tx << " "
                               << t.ty << ", tile " << tile;
    }
  }
}

// A clamped image repeats its nearest edge texel everywhere outside it: tiles left of, right
// of, across and inside the image, above and below it, all equal that formula exactly.
TEST(ClampPixels, EveryPixelIsTheNearestTexel) {
  constexpr int w = 23, h = 17;
  const auto src = makeTestPixels(w, h, 3, true);
  const auto img = CIImage::imageWithRGBAf(src.data(), w, h, CGPoint{5, -4});
  const CIImage clamped = img.imageByClampingToExtent();
  const PixelRect r{-40, -45, 90, 70};
  for (int tile : {0, 16, 24}) {
    const std::vector<float> got = renderRGBAf(clamped, r.cgRect(), renderOptions(1, tile, false));
    ASSERT_EQ(got.size(), std::size_t(r.width * r.height * 4));
    std::size_t differing = 0;
    for (std::int64_t Y = r.y; Y < r.maxY(); ++Y)
      for (std::int64_t X = r.x; X < r.maxX(); ++X) {
        const std::int64_t i = std::clamp<std::int64_t>(X - 5, 0, w - 1), j = std::clamp<std::int64_t>(Y + 4, 0, h - 1);
        const float* want = &src[std::size_t(((h - 1 - j) * w + i) * 4)];
        const float* have = &got[std::size_t(((r.maxY() - 1 - Y) * r.width + (X - r.x)) * 4)];
        differing += std::memcmp(want, have, 4 * sizeof(float)) != 0;
      }
    EXPECT_EQ(differing, 0u) << "tile " << tile;
  }
}
