// Oracle tests of the colour built-ins: each output pixel against a plain per-pixel formula,
// plus identities, extents, nil inputs and the folding of colour matrices.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>

#include "ColorTestHelpers.h"
#include "CoreImage/Builtins/ColorMatrixNode.h"
#include "CoreImage/CIVector.h"
#include "CoreImage/ColorSpace.h"

using namespace colortest;

namespace {

using Matrix = std::array<std::array<double, 5>, 4>;

CIImage apply(const std::string& name, const CIImage& image, const Dictionary& inputs = {}) {
  CIFilterRef f = filter(name);
  EXPECT_TRUE(f) << name;
  if (!f) return {};
  for (const auto& [k, v] : inputs) f->setValue(v, k);
  if (image) f->setValue(image, kCIInputImageKey);
  return CIImage::fromValue(f->valueForKey(kCIOutputImageKey));
}

// Every pixel of `out` over the test image's extent against fn(input pixel).
void expectPointwise(const CIImage& out, const TestImage& in, const std::function<Pixel(const Pixel&)>& fn,
                     float tol = 2e-5f) {
  ASSERT_TRUE(out);
  EXPECT_TRUE(sameRect(out.extent(), in.image.extent()));
  const CGRect e = in.image.extent();
  const Rendered r = render(out, e);
  for (std::int64_t y = r.y; y < r.y + r.height; ++y)
    for (std::int64_t x = r.x; x < r.x + r.width; ++x)
      EXPECT_TRUE(near(r.at(x, y), fn(in.at(x, y)), tol)) << x << "," << y;
}

// Un-premultiply, map, clamp alpha, premultiply.
Pixel matrixOracle(const Matrix& m, const Pixel& p) {
  const double a = p[3];
  const std::array<double, 4> u{a > 0 ? p[0] / a : 0, a > 0 ? p[1] / a : 0, a > 0 ? p[2] / a : 0, a};
  std::array<double, 4> o{};
  for (int i = 0; i < 4; ++i) o[i] = m[i][0] * u[0] + m[i][1] * u[1] + m[i][2] * u[2] + m[i][3] * u[3] + m[i][4];
  const double ao = std::clamp(o[3], 0.0, 1.0);
  return {static_cast<float>(o[0] * ao), static_cast<float>(o[1] * ao), static_cast<float>(o[2] * ao),
          static_cast<float>(ao)};
}

Dictionary matrixInputs(const Matrix& m) {
  const char* keys[] = {"inputRVector", "inputGVector", "inputBVector", "inputAVector"};
  Dictionary d;
  for (int i = 0; i < 4; ++i) d[keys[i]] = CIVector::vectorWithX(m[i][0], m[i][1], m[i][2], m[i][3]);
  d["inputBiasVector"] = CIVector::vectorWithX(m[0][4], m[1][4], m[2][4], m[3][4]);
  return d;
}

const Matrix kGeneral{{{0.5, 0.2, 0.1, 0.05, 0.02},
                       {-0.1, 0.9, 0.3, 0.0, 0.01},
                       {0.2, 0.1, 0.6, 0.1, -0.03},
                       {0.1, 0.05, 0.0, 0.8, 0.05}}};
const Matrix kOpacity{{{1, 0, 0, 0, 0}, {0, 1, 0, 0, 0}, {0, 0, 1, 0, 0}, {0, 0, 0, 0.6, 0}}};
const Matrix kChannelMix{{{0.3, 0.6, 0.1, 0, 0}, {0, 1, 0, 0, 0}, {0.2, 0, 0.8, 0, 0}, {0, 0, 0, 0.9, 0}}};

// ---- CIColorMatrix ----

TEST(ColorMatrix, GeneralMatrixMatchesTheFormula) {
  const TestImage in = makeImage(9, 7, {-3, 4}, 101, "mixed");
  expectPointwise(apply("CIColorMatrix", in.image, matrixInputs(kGeneral)), in,
                  [](const Pixel& p) { return matrixOracle(kGeneral, p); });
}

TEST(ColorMatrix, OpacityAndChannelMixMatchTheFormula) {
  const TestImage in = makeImage(9, 7, {0, 0}, 102, "translucent");
  expectPointwise(apply("CIColorMatrix", in.image, matrixInputs(kOpacity)), in,
                  [](const Pixel& p) { return matrixOracle(kOpacity, p); });
  expectPointwise(apply("CIColorMatrix", in.image, matrixInputs(kChannelMix)), in,
                  [](const Pixel& p) { return matrixOracle(kChannelMix, p); });
}

TEST(ColorMatrix, AlphaBiasMakesTransparentPixelsInsideTheExtentOpaqueButNothingOutside) {
  const TestImage in = makeUniformImage(2, 2, {0, 0}, {0, 0, 0, 0});
  Matrix m{{{1, 0, 0, 0, 0.5}, {0, 1, 0, 0, 0}, {0, 0, 1, 0, 0}, {0, 0, 0, 1, 1}}};
  const CIImage out = apply("CIColorMatrix", in.image, matrixInputs(m));
  const Rendered r = render(out, CGRectMake(-1, -1, 4, 4));
  EXPECT_TRUE(near(r.at(0, 0), {0.5f, 0, 0, 1}));
  EXPECT_TRUE(near(r.at(-1, -1), {0, 0, 0, 0}));
  EXPECT_TRUE(near(r.at(2, 1), {0, 0, 0, 0}));
}

TEST(ColorMatrix, DefaultsAreTheIdentityAndLeaveTheImageUnchanged) {
  const TestImage in = makeImage(5, 5, {0, 0}, 103, "mixed");
  const CIImage out = apply("CIColorMatrix", in.image);
  EXPECT_EQ(out, in.image);
  expectPointwise(out, in, [](const Pixel& p) { return p; }, 0);
  CIFilterRef f = filter("CIColorMatrix");
  const Dictionary attrs = f->attributes();
  EXPECT_TRUE(CIVector::fromValue(attrs.at("inputAVector")[kCIAttributeIdentity])
                  ->isEqual(*CIVector::vectorWithX(0, 0, 0, 1)));
}

TEST(ColorMatrix, NilVectorsReadAsZero) {
  const TestImage in = makeImage(3, 3, {0, 0}, 104, "opaque");
  Dictionary inputs = matrixInputs(kChannelMix);
  inputs["inputRVector"] = Value();
  const CIImage out = apply("CIColorMatrix", in.image, inputs);
  Matrix m = kChannelMix;
  m[0] = {0, 0, 0, 0, 0};
  expectPointwise(out, in, [&](const Pixel& p) { return matrixOracle(m, p); });
}

TEST(ColorMatrix, NilImageGivesNil) { EXPECT_FALSE(apply("CIColorMatrix", {}, matrixInputs(kGeneral))); }

TEST(ColorMatrix, InfiniteInputStaysInfinite) {
  const CIImage colour = CIImage::imageWithColor(CIColor::colorWithRed(0.5, 0.5, 0.5, 1));
  const CIImage out = apply("CIColorMatrix", colour, matrixInputs(kGeneral));
  ASSERT_TRUE(out);
  EXPECT_TRUE(CGRectIsInfinite(out.extent()));
}

// ---- Folding ----

ColorMatrix toColorMatrix(const Matrix& m) {
  ColorMatrix c;
  c.m = m;
  return c;
}

TEST(ColorMatrixFold, MatrixOfAMatrixBecomesOneNodeWithTheSamePixels) {
  const TestImage in = makeImage(16, 12, {0, 0}, 111, "mixed");
  const CIImage first = apply("CIColorMatrix", in.image, matrixInputs(kChannelMix));
  const CIImage folded = apply("CIColorMatrix", first, matrixInputs(kGeneral));
  ASSERT_TRUE(folded);
  auto node = std::dynamic_pointer_cast<const ColorMatrixNode>(folded.node());
  ASSERT_TRUE(node);
  EXPECT_EQ(node->inputs().front(), in.image);  // one node over the original input
  // The same two steps without folding.
  const CIImage inner(std::make_shared<ColorMatrixNode>(in.image, toColorMatrix(kChannelMix)));
  const CIImage twoStep(std::make_shared<ColorMatrixNode>(inner, toColorMatrix(kGeneral)));
  const Rendered a = render(folded, in.image.extent());
  const Rendered b = render(twoStep, in.image.extent());
  for (std::size_t i = 0; i < a.pixels.size(); ++i) EXPECT_NEAR(a.pixels[i], b.pixels[i], 2e-6) << i;
}

TEST(ColorMatrixFold, OpacityFoldsIntoTheMatrixBeforeIt) {
  const TestImage in = makeImage(8, 8, {0, 0}, 112, "translucent");
  const CIImage controlled = apply("CIColorControls", in.image, {{kCIInputSaturationKey, 0.3}});
  const CIImage faded = apply("CIColorMatrix", controlled, matrixInputs(kOpacity));
  auto node = std::dynamic_pointer_cast<const ColorMatrixNode>(faded.node());
  ASSERT_TRUE(node);
  EXPECT_EQ(node->inputs().front(), in.image);
}

TEST(ColorMatrixFold, MatricesThatChangeCoverageAreNotFolded) {
  const TestImage in = makeImage(8, 8, {0, 0}, 113, "mixed");
  // The inner matrix adds alpha: un-premultiplying its output cannot recover its colour where
  // the input was transparent, so two nodes remain, and the pixels are the two-step ones.
  const CIImage first = apply("CIColorMatrix", in.image, matrixInputs(kGeneral));
  const CIImage second = apply("CIColorMatrix", first, matrixInputs(kChannelMix));
  auto node = std::dynamic_pointer_cast<const ColorMatrixNode>(second.node());
  ASSERT_TRUE(node);
  EXPECT_EQ(node->inputs().front(), first);
  expectPointwise(second, in, [](const Pixel& p) { return matrixOracle(kChannelMix, matrixOracle(kGeneral, p)); });
}

TEST(ColorMatrixFold, CanFoldRules) {
  EXPECT_TRUE(ColorMatrixNode::canFold(toColorMatrix(kGeneral), toColorMatrix(kOpacity)));
  EXPECT_FALSE(ColorMatrixNode::canFold(toColorMatrix(kOpacity), toColorMatrix(kGeneral)));
  Matrix zeroAlpha = kOpacity;
  zeroAlpha[3][3] = 0;
  EXPECT_FALSE(ColorMatrixNode::canFold(toColorMatrix(kGeneral), toColorMatrix(zeroAlpha)));
  Matrix colourBias = kOpacity;
  colourBias[0][4] = 0.2;
  EXPECT_FALSE(ColorMatrixNode::canFold(toColorMatrix(kGeneral), toColorMatrix(colourBias)));
  // ...unless the outer matrix ignores the biased channel.
  Matrix ignoresRed = kOpacity;
  ignoresRed[0][0] = 0;
  EXPECT_TRUE(ColorMatrixNode::canFold(toColorMatrix(ignoresRed), toColorMatrix(colourBias)));
}

// ---- CIColorControls ----

Pixel controlsOracle(const Pixel& p, double s, double br, double ct) {
  const double a = p[3];
  if (a <= 0) return {0, 0, 0, 0};
  std::array<double, 3> c{p[0] / a, p[1] / a, p[2] / a};
  const double grey = 0.2126 * c[0] + 0.7152 * c[1] + 0.0722 * c[2];
  Pixel o{};
  for (int i = 0; i < 3; ++i) {
    double v = grey + (c[i] - grey) * s;
    v += br;
    v = (v - 0.5) * ct + 0.5;
    o[i] = static_cast<float>(v * a);
  }
  o[3] = static_cast<float>(a);
  return o;
}

TEST(ColorControls, SaturationThenBrightnessThenContrast) {
  const TestImage in = makeImage(9, 7, {2, 3}, 121, "mixed");
  const CIImage out = apply("CIColorControls", in.image,
                            {{kCIInputSaturationKey, 1.6}, {kCIInputBrightnessKey, 0.1}, {kCIInputContrastKey, 1.3}});
  expectPointwise(out, in, [](const Pixel& p) { return controlsOracle(p, 1.6, 0.1, 1.3); });
}

TEST(ColorControls, ZeroSaturationGivesGrey) {
  const TestImage in = makeImage(6, 6, {0, 0}, 122, "opaque");
  const CIImage out = apply("CIColorControls", in.image, {{kCIInputSaturationKey, 0.0}});
  const Rendered r = render(out, in.image.extent());
  for (std::int64_t y = 0; y < 6; ++y)
    for (std::int64_t x = 0; x < 6; ++x) {
      const Pixel p = r.at(x, y);
      EXPECT_NEAR(p[0], p[1], 1e-5);
      EXPECT_NEAR(p[1], p[2], 1e-5);
      EXPECT_TRUE(near(p, controlsOracle(in.at(x, y), 0, 0, 1)));
    }
}

TEST(ColorControls, DefaultsLeaveTheImageUnchanged) {
  const TestImage in = makeImage(5, 5, {0, 0}, 123, "mixed");
  expectPointwise(apply("CIColorControls", in.image), in, [](const Pixel& p) { return p; });
  CIFilterRef f = filter("CIColorControls");
  EXPECT_EQ(f->valueForKey(kCIInputSaturationKey).doubleValue(), 1.0);
  EXPECT_EQ(f->valueForKey(kCIInputBrightnessKey).doubleValue(), 0.0);
  EXPECT_EQ(f->valueForKey(kCIInputContrastKey).doubleValue(), 1.0);
}

TEST(ColorControls, NilImageGivesNil) { EXPECT_FALSE(apply("CIColorControls", {})); }

// ---- CIExposureAdjust ----

TEST(ExposureAdjust, ScalesColourByTwoToTheEV) {
  const TestImage in = makeImage(7, 5, {0, 0}, 131, "mixed");
  for (double ev : {1.0, -1.5, 0.25}) {
    const double k = std::pow(2.0, ev);
    expectPointwise(apply("CIExposureAdjust", in.image, {{kCIInputEVKey, ev}}), in, [&](const Pixel& p) {
      return Pixel{static_cast<float>(p[0] * k), static_cast<float>(p[1] * k), static_cast<float>(p[2] * k), p[3]};
    });
  }
}

TEST(ExposureAdjust, DefaultIsZeroAndIdentity) {
  const TestImage in = makeImage(4, 4, {0, 0}, 132);
  EXPECT_EQ(filter("CIExposureAdjust")->valueForKey(kCIInputEVKey).doubleValue(), 0.0);
  expectPointwise(apply("CIExposureAdjust", in.image), in, [](const Pixel& p) { return p; }, 0);
  EXPECT_FALSE(apply("CIExposureAdjust", {}));
}

// ---- CIGammaAdjust ----

Pixel gammaOracle(const Pixel& p, double power) {
  const double a = p[3];
  if (a <= 0) return {0, 0, 0, 0};
  Pixel o{};
  for (int i = 0; i < 3; ++i) {
    const double v = p[i] / a;
    o[i] = static_cast<float>((v < 0 ? -std::pow(-v, power) : std::pow(v, power)) * a);
  }
  o[3] = p[3];
  return o;
}

TEST(GammaAdjust, RaisesUnpremultipliedColourToThePower) {
  const TestImage in = makeImage(8, 6, {0, 0}, 141, "mixed");
  for (double power : {0.5, 2.2, 3.0}) {
    expectPointwise(apply("CIGammaAdjust", in.image, {{"inputPower", power}}), in,
                    [&](const Pixel& p) { return gammaOracle(p, power); }, 5e-5f);
  }
}

TEST(GammaAdjust, NegativeExtendedRangeValuesKeepTheirSign) {
  const TestImage in = makeUniformImage(1, 1, {0, 0}, {-0.25f, 0.25f, 1.5f, 0.5f});
  const Rendered r = render(apply("CIGammaAdjust", in.image, {{"inputPower", 2.0}}), CGRectMake(0, 0, 1, 1));
  // Un-premultiplied (-0.5, 0.5, 3) -> (-0.25, 0.25, 9), premultiplied by 0.5.
  EXPECT_TRUE(near(r.at(0, 0), {-0.125f, 0.125f, 4.5f, 0.5f}));
}

TEST(GammaAdjust, DefaultPowerOneIsIdentity) {
  const TestImage in = makeImage(4, 4, {0, 0}, 142);
  EXPECT_EQ(filter("CIGammaAdjust")->valueForKey("inputPower").doubleValue(), 1.0);
  expectPointwise(apply("CIGammaAdjust", in.image), in, [](const Pixel& p) { return p; }, 0);
  EXPECT_FALSE(apply("CIGammaAdjust", {}));
}

// ---- CIWhitePointAdjust ----

TEST(WhitePointAdjust, TheGivenColourMapsToWhite) {
  const CIColorRef white = CIColor::colorWithRed(0.9, 0.8, 0.6, 1);
  const float wr = srgbToLinear(0.9f), wg = srgbToLinear(0.8f), wb = srgbToLinear(0.6f);
  const TestImage in = makeImage(6, 6, {0, 0}, 151, "mixed");
  expectPointwise(apply("CIWhitePointAdjust", in.image, {{kCIInputColorKey, white}}), in,
                  [&](const Pixel& p) { return Pixel{p[0] / wr, p[1] / wg, p[2] / wb, p[3]}; });
  // The white-point colour itself (opaque) becomes white.
  const TestImage patch = makeUniformImage(1, 1, {0, 0}, {wr, wg, wb, 1});
  const Rendered r = render(apply("CIWhitePointAdjust", patch.image, {{kCIInputColorKey, white}}),
                            CGRectMake(0, 0, 1, 1));
  EXPECT_TRUE(near(r.at(0, 0), {1, 1, 1, 1}));
}

TEST(WhitePointAdjust, WithoutColourManagementTheEncodedComponentsDivide) {
  const CIColorRef white = CIColor::colorWithRed(0.5, 1.0, 0.25, 1);
  const TestImage patch = makeUniformImage(1, 1, {0, 0}, {0.25f, 0.5f, 0.25f, 1});
  const Rendered r = render(apply("CIWhitePointAdjust", patch.image, {{kCIInputColorKey, white}}),
                            CGRectMake(0, 0, 1, 1), false);
  EXPECT_TRUE(near(r.at(0, 0), {0.5f, 0.5f, 1.0f, 1}));
}

TEST(WhitePointAdjust, DefaultWhiteLeavesTheImageExactlyUnchanged) {
  const TestImage in = makeImage(6, 6, {1, 2}, 152, "mixed");
  CIFilterRef f = filter("CIWhitePointAdjust");
  const CIColorRef def = CIColor::fromValue(f->valueForKey(kCIInputColorKey));
  ASSERT_TRUE(def);
  EXPECT_EQ(def->stringRepresentation(), "1.0 1.0 1.0 1.0");
  const CIImage out = apply("CIWhitePointAdjust", in.image);
  expectPointwise(out, in, [](const Pixel& p) { return p; }, 0);
  EXPECT_FALSE(apply("CIWhitePointAdjust", {}));
}

TEST(WhitePointAdjust, ZeroComponentLeavesThatChannelUnchanged) {
  const TestImage patch = makeUniformImage(1, 1, {0, 0}, {0.2f, 0.3f, 0.4f, 1});
  const Rendered r = render(
      apply("CIWhitePointAdjust", patch.image, {{kCIInputColorKey, CIColor::colorWithRed(0, 1, 0.5, 1)}}),
      CGRectMake(0, 0, 1, 1));
  EXPECT_TRUE(near(r.at(0, 0), {0.2f, 0.3f, 0.4f / srgbToLinear(0.5f), 1}));
}

// ---- CIMaskToAlpha ----

TEST(MaskToAlpha, LuminanceBecomesAlphaOfWhite) {
  const TestImage in = makeImage(8, 8, {0, 0}, 161, "mixed");
  expectPointwise(apply("CIMaskToAlpha", in.image), in, [](const Pixel& p) {
    const float m = std::clamp(0.2126f * p[0] + 0.7152f * p[1] + 0.0722f * p[2], 0.0f, 1.0f);
    return Pixel{m, m, m, m};
  });
}

TEST(MaskToAlpha, GreyRampGivesAlphaRampAndTranslucentWhiteKeepsItsOpacity) {
  TestImage in = makeUniformImage(3, 1, {0, 0}, {0, 0, 0, 0});
  in.pixels = {1, 1, 1, 1, 0, 0, 0, 1, 0.8f, 0.8f, 0.8f, 0.8f};  // white, black, white at 80 %
  in.image = CIImage::imageWithRGBAf(in.pixels.data(), 3, 1);
  const Rendered r = render(apply("CIMaskToAlpha", in.image), CGRectMake(0, 0, 3, 1));
  EXPECT_TRUE(near(r.at(0, 0), {1, 1, 1, 1}));
  EXPECT_TRUE(near(r.at(1, 0), {0, 0, 0, 0}));
  EXPECT_TRUE(near(r.at(2, 0), {0.8f, 0.8f, 0.8f, 0.8f}));
  EXPECT_FALSE(apply("CIMaskToAlpha", {}));
}

// ---- Shared properties of the pointwise filters ----

class PointwiseExtent : public ::testing::TestWithParam<std::string> {};

TEST_P(PointwiseExtent, ExtentIsTheInputsAndInfiniteStaysInfinite) {
  const TestImage in = makeImage(5, 3, {-2, 7}, 171);
  Dictionary inputs;
  if (GetParam() == "CIColorMatrix") inputs = matrixInputs(kGeneral);
  if (GetParam() == "CIColorControls") inputs = {{kCIInputSaturationKey, 0.5}};
  if (GetParam() == "CIExposureAdjust") inputs = {{kCIInputEVKey, 1.0}};
  if (GetParam() == "CIGammaAdjust") inputs = {{"inputPower", 2.0}};
  if (GetParam() == "CIWhitePointAdjust") inputs = {{kCIInputColorKey, CIColor::colorWithRed(0.5, 0.5, 0.5)}};
  const CIImage out = apply(GetParam(), in.image, inputs);
  ASSERT_TRUE(out);
  EXPECT_TRUE(sameRect(out.extent(), in.image.extent()));
  const CIImage infinite = apply(GetParam(), CIImage::imageWithColor(CIColor::colorWithRed(0.3, 0.6, 0.9)), inputs);
  ASSERT_TRUE(infinite);
  EXPECT_TRUE(CGRectIsInfinite(infinite.extent()));
  // Tiled and whole renders agree.
  const TestImage big = makeImage(67, 45, {3, -4}, 172, "mixed");
  const CIImage bigOut = apply(GetParam(), big.image, inputs);
  EXPECT_EQ(render(bigOut, big.image.extent(), true, 0).pixels, render(bigOut, big.image.extent(), true, 16).pixels);
}

INSTANTIATE_TEST_SUITE_P(ColourFilters, PointwiseExtent,
                         ::testing::Values("CIColorMatrix", "CIColorControls", "CIExposureAdjust", "CIGammaAdjust",
                                           "CIWhitePointAdjust", "CIMaskToAlpha"),
                         [](const auto& info) { return info.param; });

TEST(ColourRegistry, CategoriesAndRanges) {
  for (const char* name : {"CIColorMatrix", "CIColorControls", "CIExposureAdjust", "CIGammaAdjust",
                           "CIWhitePointAdjust"}) {
    const CIFilterRegistration* reg = CIFilter::registrationForName(name);
    ASSERT_NE(reg, nullptr) << name;
    EXPECT_NE(std::find(reg->categories.begin(), reg->categories.end(), kCICategoryColorAdjustment),
              reg->categories.end())
        << name;
  }
  const CIFilterRegistration* mask = CIFilter::registrationForName("CIMaskToAlpha");
  ASSERT_NE(mask, nullptr);
  EXPECT_NE(std::find(mask->categories.begin(), mask->categories.end(), kCICategoryColorEffect),
            mask->categories.end());
  const Dictionary attrs = filter("CIColorControls")->attributes();
  const Value contrast = attrs.at(kCIInputContrastKey);
  EXPECT_EQ(contrast[kCIAttributeSliderMin].doubleValue(), 0.25);
  EXPECT_EQ(contrast[kCIAttributeSliderMax].doubleValue(), 4.0);
  EXPECT_EQ(contrast[kCIAttributeIdentity].doubleValue(), 1.0);
}

// Pixels for the matrix rows' tests: transparent, colour beyond alpha, opaque white, values
// out of range, then 60 pseudo-random components from `seed`.
std::vector<float> matrixRowPixels(std::uint32_t seed) {
  std::vector<float> pixels{0, 0, 0, 0, 0.3f, 0.2f, 0.1f, 0, 1, 1, 1, 1, 1.5f, -0.25f, 0.5f, 1, 0.2f, 0.1f, 0.05f, 0.4f};
  std::uint32_t state = seed;
  for (int i = 0; i < 60; ++i) {
    state = state * 1664525u + 1013904223u;
    pixels.push_back(float(state >> 8) / float(1u << 24) * 1.2f - 0.1f);
  }
  return pixels;
}

// A matrix that mixes every component with alpha and a bias: the general form.
ColorMatrix generalMatrix() {
  return ColorMatrix::fromRows({0.9, 0.1, 0.05, 0.2}, {0.3, 0.6, 0.1, -0.1}, {0.0, 0.2, 1.1, 0.0},
                               {0.1, 0.0, 0.0, 0.8}, {0.05, -0.02, 0.1, 0.1});
}

// A fade, linear in premultiplied values.
ColorMatrix fadeMatrix() {
  return ColorMatrix::fromRows({0.8, 0.1, 0, 0}, {0, 1, 0, 0}, {0.1, 0, 0.9, 0}, {0, 0, 0, 0.7}, {0, 0, 0, 0});
}

}  // namespace

