#include <gtest/gtest.h>

#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>

#include "BlurTestSupport.h"
#include "CoreImage/Builtins/BlurKernels.h"

using blurtest::applyFilter;
using blurtest::Floats;

namespace {

const std::vector<std::string> kBlurNames = {
    "CIBokehBlur",          "CIBoxBlur",           "CIDiscBlur",
    "CIGaussianBlur",       "CIMaskedVariableBlur", "CIMedianFilter",
    "CIMorphologyGradient", "CIMorphologyMaximum", "CIMorphologyMinimum",
    "CIMorphologyRectangleMaximum", "CIMorphologyRectangleMinimum", "CIMotionBlur",
    "CINoiseReduction",     "CIZoomBlur"};

CIImage constantImage(double r, double g, double b, double a = 1.0) {
  return CIImage::imageWithColor(CIColor::colorWithRed(r, g, b, a));
}

// A single opaque white pixel at (0, 0).
CIImage impulse() {
  const float px[4] = {1, 1, 1, 1};
  return CIImage::imageWithRGBAf(px, 1, 1);
}

double sumChannel(const Floats& f, int c) {
  double s = 0;
  for (std::size_t i = c; i < f.v.size(); i += 4) s += f.v[i];
  return s;
}

// Standard deviation of the rendered response along x (channel 0), about x = 0.5.
double spreadX(const Floats& f) {
  double s = 0, s2 = 0;
  for (std::int64_t y = 0; y < f.h; ++y)
    for (std::int64_t x = 0; x < f.w; ++x) {
      const double v = f.v[std::size_t((y * f.w + x) * 4)];
      const double px = double(x) + f.rect.origin.x;  // pixel x; the impulse sits at 0
      s += v;
      s2 += v * px * px;
    }
  return std::sqrt(s2 / s);
}

}  // namespace

TEST(BlurRegistry, BlurCategoryListsEveryBlur) {
  const auto names = CIFilter::filterNamesInCategory(kCICategoryBlur);
  for (const auto& n : kBlurNames) EXPECT_NE(std::find(names.begin(), names.end(), n), names.end()) << n;
  const auto sharpen = CIFilter::filterNamesInCategory(kCICategorySharpen);
  EXPECT_NE(std::find(sharpen.begin(), sharpen.end(), "CIUnsharpMask"), sharpen.end());
  const auto distortion = CIFilter::filterNamesInCategory(kCICategoryDistortionEffect);
  EXPECT_NE(std::find(distortion.begin(), distortion.end(), "CIBumpDistortion"), distortion.end());
  const auto stylize = CIFilter::filterNamesInCategory(kCICategoryStylize);
  EXPECT_NE(std::find(stylize.begin(), stylize.end(), "CIPixellate"), stylize.end());
}

TEST(BlurRegistry, DefaultsFollowThePlatform) {
  struct Expect {
    const char* filter;
    const char* key;
    double value;
  };
  const Expect expects[] = {{"CIGaussianBlur", "inputRadius", 10},   {"CIBoxBlur", "inputRadius", 10},
                            {"CIDiscBlur", "inputRadius", 8},        {"CIMotionBlur", "inputRadius", 20},
                            {"CIMotionBlur", "inputAngle", 0},       {"CINoiseReduction", "inputNoiseLevel", 0.02},
                            {"CINoiseReduction", "inputSharpness", 0.4}, {"CIMaskedVariableBlur", "inputRadius", 5},
                            {"CIBokehBlur", "inputRadius", 20},      {"CIBokehBlur", "inputRingAmount", 0},
                            {"CIBokehBlur", "inputRingSize", 0.1},   {"CIBokehBlur", "inputSoftness", 1},
                            {"CIMorphologyMaximum", "inputRadius", 0}, {"CIMorphologyMinimum", "inputRadius", 0},
                            {"CIMorphologyGradient", "inputRadius", 5}, {"CIMorphologyRectangleMaximum", "inputWidth", 5},
                            {"CIMorphologyRectangleMinimum", "inputHeight", 5}, {"CIZoomBlur", "inputAmount", 20},
                            {"CIUnsharpMask", "inputRadius", 2.5},   {"CIUnsharpMask", "inputIntensity", 0.5},
                            {"CIBumpDistortion", "inputRadius", 300}, {"CIBumpDistortion", "inputScale", 0.5},
                            {"CIPixellate", "inputScale", 8}};
  for (const auto& e : expects) {
    const auto f = CIFilter::filterWithName(e.filter);
    ASSERT_TRUE(f) << e.filter;
    f->setDefaults();
    EXPECT_DOUBLE_EQ(f->valueForKey(e.key).doubleValue(), e.value) << e.filter << " " << e.key;
  }
  for (const char* name : {"CIZoomBlur", "CIBumpDistortion", "CIPixellate"}) {
    const auto f = CIFilter::filterWithName(name);
    f->setDefaults();
    const auto c = CIVector::fromValue(f->valueForKey("inputCenter"));
    ASSERT_TRUE(c) << name;
    EXPECT_EQ(c->X(), 150);
    EXPECT_EQ(c->Y(), 150);
  }
}

