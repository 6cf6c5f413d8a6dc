// Oracle tests of the thirty composite operations and CIBlendWithMask: every pixel the engine
// produces is compared with a plain per-pixel formula written here, for opaque and translucent
// inputs whose extents overlap in part.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <map>
#include <set>

#include "ColorTestHelpers.h"
#include "CoreImage/Builtins/CompositeOperations.h"

using namespace colortest;

namespace {

using D3 = std::array<double, 3>;

// ---- Blend functions B(Cb, Cs), written from their textbook definitions on [0, 1] ----
double clamp01(double v) { return std::min(1.0, std::max(0.0, v)); }
double screenB(double cb, double cs) { return cb + cs - cb * cs; }
double hardLightB(double cb, double cs) { return cs <= 0.5 ? cb * 2 * cs : screenB(cb, 2 * cs - 1); }
double dodgeB(double cb, double cs) {
  if (cb == 0) return 0;
  if (cs >= 1) return 1;
  return std::min(1.0, cb / (1 - cs));
}
double burnB(double cb, double cs) {
  if (cb >= 1) return 1;
  if (cs <= 0) return 0;
  return 1 - std::min(1.0, (1 - cb) / cs);
}
double softLightB(double cb, double cs) {
  if (cs <= 0.5) return cb - (1 - 2 * cs) * cb * (1 - cb);
  const double d = cb <= 0.25 ? ((16 * cb - 12) * cb + 4) * cb : std::sqrt(cb);
  return cb + (2 * cs - 1) * (d - cb);
}

double lum(const D3& c) { return 0.3 * c[0] + 0.59 * c[1] + 0.11 * c[2]; }
D3 clipColor(D3 c) {
  const double l = lum(c);
  const double n = std::min({c[0], c[1], c[2]}), x = std::max({c[0], c[1], c[2]});
  if (n < 0)
    for (double& v : c) v = l + (v - l) * l / (l - n);
  if (x > 1)
    for (double& v : c) v = l + (v - l) * (1 - l) / (x - l);
  return c;
}
D3 setLum(D3 c, double l) {
  const double d = l - lum(c);
  for (double& v : c) v += d;
  return clipColor(c);
}
double sat(const D3& c) { return std::max({c[0], c[1], c[2]}) - std::min({c[0], c[1], c[2]}); }
D3 setSat(const D3& c, double s) {
  std::array<int, 3> idx{0, 1, 2};
  std::sort(idx.begin(), idx.end(), [&](int a, int b) { return c[a] < c[b]; });
  D3 r{0, 0, 0};
  const double lo = c[idx[0]], mid = c[idx[1]], hi = c[idx[2]];
  if (hi > lo) {
    r[idx[1]] = (mid - lo) * s / (hi - lo);
    r[idx[2]] = s;
  }
  return r;
}

using Separable = std::function<double(double, double)>;
using NonSeparable = std::function<D3(const D3&, const D3&)>;

const std::map<std::string, Separable>& separableModes() {
  static const std::map<std::string, Separable> modes{
      {"CIMultiplyBlendMode", [](double b, double s) { return b * s; }},
      {"CIScreenBlendMode", screenB},
      {"CIOverlayBlendMode", [](double b, double s) { return hardLightB(s, b); }},
      {"CIDarkenBlendMode", [](double b, double s) { return std::min(b, s); }},
      {"CILightenBlendMode", [](double b, double s) { return std::max(b, s); }},
      {"CIColorDodgeBlendMode", dodgeB},
      {"CIColorBurnBlendMode", burnB},
      {"CIHardLightBlendMode", hardLightB},
      {"CISoftLightBlendMode", softLightB},
      {"CIDifferenceBlendMode", [](double b, double s) { return std::fabs(b - s); }},
      {"CIExclusionBlendMode", [](double b, double s) { return b + s - 2 * b * s; }},
      {"CIDivideBlendMode", [](double b, double s) { return s > 0 ? b / s : (b > 0 ? 1.0 : 0.0); }},
      {"CISubtractBlendMode", [](double b, double s) { return b - s; }},
      {"CILinearBurnBlendMode", [](double b, double s) { return b + s - 1; }},
      {"CILinearDodgeBlendMode", [](double b, double s) { return b + s; }},
      {"CILinearLightBlendMode", [](double b, double s) { return b + 2 * s - 1; }},
      {"CIPinLightBlendMode", [](double b, double s) { return s < 0.5 ? std::min(b, 2 * s) : std::max(b, 2 * s - 1); }},
      {"CIVividLightBlendMode", [](double b, double s) { return s <= 0.5 ? burnB(b, 2 * s) : dodgeB(b, 2 * s - 1); }},
  };
  return modes;
}

const std::map<std::string, NonSeparable>& nonSeparableModes() {
  static const std::map<std::string, NonSeparable> modes{
      {"CIHueBlendMode", [](const D3& b, const D3& s) { return setLum(setSat(s, sat(b)), lum(b)); }},
      {"CISaturationBlendMode", [](const D3& b, const D3& s) { return setLum(setSat(b, sat(s)), lum(b)); }},
      {"CIColorBlendMode", [](const D3& b, const D3& s) { return setLum(s, lum(b)); }},
      {"CILuminosityBlendMode", [](const D3& b, const D3& s) { return setLum(b, lum(s)); }},
  };
  return modes;
}

// Porter-Duff and per-component operations on premultiplied values.
Pixel porterDuff(const std::string& name, const Pixel& s, const Pixel& b) {
  Pixel o{};
  for (int c = 0; c < 4; ++c) {
    if (name == "CIAdditionCompositing") o[c] = s[c] + b[c];
    if (name == "CISourceOverCompositing") o[c] = s[c] + b[c] * (1 - s[3]);
    if (name == "CISourceInCompositing") o[c] = s[c] * b[3];
    if (name == "CISourceOutCompositing") o[c] = s[c] * (1 - b[3]);
    if (name == "CISourceAtopCompositing") o[c] = s[c] * b[3] + b[c] * (1 - s[3]);
    if (name == "CIMaximumCompositing") o[c] = std::max(s[c], b[c]);
    if (name == "CIMinimumCompositing") o[c] = std::min(s[c], b[c]);
    if (name == "CIMultiplyCompositing") o[c] = s[c] * b[c];
  }
  if (name == "CIAdditionCompositing") o[3] = std::min(1.0f, o[3]);
  return o;
}

// The blend modes in the un-premultiplied form of the general formula: blend the source in
// place, weighted by the backdrop's alpha, then source-over.
Pixel blendMode(const std::string& name, const Pixel& s, const Pixel& b) {
  const double as = s[3], ab = b[3];
  D3 cs{0, 0, 0}, cb{0, 0, 0};
  for (int c = 0; c < 3; ++c) {
    cs[c] = as > 0 ? clamp01(s[c] / as) : 0;
    cb[c] = ab > 0 ? clamp01(b[c] / ab) : 0;
  }
  D3 mixed{};
  if (auto it = separableModes().find(name); it != separableModes().end()) {
    for (int c = 0; c < 3; ++c) mixed[c] = clamp01(it->second(cb[c], cs[c]));
  } else {
    const D3 m = nonSeparableModes().at(name)(cb, cs);
    for (int c = 0; c < 3; ++c) mixed[c] = clamp01(m[c]);
  }
  const double ao = as + ab * (1 - as);
  Pixel o{};
  for (int c = 0; c < 3; ++c) {
    const double blended = (1 - ab) * cs[c] + ab * mixed[c];  // Cs'
    o[c] = static_cast<float>(as * blended + ab * cb[c] * (1 - as));
  }
  o[3] = static_cast<float>(ao);
  return o;
}

bool isPorterDuff(const std::string& name) {
  static const std::set<std::string> pd{"CIAdditionCompositing",   "CISourceOverCompositing", "CISourceInCompositing",
                                        "CISourceOutCompositing",  "CISourceAtopCompositing", "CIMaximumCompositing",
                                        "CIMinimumCompositing",    "CIMultiplyCompositing"};
  return pd.count(name) > 0;
}

Pixel oracle(const std::string& name, const Pixel& s, const Pixel& b) {
  return isPorterDuff(name) ? porterDuff(name, s, b) : blendMode(name, s, b);
}

std::vector<std::string> allCompositeNames() {
  std::vector<std::string> names;
  for (const auto& [n, f] : separableModes()) names.push_back(n);
  for (const auto& [n, f] : nonSeparableModes()) names.push_back(n);
  for (const char* n : {"CIAdditionCompositing", "CISourceOverCompositing", "CISourceInCompositing",
                        "CISourceOutCompositing", "CISourceAtopCompositing", "CIMaximumCompositing",
                        "CIMinimumCompositing", "CIMultiplyCompositing"})
    names.push_back(n);
  std::sort(names.begin(), names.end());
  return names;
}

CIImage composite(const std::string& name, const CIImage& s, const CIImage& b) {
  CIFilterRef f = filter(name);
  if (!f) return {};
  if (s) f->setValue(s, kCIInputImageKey);
  if (b) f->setValue(b, kCIInputBackgroundImageKey);
  return CIImage::fromValue(f->valueForKey(kCIOutputImageKey));
}

class CompositeOracle : public ::testing::TestWithParam<std::string> {};

// Source at (0, 0, 8, 6), background at (4, 2, 8, 6): pixels where only one, both, or neither
// input has pixels, all inside the rendered union.
void checkAgainstOracle(const std::string& name, const std::string& alpha) {
  const TestImage s = makeImage(8, 6, {0, 0}, 11, alpha);
  const TestImage b = makeImage(8, 6, {4, 2}, 23, alpha);
  const CIImage out = composite(name, s.image, b.image);
  ASSERT_TRUE(out) << name;
  EXPECT_TRUE(sameRect(out.extent(), CGRectMake(0, 0, 12, 8))) << name;
  const Rendered r = render(out, CGRectMake(0, 0, 12, 8));
  for (std::int64_t y = 0; y < 8; ++y) {
    for (std::int64_t x = 0; x < 12; ++x) {
      EXPECT_TRUE(near(r.at(x, y), oracle(name, s.at(x, y), b.at(x, y)), 5e-5f))
          << name << " (" << alpha << ") at " << x << "," << y;
    }
  }
}

TEST_P(CompositeOracle, TranslucentInputsMatchTheFormula) { checkAgainstOracle(GetParam(), "translucent"); }
TEST_P(CompositeOracle, OpaqueInputsMatchTheFormula) { checkAgainstOracle(GetParam(), "opaque"); }
TEST_P(CompositeOracle, InputsWithTransparentPixelsMatchTheFormula) { checkAgainstOracle(GetParam(), "mixed"); }

TEST_P(CompositeOracle, NilWithoutEitherImage) {
  const TestImage s = makeImage(4, 4, {0, 0}, 1);
  EXPECT_FALSE(composite(GetParam(), s.image, {}));
  EXPECT_FALSE(composite(GetParam(), {}, s.image));
  EXPECT_FALSE(composite(GetParam(), {}, {}));
}

TEST_P(CompositeOracle, InfiniteBackgroundKeepsAnInfiniteExtent) {
  const TestImage s = makeImage(4, 4, {2, 2}, 3);
  const CIImage background = CIImage::imageWithColor(CIColor::colorWithRed(0.2, 0.4, 0.6, 0.8));
  const CIImage out = composite(GetParam(), s.image, background);
  ASSERT_TRUE(out);
  EXPECT_TRUE(CGRectIsInfinite(out.extent()));
  // Far from the source, the result is the operation applied to (transparent, background).
  const Rendered r = render(out, CGRectMake(100, 100, 2, 2));
  const Rendered bg = render(background, CGRectMake(100, 100, 2, 2));
  EXPECT_TRUE(near(r.at(100, 100), oracle(GetParam(), {0, 0, 0, 0}, bg.at(100, 100))));
}

TEST_P(CompositeOracle, DisjointExtentsGiveTheirUnion) {
  const TestImage s = makeImage(3, 3, {0, 0}, 5);
  const TestImage b = makeImage(2, 2, {10, 20}, 6);
  const CIImage out = composite(GetParam(), s.image, b.image);
  ASSERT_TRUE(out);
  EXPECT_TRUE(sameRect(out.extent(), CGRectMake(0, 0, 12, 22)));
  const Rendered r = render(out, CGRectMake(0, 0, 12, 22));
  for (std::int64_t y = 0; y < 22; y += 3)
    for (std::int64_t x = 0; x < 12; x += 2)
      EXPECT_TRUE(near(r.at(x, y), oracle(GetParam(), s.at(x, y), b.at(x, y)))) << x << "," << y;
}

INSTANTIATE_TEST_SUITE_P(AllThirty, CompositeOracle, ::testing::ValuesIn(allCompositeNames()),
                         [](const auto& info) { return info.param; });

TEST(CompositeRegistry, ThirtyOperationsInTheCategoryWithTheirDisplayNames) {
  const std::vector<std::string> names = CIFilter::filterNamesInCategory(kCICategoryCompositeOperation);
  EXPECT_EQ(names, allCompositeNames());
  EXPECT_EQ(compositeOperations().size(), 30u);
  const CIFilterRegistration* over = CIFilter::registrationForName("CISourceOverCompositing");
  ASSERT_NE(over, nullptr);
  EXPECT_EQ(over->displayName, "Source Over");
  const CIFilterRegistration* lighten = CIFilter::registrationForName("CILightenBlendMode");
  ASSERT_NE(lighten, nullptr);
  EXPECT_EQ(lighten->displayName, "Lighten Blend Mode");
}

TEST(CompositeRegistry, HighDynamicRangeCategoryHoldsPorterDuffAndPerComponentOperations) {
  std::set<std::string> hdr;
  for (const std::string& n : CIFilter::filterNamesInCategory(kCICategoryHighDynamicRange)) hdr.insert(n);
  for (const std::string& n : allCompositeNames()) EXPECT_EQ(hdr.count(n) > 0, isPorterDuff(n)) << n;
}

TEST(CompositeRegistry, InputKeysAreImageAndBackground) {
  CIFilterRef f = filter("CIDarkenBlendMode");
  ASSERT_TRUE(f);
  EXPECT_EQ(f->inputKeys(), (std::vector<std::string>{kCIInputImageKey, kCIInputBackgroundImageKey}));
}

TEST(CompositeBehaviour, SubtractTakesTheSourceFromTheBackground) {
  const TestImage s = makeUniformImage(1, 1, {0, 0}, {0.25f, 0.25f, 0.25f, 1});
  const TestImage b = makeUniformImage(1, 1, {0, 0}, {0.75f, 0.1f, 0.25f, 1});
  const Rendered r = render(composite("CISubtractBlendMode", s.image, b.image), CGRectMake(0, 0, 1, 1));
  EXPECT_TRUE(near(r.at(0, 0), {0.5f, 0.0f, 0.0f, 1}));
}

TEST(CompositeBehaviour, DivideByZeroSourceGivesWhiteOverColourAndBlackOverBlack) {
  const TestImage s = makeUniformImage(1, 1, {0, 0}, {0, 0, 0.5f, 1});
  const TestImage b = makeUniformImage(1, 1, {0, 0}, {0.3f, 0, 0.25f, 1});
  const Rendered r = render(composite("CIDivideBlendMode", s.image, b.image), CGRectMake(0, 0, 1, 1));
  EXPECT_TRUE(near(r.at(0, 0), {1, 0, 0.5f, 1}));
}

TEST(CompositeBehaviour, HighDynamicRangeOperationsDoNotClampColour) {
  const TestImage s = makeUniformImage(1, 1, {0, 0}, {2.0f, 0.5f, 0.0f, 1});
  const TestImage b = makeUniformImage(1, 1, {0, 0}, {1.5f, 0.5f, 0.0f, 1});
  const Rendered add = render(composite("CIAdditionCompositing", s.image, b.image), CGRectMake(0, 0, 1, 1));
  EXPECT_TRUE(near(add.at(0, 0), {3.5f, 1.0f, 0.0f, 1.0f}));
  const Rendered over = render(composite("CISourceOverCompositing", s.image, b.image), CGRectMake(0, 0, 1, 1));
  EXPECT_TRUE(near(over.at(0, 0), {2.0f, 0.5f, 0.0f, 1.0f}));
  // A blend mode clamps its colours to [0, 1] before mixing.
  const Rendered lighten = render(composite("CILightenBlendMode", s.image, b.image), CGRectMake(0, 0, 1, 1));
  EXPECT_TRUE(near(lighten.at(0, 0), {1.0f, 0.5f, 0.0f, 1.0f}));
}

// The separable blend modes run four pixels at a time. Their rows must give, bit for bit, what
// the general formula gives one pixel at a time in single precision with the same operations,
// for every row length (including the last group of fewer than four pixels), for transparent
// pixels, colour beyond alpha and negative colour.
namespace single {
float clamp01f(float v) { return std::clamp(v, 0.0f, 1.0f); }
float screen(float cb, float cs) { return cb + cs - cb * cs; }
float dodge(float cb, float cs) {
  if (cb <= 0) return 0;
  if (cs >= 1) return 1;
  return std::min(1.0f, cb / (1 - cs));
}
float burn(float cb, float cs) {
  if (cb >= 1) return 1;
  if (cs <= 0) return 0;
  return 1 - std::min(1.0f, (1 - cb) / cs);
}
float hard(float cb, float cs) { return cs <= 0.5f ? cb * 2 * cs : screen(cb, 2 * cs - 1); }
float soft(float cb, float cs) {
  if (cs <= 0.5f) return cb - (1 - 2 * cs) * cb * (1 - cb);
  const float d = cb <= 0.25f ? ((16 * cb - 12) * cb + 4) * cb : std::sqrt(cb);
  return cb + (2 * cs - 1) * (d - cb);
}
const std::map<std::string, std::function<float(float, float)>>& blends() {
  static const std::map<std::string, std::function<float(float, float)>> b{
      {"CIMultiplyBlendMode", [](float cb, float cs) { return cb * cs; }},
      {"CIScreenBlendMode", screen},
      {"CIOverlayBlendMode", [](float cb, float cs) { return hard(cs, cb); }},
      {"CIColorDodgeBlendMode", dodge},
      {"CIColorBurnBlendMode", burn},
      {"CIHardLightBlendMode", hard},
      {"CISoftLightBlendMode", soft},
      {"CIDifferenceBlendMode", [](float cb, float cs) { return std::fabs(cb - cs); }},
      {"CIExclusionBlendMode", [](float cb, float cs) { return cb + cs - 2 * cb * cs; }},
      {"CIDivideBlendMode", [](float cb, float cs) { return cs <= 0 ? (cb > 0 ? 1.0f : 0.0f) : cb / cs; }},
      {"CISubtractBlendMode", [](float cb, float cs) { return cb - cs; }},
      {"CILinearBurnBlendMode", [](float cb, float cs) { return cb + cs - 1; }},
      {"CILinearDodgeBlendMode", [](float cb, float cs) { return cb + cs; }},
      {"CILinearLightBlendMode", [](float cb, float cs) { return cb + 2 * cs - 1; }},
      {"CIPinLightBlendMode",
       [](float cb, float cs) { return cs < 0.5f ? std::min(cb, 2 * cs) : std::max(cb, 2 * cs - 1); }},
      {"CIVividLightBlendMode", [](float cb, float cs) { return cs <= 0.5f ? burn(cb, 2 * cs) : dodge(cb, 2 * cs - 1); }},
  };
  return b;
}
}  // namespace single

TEST(CompositeBehaviour, SeparableBlendRowsEqualThePerPixelFormulaBitForBit) {
  // Pixels chosen to reach every branch: transparent, opaque, colour above alpha, negative
  // colour, and a spread of translucent values.
  std::vector<std::array<float, 4>> pixels{{0, 0, 0, 0},          {0.2f, 0.3f, 0.4f, 0},   {1, 1, 1, 1},
                                           {0, 0, 0, 1},          {0.9f, 1.4f, -0.2f, 1},  {0.1f, 0.25f, 0.5f, 0.5f},
                                           {0.5f, 0.5f, 0.5f, 0.5f}, {0.7f, -0.1f, 0.3f, 0.6f}, {0.125f, 0.2f, 0.75f, 1}};
  std::uint32_t state = 12345;
  for (int i = 0; i < 40; ++i) {
    std::array<float, 4> p{};
    for (float& v : p) {
      state = state * 1664525u + 1013904223u;
      v = float(state >> 8) / float(1u << 24);
    }
    for (int k = 0; k < 3; ++k) p[k] *= p[3];
    pixels.push_back(p);
  }
  const std::size_t count = pixels.size();
  std::vector<float> s, b;
  for (std::size_t i = 0; i < count; ++i) {
    s.insert(s.end(), pixels[i].begin(), pixels[i].end());
    b.insert(b.end(), pixels[(i * 7 + 3) % count].begin(), pixels[(i * 7 + 3) % count].end());
  }
  for (const auto& [name, blend] : single::blends()) {
    const CompositeOperation* op = compositeOperationNamed(name);
    ASSERT_TRUE(op) << name;
    // Lengths that reach groups of eight, of four and a padded last group.
    for (std::size_t n : {std::size_t(1), std::size_t(2), std::size_t(3), std::size_t(5), std::size_t(7), std::size_t(8),
                          std::size_t(12), std::size_t(13), std::size_t(19), count}) {
      std::vector<float> out(4 * n, -9.0f);
      op->row(s.data(), b.data(), out.data(), n);
      for (std::size_t i = 0; i < n; ++i) {
        const float* ps = &s[4 * i];
        const float* pb = &b[4 * i];
        const float as = ps[3], ab = pb[3];
        const float is = as > 0 ? 1.0f / as : 0.0f, ib = ab > 0 ? 1.0f / ab : 0.0f;
        const float both = as * ab;
        for (int c = 0; c < 3; ++c) {
          const float m = single::clamp01f(blend(single::clamp01f(pb[c] * ib), single::clamp01f(ps[c] * is)));
          const float expected = ps[c] * (1 - ab) + pb[c] * (1 - as) + both * m;
          EXPECT_EQ(out[4 * i + c], expected) << name << " pixel " << i << " of " << n << " channel " << c;
        }
        EXPECT_EQ(out[4 * i + 3], as + ab - both) << name << " pixel " << i;
      }
    }
  }
}

// A source of one colour (a colour layer) runs the blend's own row for it: bit for bit the
// general row over a run filled with that colour, for every row length, for colours whose
// un-premultiplied value lies below, at and above one half (where soft, hard, pin and vivid
// light choose their formula), transparent colours, colour beyond alpha and negative colour,
// over backgrounds that are transparent, opaque and translucent.
TEST(CompositeBehaviour, SeparableBlendRowsOfOneSourceColourEqualTheGeneralRowBitForBit) {
  const std::vector<std::array<float, 4>> colours{
      {0, 0, 0, 0},          {0.7f, 0.7f, 0.7f, 0.7f}, {1, 1, 1, 1},           {0.5f, 0.25f, 0.125f, 1},
      {0.2f, 0.3f, 0.4f, 0}, {0.9f, 1.4f, -0.2f, 1},   {0.25f, 0.4f, 0.1f, 0.5f}, {0.3f, 0.05f, 0.6f, 0.6f}};
  std::vector<float> b{0, 0, 0, 0, 1, 1, 1, 1, 0, 0, 0, 1, 0.2f, 0.3f, 0.4f, 0, 0.9f, 1.4f, -0.2f, 1};
  std::uint32_t state = 777;
  for (int i = 0; i < 40; ++i) {
    std::array<float, 4> p{};
    for (float& v : p) {
      state = state * 1664525u + 1013904223u;
      v = float(state >> 8) / float(1u << 24);
    }
    if (i % 3 == 0) p[3] = 1;
    for (int k = 0; k < 3; ++k) p[k] *= p[3];
    b.insert(b.end(), p.begin(), p.end());
  }
  const std::size_t count = b.size() / 4;
  std::size_t tested = 0;
  for (const CompositeOperation& op : compositeOperations()) {
    if (!op.constantSourceRow) continue;
    ++tested;
    for (const auto& colour : colours) {
      for (std::size_t n : {std::size_t(1), std::size_t(3), std::size_t(4), std::size_t(7), std::size_t(8),
                            std::size_t(11), std::size_t(17), count}) {
        std::vector<float> filled;
        for (std::size_t i = 0; i < n; ++i) filled.insert(filled.end(), colour.begin(), colour.end());
        std::vector<float> general(4 * n, -9.0f), constant(4 * n, -7.0f);
        op.row(filled.data(), b.data(), general.data(), n);
        op.constantSourceRow(colour.data(), b.data(), constant.data(), n);
        EXPECT_EQ(std::memcmp(general.data(), constant.data(), general.size() * sizeof(float)), 0)
            << op.name << " colour (" << colour[0] << ", " << colour[1] << ", " << colour[2] << ", " << colour[3]
            << ") length " << n;
      }
    }
  }
  // Every separable blend mode has the form.
  EXPECT_EQ(tested, single::blends().size());
}

TEST(CompositeBehaviour, TiledRenderEqualsWholeRender) {
  const TestImage s = makeImage(70, 50, {0, 0}, 41);
  const TestImage b = makeImage(60, 64, {13, -7}, 42);
  const CIImage out = composite("CISoftLightBlendMode", s.image, b.image);
  const CGRect rect = CGRectMake(0, -7, 73, 64);
  const Rendered whole = render(out, rect, true, 0);
  const Rendered tiled = render(out, rect, true, 16);
  EXPECT_EQ(whole.pixels, tiled.pixels);
}

// ---- CIBlendWithMask ----

float maskValue(const Pixel& m) {
  return std::clamp(0.2126f * m[0] + 0.7152f * m[1] + 0.0722f * m[2], 0.0f, 1.0f);
}

CIImage blendWithMask(const CIImage& image, const CIImage& background, const CIImage& mask) {
  CIFilterRef f = filter("CIBlendWithMask");
  if (image) f->setValue(image, kCIInputImageKey);
  if (background) f->setValue(background, kCIInputBackgroundImageKey);
  if (mask) f->setValue(mask, kCIInputMaskImageKey);
  return CIImage::fromValue(f->valueForKey(kCIOutputImageKey));
}

TEST(BlendWithMask, MixesImageAndBackgroundByTheMaskLuminance) {
  const TestImage s = makeImage(8, 8, {0, 0}, 51, "mixed");
  const TestImage b = makeImage(8, 8, {2, 2}, 52, "translucent");
  const TestImage m = makeImage(6, 6, {1, 1}, 53, "mixed");
  const CIImage out = blendWithMask(s.image, b.image, m.image);
  ASSERT_TRUE(out);
  // The background's extent joined with the part of the image inside the mask.
  EXPECT_TRUE(sameRect(out.extent(), CGRectMake(1, 1, 9, 9)));
  const Rendered r = render(out, CGRectMake(0, 0, 10, 10));
  for (std::int64_t y = 0; y < 10; ++y) {
    for (std::int64_t x = 0; x < 10; ++x) {
      const float k = maskValue(m.at(x, y));
      Pixel want{};
      for (int c = 0; c < 4; ++c) want[c] = s.at(x, y)[c] * k + b.at(x, y)[c] * (1 - k);
      // Outside the extent nothing is produced.
      if (x < 1 || y < 1) want = {0, 0, 0, 0};
      EXPECT_TRUE(near(r.at(x, y), want)) << x << "," << y;
    }
  }
}

// Rows are mixed eight pixels at a time and the rest one by one: for every row length, with and
// without a background and for a layer cut by a mask (nothing over the layer), every pixel is
// the one-pixel formula bit for bit.
TEST(BlendWithMask, EveryRowLengthGivesThePerPixelFormulaBitForBit) {
  for (std::size_t w : {1u, 3u, 7u, 8u, 9u, 16u, 19u}) {
    const TestImage s = makeImage(w, 2, {0, 0}, 61, "mixed");
    const TestImage b = makeImage(w, 2, {0, 0}, 62, "translucent");
    const TestImage m = makeImage(w, 2, {0, 0}, 63, "mixed");
    const CGRect e = CGRectMake(0, 0, double(w), 2);
    const Rendered both = render(blendWithMask(s.image, b.image, m.image), e);
    const Rendered imageOnly = render(blendWithMask(s.image, {}, m.image), e);
    const Rendered cut = render(blendWithMask(CIImage::emptyImage().imageByCroppingToRect(e), b.image, m.image), e);
    for (std::int64_t y = 0; y < 2; ++y) {
      for (std::int64_t x = 0; x < std::int64_t(w); ++x) {
        const Pixel mp = m.at(x, y);
        const float k = std::clamp(0.2126f * mp[0] + 0.7152f * mp[1] + 0.0722f * mp[2], 0.0f, 1.0f);
        for (int c = 0; c < 4; ++c) {
          const float sc = s.at(x, y)[c], bc = b.at(x, y)[c];
          EXPECT_EQ(both.at(x, y)[c], sc * k + bc * (1 - k)) << w << " " << x << "," << y;
          EXPECT_EQ(imageOnly.at(x, y)[c], sc * k) << w << " " << x << "," << y;
          EXPECT_EQ(cut.at(x, y)[c], 0.0f * k + bc * (1 - k)) << w << " " << x << "," << y;
        }
      }
    }
  }
}

TEST(BlendWithMask, WhiteShowsTheImageBlackTheBackgroundAndTransparentReadsAsZero) {
  const TestImage s = makeUniformImage(3, 1, {0, 0}, {0.9f, 0.1f, 0.1f, 1});
  const TestImage b = makeUniformImage(3, 1, {0, 0}, {0.1f, 0.1f, 0.9f, 1});
  TestImage m = makeUniformImage(3, 1, {0, 0}, {1, 1, 1, 1});
  m.pixels = {1, 1, 1, 1, 0, 0, 0, 1, 0, 0, 0, 0};
  m.image = CIImage::imageWithRGBAf(m.pixels.data(), 3, 1);
  const Rendered r = render(blendWithMask(s.image, b.image, m.image), CGRectMake(0, 0, 3, 1));
  EXPECT_TRUE(near(r.at(0, 0), s.at(0, 0)));
  EXPECT_TRUE(near(r.at(1, 0), b.at(1, 0)));
  EXPECT_TRUE(near(r.at(2, 0), b.at(2, 0)));
}

TEST(BlendWithMask, NilWithoutImage) {
  const TestImage b = makeImage(4, 4, {0, 0}, 1);
  EXPECT_FALSE(blendWithMask({}, b.image, b.image));
}

TEST(BlendWithMask, MissingBackgroundIsTransparent) {
  const TestImage s = makeImage(4, 4, {0, 0}, 61);
  const TestImage m = makeImage(4, 4, {0, 0}, 62, "opaque");
  const CIImage out = blendWithMask(s.image, {}, m.image);
  ASSERT_TRUE(out);
  EXPECT_TRUE(sameRect(out.extent(), CGRectMake(0, 0, 4, 4)));
  const Rendered r = render(out, CGRectMake(0, 0, 4, 4));
  for (std::int64_t y = 0; y < 4; ++y)
    for (std::int64_t x = 0; x < 4; ++x) {
      const float k = maskValue(m.at(x, y));
      const Pixel sp = s.at(x, y);
      EXPECT_TRUE(near(r.at(x, y), {sp[0] * k, sp[1] * k, sp[2] * k, sp[3] * k}));
    }
}

TEST(BlendWithMask, MissingMaskShowsTheBackground) {
  const TestImage s = makeImage(4, 4, {0, 0}, 71);
  const TestImage b = makeImage(4, 4, {1, 1}, 72);
  const CIImage out = blendWithMask(s.image, b.image, {});
  ASSERT_TRUE(out);
  EXPECT_TRUE(sameRect(out.extent(), b.image.extent()));
  const Rendered r = render(out, CGRectMake(1, 1, 4, 4));
  for (std::int64_t y = 1; y < 5; ++y)
    for (std::int64_t x = 1; x < 5; ++x) EXPECT_TRUE(near(r.at(x, y), b.at(x, y)));
  // Neither mask nor background: nothing to show.
  const CIImage none = blendWithMask(s.image, {}, {});
  ASSERT_TRUE(none);
  EXPECT_TRUE(CGRectIsEmpty(none.extent()));
}

TEST(BlendWithMask, EmptyImageOverTheBackgroundCutsOutWhereTheMaskIsWhite) {
  // The masking step of the composite family: an empty image blended over the picture.
  const TestImage picture = makeImage(6, 4, {0, 0}, 81, "opaque");
  const TestImage mask = makeUniformImage(3, 4, {3, 0}, {1, 1, 1, 1});
  const CIImage empty = CIImage::emptyImage().imageByCroppingToRect(picture.image.extent());
  const CIImage out = blendWithMask(empty, picture.image, mask.image);
  ASSERT_TRUE(out);
  EXPECT_TRUE(sameRect(out.extent(), picture.image.extent()));
  const Rendered r = render(out, CGRectMake(0, 0, 6, 4));
  EXPECT_TRUE(near(r.at(1, 1), picture.at(1, 1)));
  EXPECT_TRUE(near(r.at(4, 1), {0, 0, 0, 0}));
}

TEST(BlendWithMask, InfiniteBackgroundStaysInfinite) {
  const TestImage s = makeImage(4, 4, {0, 0}, 91);
  const CIImage out = blendWithMask(s.image, CIImage::imageWithColor(CIColor::colorWithRed(1, 0, 0, 1)), s.image);
  ASSERT_TRUE(out);
  EXPECT_TRUE(CGRectIsInfinite(out.extent()));
}

TEST(BlendWithMask, CategoryAndInputs) {
  const CIFilterRegistration* reg = CIFilter::registrationForName("CIBlendWithMask");
  ASSERT_NE(reg, nullptr);
  EXPECT_NE(std::find(reg->categories.begin(), reg->categories.end(), kCICategoryStylize), reg->categories.end());
  CIFilterRef f = filter("CIBlendWithMask");
  EXPECT_EQ(f->inputKeys(),
            (std::vector<std::string>{kCIInputImageKey, kCIInputBackgroundImageKey, kCIInputMaskImageKey}));
}

}  // namespace