// The matrix runs eight pixels at a time, then four; each row must give, bit for bit, the
// one-pixel formula in single precision with the same operations, for every row length (groups
// of eight and of four, and a last group of fewer than four), in both of its forms (general, and
// linear in premultiplied values).
TEST(ColorMatrixRows, GroupsOfPixelsEqualThePerPixelFormulaBitForBit) {
  const std::vector<float> pixels = matrixRowPixels(99);
  const std::size_t count = pixels.size() / 4;
  const ColorMatrix general = generalMatrix(), fade = fadeMatrix();
  for (const ColorMatrix& m : {general, fade}) {
    const ColorMatrixNode node(CIImage::emptyImage(), m);
    float c[20];
    for (int r = 0; r < 4; ++r)
      for (int k = 0; k < 5; ++k) c[r * 5 + k] = float(m.m[std::size_t(r)][std::size_t(k)]);
    const bool linear = m == fade;
    for (std::size_t n : {std::size_t(1), std::size_t(2), std::size_t(3), std::size_t(6), std::size_t(8),
                          std::size_t(12), std::size_t(15), count}) {
      std::vector<float> out(4 * n);
      node.applyRow(pixels.data(), out.data(), n);
      for (std::size_t i = 0; i < n; ++i) {
        const float* s = &pixels[4 * i];
        float expected[4];
        if (linear) {
          const float k = c[18];
          for (int r = 0; r < 3; ++r)
            expected[r] = (c[5 * r] * k) * s[0] + (c[5 * r + 1] * k) * s[1] + (c[5 * r + 2] * k) * s[2];
          expected[3] = std::clamp(k * s[3], 0.0f, 1.0f);
        } else {
          const float a = s[3], inv = a > 0 ? 1.0f / a : 0.0f, ua = a > 0 ? a : 0.0f;
          const float r = s[0] * inv, g = s[1] * inv, b = s[2] * inv;
          const float ao = std::clamp(c[15] * r + c[16] * g + c[17] * b + c[18] * ua + c[19], 0.0f, 1.0f);
          for (int k = 0; k < 3; ++k)
            expected[k] = (c[5 * k] * r + c[5 * k + 1] * g + c[5 * k + 2] * b + c[5 * k + 3] * ua + c[5 * k + 4]) * ao;
          expected[3] = ao;
        }
        for (int k = 0; k < 4; ++k)
          EXPECT_EQ(out[4 * i + std::size_t(k)], expected[k]) << (linear ? "linear" : "general") << " pixel " << i << " of " << n << " component " << k;
      }
    }
  }
}