TEST(BlurFilters, NilImageGivesNilOutput) {
  std::vector<std::string> names = kBlurNames;
  names.insert(names.end(), {"CIUnsharpMask", "CIBumpDistortion", "CIPixellate"});
  for (const auto& n : names) EXPECT_TRUE(applyFilter(n, CIImage()).isNil()) << n;
}

TEST(BlurFilters, EveryFilterRendersItsDefaultsTiledAsWhole) {
  const CIImage image = blurtest::photo(96, 72, {5, -3});
  const CIImage mask = makeTestImage(96, 72, {5, -3}, 7);
  std::vector<std::string> names = kBlurNames;
  names.insert(names.end(), {"CIUnsharpMask", "CIBumpDistortion", "CIPixellate"});
  for (const auto& n : names) {
    SCOPED_TRACE(n);
    std::vector<std::pair<std::string, Value>> inputs;
    if (n == "CIMaskedVariableBlur") inputs.push_back({"inputMask", Value(mask)});
    if (n == "CIMorphologyMaximum" || n == "CIMorphologyMinimum") inputs.push_back({"inputRadius", Value(4.5)});
    if (n == "CIZoomBlur" || n == "CIBumpDistortion" || n == "CIPixellate") inputs.push_back({"inputCenter", blurtest::vec(40.5, 30)});
    if (n == "CIBumpDistortion") inputs.push_back({"inputRadius", Value(35)});
    const CIImage out = applyFilter(n, image, inputs);
    ASSERT_FALSE(out.isNil());
    const CGRect r = out.extent();
    const Floats whole = Floats::render(out, r, 4096, 1);
    const Floats tiled = Floats::render(out, r, 16, 2);
    EXPECT_TRUE(bitwiseEqual(whole.v, tiled.v));
    const Floats other = Floats::render(out, r, 27, 2);
    EXPECT_TRUE(bitwiseEqual(whole.v, other.v));
  }
}

// ---- Gaussian ----

TEST(GaussianBlur, TinyRadiusReturnsTheInputItself) {
  const CIImage image = blurtest::photo(20, 10);
  EXPECT_EQ(applyFilter("CIGaussianBlur", image, {{"inputRadius", Value(0.15)}}), image);
  EXPECT_EQ(applyFilter("CIGaussianBlur", image, {{"inputRadius", Value(0)}}), image);
  EXPECT_EQ(applyFilter("CIGaussianBlur", image, {{"inputRadius", Value(-3)}}), image);
  EXPECT_FALSE(applyFilter("CIGaussianBlur", image, {{"inputRadius", Value(0.16)}}) == image);
}

TEST(GaussianBlur, ExtentGrowsByTheKernelsReach) {
  const CIImage image = blurtest::photo(40, 30, {10, 20});
  // The kernel's support in whole pixels. Direct below kDirectSigma: ceil(3 sigma); the box
  // passes above: three outer half-widths of round(1.2501 sigma), about 3.75 sigma.
  for (auto [sigma, expected] :
       {std::pair{0.5, 2.0}, {2.0, 6.0}, {3.5, 11.0}, {10.0, 30.0}, {20.0, 75.0}, {25.0, 93.0}, {100.0, 375.0}}) {
    const CGRect e = applyFilter("CIGaussianBlur", image, {{"inputRadius", Value(sigma)}}).extent();
    const double grow = 10 - e.origin.x;
    EXPECT_EQ(grow, expected) << sigma;
    EXPECT_EQ(grow, 20 - e.origin.y);
    EXPECT_EQ(e.size.width, 40 + 2 * grow);
    EXPECT_EQ(e.size.height, 30 + 2 * grow);
  }
}

TEST(GaussianBlur, InfiniteInputStaysInfinite) {
  const CIImage out = applyFilter("CIGaussianBlur", constantImage(0.2, 0.4, 0.6));
  EXPECT_TRUE(CGRectIsInfinite(out.extent()));
}

TEST(GaussianBlur, KeepsConstantImagesConstant) {
  const CIImage c = constantImage(0.2, 0.5, 0.9, 1.0);
  const Floats before = Floats::render(c, CGRectMake(0, 0, 8, 8));
  for (double sigma : {1.0, 4.0, 40.0}) {
    const Floats f = Floats::render(applyFilter("CIGaussianBlur", c, {{"inputRadius", Value(sigma)}}), CGRectMake(-50, 30, 64, 48));
    for (std::size_t i = 0; i < f.v.size(); ++i) ASSERT_NEAR(f.v[i], before.v[i % 4], 2e-6) << sigma;
  }
}

TEST(GaussianBlur, PreservesTheMean) {
  const CIImage image = blurtest::photo(50, 40);
  const Floats in = Floats::render(image, image.extent());
  for (double sigma : {1.5, 6.0, 20.0}) {
    const CIImage out = applyFilter("CIGaussianBlur", image, {{"inputRadius", Value(sigma)}});
    const Floats f = Floats::render(out, out.extent());
    for (int c = 0; c < 4; ++c) EXPECT_NEAR(sumChannel(f, c), sumChannel(in, c), 1e-4 * sumChannel(in, c)) << sigma;
  }
}

