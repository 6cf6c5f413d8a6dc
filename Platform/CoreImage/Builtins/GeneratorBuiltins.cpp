// The generator built-ins: CIConstantColorGenerator, CILinearGradient, CIRadialGradient,
// CIRandomGenerator and CICheckerboardGenerator. Every one has an infinite extent and takes no
// image. Colours are interpolated as premultiplied working-space colours (linear light, or the
// encoded values when the render has colour management off), sampled at pixel centres
// (x + 0.5, y + 0.5). A nil colour input reads as clear (0 0 0 0).
#include <cmath>
#include <cstdint>

#include "CoreImage/Builtins/BuiltinFilter.h"
#include "CoreImage/Builtins/ColorNodeSupport.h"
#include "CoreImage/Builtins/Float4.h"
#include "CoreImage/ColorSpace.h"
#include "CoreImage/TargetClones.h"

using namespace qv::builtins;

// Vectors of doubles only pass between inline code of this file (see Float4.h).
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wpsabi"
#endif

namespace {

using RGBA = std::array<float, 4>;

RGBA working(const CIColorRef& c, const RenderInfo& info) {
  if (!c) return {0, 0, 0, 0};
  return workingColor(*c, info.colorManaged);
}

inline void mixInto(float* o, const RGBA& c0, const RGBA& c1, float t) {
  for (int c = 0; c < 4; ++c) o[c] = c0[c] + (c1[c] - c0[c]) * t;
}

// t[i] for the pixels x0 + i of one row, whose term along y is py, with invLen2 = 1 / |p1 − p0|²:
// a loop of plain arithmetic that the compiler vectorises (hence without trap semantics, which
// would keep the clamp's comparisons scalar; the clamp is written out as std::clamp does it, NaN
// passing through). Multiplying by the reciprocal instead of dividing by |p1 − p0|² (the
// division bounded the whole loop) may move t by one unit in the last place of a double, which
// rounding t to float hides nearly always: at most 1e-7 of the colour span.
// Compiled for AVX2 too (four doubles a step instead of two; no fused multiply-add, so the same
// bits), where TargetClones.h allows.
#if QV_TARGET_CLONES
__attribute__((target_clones("avx2", "default"), optimize("no-trapping-math")))
#elif QV_GCC
__attribute__((optimize("no-trapping-math")))
#endif
void gradientPositions(float* t, std::size_t n, double x0, double p0x, double dx, double py, double invLen2) {
  for (std::size_t i = 0; i < n; ++i) {
    const double px = (x0 + static_cast<double>(static_cast<std::int32_t>(i)) + 0.5 - p0x) * dx;
    const double v = (px + py) * invLen2;
    t[i] = static_cast<float>(v < 0.0 ? 0.0 : (1.0 < v ? 1.0 : v));
  }
}

// The generators' row loops are compiled for the baseline and for AVX2 (the random generator's
// also for the x86-64-v4 level, AVX-512, whose 64-bit multiplies let the compiler hash eight
// pixels at once), and the loader picks one per process. Neither AVX2 clone has fused
// multiply-adds, the random generator is integer hashing and exact conversions of 24-bit
// integers, and the square roots never see a negative number (so errno, which the loops do not
// set, changes nothing): every version gives the same bits (one version where TargetClones.h says so).
#if QV_TARGET_CLONES
#define QV_RANDOM_CLONES __attribute__((target_clones("arch=x86-64-v4", "avx2", "default")))
#define QV_GRADIENT_CLONES __attribute__((target_clones("avx2", "default"), optimize("no-math-errno")))
#elif QV_GCC
#define QV_RANDOM_CLONES
#define QV_GRADIENT_CLONES __attribute__((optimize("no-math-errno")))
#else
#define QV_RANDOM_CLONES
#define QV_GRADIENT_CLONES
#endif

// n pixels of a radial gradient's row: t from the distance d of the pixel centre (x0 + i + 0.5,
// scaled by kx, beside the row's scaled offset dy) to the centre cx. Four pixels at a time as
// vectors of doubles (the same operations lane by lane: the same bits), the rest one by one.
QV_GRADIENT_CLONES void radialGradientRow(double x0, double cx, double kx, double dy, double r0, double span,
                                          const float* c0, const float* c1, float* o, std::size_t n) {
  std::size_t i = 0;
  if (span != 0) {
    using Double4 = double __attribute__((vector_size(32)));
    const Double4 zero{0, 0, 0, 0}, one{1, 1, 1, 1};
    const double dy2 = dy * dy;
    for (; i + 4 <= n; i += 4) {
      const double xi = static_cast<double>(i);
      const Double4 x = Double4{x0, x0, x0, x0} + Double4{xi, xi + 1, xi + 2, xi + 3};
      const Double4 dx = (x + 0.5 - cx) * kx;
      const Double4 d2 = dx * dx + dy2;
#if defined(__SSE2__)
      const __m128d lo = _mm_sqrt_pd(__m128d{d2[0], d2[1]}), hi = _mm_sqrt_pd(__m128d{d2[2], d2[3]});
      const Double4 d{lo[0], lo[1], hi[0], hi[1]};
#else
      const Double4 d{std::sqrt(d2[0]), std::sqrt(d2[1]), std::sqrt(d2[2]), std::sqrt(d2[3])};
#endif
      const Double4 u = (d - r0) / span;
      const Double4 t = u < zero ? zero : (one < u ? one : u);
      const Float4 tf = __builtin_convertvector(t, Float4);
      Float4 O[4];
      for (int c = 0; c < 4; ++c) O[c] = splat<Float4>(c0[c]) + splat<Float4>(c1[c] - c0[c]) * tf;
      storePixels(O, o + 4 * i);
    }
  }
  for (; i < n; ++i) {
    const double dx = (x0 + static_cast<double>(i) + 0.5 - cx) * kx;
    const double d = std::sqrt(dx * dx + dy * dy);
    // std::clamp(u, 0, 1) written out, as in the vector loop.
    const double u = (d - r0) / span;
    const double t = span != 0 ? (u < 0.0 ? 0.0 : (1.0 < u ? 1.0 : u)) : (d < r0 ? 0.0 : 1.0);
    const float tf = static_cast<float>(t);
    for (int c = 0; c < 4; ++c) o[4 * i + c] = c0[c] + (c1[c] - c0[c]) * tf;
  }
}

// t = clamp(dot(p − p0, p1 − p0) / |p1 − p0|², 0, 1). With p0 == p1 every point lies "at and
// beyond" point 1 and takes colour 1.
class LinearGradientNode final : public ImageNode {
 public:
  LinearGradientNode(CGPoint p0, CGPoint p1, CIColorRef c0, CIColorRef c1)
      : ImageNode(CGRectInfinite), p0_(p0), p1_(p1), c0_(std::move(c0)), c1_(std::move(c1)) {}
  void render(const PixelTile& out, std::span<const ConstPixelTile>, const RenderInfo& info) const override {
    const RGBA c0 = working(c0_, info), c1 = working(c1_, info);
    const double dx = p1_.x - p0_.x, dy = p1_.y - p0_.y, len2 = dx * dx + dy * dy;
    forEachRowInExtent(out, extent(), [&](float* o, std::int64_t x0, std::int64_t y, std::size_t n) {
      if (!(len2 > 0)) {
        for (std::size_t i = 0; i < n; ++i) mixInto(o + 4 * i, c0, c1, 1.0f);
        return;
      }
      const double py = (static_cast<double>(y) + 0.5 - p0_.y) * dy;
      // The row's positions along the gradient first (see gradientPositions), then the colours.
      thread_local std::vector<float> ts;
      if (ts.size() < n) ts.resize(n);
      float* t = ts.data();
      gradientPositions(t, n, static_cast<double>(x0), p0_.x, dx, py, 1.0 / len2);
      for (std::size_t i = 0; i < n; ++i) mixInto(o + 4 * i, c0, c1, t[i]);
    });
  }
  std::string name() const override { return "CILinearGradient"; }