// Two matrices in one pass (each of them general or linear in premultiplied values, in either
// order) give, bit for bit, the first matrix's row followed by the second's, for every row
// length, transparent pixels and colour beyond alpha among them.
TEST(ColorMatrixRows, TwoMatricesInOnePassEqualOneAfterTheOtherBitForBit) {
  const std::vector<float> pixels = matrixRowPixels(4242);
  const std::size_t count = pixels.size() / 4;
  const ColorMatrix general = generalMatrix(), fade = fadeMatrix();
  const ColorMatrixNode g(CIImage::emptyImage(), general), f(CIImage::emptyImage(), fade);
  for (const ColorMatrixNode* first : {&g, &f}) {
    for (const ColorMatrixNode* second : {&g, &f}) {
      for (std::size_t n : {std::size_t(1), std::size_t(3), std::size_t(4), std::size_t(7), std::size_t(8),
                            std::size_t(13), std::size_t(16), count}) {
        std::vector<float> between(4 * n), apart(4 * n, -5.0f), together(4 * n, -6.0f);
        first->applyRow(pixels.data(), between.data(), n);
        second->applyRow(between.data(), apart.data(), n);
        first->applyRowThen(*second, pixels.data(), together.data(), n);
        EXPECT_EQ(std::memcmp(apart.data(), together.data(), apart.size() * sizeof(float)), 0)
            << (first == &g ? "general" : "linear") << " then " << (second == &g ? "general" : "linear") << ", length "
            << n;
      }
    }
  }
}