TEST(GaussianBlur, ImpulseSpreadMatchesTheRadius) {
  for (double sigma : {1.0, 2.5, 3.0, 5.0, 10.0, 30.0, 100.0}) {
    const CIImage out = applyFilter("CIGaussianBlur", impulse(), {{"inputRadius", Value(sigma)}});
    // One row through the impulse is enough: the filter is separable.
    const CGRect e = out.extent();
    const Floats f = Floats::render(out, CGRectMake(e.origin.x, 0, e.size.width, 1));
    const double s = spreadX(f);
    EXPECT_NEAR(s, sigma, 0.03 * sigma) << sigma;
    // Symmetric about the impulse, peak at the impulse.
    for (std::int64_t x = 1; x < 3 * std::int64_t(sigma); ++x) ASSERT_NEAR(f.at(x, 0, 0), f.at(-x, 0, 0), 1e-6);
    EXPECT_GE(f.at(0, 0, 0), f.at(2, 0, 0));
  }
}

TEST(GaussianBlur, CloseToTheSampledGaussian) {
  for (double sigma : {2.0, 8.0}) {
    const CIImage out = applyFilter("CIGaussianBlur", impulse(), {{"inputRadius", Value(sigma)}});
    const Floats f = Floats::render(out, CGRectMake(out.extent().origin.x, 0, out.extent().size.width, 1));
    // Row response = 1-D kernel × its centre value; compare shapes normalised to the peak.
    const double peak = f.at(0, 0, 0);
    for (std::int64_t x = 0; x <= std::int64_t(2 * sigma); ++x) {
      const double g = std::exp(-0.5 * double(x * x) / (sigma * sigma));
      EXPECT_NEAR(f.at(x, 0, 0) / peak, g, 0.07) << sigma << " at " << x;
    }
  }
}

TEST(GaussianBlur, ClampedOpaqueEdgesStayOpaque) {
  const CIImage image = blurtest::photo(60, 40);
  const CIImage out = applyFilter("CIGaussianBlur", image.imageByClampingToExtent(), {{"inputRadius", Value(20)}})
                          .imageByCroppingToRect(image.extent());
  const Floats f = Floats::render(out, image.extent());
  for (std::size_t i = 3; i < f.v.size(); i += 4) ASSERT_NEAR(f.v[i], 1.0f, 1e-6);
}

// ---- Box, disc ----

TEST(BoxBlur, MatchesTheBoxMeanOracle) {
  const CIImage image = makeTestImageWithAlpha(23, 17, {3, 4});
  const Floats in = Floats::render(image, image.extent());
  for (double radius : {1.0, 3.0, 4.4}) {
    const int r = int(std::lround(radius));
    const CIImage out = applyFilter("CIBoxBlur", image, {{"inputRadius", Value(radius)}});
    const CGRect e = out.extent();
    EXPECT_TRUE(CGRectEqualToRect(e, CGRectInset(image.extent(), -r, -r))) << radius;
    const Floats f = Floats::render(out, e);
    for (std::int64_t y = std::int64_t(e.origin.y); y < std::int64_t(CGRectGetMaxY(e)); ++y)
      for (std::int64_t x = std::int64_t(e.origin.x); x < std::int64_t(CGRectGetMaxX(e)); ++x)
        for (int c = 0; c < 4; ++c) {
          double s = 0;
          for (int dy = -r; dy <= r; ++dy)
            for (int dx = -r; dx <= r; ++dx) s += in.at(x + dx, y + dy, c);
          ASSERT_NEAR(f.at(x, y, c), s / double((2 * r + 1) * (2 * r + 1)), 2e-6) << x << "," << y;
        }
  }
  EXPECT_EQ(applyFilter("CIBoxBlur", image, {{"inputRadius", Value(0.4)}}), image);
}

TEST(DiscBlur, MatchesTheDiscMeanOracle) {
  const CIImage image = makeTestImage(21, 19, {-2, 1});
  const Floats in = Floats::render(image, image.extent());
  const double r = 3.6;
  const CIImage out = applyFilter("CIDiscBlur", image, {{"inputRadius", Value(r)}});
  const CGRect e = out.extent();
  EXPECT_TRUE(CGRectEqualToRect(e, CGRectInset(image.extent(), -3, -3)));
  const Floats f = Floats::render(out, e);
  for (std::int64_t y = std::int64_t(e.origin.y); y < std::int64_t(CGRectGetMaxY(e)); ++y)
    for (std::int64_t x = std::int64_t(e.origin.x); x < std::int64_t(CGRectGetMaxX(e)); ++x) {
      double s = 0;
      int n = 0;
      for (int dy = -3; dy <= 3; ++dy)
        for (int dx = -3; dx <= 3; ++dx)
          if (dx * dx + dy * dy <= r * r) s += in.at(x + dx, y + dy, 1), ++n;
      ASSERT_NEAR(f.at(x, y, 1), s / n, 2e-6);
    }
  EXPECT_EQ(applyFilter("CIDiscBlur", image, {{"inputRadius", Value(0.9)}}), image);
}

TEST(BokehBlur, KeepsConstantImagesConstant) {
  const CIImage c = constantImage(0.3, 0.6, 0.1);
  const CIImage out = applyFilter("CIBokehBlur", c, {{"inputRadius", Value(9)}, {"inputRingAmount", Value(0.6)}});
  const Floats f = Floats::render(out, CGRectMake(0, 0, 20, 20));
  const Floats ref = Floats::render(c, CGRectMake(0, 0, 1, 1));
  for (std::size_t i = 0; i < f.v.size(); ++i) ASSERT_NEAR(f.v[i], ref.v[i % 4], 1e-5);
}