 private:
  CGPoint p0_, p1_;
  CIColorRef c0_, c1_;
};

// d = |p − centre|, t = clamp((d − r0) / (r1 − r0), 0, 1). With r0 == r1 the gradient is a hard
// step: colour 0 inside the circle, colour 1 on and beyond it.
// Under a transform that scales the axes (and moves), the gradient draws itself at the output's
// pixels: p's offset from the moved centre is scaled back per axis (by 1 / scale) before its
// length is taken, so circles become the ellipses the transform makes of them, sampled at each
// output pixel's centre instead of resampled from a drawing at the original scale.
class RadialGradientNode final : public ImageNode {
 public:
  RadialGradientNode(CGPoint centre, double r0, double r1, CIColorRef c0, CIColorRef c1, double kx = 1, double ky = 1)
      : ImageNode(CGRectInfinite),
        centre_(centre),
        r0_(r0),
        r1_(r1),
        kx_(kx),
        ky_(ky),
        c0_(std::move(c0)),
        c1_(std::move(c1)) {}
  void render(const PixelTile& out, std::span<const ConstPixelTile>, const RenderInfo& info) const override {
    const RGBA c0 = working(c0_, info), c1 = working(c1_, info);
    const double span = r1_ - r0_;
    if (c0 == c1) {
      // One colour: c0 + (c1 − c0)·t is c0 + 0 for every t in [0, 1], the same bits, with no
      // distance to compute.
      const RGBA c{c0[0] + 0.0f, c0[1] + 0.0f, c0[2] + 0.0f, c0[3] + 0.0f};
      forEachRowInExtent(out, extent(), [&](float* o, std::int64_t, std::int64_t, std::size_t n) {
        for (std::size_t i = 0; i < n; ++i) std::copy(c.begin(), c.end(), o + 4 * i);
      });
      return;
    }
    forEachRowInExtent(out, extent(), [&](float* o, std::int64_t x0, std::int64_t y, std::size_t n) {
      const double dy = (static_cast<double>(y) + 0.5 - centre_.y) * ky_;
      radialGradientRow(static_cast<double>(x0), centre_.x, kx_, dy, r0_, span, c0.data(), c1.data(), o, n);
    });
  }
  std::shared_ptr<const ImageNode> transformedBy(const CGAffineTransform& t) const override {
    if (t.b != 0 || t.c != 0 || !(t.a != 0) || !(t.d != 0) || !std::isfinite(t.tx) || !std::isfinite(t.ty)) return nullptr;
    const double kx = kx_ / std::fabs(t.a), ky = ky_ / std::fabs(t.d);
    if (!std::isfinite(kx) || !std::isfinite(ky) || !(kx > 0) || !(ky > 0)) return nullptr;
    return std::make_shared<RadialGradientNode>(CGPointMake(t.a * centre_.x + t.tx, t.d * centre_.y + t.ty), r0_, r1_,
                                                c0_, c1_, kx, ky);
  }
  std::string name() const override { return "CIRadialGradient"; }

