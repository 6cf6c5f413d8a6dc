// Tests of the generator built-ins: gradient endpoints and midpoints, nil inputs, the random
// field's statistics and determinism, the checkerboard's squares and the constant colour.
#include <gtest/gtest.h>

#include <cmath>

#include "ColorTestHelpers.h"
#include "CoreImage/CIVector.h"
#include "CoreImage/ColorSpace.h"

using namespace colortest;

namespace {

CIImage generate(const std::string& name, const Dictionary& inputs = {}, bool defaults = true) {
  CIFilterRef f = defaults ? filter(name) : CIFilter::filterWithName(name);
  EXPECT_TRUE(f) << name;
  if (!f) return {};
  for (const auto& [k, v] : inputs) f->setValue(v, k);
  return CIImage::fromValue(f->valueForKey(kCIOutputImageKey));
}

Pixel working(double r, double g, double b, double a) {
  const auto w = workingColor(CIColor(r, g, b, a), true);
  return {w[0], w[1], w[2], w[3]};
}

Pixel mix(const Pixel& a, const Pixel& b, double t) {
  Pixel o{};
  for (int c = 0; c < 4; ++c) o[c] = static_cast<float>(a[c] + (b[c] - a[c]) * t);
  return o;
}

// ---- CILinearGradient ----

TEST(LinearGradient, ColourZeroBeforePointZeroColourOneBeyondPointOneLinearBetween) {
  const CIImage g = generate("CILinearGradient", {{"inputPoint0", CIVector::vectorWithX(0, 0)},
                                                  {"inputPoint1", CIVector::vectorWithX(100, 0)},
                                                  {"inputColor0", CIColor::colorWithRed(1, 0, 0, 1)},
                                                  {"inputColor1", CIColor::colorWithRed(0, 0, 1, 0.5)}});
  ASSERT_TRUE(g);
  EXPECT_TRUE(CGRectIsInfinite(g.extent()));
  const Rendered r = render(g, CGRectMake(-20, -3, 140, 6));
  const Pixel c0 = working(1, 0, 0, 1), c1 = working(0, 0, 1, 0.5);
  EXPECT_TRUE(near(r.at(-20, 0), c0));
  EXPECT_TRUE(near(r.at(-1, 2), c0));
  EXPECT_TRUE(near(r.at(100, -3), c1));
  EXPECT_TRUE(near(r.at(119, 0), c1));
  // Pixel centres: x = 49 samples 49.5, t = 0.495; x = 24 samples 24.5.
  EXPECT_TRUE(near(r.at(49, 1), mix(c0, c1, 0.495)));
  EXPECT_TRUE(near(r.at(24, -2), mix(c0, c1, 0.245)));
  // Constant along lines perpendicular to the axis.
  EXPECT_EQ(r.at(37, -3), r.at(37, 2));
}

TEST(LinearGradient, DiagonalAxisProjectsOntoTheLine) {
  const CIImage g = generate("CILinearGradient", {{"inputPoint0", CIVector::vectorWithX(10, 10)},
                                                  {"inputPoint1", CIVector::vectorWithX(110, 60)}});
  const Rendered r = render(g, CGRectMake(0, 0, 128, 64));
  const Pixel white = working(1, 1, 1, 1), black = working(0, 0, 0, 1);
  for (auto [x, y] : std::vector<std::pair<int, int>>{{30, 5}, {60, 35}, {90, 50}, {3, 60}}) {
    const double px = x + 0.5 - 10, py = y + 0.5 - 10;
    const double t = std::clamp((px * 100 + py * 50) / (100.0 * 100 + 50 * 50), 0.0, 1.0);
    EXPECT_TRUE(near(r.at(x, y), mix(white, black, t))) << x << "," << y;
  }
}

TEST(LinearGradient, DefaultColoursAreWhiteToBlack) {
  CIFilterRef f = filter("CILinearGradient");
  EXPECT_EQ(CIColor::fromValue(f->valueForKey("inputColor0"))->stringRepresentation(), "1.0 1.0 1.0 1.0");
  EXPECT_EQ(CIColor::fromValue(f->valueForKey("inputColor1"))->stringRepresentation(), "0.0 0.0 0.0 1.0");
}

TEST(LinearGradient, UnsetOrNilPointsYieldNoImage) {
  // The points carry no default: a caller that leaves them unset gets no gradient.
  EXPECT_FALSE(generate("CILinearGradient"));
  EXPECT_FALSE(generate("CILinearGradient", {{"inputPoint0", CIVector::vectorWithX(0, 0)}}));
  EXPECT_FALSE(generate("CILinearGradient", {{"inputPoint1", CIVector::vectorWithX(0, 0)}}));
  EXPECT_FALSE(generate("CILinearGradient",
                        {{"inputPoint0", CIVector::vectorWithX(0, 0)}, {"inputPoint1", Value()}}));
  EXPECT_FALSE(generate("CILinearGradient", {}, false));
}

TEST(LinearGradient, CoincidentPointsGiveColourOneWithoutDividingByZero) {
  const CIImage g = generate("CILinearGradient", {{"inputPoint0", CIVector::vectorWithX(5, 5)},
                                                  {"inputPoint1", CIVector::vectorWithX(5, 5)}});
  const Rendered r = render(g, CGRectMake(0, 0, 10, 10));
  for (float v : r.pixels) EXPECT_TRUE(std::isfinite(v));
  EXPECT_TRUE(near(r.at(0, 0), working(0, 0, 0, 1)));
  EXPECT_TRUE(near(r.at(9, 9), working(0, 0, 0, 1)));
}

TEST(LinearGradient, CroppedShineLayerFallsFromTheLightToTheCentre) {
  // White at 80 % at the light, 5 % at the centre and beyond.
  const CIImage g = generate("CILinearGradient", {{"inputPoint0", CIVector::vectorWithX(100, 100)},
                                                  {"inputPoint1", CIVector::vectorWithX(100, 50)},
                                                  {"inputColor0", CIColor::colorWithRed(1, 1, 1, 0.8)},
                                                  {"inputColor1", CIColor::colorWithRed(1, 1, 1, 0.05)}});
  const CIImage cropped = g.imageByCroppingToRect(CGRectMake(0, 0, 200, 100));
  const Rendered r = render(cropped, CGRectMake(0, 0, 200, 100));
  EXPECT_TRUE(near(r.at(10, 20), {0.05f, 0.05f, 0.05f, 0.05f}));
  EXPECT_TRUE(near(r.at(150, 49), {0.05f, 0.05f, 0.05f, 0.05f}));
  const double t = (100 - 74.5) / 50.0;
  const float a = static_cast<float>(0.8 + (0.05 - 0.8) * t);
  EXPECT_TRUE(near(r.at(10, 74), {a, a, a, a}));
}

// ---- CIRadialGradient ----

TEST(RadialGradient, ColourZeroInsideRadiusZeroColourOneBeyondRadiusOne) {
  const CIImage g = generate("CIRadialGradient", {{kCIInputCenterKey, CIVector::vectorWithX(50, 50)},
                                                  {"inputRadius0", 10.0},
                                                  {"inputRadius1", 30.0},
                                                  {"inputColor0", CIColor::colorWithRed(0, 1, 0, 1)},
                                                  {"inputColor1", CIColor::colorWithRed(1, 0, 1, 0)}});
  ASSERT_TRUE(g);
  EXPECT_TRUE(CGRectIsInfinite(g.extent()));
  const Rendered r = render(g, CGRectMake(0, 0, 100, 100));
  const Pixel c0 = working(0, 1, 0, 1), c1 = working(1, 0, 1, 0);
  EXPECT_TRUE(near(r.at(50, 50), c0));
  EXPECT_TRUE(near(r.at(55, 52), c0));
  EXPECT_TRUE(near(r.at(90, 50), c1));
  EXPECT_TRUE(near(r.at(0, 0), c1));
  for (auto [x, y] : std::vector<std::pair<int, int>>{{69, 49}, {49, 29}, {64, 63}, {30, 45}}) {
    const double d = std::hypot(x + 0.5 - 50, y + 0.5 - 50);
    EXPECT_TRUE(near(r.at(x, y), mix(c0, c1, std::clamp((d - 10) / 20, 0.0, 1.0)))) << x << "," << y;
  }
}

TEST(RadialGradient, DefaultsMatchThePlatform) {
  CIFilterRef f = filter("CIRadialGradient");
  EXPECT_EQ(f->valueForKey("inputRadius0").doubleValue(), 5.0);
  EXPECT_EQ(f->valueForKey("inputRadius1").doubleValue(), 100.0);
  const CIVectorRef c = CIVector::fromValue(f->valueForKey(kCIInputCenterKey));
  ASSERT_TRUE(c);
  EXPECT_EQ(c->X(), 150.0);
  EXPECT_EQ(c->Y(), 150.0);
  EXPECT_TRUE(generate("CIRadialGradient"));
}

TEST(RadialGradient, EqualRadiiGiveAHardStepWithoutNaN) {
  const CIImage g = generate("CIRadialGradient", {{kCIInputCenterKey, CIVector::vectorWithX(10, 10)},
                                                  {"inputRadius0", 5.0},
                                                  {"inputRadius1", 5.0}});
  const Rendered r = render(g, CGRectMake(0, 0, 20, 20));
  for (float v : r.pixels) EXPECT_TRUE(std::isfinite(v));
  EXPECT_TRUE(near(r.at(10, 10), working(1, 1, 1, 1)));
  EXPECT_TRUE(near(r.at(17, 10), working(0, 0, 0, 1)));
  // Both radii zero (a nil radius reads as 0): colour 1 everywhere.
  const CIImage z = generate("CIRadialGradient", {{"inputRadius0", Value()}, {"inputRadius1", Value()}});
  const Rendered rz = render(z, CGRectMake(145, 145, 10, 10));
  for (float v : rz.pixels) EXPECT_TRUE(std::isfinite(v));
  EXPECT_TRUE(near(rz.at(150, 150), working(0, 0, 0, 1)));
}

// Rows run four pixels at a time as vectors and the rest one by one: every pixel of rows of
// any length and start must be the one-pixel formula, bit for bit.
TEST(RadialGradient, EveryRowLengthGivesThePerPixelFormulaBitForBit) {
  const Pixel c0 = working(0.9, 0.3, 0.1, 1), c1 = working(0.1, 0.2, 0.8, 0.5);
  const CIImage g = generate("CIRadialGradient", {{kCIInputCenterKey, CIVector::vectorWithX(3.3, 2.6)},
                                                  {"inputRadius0", 1.5},
                                                  {"inputRadius1", 9.0},
                                                  {"inputColor0", CIColor::colorWithRed(0.9, 0.3, 0.1, 1)},
                                                  {"inputColor1", CIColor::colorWithRed(0.1, 0.2, 0.8, 0.5)}});
  for (int width : {1, 3, 4, 5, 8, 13}) {
    for (int x0 : {-7, 0, 3}) {
      const Rendered r = render(g, CGRectMake(x0, -2, width, 3));
      for (int y = -2; y < 1; ++y) {
        const double dy = static_cast<double>(y) + 0.5 - 2.6;
        for (int x = x0; x < x0 + width; ++x) {
          const double dx = static_cast<double>(x0) + static_cast<double>(x - x0) + 0.5 - 3.3;
          const double d = std::sqrt(dx * dx + dy * dy);
          const float t = static_cast<float>(std::clamp((d - 1.5) / 7.5, 0.0, 1.0));
          const Pixel p = r.at(x, y);
          for (int c = 0; c < 4; ++c)
            EXPECT_EQ(p[c], c0[c] + (c1[c] - c0[c]) * t) << width << " " << x << "," << y << " channel " << c;
        }
      }
    }
  }
}

// Two equal colours are that colour everywhere (filled without computing distances): the bits
// of the formula c0 + (c1 − c0)·t at every t.
TEST(RadialGradient, EqualColoursGiveThatColourEverywhere) {
  const Pixel c = working(0.2, 0.5, 0.7, 0.8);
  const CIImage g = generate("CIRadialGradient", {{kCIInputCenterKey, CIVector::vectorWithX(4, 3)},
                                                  {"inputRadius0", 1.0},
                                                  {"inputRadius1", 6.0},
                                                  {"inputColor0", CIColor::colorWithRed(0.2, 0.5, 0.7, 0.8)},
                                                  {"inputColor1", CIColor::colorWithRed(0.2, 0.5, 0.7, 0.8)}});
  const Rendered r = render(g, CGRectMake(-5, -4, 19, 13));
  for (std::int64_t y = -4; y < 9; ++y) {
    for (std::int64_t x = -5; x < 14; ++x) {
      for (int k = 0; k < 4; ++k) {
        for (float t : {0.0f, 0.37f, 1.0f}) EXPECT_EQ(r.at(x, y)[k], c[k] + (c[k] - c[k]) * t) << x << "," << y;
      }
    }
  }
}

TEST(RadialGradient, NilCentreYieldsNoImage) {
  EXPECT_FALSE(generate("CIRadialGradient", {{kCIInputCenterKey, Value()}}));
}

// ---- CIRandomGenerator ----

TEST(RandomGenerator, UniformValuesInTheUnitInterval) {
  const CIImage g = generate("CIRandomGenerator");
  ASSERT_TRUE(g);
  EXPECT_TRUE(CGRectIsInfinite(g.extent()));
  const Rendered r = render(g, CGRectMake(-100, -50, 200, 100));
  std::array<double, 4> sum{}, sumSq{};
  std::array<std::array<int, 10>, 4> histogram{};
  const std::size_t n = r.pixels.size() / 4;
  for (std::size_t i = 0; i < n; ++i) {
    for (int c = 0; c < 4; ++c) {
      const float v = r.pixels[i * 4 + c];
      ASSERT_GE(v, 0.0f);
      ASSERT_LE(v, 1.0f);
      sum[c] += v;
      sumSq[c] += v * v;
      histogram[c][std::min(9, static_cast<int>(v * 10))]++;
    }
  }
  double correlation = 0;  // between red and green of the same pixel
  for (std::size_t i = 0; i < n; ++i) correlation += (r.pixels[i * 4] - 0.5) * (r.pixels[i * 4 + 1] - 0.5);
  correlation /= n / 12.0;
  EXPECT_LT(std::fabs(correlation), 0.03);
  for (int c = 0; c < 4; ++c) {
    const double mean = sum[c] / n, var = sumSq[c] / n - mean * mean;
    EXPECT_NEAR(mean, 0.5, 0.01) << c;
    EXPECT_NEAR(var, 1.0 / 12.0, 0.005) << c;
    for (int b = 0; b < 10; ++b) EXPECT_NEAR(histogram[c][b], n / 10.0, n / 10.0 * 0.1) << c << " bin " << b;
  }
}

TEST(RandomGenerator, DeterministicPerPositionSoTiledEqualsWhole) {
  const CIImage g = generate("CIRandomGenerator");
  const Rendered whole = render(g, CGRectMake(0, 0, 90, 70), true, 0);
  const Rendered tiled = render(g, CGRectMake(0, 0, 90, 70), true, 16);
  EXPECT_EQ(whole.pixels, tiled.pixels);
  const Rendered again = render(generate("CIRandomGenerator"), CGRectMake(0, 0, 90, 70));
  EXPECT_EQ(whole.pixels, again.pixels);
  // A sub-rectangle sees the same values at the same positions.
  const Rendered part = render(g, CGRectMake(30, 20, 7, 9));
  EXPECT_EQ(part.at(33, 25), whole.at(33, 25));
  // Neighbouring pixels differ.
  EXPECT_NE(whole.at(0, 0), whole.at(1, 0));
  EXPECT_NE(whole.at(0, 0), whole.at(0, 1));
}

// ---- CICheckerboardGenerator ----

TEST(Checkerboard, SquaresOfTheWidthAlignedOnTheCentre) {
  const CIImage g = generate("CICheckerboardGenerator", {{kCIInputCenterKey, CIVector::vectorWithX(10, 20)},
                                                         {kCIInputWidthKey, 8.0},
                                                         {"inputColor0", CIColor::colorWithRed(1, 0, 0, 1)},
                                                         {"inputColor1", CIColor::colorWithRed(0, 0, 1, 1)}});
  ASSERT_TRUE(g);
  EXPECT_TRUE(CGRectIsInfinite(g.extent()));
  const Rendered r = render(g, CGRectMake(-30, -30, 80, 80));
  const Pixel c0 = working(1, 0, 0, 1), c1 = working(0, 0, 1, 1);
  auto expected = [&](std::int64_t x, std::int64_t y) {
    const auto cx = static_cast<std::int64_t>(std::floor((x - 10) / 8.0));
    const auto cy = static_cast<std::int64_t>(std::floor((y - 20) / 8.0));
    return ((cx + cy) % 2 == 0) ? c0 : c1;
  };
  for (std::int64_t y = -30; y < 50; y += 3)
    for (std::int64_t x = -30; x < 50; x += 3) EXPECT_TRUE(near(r.at(x, y), expected(x, y))) << x << "," << y;
  EXPECT_TRUE(near(r.at(10, 20), c0));
  EXPECT_TRUE(near(r.at(9, 20), c1));
  EXPECT_TRUE(near(r.at(9, 19), c0));
}

TEST(Checkerboard, LowSharpnessBlendsAcrossEdges) {
  const CIImage g = generate("CICheckerboardGenerator",
                             {{kCIInputCenterKey, CIVector::vectorWithX(0, 0)}, {"inputSharpness", 0.0}});
  const Rendered r = render(g, CGRectMake(0, 0, 160, 160));
  // Square centre: pure colour 0; near an edge: a mix.
  EXPECT_TRUE(near(r.at(40, 40), working(1, 1, 1, 1), 2e-2f));
  const Pixel edge = r.at(79, 40);
  EXPECT_GT(edge[0], 0.3f);
  EXPECT_LT(edge[0], 0.7f);
}

TEST(Checkerboard, DefaultsMatchThePlatform) {
  CIFilterRef f = filter("CICheckerboardGenerator");
  EXPECT_EQ(f->valueForKey(kCIInputWidthKey).doubleValue(), 80.0);
  EXPECT_EQ(f->valueForKey("inputSharpness").doubleValue(), 1.0);
  const CIImage g = generate("CICheckerboardGenerator");
  const Rendered r = render(g, CGRectMake(150, 150, 1, 1));
  EXPECT_TRUE(near(r.at(150, 150), working(1, 1, 1, 1)));
}

// ---- CIConstantColorGenerator ----

TEST(ConstantColor, DefaultOpaqueRedOverAnInfiniteExtent) {
  const CIImage g = generate("CIConstantColorGenerator");
  ASSERT_TRUE(g);
  EXPECT_TRUE(CGRectIsInfinite(g.extent()));
  const Rendered r = render(g, CGRectMake(-1000, 5000, 2, 2));
  EXPECT_TRUE(near(r.at(-1000, 5000), {1, 0, 0, 1}));
  const CIImage c = generate("CIConstantColorGenerator", {{kCIInputColorKey, CIColor::colorWithRed(0.5, 0.25, 1, 0.5)}});
  EXPECT_TRUE(near(render(c, CGRectMake(0, 0, 1, 1)).at(0, 0), working(0.5, 0.25, 1, 0.5)));
  EXPECT_FALSE(generate("CIConstantColorGenerator", {{kCIInputColorKey, Value()}}));
}

TEST(GeneratorRegistry, Categories) {
  for (const char* name : {"CIConstantColorGenerator", "CIRandomGenerator", "CICheckerboardGenerator"}) {
    const CIFilterRegistration* reg = CIFilter::registrationForName(name);
    ASSERT_NE(reg, nullptr) << name;
    EXPECT_NE(std::find(reg->categories.begin(), reg->categories.end(), kCICategoryGenerator), reg->categories.end());
  }
  for (const char* name : {"CILinearGradient", "CIRadialGradient"}) {
    const CIFilterRegistration* reg = CIFilter::registrationForName(name);
    ASSERT_NE(reg, nullptr) << name;
    EXPECT_NE(std::find(reg->categories.begin(), reg->categories.end(), kCICategoryGradient), reg->categories.end());
  }
  EXPECT_TRUE(CIFilter::filterWithName("CIRandomGenerator")->inputKeys().empty());
}

}  // namespace