TEST(BokehBlur, RingBrightensTheRimOfAPointLight) {
  const CIImage plain = applyFilter("CIBokehBlur", impulse(), {{"inputRadius", Value(10)}, {"inputSoftness", Value(0)}});
  const CIImage ring = applyFilter("CIBokehBlur", impulse(),
                             {{"inputRadius", Value(10)}, {"inputSoftness", Value(0)}, {"inputRingAmount", Value(1)}});
  const Floats a = Floats::render(plain, CGRectMake(-12, 0, 25, 1)), b = Floats::render(ring, CGRectMake(-12, 0, 25, 1));
  EXPECT_NEAR(a.at(0, 0, 0), a.at(9, 0, 0), 1e-6);  // flat disc
  EXPECT_GT(b.at(10, 0, 0), 1.5 * b.at(0, 0, 0));  // the rim outshines the middle
  EXPECT_EQ(a.at(11, 0, 0), 0.0f);
}

// ---- Motion, zoom ----

TEST(MotionBlur, SmearsOnlyAlongTheAngle) {
  // Columns of constant colour (varying along x only): a vertical smear changes nothing,
  // a horizontal one does.
  std::vector<float> px(30 * 30 * 4);
  for (int row = 0; row < 30; ++row)
    for (int x = 0; x < 30; ++x) {
      float* p = &px[std::size_t(row * 30 + x) * 4];
      p[0] = (x % 5) / 4.0f, p[1] = 0.5f, p[2] = 0.2f, p[3] = 1;
    }
  const CIImage image = CIImage::imageWithRGBAf(px.data(), 30, 30).imageByClampingToExtent();
  const CGRect probe = CGRectMake(0, 0, 30, 30);
  const Floats in = Floats::render(image, probe);
  const Floats vertical = Floats::render(
      applyFilter("CIMotionBlur", image, {{"inputRadius", Value(6)}, {"inputAngle", Value(std::numbers::pi / 2)}}), probe);
  EXPECT_LT(maxAbsDifference(in.v, vertical.v), 1e-5);
  const Floats horizontal = Floats::render(applyFilter("CIMotionBlur", image, {{"inputRadius", Value(6)}}), probe);
  EXPECT_GT(maxAbsDifference(in.v, horizontal.v), 0.1);
  // Symmetric: the mean of samples at x−6 … x+6 with unit spacing.
  for (std::int64_t x = 8; x < 22; ++x) {
    double s = 0;
    for (int k = -6; k <= 6; ++k) s += in.at(x + k, 10, 0);
    EXPECT_NEAR(horizontal.at(x, 10, 0), s / 13, 1e-5);
  }
  EXPECT_EQ(applyFilter("CIMotionBlur", image, {{"inputRadius", Value(0)}}), image);
}

TEST(ZoomBlur, AveragesTowardsTheCentre) {
  const CIImage image = makeTestImage(40, 40);
  const Floats in = Floats::render(image, image.extent());
  const CIImage out = applyFilter("CIZoomBlur", image, {{"inputCenter", blurtest::vec(20.5, 10.5)}, {"inputAmount", Value(4)}});
  EXPECT_TRUE(CGRectEqualToRect(out.extent(), CGRectInset(image.extent(), -5, -5)));
  const Floats f = Floats::render(out, image.extent());
  // The pixel whose centre is the zoom centre is unchanged.
  for (int c = 0; c < 4; ++c) EXPECT_NEAR(f.at(20, 10, c), in.at(20, 10, c), 1e-6);
  // Straight above the centre the ray is vertical: samples at whole-pixel steps downwards.
  double s = 0;
  for (int k = 0; k <= 4; ++k) s += in.at(20, 30 - k, 0);
  EXPECT_NEAR(f.at(20, 30, 0), s / 5, 1e-5);
  EXPECT_EQ(applyFilter("CIZoomBlur", image, {{"inputAmount", Value(0)}}), image);
}

// ---- Median, noise reduction ----

TEST(MedianFilter, MatchesTheMedianOracle) {
  const CIImage image = makeTestImageWithAlpha(19, 13, {1, 2});
  const CIImage out = applyFilter("CIMedianFilter", image);
  EXPECT_TRUE(CGRectEqualToRect(out.extent(), image.extent()));
  const Floats in = Floats::render(image, image.extent()), f = Floats::render(out, image.extent());
  for (std::int64_t y = 2; y < 15; ++y)
    for (std::int64_t x = 1; x < 20; ++x)
      for (int c = 0; c < 4; ++c) {
        std::vector<float> v;
        for (int dy = -1; dy <= 1; ++dy)
          for (int dx = -1; dx <= 1; ++dx) v.push_back(in.at(x + dx, y + dy, c));
        std::nth_element(v.begin(), v.begin() + 4, v.end());
        ASSERT_EQ(f.at(x, y, c), v[4]) << x << "," << y << "," << c;
      }
}

TEST(NoiseReduction, ZeroSettingsReturnTheInput) {
  const CIImage image = blurtest::photo(20, 20);
  EXPECT_EQ(applyFilter("CINoiseReduction", image, {{"inputNoiseLevel", Value(0)}, {"inputSharpness", Value(0)}}), image);
}

