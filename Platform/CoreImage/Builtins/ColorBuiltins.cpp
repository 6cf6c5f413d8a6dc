// The colour built-ins: CIColorMatrix, CIColorControls, CIExposureAdjust, CIGammaAdjust,
// CIWhitePointAdjust and CIMaskToAlpha. All are pointwise: the output's extent is the input's
// (an infinite input stays infinite), and no pixel outside it is produced.
//
// Formulas work on working-space values (linear light, or the encoded values when the render
// has colour management off). Where a formula is stated on colours, it runs on un-premultiplied
// colour (c / alpha; a pixel of zero alpha has colour 0) and the result is premultiplied again.
// The affine adjustments (matrix, controls, exposure) all become one ColorMatrixNode, so that
// chains of them fold into a single pass.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "CoreImage/Builtins/BuiltinFilter.h"
#include "CoreImage/Builtins/ColorMatrixNode.h"
#include "CoreImage/Builtins/ColorNodeSupport.h"
#include "CoreImage/Builtins/Float4.h"
#include "CoreImage/ColorSpace.h"

using namespace qv::builtins;

// Float8 values only pass between inline functions of this file (see Float4.h).
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wpsabi"
#endif

// ---------------------------------------------------------------------------------------------
// ColorMatrix

ColorMatrix ColorMatrix::identity() {
  ColorMatrix c;
  for (int i = 0; i < 4; ++i) c.m[i][i] = 1.0;
  return c;
}

ColorMatrix ColorMatrix::fromRows(const std::array<double, 4>& r, const std::array<double, 4>& g,
                                  const std::array<double, 4>& b, const std::array<double, 4>& a,
                                  const std::array<double, 4>& bias) {
  ColorMatrix c;
  const std::array<const std::array<double, 4>*, 4> rows{&r, &g, &b, &a};
  for (int i = 0; i < 4; ++i) {
    for (int j = 0; j < 4; ++j) c.m[i][j] = (*rows[i])[j];
    c.m[i][4] = bias[i];
  }
  return c;
}

bool ColorMatrix::isIdentity() const { return *this == identity(); }

ColorMatrix ColorMatrix::after(const ColorMatrix& inner) const {
  ColorMatrix c;
  for (int i = 0; i < 4; ++i) {
    for (int j = 0; j < 5; ++j) {
      double v = j == 4 ? m[i][4] : 0.0;
      for (int k = 0; k < 4; ++k) v += m[i][k] * inner.m[k][j];
      c.m[i][j] = v;
    }
  }
  return c;
}

// ---------------------------------------------------------------------------------------------
// ColorMatrixNode
//
// Per pixel: un-premultiply, out = M·(r, g, b, a) + bias, alpha clamped to [0, 1] (coverage has
// no meaning outside it; colour is left unclamped for extended range), premultiply.

ColorMatrixNode::ColorMatrixNode(CIImage input, const ColorMatrix& matrix)
    : ImageNode(input.extent(), {input}), matrix_(matrix) {
  for (int i = 0; i < 4; ++i) {
    for (int j = 0; j < 5; ++j) coefficients_[i * 5 + j] = static_cast<float>(matrix.m[i][j]);
  }
  const auto& m = matrix.m;
  premultipliedLinear_ = m[3][0] == 0 && m[3][1] == 0 && m[3][2] == 0 && m[3][3] >= 0 && m[3][3] <= 1 &&
                         m[3][4] == 0 && m[0][3] == 0 && m[1][3] == 0 && m[2][3] == 0 && m[0][4] == 0 &&
                         m[1][4] == 0 && m[2][4] == 0;
}

bool ColorMatrixNode::canFold(const ColorMatrix& outer, const ColorMatrix& inner) {
  // The inner node's alpha must stay a positive multiple of the input alpha, never clamped, so
  // that un-premultiplying its output recovers its colour exactly.
  const auto& a = inner.m[3];
  if (a[0] != 0 || a[1] != 0 || a[2] != 0 || a[4] != 0 || !(a[3] > 0 && a[3] <= 1)) return false;
  // Where the input is transparent the inner node outputs nothing, so the outer node sees zero
  // colour; the folded matrix sees the inner colour bias instead. Both agree only when the outer
  // matrix maps that bias to nothing.
  for (int i = 0; i < 4; ++i) {
    const double leak = outer.m[i][0] * inner.m[0][4] + outer.m[i][1] * inner.m[1][4] + outer.m[i][2] * inner.m[2][4];
    if (leak != 0) return false;
  }
  return true;
}