 private:
  CGPoint centre_;
  double r0_, r1_;
  double kx_, ky_;  // per-axis factors from output offsets back to the gradient's own units
  CIColorRef c0_, c1_;
};

inline std::uint64_t splitmix64(std::uint64_t z) {
  z += 0x9E3779B97F4A7C15ull;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

// n pixels of the row whose key is `rowKey`, from column x0.
QV_RANDOM_CLONES void randomRow(std::uint64_t rowKey, std::int64_t x0, float* o, std::size_t n) {
  constexpr float kScale = 1.0f / 16777215.0f;  // 24-bit values onto [0, 1]
  for (std::size_t i = 0; i < n; ++i) {
    const std::uint64_t x = static_cast<std::uint64_t>(x0 + static_cast<std::int64_t>(i));
    const std::uint64_t h1 = splitmix64(rowKey ^ x);
    const std::uint64_t h2 = splitmix64(h1 ^ 0x5851F42D4C957F2Dull);
    o[4 * i] = static_cast<float>((h1 >> 8) & 0xFFFFFF) * kScale;
    o[4 * i + 1] = static_cast<float>(h1 >> 40) * kScale;
    o[4 * i + 2] = static_cast<float>((h2 >> 8) & 0xFFFFFF) * kScale;
    o[4 * i + 3] = static_cast<float>(h2 >> 40) * kScale;
  }
}

// Four independent values, uniform in [0, 1], that depend only on the pixel's position: any
// tiling of a render gives the same pixels. The values are stored as they are, as premultiplied
// working-space components (so colour may exceed alpha); callers take a channel as grey and set
// alpha themselves, through a colour matrix.
class RandomNode final : public ImageNode {
 public:
  RandomNode() : ImageNode(CGRectInfinite) {}
  void render(const PixelTile& out, std::span<const ConstPixelTile>, const RenderInfo&) const override {
    forEachRowInExtent(out, extent(), [&](float* o, std::int64_t x0, std::int64_t y, std::size_t n) {
      randomRow(splitmix64(static_cast<std::uint64_t>(y) * 0xD1B54A32D192ED03ull), x0, o, n);
    });
  }
  std::string name() const override { return "CIRandomGenerator"; }
};

// Squares of side `width`, one corner on the centre; the square up and to the right of the
// centre has colour 0. Each axis contributes a square wave in [−1, 1] whose edges ramp over a
// fraction (1 − sharpness) of a square: sharpness 1 gives hard edges, 0 a soft, tent-shaped
// pattern. The product of the two waves selects the colour: +1 colour 0, −1 colour 1.
class CheckerboardNode final : public ImageNode {
 public:
  CheckerboardNode(CGPoint centre, double width, double sharpness, CIColorRef c0, CIColorRef c1)
      : ImageNode(CGRectInfinite),
        centre_(centre),
        width_(width),
        sharpness_(std::clamp(sharpness, 0.0, 1.0)),
        c0_(std::move(c0)),
        c1_(std::move(c1)) {}
  void render(const PixelTile& out, std::span<const ConstPixelTile>, const RenderInfo& info) const override {
    const RGBA c0 = working(c0_, info), c1 = working(c1_, info);
    if (!(width_ > 0)) {
      // No squares: an even field of colour 0.
      forEachRowInExtent(out, extent(), [&](float* o, std::int64_t, std::int64_t, std::size_t n) {
        for (std::size_t i = 0; i < n; ++i) mixInto(o + 4 * i, c0, c1, 0.0f);
      });
      return;
    }
    const double ramp = (1.0 - sharpness_) * 0.5;  // half-width of an edge, in squares
    auto wave = [&](double u) {
      const double cell = std::floor(u);
      const double f = u - cell;
      const double sign = std::fmod(cell, 2.0) == 0 ? 1.0 : -1.0;
      if (ramp <= 0) return sign;
      return sign * std::min(1.0, std::min(f, 1.0 - f) / ramp);
    };
    forEachRowInExtent(out, extent(), [&](float* o, std::int64_t x0, std::int64_t y, std::size_t n) {
      const double wy = wave((static_cast<double>(y) + 0.5 - centre_.y) / width_);
      for (std::size_t i = 0; i < n; ++i) {
        const double wx = wave((static_cast<double>(x0) + static_cast<double>(i) + 0.5 - centre_.x) / width_);
        mixInto(o + 4 * i, c0, c1, static_cast<float>((1.0 - wx * wy) * 0.5));
      }
    });
  }
  std::string name() const override { return "CICheckerboardGenerator"; }

 private:
  CGPoint centre_;
  double width_, sharpness_;
  CIColorRef c0_, c1_;
};

// ---------------------------------------------------------------------------------------------
// Filters

class CIConstantColorGeneratorFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIColorRef color = inputColor(kCIInputColorKey);
    if (!color) return {};
    return CIImage::imageWithColor(color);
  }
};