TEST(NoiseReduction, SmoothsSmallDifferencesAndKeepsEdges) {
  // Left half dark with faint noise, right half bright: the noise shrinks, the edge stays.
  std::vector<float> px(32 * 16 * 4);
  std::uint32_t s = 7;
  for (int row = 0; row < 16; ++row)
    for (int x = 0; x < 32; ++x) {
      s = s * 1664525u + 1013904223u;
      const float n = 0.01f * (float((s >> 8) & 0xff) / 255.0f - 0.5f);
      const float v = (x < 16 ? 0.2f : 0.8f) + n;
      float* p = &px[std::size_t(row * 32 + x) * 4];
      p[0] = p[1] = p[2] = v, p[3] = 1;
    }
  const CIImage image = CIImage::imageWithRGBAf(px.data(), 32, 16).imageByClampingToExtent();
  const CIImage out = applyFilter("CINoiseReduction", image, {{"inputSharpness", Value(0)}});
  const CGRect area = CGRectMake(0, 0, 32, 16);
  const Floats in = Floats::render(image, area), f = Floats::render(out, area);
  auto variance = [](const Floats& g) {
    double m = 0, m2 = 0;
    int n = 0;
    for (std::int64_t y = 2; y < 14; ++y)
      for (std::int64_t x = 2; x < 13; ++x) m += g.at(x, y, 0), m2 += double(g.at(x, y, 0)) * g.at(x, y, 0), ++n;
    m /= n;
    return m2 / n - m * m;
  };
  EXPECT_LT(variance(f), 0.5 * variance(in));
  for (std::int64_t y = 0; y < 16; ++y) {
    EXPECT_LT(f.at(15, y, 0), 0.25f);
    EXPECT_GT(f.at(16, y, 0), 0.75f);
  }
}

// ---- Masked variable blur ----

TEST(MaskedVariableBlur, MaskSelectsTheRadius) {
  const CIImage image = blurtest::photo(40, 30);
  const CGRect r = image.extent();
  const Floats in = Floats::render(image, r);
  const Floats black = Floats::render(
      applyFilter("CIMaskedVariableBlur", image, {{"inputMask", Value(constantImage(0, 0, 0))}, {"inputRadius", Value(6)}}), r);
  EXPECT_LT(maxAbsDifference(black.v, in.v), 1e-6);
  const Floats white = Floats::render(
      applyFilter("CIMaskedVariableBlur", image, {{"inputMask", Value(constantImage(1, 1, 1))}, {"inputRadius", Value(6)}}), r);
  const Floats gauss = Floats::render(applyFilter("CIGaussianBlur", image, {{"inputRadius", Value(6)}}), r);
  EXPECT_LT(maxAbsDifference(white.v, gauss.v), 1e-6);
  EXPECT_EQ(applyFilter("CIMaskedVariableBlur", image), image);  // no mask
}

// ---- Morphology ----

TEST(Morphology, DiscMaximumAndMinimumMatchTheOracle) {
  const CIImage image = makeTestImageWithAlpha(17, 15, {2, -1}).imageByClampingToExtent();
  const CGRect area = CGRectMake(-3, -4, 24, 22);
  const Floats in = Floats::render(image, CGRectInset(area, -6, -6));
  const double r = 2.5;
  for (bool maximum : {true, false}) {
    const Floats f = Floats::render(
        applyFilter(maximum ? "CIMorphologyMaximum" : "CIMorphologyMinimum", image, {{"inputRadius", Value(r)}}), area);
    for (std::int64_t y = -4; y < 18; ++y)
      for (std::int64_t x = -3; x < 21; ++x)
        for (int c = 0; c < 4; ++c) {
          float m = maximum ? -1e9f : 1e9f;
          for (int dy = -2; dy <= 2; ++dy)
            for (int dx = -2; dx <= 2; ++dx)
              if (dx * dx + dy * dy <= r * r)
                m = maximum ? std::max(m, in.at(x + dx, y + dy, c)) : std::min(m, in.at(x + dx, y + dy, c));
          ASSERT_EQ(f.at(x, y, c), m) << maximum << " " << x << "," << y;
        }
  }
  EXPECT_EQ(applyFilter("CIMorphologyMaximum", image), image);  // radius 0
}

TEST(Morphology, ExtentsOfMaximumGrowAndMinimumKeep) {
  const CIImage image = blurtest::photo(20, 10, {5, 5});
  EXPECT_TRUE(CGRectEqualToRect(applyFilter("CIMorphologyMaximum", image, {{"inputRadius", Value(3)}}).extent(),
                                CGRectMake(2, 2, 26, 16)));
  EXPECT_TRUE(CGRectEqualToRect(applyFilter("CIMorphologyMinimum", image, {{"inputRadius", Value(3)}}).extent(), image.extent()));
  EXPECT_TRUE(CGRectEqualToRect(applyFilter("CIMorphologyRectangleMaximum", image, {{"inputWidth", Value(7)}, {"inputHeight", Value(3)}}).extent(),
                                CGRectMake(2, 4, 26, 12)));
}