CIImage ColorMatrixNode::imageByApplyingMatrix(const CIImage& input, const ColorMatrix& matrix) {
  if (!input) return {};
  if (matrix.isIdentity()) return input;
  if (auto inner = std::dynamic_pointer_cast<const ColorMatrixNode>(input.node())) {
    if (canFold(matrix, inner->matrix())) {
      return imageByApplyingMatrix(inner->inputs().front(), matrix.after(inner->matrix()));
    }
  }
  return CIImage(std::make_shared<ColorMatrixNode>(input, matrix));
}

namespace {

// One matrix's coefficients in every lane of V, splatted once per row (not once per group,
// where the output's stores, which may alias the coefficients, keep them from staying in
// registers). `c` holds the 20 coefficients of the one-pixel formula.
template <class V>
struct MatrixLanes {
  // Linear in premultiplied space: c' = k·M3·c, a' = k·a (the products c[i]·k as one pixel
  // computes them).
  V linear[9];
  V k;
  // Otherwise the four rows of five.
  V rows[20];
  MatrixLanes(const float* c, bool premultipliedLinear) {
    if (premultipliedLinear) {
      const float kk = c[18];
      for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) linear[3 * i + j] = splat<V>(c[5 * i + j] * kk);
      k = splat<V>(kk);
    } else {
      for (int i = 0; i < 20; ++i) rows[i] = splat<V>(c[i]);
    }
  }
};

// The matrix on one group of pixels (V = Float4: four, Float8: eight) as component vectors, with
// the operations of the one-pixel formula in the same order, so the bits are those of one pixel
// at a time. `O` may be `P`.
template <bool kLinear, class V>
[[gnu::always_inline]] inline void applyMatrixToComponents(const MatrixLanes<V>& m, const V P[4], V O[4]) {
  const V zero = splat<V>(0), one = splat<V>(1);
  if constexpr (kLinear) {
    const V* l = m.linear;
    const V r = P[0], g = P[1], b = P[2], a = P[3];
    O[0] = l[0] * r + l[1] * g + l[2] * b;
    O[1] = l[3] * r + l[4] * g + l[5] * b;
    O[2] = l[6] * r + l[7] * g + l[8] * b;
    O[3] = clamp01(m.k * a);
  } else {
    const V a = P[3];
    const V inv = a > zero ? one / a : zero;
    const V r = P[0] * inv, g = P[1] * inv, b = P[2] * inv, ua = a > zero ? a : zero;
    V rows[4];
    for (int k = 0; k < 4; ++k) {
      const V* c = m.rows + 5 * k;
      rows[k] = c[0] * r + c[1] * g + c[2] * b + c[3] * ua + c[4];
    }
    const V ao = clamp01(rows[3]);
    O[0] = rows[0] * ao;
    O[1] = rows[1] * ao;
    O[2] = rows[2] * ao;
    O[3] = ao;
  }
}

// How many matrices a row runs and of which kind: the first's, then the second's (none, linear
// in premultiplied space, or general).
enum class SecondMatrix { none, linear, general };

// One or two matrices on one group of pixels: loaded once, the first matrix then the second in
// registers, stored once.
template <bool kLinear, SecondMatrix kSecond, class V>
[[gnu::always_inline]] inline void applyMatricesToGroup(const MatrixLanes<V>& first, const MatrixLanes<V>* second,
                                                         const float* in, float* out) {
  V P[4];
  loadPixels(in, P);
  applyMatrixToComponents<kLinear>(first, P, P);
  if constexpr (kSecond == SecondMatrix::linear) applyMatrixToComponents<true>(*second, P, P);
  if constexpr (kSecond == SecondMatrix::general) applyMatrixToComponents<false>(*second, P, P);
  storePixels(P, out);
}

// Eight pixels at a time, then four; a last group of fewer than four is padded with transparent
// pixels. `out` may be `in`.
template <bool kLinear, SecondMatrix kSecond>
[[gnu::always_inline]] inline void applyMatricesRowOf(const float* c, const float* second, const float* s, float* o,
                                                       std::size_t n) {
  // Without a second matrix, m2 holds the first's coefficients and is not used.
  constexpr bool kSecondLinear = kSecond == SecondMatrix::linear;
  std::size_t i = 0;
  if (n >= 8) {
    const MatrixLanes<Float8> m1(c, kLinear);
    const MatrixLanes<Float8> m2(second ? second : c, kSecondLinear);
    for (; i + 8 <= n; i += 8) applyMatricesToGroup<kLinear, kSecond>(m1, &m2, s + 4 * i, o + 4 * i);
  }
  if (i == n) return;
  const MatrixLanes<Float4> m1(c, kLinear);
  const MatrixLanes<Float4> m2(second ? second : c, kSecondLinear);
  for (; i + 4 <= n; i += 4) applyMatricesToGroup<kLinear, kSecond>(m1, &m2, s + 4 * i, o + 4 * i);
  if (i < n) {
    float padded[16] = {}, result[16];
    std::copy(s + 4 * i, s + 4 * n, padded);
    applyMatricesToGroup<kLinear, kSecond>(m1, &m2, padded, result);
    std::copy(result, result + 4 * (n - i), o + 4 * i);
  }
}

