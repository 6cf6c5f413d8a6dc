// The two ways the Gaussian blur is computed (a direct convolution with the sampled Gaussian
// below kDirectSigma, three passes of two nested boxes from there on): what each computes, that
// both stream down the renderer's columns exactly, and that the two agree within the golden
// tolerance where planGaussian switches from one to the other.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include "BlurTestSupport.h"
#include "CoreImage/Builtins/BlurKernels.h"
#include "CoreImage/Builtins/BlurNode.h"
#include "Golden.h"

using blurtest::applyFilter;
using blurtest::Floats;

namespace {

// The test photo (tests/data/photo.png: sky, clouds, a sun disc, hills) with alpha: a fully
// transparent hole round the sun, a soft ramp from 20 % opacity on the left to opaque in the
// middle, and the transparent surround beyond its borders (not clamped). Premultiplied working
// floats.
CIImage photoWithAlpha() {
  const CIImage photo = CIImage::imageWithContentsOfFile(std::string(QV_SOURCE_DIR) + "/tests/data/photo.png");
  const CGRect r = photo.extent();
  const auto w = std::int64_t(r.size.width), h = std::int64_t(r.size.height);
  std::vector<float> px = renderRGBAf(photo, r);
  for (std::int64_t row = 0; row < h; ++row)
    for (std::int64_t x = 0; x < w; ++x) {
      const double dx = double(x) - 0.72 * double(w), dy = double(row) - 0.24 * double(h);
      double a = std::clamp(double(x) / (0.5 * double(w)), 0.2, 1.0);
      if (dx * dx + dy * dy < 0.01 * double(w * w)) a = 0;
      float* p = &px[std::size_t((row * w + x) * 4)];
      for (int c = 0; c < 4; ++c) p[c] *= float(a);
    }
  return CIImage::imageWithRGBAf(px.data(), std::size_t(w), std::size_t(h));
}

// Hard edges, opaque (premultiplied working floats, 240 x 120): black and white halves; on the
// black a white square, a saturated green square and 1- and 3-pixel white lines; on the white a
// black square and a saturated red one.
CIImage hardEdges() {
  constexpr std::int64_t w = 240, h = 120;
  std::vector<float> px(std::size_t(w * h * 4), 1.0f);
  auto in = [](std::int64_t v, std::int64_t lo, std::int64_t hi) { return v >= lo && v < hi; };
  for (std::int64_t y = 0; y < h; ++y)
    for (std::int64_t x = 0; x < w; ++x) {
      float r = x >= 120 ? 1.0f : 0.0f, g = r, b = r;
      if (in(x, 20, 50) && in(y, 30, 70)) r = g = b = 1.0f;
      if (in(x, 60, 80) && in(y, 30, 70)) r = 0.0f, g = 1.0f, b = 0.0f;
      if (x == 90 || (in(x, 100, 103) && y < 110)) r = g = b = 1.0f;
      if (in(x, 150, 180) && in(y, 40, 80)) r = g = b = 0.0f;
      if (in(x, 195, 225) && in(y, 40, 80)) r = 1.0f, g = b = 0.0f;
      float* p = &px[std::size_t((y * w + x) * 4)];
      p[0] = r, p[1] = g, p[2] = b;
    }
  return CIImage::imageWithRGBAf(px.data(), std::size_t(w), std::size_t(h));
}

// Hard edges against transparency (240 x 80): a white disc, a saturated red bar and a
// half-transparent blue square on a transparent ground.
CIImage silhouettes() {
  constexpr std::int64_t w = 240, h = 80;
  std::vector<float> px(std::size_t(w * h * 4), 0.0f);
  auto set = [&](std::int64_t x, std::int64_t y, float r, float g, float b, float a) {
    float* p = &px[std::size_t((y * w + x) * 4)];
    p[0] = r, p[1] = g, p[2] = b, p[3] = a;
  };
  for (std::int64_t y = 0; y < h; ++y)
    for (std::int64_t x = 0; x < w; ++x) {
      const double dx = double(x) - 50.0, dy = double(y) - 40.0;
      if (dx * dx + dy * dy < 400.0) set(x, y, 1.0f, 1.0f, 1.0f, 1.0f);
      if (x >= 110 && x < 130 && y >= 20 && y < 60) set(x, y, 1.0f, 0.0f, 0.0f, 1.0f);
      if (x >= 170 && x < 210 && y >= 20 && y < 60) set(x, y, 0.0f, 0.0f, 0.5f, 0.5f);
    }
  return CIImage::imageWithRGBAf(px.data(), std::size_t(w), std::size_t(h));
}

CIImage blurred(const CIImage& image, const qv::blur::SeparablePlan& plan) {
  return qv::blur::separableImage("CIGaussianBlur", image, plan);
}

std::string describe(const qv::golden::Result& r) {
  char text[160];
  std::snprintf(text, sizeof text, "largest difference %.4f, %zu of %zu values above 0.004 (%.2f %%)", r.maxDifference,
                r.overTolerance, r.values, 100.0 * double(r.overTolerance) / double(r.values));
  return text;
}

}  // namespace