// The two points have no default: a gradient whose points were never set (or were set to nil)
// yields no image, which is what callers rely on to drop a gradient layer.
class CILinearGradientFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIVectorRef p0 = inputVector("inputPoint0"), p1 = inputVector("inputPoint1");
    if (!p0 || !p1) return {};
    return CIImage(std::make_shared<LinearGradientNode>(p0->CGPointValue(), p1->CGPointValue(),
                                                        inputColor("inputColor0"), inputColor("inputColor1")));
  }
};

// A nil centre yields no image; a nil radius reads as 0.
class CIRadialGradientFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIVectorRef centre = inputVector(kCIInputCenterKey);
    if (!centre) return {};
    return CIImage(std::make_shared<RadialGradientNode>(centre->CGPointValue(), inputDouble("inputRadius0"),
                                                        inputDouble("inputRadius1"), inputColor("inputColor0"),
                                                        inputColor("inputColor1")));
  }
};

class CIRandomGeneratorFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override { return CIImage(std::make_shared<RandomNode>()); }
};

// A nil centre yields no image.
class CICheckerboardGeneratorFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIVectorRef centre = inputVector(kCIInputCenterKey);
    if (!centre) return {};
    return CIImage(std::make_shared<CheckerboardNode>(centre->CGPointValue(), inputDouble(kCIInputWidthKey),
                                                      inputDouble("inputSharpness"), inputColor("inputColor0"),
                                                      inputColor("inputColor1")));
  }
};