// `c` is the first matrix's 20 coefficients, `second` the second's or null.
QV_LANE_CLONES void applyMatricesRow(const float* c, bool linear, const float* second, bool secondLinear,
                                     const float* s, float* o, std::size_t n) {
  // Every combination spelled out here, not in a helper lambda: a lambda's body would be
  // compiled for the baseline only, outside this function's clones.
  if (!second) {
    if (linear) return applyMatricesRowOf<true, SecondMatrix::none>(c, second, s, o, n);
    return applyMatricesRowOf<false, SecondMatrix::none>(c, second, s, o, n);
  }
  if (secondLinear) {
    if (linear) return applyMatricesRowOf<true, SecondMatrix::linear>(c, second, s, o, n);
    return applyMatricesRowOf<false, SecondMatrix::linear>(c, second, s, o, n);
  }
  if (linear) return applyMatricesRowOf<true, SecondMatrix::general>(c, second, s, o, n);
  return applyMatricesRowOf<false, SecondMatrix::general>(c, second, s, o, n);
}

}  // namespace

void ColorMatrixNode::applyRow(const float* s, float* o, std::size_t n) const {
  applyMatricesRow(coefficients_.data(), premultipliedLinear_, nullptr, false, s, o, n);
}

void ColorMatrixNode::applyRowThen(const ColorMatrixNode& outer, const float* s, float* o, std::size_t n) const {
  applyMatricesRow(coefficients_.data(), premultipliedLinear_, outer.coefficients_.data(), outer.premultipliedLinear_,
                   s, o, n);
}

void ColorMatrixNode::render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo&) const {
  std::vector<float> scratch;
  forEachRowInExtent(out, extent(), [&](float* o, std::int64_t x0, std::int64_t y, std::size_t n) {
    applyRow(inputRow(in[0], x0, y, n, scratch), o, n);
  });
}

namespace {

// ---------------------------------------------------------------------------------------------
// Other pointwise nodes

// Raises un-premultiplied colour to a power; negative (extended-range) components keep their
// sign: -|c|^p, so the curve is odd-symmetric and never produces NaN.
class GammaNode final : public ImageNode {
 public:
  GammaNode(CIImage input, float power) : ImageNode(input.extent(), {input}), power_(power) {}
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo&) const override {
    std::vector<float> scratch;
    forEachRowInExtent(out, extent(), [&](float* o, std::int64_t x0, std::int64_t y, std::size_t n) {
      const float* s = inputRow(in[0], x0, y, n, scratch);
      for (std::size_t i = 0; i < n; ++i) {
        const float a = s[4 * i + 3];
        if (!(a > 0)) continue;
        for (int ch = 0; ch < 3; ++ch) {
          const float v = s[4 * i + ch] / a;
          o[4 * i + ch] = std::copysign(std::pow(std::fabs(v), power_), v) * a;
        }
        o[4 * i + 3] = a;
      }
    });
  }
  std::string name() const override { return "CIGammaAdjust"; }

 private:
  float power_;
};

// Divides each colour channel by the working-space value of the white-point colour, so that
// colour maps to white. Division commutes with premultiplication, so it runs on premultiplied
// values directly. A channel whose white-point component is zero or negative has no finite scale
// that maps it to white and is left unchanged. The colour's alpha plays no part.
class WhitePointNode final : public ImageNode {
 public:
  WhitePointNode(CIImage input, CIColorRef color) : ImageNode(input.extent(), {input}), color_(std::move(color)) {}
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const override {
    std::array<float, 3> scale{};
    const std::array<double, 3> components{color_->red(), color_->green(), color_->blue()};
    for (int ch = 0; ch < 3; ++ch) {
      const float v = static_cast<float>(components[ch]);
      const float w = info.colorManaged ? srgbToLinear(v) : v;
      scale[ch] = w > 0 ? 1.0f / w : 1.0f;
    }
    std::vector<float> scratch;
    forEachRowInExtent(out, extent(), [&](float* o, std::int64_t x0, std::int64_t y, std::size_t n) {
      const float* s = inputRow(in[0], x0, y, n, scratch);
      for (std::size_t i = 0; i < n; ++i) {
        o[4 * i] = s[4 * i] * scale[0];
        o[4 * i + 1] = s[4 * i + 1] * scale[1];
        o[4 * i + 2] = s[4 * i + 2] * scale[2];
        o[4 * i + 3] = s[4 * i + 3];
      }
    });
  }
  std::string name() const override { return "CIWhitePointAdjust"; }
  bool writesEveryPixel() const override { return centresCoverExtent(extent()); }