TEST(Morphology, RectangleSidesRoundToOdd) {
  const CIImage image = makeTestImage(25, 21).imageByClampingToExtent();
  const CGRect area = CGRectMake(0, 0, 25, 21);
  const Floats in = Floats::render(image, CGRectInset(area, -8, -8));
  struct Case {
    double w, h;
    int rx, ry;
  };
  for (const Case& k : {Case{5, 5, 2, 2}, Case{4, 6.2, 2, 3}, Case{1, 9, 0, 4}, Case{2.9, 1.2, 1, 0}}) {
    for (bool maximum : {true, false}) {
      const Floats f = Floats::render(applyFilter(maximum ? "CIMorphologyRectangleMaximum" : "CIMorphologyRectangleMinimum",
                                            image, {{"inputWidth", Value(k.w)}, {"inputHeight", Value(k.h)}}),
                                      area);
      for (std::int64_t y = 0; y < 21; ++y)
        for (std::int64_t x = 0; x < 25; ++x)
          for (int c = 0; c < 3; ++c) {
            float m = maximum ? -1e9f : 1e9f;
            for (int dy = -k.ry; dy <= k.ry; ++dy)
              for (int dx = -k.rx; dx <= k.rx; ++dx)
                m = maximum ? std::max(m, in.at(x + dx, y + dy, c)) : std::min(m, in.at(x + dx, y + dy, c));
            ASSERT_EQ(f.at(x, y, c), m) << k.w << "x" << k.h << " at " << x << "," << y;
          }
    }
  }
  EXPECT_EQ(applyFilter("CIMorphologyRectangleMaximum", image, {{"inputWidth", Value(1)}, {"inputHeight", Value(1)}}), image);
}

TEST(Morphology, GradientIsMaximumMinusMinimum) {
  const CIImage image = makeTestImage(20, 16).imageByClampingToExtent();
  const CGRect area = CGRectMake(0, 0, 20, 16);
  const Floats g = Floats::render(applyFilter("CIMorphologyGradient", image, {{"inputRadius", Value(2)}}), area);
  const Floats mx = Floats::render(applyFilter("CIMorphologyMaximum", image, {{"inputRadius", Value(2)}}), area);
  const Floats mn = Floats::render(applyFilter("CIMorphologyMinimum", image, {{"inputRadius", Value(2)}}), area);
  for (std::size_t i = 0; i < g.v.size(); ++i) {
    if (i % 4 == 3)
      ASSERT_EQ(g.v[i], mx.v[i]);
    else
      ASSERT_EQ(g.v[i], mx.v[i] - mn.v[i]);
  }
}

// ---- Unsharp mask ----

TEST(UnsharpMask, ZeroIntensityIsTheIdentity) {
  const CIImage image = blurtest::photo(30, 20);
  EXPECT_EQ(applyFilter("CIUnsharpMask", image, {{"inputIntensity", Value(0)}}), image);
  EXPECT_EQ(applyFilter("CIUnsharpMask", image, {{"inputRadius", Value(0)}}), image);
}

TEST(UnsharpMask, IsImagePlusIntensityTimesDetail) {
  const CIImage image = blurtest::photo(30, 20, {4, 4});
  const CIImage out = applyFilter("CIUnsharpMask", image, {{"inputRadius", Value(4)}, {"inputIntensity", Value(0.8)}});
  EXPECT_TRUE(CGRectEqualToRect(out.extent(), image.extent()));
  const CGRect r = image.extent();
  const Floats in = Floats::render(image, r), f = Floats::render(out, r);
  const Floats g = Floats::render(applyFilter("CIGaussianBlur", image, {{"inputRadius", Value(4)}}), r);
  for (std::size_t i = 0; i < f.v.size(); ++i) ASSERT_NEAR(f.v[i], in.v[i] + 0.8f * (in.v[i] - g.v[i]), 1e-5);
}

// ---- Kernel plans ----

TEST(BlurKernels, BoxPassesHaveTheDirectKernelsVariance) {
  // Each of the three passes is two nested boxes with positive weights summing to 1; together
  // their variance is kBoxesVariance sigma^2, within 1 % of the direct path's truncated
  // sampled Gaussian from the switch on.
  for (double sigma : {0.2, 0.5, 1.0, 3.0, 4.2, 10.0, 20.0, 57.3, 200.0, 500.0}) {
    const auto plan = qv::blur::planGaussianBoxes(sigma);
    ASSERT_EQ(plan.horizontal.size(), 3u);
    double variance = 0;
    for (const auto& p : plan.horizontal) {
      ASSERT_FALSE(p.fir);
      ASSERT_GE(p.inner, 0);
      ASSERT_LT(p.inner, p.l);
      EXPECT_GE(p.weight, 0.0);
      EXPECT_GE(p.innerWeight, 0.0);
      const double l = p.l, i = p.inner;
      const double a = p.weight * (2 * l + 1), b = p.innerWeight * (2 * i + 1);
      EXPECT_NEAR(a + b, 1.0, 1e-12) << sigma;
      variance += a * l * (l + 1) / 3 + b * i * (i + 1) / 3;
    }
    EXPECT_NEAR(variance, qv::blur::kBoxesVariance * sigma * sigma, 1e-9 * sigma * sigma) << sigma;
    if (sigma < qv::blur::kDirectSigma) continue;
    const auto direct = qv::blur::planGaussianDirect(sigma).horizontal[0].taps;
    const int r = int(direct.size() / 2);
    double truncated = 0;
    for (int k = -r; k <= r; ++k) truncated += double(direct[std::size_t(k + r)]) * k * k;
    EXPECT_NEAR(variance, truncated, 0.01 * truncated) << sigma;
  }
  EXPECT_TRUE(qv::blur::planGaussianBoxes(0.1).identity());
  EXPECT_TRUE(qv::blur::planGaussian(0.1).identity());
  EXPECT_TRUE(qv::blur::planGaussian(std::nan("")).identity());
  EXPECT_EQ(qv::blur::planGaussian(1e12).supportX(), 1875);  // the support of kMaxSigma: 3 x 625
}