TEST(GaussianPaths, PlanSwitchesAtTheMeasuredRadius) {
  const auto below = qv::blur::planGaussian(std::nextafter(qv::blur::kDirectSigma, 0.0));
  ASSERT_EQ(below.horizontal.size(), 1u);
  EXPECT_TRUE(below.horizontal[0].fir);
  EXPECT_EQ(below.supportX(), int(std::ceil(3 * std::nextafter(qv::blur::kDirectSigma, 0.0))));
  const auto at = qv::blur::planGaussian(qv::blur::kDirectSigma);
  ASSERT_EQ(at.horizontal.size(), 3u);
  for (const auto& p : at.horizontal) EXPECT_FALSE(p.fir);
  // The direct weights are the sampled Gaussian, normalised, symmetric.
  const auto plan = qv::blur::planGaussianDirect(2.0);
  const auto& taps = plan.horizontal[0].taps;
  ASSERT_EQ(taps.size(), 13u);
  double sum = 0;
  for (std::size_t k = 0; k < taps.size(); ++k) {
    sum += taps[k];
    EXPECT_FLOAT_EQ(taps[k], taps[taps.size() - 1 - k]);
    const double x = double(k) - 6.0;
    EXPECT_NEAR(taps[k] / taps[6], std::exp(-x * x / 8.0), 1e-6);
  }
  EXPECT_NEAR(sum, 1.0, 1e-6);
  EXPECT_TRUE(qv::blur::planGaussianDirect(0.15).identity());
  EXPECT_TRUE(qv::blur::planGaussianDirect(std::nan("")).identity());
  EXPECT_EQ(qv::blur::planGaussianDirect(1e9).supportX(), 1500);  // capped at kMaxSigma
}

TEST(GaussianPaths, DirectIsTheTwoDimensionalSampledGaussian) {
  // Oracle: the 2-D convolution with the product of the normalised 1-D weights, in double. On
  // a picture with alpha, and on one far narrower and lower than the kernels of sigma 6 and 10
  // (37 and 61 taps on 5 x 3 pixels).
  struct Case {
    CIImage image;
    std::vector<double> sigmas;
  };
  const Case cases[] = {{makeTestImageWithAlpha(23, 17, {3, 4}), {0.7, 2.5, 4.0}},
                        {makeTestImageWithAlpha(5, 3, {3, 4}, 7), {6.0, 10.0}}};
  for (const auto& [image, sigmas] : cases) {
    const Floats in = Floats::render(image, image.extent());
    for (double sigma : sigmas) {
      const CIImage out = applyFilter("CIGaussianBlur", image, {{"inputRadius", Value(sigma)}});
      const int r = int(std::ceil(3 * sigma));
      std::vector<double> g(std::size_t(2 * r + 1));
      double sum = 0;
      for (int k = -r; k <= r; ++k) sum += g[std::size_t(k + r)] = std::exp(-0.5 * k * k / (sigma * sigma));
      for (double& v : g) v /= sum;
      const CGRect e = out.extent();
      EXPECT_EQ(e.origin.x, 3 - r);
      const Floats f = Floats::render(out, e);
      for (std::int64_t y = std::int64_t(e.origin.y); y < std::int64_t(CGRectGetMaxY(e)); ++y)
        for (std::int64_t x = std::int64_t(e.origin.x); x < std::int64_t(CGRectGetMaxX(e)); ++x)
          for (int c = 0; c < 4; ++c) {
            double expected = 0;
            for (int dy = -r; dy <= r; ++dy)
              for (int dx = -r; dx <= r; ++dx)
                expected += g[std::size_t(dx + r)] * g[std::size_t(dy + r)] * in.at(x + dx, y + dy, c);
            ASSERT_NEAR(f.at(x, y, c), expected, 2e-6) << sigma << " at " << x << "," << y;
          }
    }
  }
}