Value color(double r, double g, double b, double a) { return CIColor::colorWithRed(r, g, b, a); }
Value point(double x, double y) { return CIVector::vectorWithX(x, y); }

}  // namespace

void registerGeneratorBuiltins() {
  registerBuiltin<CIConstantColorGeneratorFilter>(
      "CIConstantColorGenerator", "Constant Color", {kCICategoryGenerator, kCICategoryStillImage},
      {colorInput(kCIInputColorKey, color(1, 0, 0, 1), {}, "Color", "The color to generate.")});

  registerBuiltin<CILinearGradientFilter>(
      "CILinearGradient", "Linear Gradient", {kCICategoryGradient, kCICategoryStillImage},
      {vectorInput("inputPoint0", kCIAttributeTypePosition, {}, {}, "Point 0",
                   "The starting position of the gradient -- where the first color begins."),
       vectorInput("inputPoint1", kCIAttributeTypePosition, {}, {}, "Point 1",
                   "The ending position of the gradient -- where the second color begins."),
       colorInput("inputColor0", color(1, 1, 1, 1), {}, "Color 1", "The first color to use in the gradient."),
       colorInput("inputColor1", color(0, 0, 0, 1), {}, "Color 2", "The second color to use in the gradient.")});

  registerBuiltin<CIRadialGradientFilter>(
      "CIRadialGradient", "Radial Gradient", {kCICategoryGradient, kCICategoryStillImage},
      {vectorInput(kCIInputCenterKey, kCIAttributeTypePosition, point(150, 150), {}, "Center",
                   "The center of the effect as x and y pixel coordinates."),
       numberInput("inputRadius0", kCIAttributeTypeDistance, 5.0, {}, 0.0, {}, 0.0, 800.0, "Radius 1",
                   "The radius of the starting circle to use in the gradient."),
       numberInput("inputRadius1", kCIAttributeTypeDistance, 100.0, {}, 0.0, {}, 0.0, 800.0, "Radius 2",
                   "The radius of the ending circle to use in the gradient."),
       colorInput("inputColor0", color(1, 1, 1, 1), {}, "Color 1", "The first color to use in the gradient."),
       colorInput("inputColor1", color(0, 0, 0, 1), {}, "Color 2", "The second color to use in the gradient.")});

  registerBuiltin<CIRandomGeneratorFilter>("CIRandomGenerator", "Random Generator",
                                           {kCICategoryGenerator, kCICategoryStillImage}, {});

  registerBuiltin<CICheckerboardGeneratorFilter>(
      "CICheckerboardGenerator", "Checkerboard", {kCICategoryGenerator, kCICategoryStillImage},
      {vectorInput(kCIInputCenterKey, kCIAttributeTypePosition, point(150, 150), {}, "Center",
                   "The center of the effect as x and y pixel coordinates."),
       colorInput("inputColor0", color(1, 1, 1, 1), {}, "Color 1", "A color to use for the first set of squares."),
       colorInput("inputColor1", color(0, 0, 0, 1), {}, "Color 2", "A color to use for the second set of squares."),
       numberInput(kCIInputWidthKey, kCIAttributeTypeDistance, 80.0, 80.0, 0.0, {}, 0.0, 800.0, "Width",
                   "The width of the squares in the pattern."),
       numberInput("inputSharpness", kCIAttributeTypeScalar, 1.0, 1.0, 0.0, {}, 0.0, 1.0, "Sharpness",
                   "The sharpness of the edges in the pattern. The smaller the value, the more blurry the "
                   "pattern.")});
}