// ---- Extreme parameters: bounded regions, no crash ----

TEST(BlurFilters, ExtremeParametersStayBounded) {
  const CIImage image = blurtest::photo(24, 16);
  const double huge = 1e300, nan = std::nan("");
  auto growth = [&](const CIImage& out) { return image.extent().origin.x - out.extent().origin.x; };
  EXPECT_EQ(growth(applyFilter("CIGaussianBlur", image, {{"inputRadius", Value(huge)}})), 1875);
  EXPECT_EQ(growth(applyFilter("CIBoxBlur", image, {{"inputRadius", Value(huge)}})), 1000);
  EXPECT_EQ(growth(applyFilter("CIDiscBlur", image, {{"inputRadius", Value(huge)}})), 200);
  EXPECT_EQ(growth(applyFilter("CIMorphologyMaximum", image, {{"inputRadius", Value(huge)}})), 200);
  EXPECT_EQ(growth(applyFilter("CIZoomBlur", image, {{"inputAmount", Value(-huge)}})), 1001);
  for (const char* name : {"CIGaussianBlur", "CIBoxBlur", "CIDiscBlur", "CIMotionBlur", "CIMorphologyMaximum",
                           "CIMorphologyGradient", "CIBokehBlur", "CIUnsharpMask"}) {
    const CIImage out = applyFilter(name, image, {{"inputRadius", Value(nan)}});
    ASSERT_FALSE(out.isNil()) << name;
    const Floats f = Floats::render(out, image.extent());
    for (float v : f.v) ASSERT_TRUE(std::isfinite(v)) << name;
  }
  // Distortions with absurd settings still render the input's extent.
  const CIImage bump = applyFilter("CIBumpDistortion", image.imageByClampingToExtent(),
                                   {{"inputCenter", blurtest::vec(12, 8)}, {"inputRadius", Value(1e12)}, {"inputScale", Value(-1e9)}});
  EXPECT_TRUE(CGRectIsInfinite(bump.extent()));
  const Floats b = Floats::render(bump, image.extent());
  for (float v : b.v) ASSERT_TRUE(std::isfinite(v));
  const CIImage pix = applyFilter("CIPixellate", image, {{"inputScale", Value(huge)}, {"inputCenter", blurtest::vec(-1e15, 1e15)}});
  const Floats p = Floats::render(pix, image.extent());
  EXPECT_EQ(p.v.size(), std::size_t(24 * 16 * 4));
}

// ---- Work per tile bounded whatever the radius ----

namespace {

long peakResidentKiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

}  // namespace

TEST(BlurFilters, UnsharpMaskAtAHugeRadiusIsTheImagePlusItsDifferenceFromTheGaussian) {
  // The blur runs as the Gaussian's two passes: a tile reads a band of rows, not a square of
  // (tile + 3000) pixels a side, so the whole render stays small in memory.
  const CIImage image = blurtest::photo(320, 240);
  const long before = peakResidentKiB();
  const CIImage out = applyFilter("CIUnsharpMask", image, {{"inputRadius", Value(1e9)}, {"inputIntensity", Value(0.5)}});
  const auto sharpened = renderRGBAf(out, image.extent());
  EXPECT_LT(peakResidentKiB() - before, 1024 * 1024);
  const auto p = renderRGBAf(image, image.extent());
  const auto b = renderRGBAf(applyFilter("CIGaussianBlur", image, {{"inputRadius", Value(1e9)}}), image.extent());
  ASSERT_EQ(sharpened.size(), p.size());
  std::size_t differing = 0;
  for (std::size_t i = 0; i < p.size(); ++i) differing += sharpened[i] != p[i] + 0.5f * (p[i] - b[i]);
  EXPECT_EQ(differing, 0u);
}

TEST(BlurFilters, MaskedVariableBlurAtAHugeRadiusMixesGaussianLevels) {
  // A white mask selects the widest level: the Gaussian of the radius (capped at kMaxSigma).
  const CIImage image = blurtest::photo(96, 64);
  const CIImage white = CIImage::imageWithColor(CIColor::colorWithRed(1, 1, 1, 1)).imageByCroppingToRect(image.extent());
  const CIImage out = applyFilter("CIMaskedVariableBlur", image, {{"inputMask", Value(white)}, {"inputRadius", Value(1e9)}});
  const CIImage gaussian = applyFilter("CIGaussianBlur", image, {{"inputRadius", Value(qv::blur::kMaxSigma)}});
  // Mixed as a + 1 * (b - a), which rounds within a float's step of b.
  const auto mixed = renderRGBAf(out, image.extent()), widest = renderRGBAf(gaussian, image.extent());
  ASSERT_EQ(mixed.size(), widest.size());
  float largest = 0;
  for (std::size_t i = 0; i < mixed.size(); ++i) largest = std::max(largest, std::fabs(mixed[i] - widest[i]));
  EXPECT_LT(largest, 1e-6f);
}