TEST(GaussianPaths, BothStreamDownColumnsExactly) {
  // Tiles of many sizes and two threads: each column's vertical pass continues from the tile
  // above with the rows (direct) or the running sums (boxes) it kept, and must give the whole
  // render bit for bit.
  const CIImage image = makeTestImageWithAlpha(300, 220, {-7, 11});
  for (double sigma : {1.0, 5.0, 12.5, qv::blur::kDirectSigma, 33.0}) {
    const CIImage out = applyFilter("CIGaussianBlur", image, {{"inputRadius", Value(sigma)}});
    ASSERT_EQ(qv::blur::planGaussian(sigma).horizontal[0].fir, sigma < qv::blur::kDirectSigma);
    const Floats whole = Floats::render(out, out.extent(), 8192, 1);
    for (int tile : {16, 40, 128}) {
      for (int threads : {1, 2}) {
        const Floats tiled = Floats::render(out, out.extent(), tile, threads);
        ASSERT_TRUE(bitwiseEqual(whole.v, tiled.v)) << sigma << " tile " << tile << " threads " << threads;
      }
    }
    // A window of the picture (another tiling of the same pixels) agrees too.
    const CGRect part = CGRectMake(20, 30, 101, 77);
    const Floats sub = Floats::render(out, part, 16, 2);
    for (std::int64_t y = 30; y < 107; ++y)
      for (std::int64_t x = 20; x < 121; ++x)
        for (int c = 0; c < 4; ++c) ASSERT_EQ(sub.at(x, y, c), whole.at(x, y, c)) << sigma;
  }
}

TEST(GaussianPaths, DirectReadsNaNAsZeroAndClampsLikeTheBoxes) {
  std::vector<float> px(16 * 12 * 4, 0.25f);
  std::vector<float> clean = px;
  px[(5 * 16 + 7) * 4 + 1] = std::numeric_limits<float>::quiet_NaN();
  clean[(5 * 16 + 7) * 4 + 1] = 0.0f;
  px[(2 * 16 + 3) * 4] = 1e30f;
  clean[(2 * 16 + 3) * 4] = qv::blur::kGridLimit;
  const CIImage dirty = CIImage::imageWithRGBAf(px.data(), 16, 12), ok = CIImage::imageWithRGBAf(clean.data(), 16, 12);
  for (double sigma : {1.5, 3.0}) {
    const auto plan = qv::blur::planGaussianDirect(sigma);
    const CIImage a = blurred(dirty, plan), b = blurred(ok, plan);
    const Floats fa = Floats::render(a, a.extent()), fb = Floats::render(b, b.extent());
    EXPECT_TRUE(bitwiseEqual(fa.v, fb.v)) << sigma;
  }
}

TEST(GaussianPaths, TheTwoPathsAgreeAroundTheSwitch) {
  // Where planGaussian switches, at 0.8x and 1.25x of it and far above (5x), the box passes and
  // the direct kernel give the same 8-bit sRGB renders with straight alpha within the golden
  // tolerance: on the photo with transparent regions, and on opaque hard edges (black-white,
  // saturated colours, thin lines) blurred as the plug-in's blur runs it, clamped.
  const CIImage photo = photoWithAlpha(), edges = hardEdges(), shapes = silhouettes();
  struct Case {
    const char* name;
    CIImage image;
    CGRect rect;
    bool asserted;
  };
  // Measured only: saturated colours of different hues meeting in nearly transparent pixels
  // (alpha below a quarter), where the straight colour is the ratio of two small sums and
  // follows the shape of the kernel's tails, which the boxes approximate least well.
  const Case cases[] = {{"photo with alpha", photo, CGRectInset(photo.extent(), -30, -30), true},
                        {"hard edges, clamped", edges.imageByClampingToExtent(), edges.extent(), true},
                        {"hard edges, transparent around", edges, CGRectInset(edges.extent(), -30, -30), false},
                        {"coloured silhouettes", shapes, CGRectInset(shapes.extent(), -30, -30), false}};
  for (const auto& [name, image, r, asserted] : cases) {
    for (double factor : {0.8, 1.0, 1.25, 5.0}) {
      const double sigma = qv::blur::kDirectSigma * factor;
      const auto direct = renderRGBA8(blurred(image, qv::blur::planGaussianDirect(sigma)), r);
      const auto boxes = renderRGBA8(blurred(image, qv::blur::planGaussianBoxes(sigma)), r);
      const auto w = std::size_t(r.size.width), h = std::size_t(r.size.height);
      const auto golden = qv::golden::compareRGBA8(boxes, direct, w, h);
      if (asserted) {
        EXPECT_TRUE(golden.ok) << name << ", sigma " << sigma << ": " << describe(golden);
      }
      std::printf("%s, sigma %.1f: boxes against direct: %s (golden tolerance %s)\n", name, sigma,
                  describe(golden).c_str(), golden.ok ? "met" : "not met");
    }
  }
}