 private:
  CIColorRef color_;
};

// Alpha := the Rec. 709 luminance of the premultiplied colour (clamped to [0, 1]), colour :=
// white; premultiplied, every component of the output is that luminance. Reading premultiplied
// colour means that a transparent or half-transparent white reads as 0 or 0.5.
class MaskToAlphaNode final : public ImageNode {
 public:
  explicit MaskToAlphaNode(CIImage input) : ImageNode(input.extent(), {input}) {}
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo&) const override {
    std::vector<float> scratch;
    forEachRowInExtent(out, extent(), [&](float* o, std::int64_t x0, std::int64_t y, std::size_t n) {
      const float* s = inputRow(in[0], x0, y, n, scratch);
      for (std::size_t i = 0; i < n; ++i) {
        const float m = std::clamp(kLumaR * s[4 * i] + kLumaG * s[4 * i + 1] + kLumaB * s[4 * i + 2], 0.0f, 1.0f);
        o[4 * i] = o[4 * i + 1] = o[4 * i + 2] = o[4 * i + 3] = m;
      }
    });
  }
  std::string name() const override { return "CIMaskToAlpha"; }
  bool writesEveryPixel() const override { return centresCoverExtent(extent()); }
};

// ---------------------------------------------------------------------------------------------
// Filters

// A nil vector reads as zeros, as any message to nil answers 0.
std::array<double, 4> components(const CIVectorRef& v) {
  if (!v) return {0, 0, 0, 0};
  return {v->X(), v->Y(), v->Z(), v->W()};
}

class CIColorMatrixFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIImage image = inputImageForKey(kCIInputImageKey);
    if (!image) return {};
    const ColorMatrix m = ColorMatrix::fromRows(
        components(inputVector("inputRVector")), components(inputVector("inputGVector")),
        components(inputVector("inputBVector")), components(inputVector("inputAVector")),
        components(inputVector("inputBiasVector")));
    return ColorMatrixNode::imageByApplyingMatrix(image, m);
  }
};

// Saturation about Rec. 709 luma, then brightness added, then contrast about 0.5, all on
// un-premultiplied colour; alpha unchanged. Each step is affine, so the whole is one matrix:
// rgb' = contrast·(S·rgb + brightness) + 0.5·(1 − contrast).
class CIColorControlsFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIImage image = inputImageForKey(kCIInputImageKey);
    if (!image) return {};
    const double s = inputDouble(kCIInputSaturationKey);
    const double br = inputDouble(kCIInputBrightnessKey);
    const double ct = inputDouble(kCIInputContrastKey);
    const std::array<double, 3> luma{kLumaR, kLumaG, kLumaB};
    ColorMatrix m;
    for (int i = 0; i < 3; ++i) {
      for (int j = 0; j < 3; ++j) m.m[i][j] = ct * ((i == j ? s : 0.0) + (1.0 - s) * luma[j]);
      m.m[i][4] = ct * br + 0.5 * (1.0 - ct);
    }
    m.m[3][3] = 1.0;
    return ColorMatrixNode::imageByApplyingMatrix(image, m);
  }
};

// Colour multiplied by 2^EV; on premultiplied and un-premultiplied values alike.
class CIExposureAdjustFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIImage image = inputImageForKey(kCIInputImageKey);
    if (!image) return {};
    const double k = std::exp2(inputDouble(kCIInputEVKey));
    ColorMatrix m = ColorMatrix::identity();
    for (int i = 0; i < 3; ++i) m.m[i][i] = k;
    return ColorMatrixNode::imageByApplyingMatrix(image, m);
  }
};

class CIGammaAdjustFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIImage image = inputImageForKey(kCIInputImageKey);
    if (!image) return {};
    const double power = inputDouble("inputPower");
    if (power == 1.0) return image;
    return CIImage(std::make_shared<GammaNode>(image, static_cast<float>(power)));
  }
};

// A nil white point leaves the image unchanged, as does white itself.
class CIWhitePointAdjustFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIImage image = inputImageForKey(kCIInputImageKey);
    if (!image) return {};
    const CIColorRef color = inputColor(kCIInputColorKey);
    if (!color || (color->red() == 1.0 && color->green() == 1.0 && color->blue() == 1.0)) return image;
    return CIImage(std::make_shared<WhitePointNode>(image, color));
  }
};

class CIMaskToAlphaFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIImage image = inputImageForKey(kCIInputImageKey);
    if (!image) return {};
    return CIImage(std::make_shared<MaskToAlphaNode>(image));
  }
};

Value vec4(double x, double y, double z, double w) { return CIVector::vectorWithX(x, y, z, w); }

}  // namespace

void registerColorBuiltins() {
  const std::vector<std::string> adjustment{kCICategoryColorAdjustment, kCICategoryStillImage};
  const std::vector<std::string> adjustmentHDR{kCICategoryColorAdjustment, kCICategoryStillImage,
                                               kCICategoryHighDynamicRange};

  registerBuiltin<CIColorMatrixFilter>(
      "CIColorMatrix", "Color Matrix", adjustmentHDR,
      {imageInput(kCIInputImageKey, "Image", "The image to use as an input for the effect."),
       vectorInput("inputRVector", "", vec4(1, 0, 0, 0), vec4(1, 0, 0, 0), "Red Vector",
                   "The amount of red to multiply the source color values by."),
       vectorInput("inputGVector", "", vec4(0, 1, 0, 0), vec4(0, 1, 0, 0), "Green Vector",
                   "The amount of green to multiply the source color values by."),
       vectorInput("inputBVector", "", vec4(0, 0, 1, 0), vec4(0, 0, 1, 0), "Blue Vector",
                   "The amount of blue to multiply the source color values by."),
       vectorInput("inputAVector", "", vec4(0, 0, 0, 1), vec4(0, 0, 0, 1), "Alpha Vector",
                   "The amount of alpha to multiply the source color values by."),
       vectorInput("inputBiasVector", "", vec4(0, 0, 0, 0), vec4(0, 0, 0, 0), "Bias Vector",
                   "A vector that's added to each color component.")});

  registerBuiltin<CIColorControlsFilter>(
      "CIColorControls", "Color Controls", adjustment,
      {imageInput(kCIInputImageKey, "Image", "The image to use as an input for the effect."),
       numberInput(kCIInputSaturationKey, kCIAttributeTypeScalar, 1.0, 1.0, 0.0, {}, 0.0, 2.0, "Saturation",
                   "The amount of saturation to apply. The larger the value, the more saturated the result."),
       numberInput(kCIInputBrightnessKey, kCIAttributeTypeScalar, 0.0, 0.0, -1.0, {}, -1.0, 1.0, "Brightness",
                   "The amount of brightness to apply. The larger the value, the brighter the result."),
       numberInput(kCIInputContrastKey, kCIAttributeTypeScalar, 1.0, 1.0, 0.0, {}, 0.25, 4.0, "Contrast",
                   "The amount of contrast to apply. The larger the value, the more contrast in the result.")});

  registerBuiltin<CIExposureAdjustFilter>(
      "CIExposureAdjust", "Exposure Adjust", adjustmentHDR,
      {imageInput(kCIInputImageKey, "Image", "The image to use as an input for the effect."),
       numberInput(kCIInputEVKey, kCIAttributeTypeScalar, 0.0, 0.0, {}, {}, -10.0, 10.0, "EV",
                   "The amount to adjust the exposure of the image by. The larger the value, the brighter "
                   "the exposure.")});

  registerBuiltin<CIGammaAdjustFilter>(
      "CIGammaAdjust", "Gamma Adjust", adjustmentHDR,
      {imageInput(kCIInputImageKey, "Image", "The image to use as an input for the effect."),
       numberInput("inputPower", kCIAttributeTypeScalar, 1.0, 1.0, {}, {}, 0.25, 4.0, "Power",
                   "A gamma value to use to correct image brightness. The larger the value, the darker the "
                   "result.")});

  registerBuiltin<CIWhitePointAdjustFilter>(
      "CIWhitePointAdjust", "White Point Adjust", adjustment,
      {imageInput(kCIInputImageKey, "Image", "The image to use as an input for the effect."),
       colorInput(kCIInputColorKey, CIColor::colorWithRed(1, 1, 1, 1), CIColor::colorWithRed(1, 1, 1, 1), "Color",
                  "A color to use as the white point.")});

  registerBuiltin<CIMaskToAlphaFilter>(
      "CIMaskToAlpha", "Mask to Alpha", {kCICategoryColorEffect, kCICategoryStillImage},
      {imageInput(kCIInputImageKey, "Image", "The image to use as an input for the effect.")});
}