TEST(BlurFilters, MorphologyRectangleOfHugeSidesReachesAcrossTheImageInBands) {
  // Sides of 1e9 are capped at 2001: every pixel of a 96 x 64 image sees all of it, so the
  // maximum is the image's maximum per channel, and the minimum is 0 (the transparent outside).
  const CIImage image = blurtest::photo(96, 64);
  const auto source = renderRGBAf(image, image.extent());
  float largest[4] = {0, 0, 0, 0};
  for (std::size_t i = 0; i < source.size(); ++i) largest[i % 4] = std::max(largest[i % 4], source[i]);
  const long before = peakResidentKiB();
  const auto maximum = renderRGBAf(
      applyFilter("CIMorphologyRectangleMaximum", image, {{"inputWidth", Value(1e9)}, {"inputHeight", Value(1e9)}}),
      image.extent());
  const auto minimum = renderRGBAf(
      applyFilter("CIMorphologyRectangleMinimum", image, {{"inputWidth", Value(1e9)}, {"inputHeight", Value(1e9)}}),
      image.extent());
  EXPECT_LT(peakResidentKiB() - before, 512 * 1024);
  std::size_t wrong = 0;
  for (std::size_t i = 0; i < maximum.size(); ++i) wrong += maximum[i] != largest[i % 4] || minimum[i] != 0.0f;
  EXPECT_EQ(wrong, 0u);
}

// The inline sampler of the line blurs adds exactly what sampleBilinear returns, bit for bit:
// inside the tile, on its border and outside it, at whole and half texels, at positions just
// below zero (where std::floor gives -0.0) and far away.
TEST(LineSampler, AddsExactlyTheBilinearSample) {
  constexpr std::int64_t w = 13, h = 9;
  std::vector<float> px(std::size_t(w * h * 4));
  std::uint32_t state = 99;
  for (float& v : px) {
    state = state * 1664525u + 1013904223u;
    v = float(state >> 8) / float(1u << 24) * 1.5f - 0.25f;  // some negative values too
  }
  const ConstPixelTile tile{px.data(), PixelRect{-3, 5, w, h}, w * 4};
  std::vector<std::pair<double, double>> points;
  for (double x = -5.0; x <= 12.0; x += 0.25)
    for (double y = 3.0; y <= 16.0; y += 0.375) points.emplace_back(x, y);
  state = 7;
  for (int k = 0; k < 4000; ++k) {
    state = state * 1664525u + 1013904223u;
    const double x = -6.0 + 20.0 * double(state >> 8) / double(1u << 24);
    state = state * 1664525u + 1013904223u;
    const double y = 2.0 + 16.0 * double(state >> 8) / double(1u << 24);
    points.emplace_back(x, y);
  }
  for (double tiny : {1e-300, 1e-17, 1e-12}) {
    points.emplace_back(0.5 - tiny, 6.5);
    points.emplace_back(-2.5 - tiny, 6.5 - tiny);
    points.emplace_back(0.5 - tiny, 0.5 - tiny);
  }
  points.emplace_back(2e15, 6.0);
  points.emplace_back(1.0, -3e16);
  points.emplace_back(std::nan(""), 6.0);
  // Along a segment that segmentInside accepts, the unchecked sampler adds the same.
  std::size_t inside = 0;
  for (int k = 0; k < 2000; ++k) {
    double v[4];
    for (double& c : v) {
      state = state * 1664525u + 1013904223u;
      c = double(state >> 8) / double(1u << 24);
    }
    const double x0 = -4.0 + 14.0 * v[0], y0 = 4.0 + 11.0 * v[1], x1 = -4.0 + 14.0 * v[2], y1 = 4.0 + 11.0 * v[3];
    if (!qv::blur::segmentInside(tile, x0, y0, x1, y1)) continue;
    ++inside;
    for (int j = 0; j <= 20; ++j) {
      const double t = 1.0 * j / 20;
      const double x = x0 + t * (x1 - x0), y = y0 + t * (y1 - y0);
      float expected[4];
      qv::blur::sampleBilinear(tile, x, y, expected);
      qv::blur::Float4 got = {0, 0, 0, 0};
      qv::blur::addBilinearInside(tile, x, y, got);
      for (int c = 0; c < 4; ++c) EXPECT_EQ(std::memcmp(&got[c], &expected[c], sizeof(float)), 0) << x << ", " << y;
    }
  }
  EXPECT_GT(inside, 100u);
  for (const auto& [x, y] : points) {
    float expected[4];
    qv::blur::sampleBilinear(tile, x, y, expected);
    const qv::blur::Float4 start = {0.125f, -0.5f, 3.0f, 1e-3f};
    qv::blur::Float4 got = start;
    qv::blur::addBilinear(tile, x, y, got);
    for (int c = 0; c < 4; ++c) {
      const float want = start[c] + expected[c];
      EXPECT_EQ(std::memcmp(&got[c], &want, sizeof(float)), 0) << x << ", " << y << " channel " << c << ": " << got[c]
                                                               << " against " << want;
    }
  }
}
