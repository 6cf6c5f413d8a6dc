// The composite built-ins: the thirty operations of the composite category and CIBlendWithMask.
//
// Every composite takes inputImage (the source, s) and inputBackgroundImage (the backdrop, b);
// without either the output is nil. The output's extent is the union of the two extents, so an
// infinite backdrop stays infinite. Lower-case letters are premultiplied values, capitals
// un-premultiplied colour (C = c / alpha, 0 where alpha is 0).
//
// - Porter-Duff operations (and the per-component maximum, minimum and product) act on the four
//   premultiplied components and do not clamp colour, so extended-range values pass through;
//   addition clamps only its alpha to 1.
// - Blend modes use the premultiplied closed form of the general blending formula:
//     c_o = c_s·(1 − α_b) + c_b·(1 − α_s) + α_s·α_b·B(Cb, Cs),  α_o = α_s + α_b − α_s·α_b,
//   with Cs and Cb clamped to [0, 1] before mixing and B's result clamped to [0, 1].
//   Subtract is Cb − Cs (the backdrop minus the source); divide is Cb / Cs, where a zero source
//   gives 1 over a backdrop with colour and 0 over black (the clamped limit).
//   Hue, saturation, colour and luminosity use the luminance weights 0.3, 0.59, 0.11.
#include <algorithm>
#include <cmath>

#include "CoreImage/Builtins/BuiltinFilter.h"
#include "CoreImage/Builtins/CompositeOperations.h"
#include "CoreImage/Builtins/ColorNodeSupport.h"

using namespace qv::builtins;

namespace {

// ---------------------------------------------------------------------------------------------
// Per-pixel operations. Each is a functor (s, b, o) over one pixel's four components.

struct Addition {
  static void apply(const float* s, const float* b, float* o) {
    for (int c = 0; c < 3; ++c) o[c] = s[c] + b[c];
    o[3] = std::min(s[3] + b[3], 1.0f);
  }
};
struct SourceOver {
  static void apply(const float* s, const float* b, float* o) {
    const float k = 1.0f - s[3];
    for (int c = 0; c < 4; ++c) o[c] = s[c] + b[c] * k;
  }
};
struct SourceIn {
  static void apply(const float* s, const float* b, float* o) {
    for (int c = 0; c < 4; ++c) o[c] = s[c] * b[3];
  }
};
struct SourceOut {
  static void apply(const float* s, const float* b, float* o) {
    const float k = 1.0f - b[3];
    for (int c = 0; c < 4; ++c) o[c] = s[c] * k;
  }
};
struct SourceAtop {
  static void apply(const float* s, const float* b, float* o) {
    const float k = 1.0f - s[3];
    for (int c = 0; c < 3; ++c) o[c] = s[c] * b[3] + b[c] * k;
    o[3] = b[3];
  }
};
struct Maximum {
  static void apply(const float* s, const float* b, float* o) {
    for (int c = 0; c < 4; ++c) o[c] = std::max(s[c], b[c]);
  }
};
struct Minimum {
  static void apply(const float* s, const float* b, float* o) {
    for (int c = 0; c < 4; ++c) o[c] = std::min(s[c], b[c]);
  }
};
struct MultiplyCompositing {
  static void apply(const float* s, const float* b, float* o) {
    for (int c = 0; c < 4; ++c) o[c] = s[c] * b[c];
  }
};

// Separable blend functions B(Cb, Cs) on [0, 1] values.
inline float screen(float cb, float cs) { return cb + cs - cb * cs; }
inline float colorDodge(float cb, float cs) {
  if (cb <= 0) return 0;
  if (cs >= 1) return 1;
  return std::min(1.0f, cb / (1 - cs));
}
inline float colorBurn(float cb, float cs) {
  if (cb >= 1) return 1;
  if (cs <= 0) return 0;
  return 1 - std::min(1.0f, (1 - cb) / cs);
}
inline float hardLight(float cb, float cs) { return cs <= 0.5f ? cb * 2 * cs : screen(cb, 2 * cs - 1); }

struct Multiply { static float blend(float cb, float cs) { return cb * cs; } };
struct Screen { static float blend(float cb, float cs) { return screen(cb, cs); } };
struct Overlay { static float blend(float cb, float cs) { return hardLight(cs, cb); } };
struct Darken { static float blend(float cb, float cs) { return std::min(cb, cs); } };
struct Lighten { static float blend(float cb, float cs) { return std::max(cb, cs); } };
struct ColorDodge { static float blend(float cb, float cs) { return colorDodge(cb, cs); } };
struct ColorBurn { static float blend(float cb, float cs) { return colorBurn(cb, cs); } };
struct HardLight { static float blend(float cb, float cs) { return hardLight(cb, cs); } };
struct SoftLight {
  static float blend(float cb, float cs) {
    if (cs <= 0.5f) return cb - (1 - 2 * cs) * cb * (1 - cb);
    const float d = cb <= 0.25f ? ((16 * cb - 12) * cb + 4) * cb : std::sqrt(cb);
    return cb + (2 * cs - 1) * (d - cb);
  }
};
struct Difference { static float blend(float cb, float cs) { return std::fabs(cb - cs); } };
struct Exclusion { static float blend(float cb, float cs) { return cb + cs - 2 * cb * cs; } };
struct Divide {
  static float blend(float cb, float cs) {
    if (cs <= 0) return cb > 0 ? 1.0f : 0.0f;
    return cb / cs;
  }
};
struct Subtract { static float blend(float cb, float cs) { return cb - cs; } };
struct LinearBurn { static float blend(float cb, float cs) { return cb + cs - 1; } };
struct LinearDodge { static float blend(float cb, float cs) { return cb + cs; } };
struct LinearLight { static float blend(float cb, float cs) { return cb + 2 * cs - 1; } };
struct PinLight {
  static float blend(float cb, float cs) { return cs < 0.5f ? std::min(cb, 2 * cs) : std::max(cb, 2 * cs - 1); }
};
struct VividLight {
  static float blend(float cb, float cs) { return cs <= 0.5f ? colorBurn(cb, 2 * cs) : colorDodge(cb, 2 * cs - 1); }
};

// Non-separable helpers on [0, 1] colours.
struct RGB {
  float v[3];
};
inline float lum(const RGB& c) { return 0.3f * c.v[0] + 0.59f * c.v[1] + 0.11f * c.v[2]; }
inline RGB clipColor(RGB c) {
  const float l = lum(c);
  const float n = std::min({c.v[0], c.v[1], c.v[2]});
  const float x = std::max({c.v[0], c.v[1], c.v[2]});
  if (n < 0 && l - n > 0) {
    for (float& v : c.v) v = l + (v - l) * l / (l - n);
  }
  if (x > 1 && x - l > 0) {
    for (float& v : c.v) v = l + (v - l) * (1 - l) / (x - l);
  }
  return c;
}
inline RGB setLum(RGB c, float l) {
  const float d = l - lum(c);
  for (float& v : c.v) v += d;
  return clipColor(c);
}
inline float sat(const RGB& c) {
  return std::max({c.v[0], c.v[1], c.v[2]}) - std::min({c.v[0], c.v[1], c.v[2]});
}
inline RGB setSat(RGB c, float s) {
  int mx = 0, mn = 0;
  for (int i = 1; i < 3; ++i) {
    if (c.v[i] > c.v[mx]) mx = i;
    if (c.v[i] < c.v[mn]) mn = i;
  }
  if (mx == mn) return RGB{{0, 0, 0}};
  const int mid = 3 - mx - mn;
  RGB r{};
  const float range = c.v[mx] - c.v[mn];
  if (range > 0) {
    r.v[mid] = (c.v[mid] - c.v[mn]) * s / range;
    r.v[mx] = s;
  }
  r.v[mn] = 0;
  return r;
}

struct Hue { static RGB blend(const RGB& cb, const RGB& cs) { return setLum(setSat(cs, sat(cb)), lum(cb)); } };
struct Saturation { static RGB blend(const RGB& cb, const RGB& cs) { return setLum(setSat(cb, sat(cs)), lum(cb)); } };
struct Color { static RGB blend(const RGB& cb, const RGB& cs) { return setLum(cs, lum(cb)); } };
struct Luminosity { static RGB blend(const RGB& cb, const RGB& cs) { return setLum(cb, lum(cs)); } };

inline float clamp01(float v) { return std::clamp(v, 0.0f, 1.0f); }

// The general formula around a separable B.
template <class B>
struct SeparableBlend {
  static void apply(const float* s, const float* b, float* o) {
    const float as = s[3], ab = b[3];
    const float is = as > 0 ? 1.0f / as : 0.0f, ib = ab > 0 ? 1.0f / ab : 0.0f;
    const float both = as * ab;
    for (int c = 0; c < 3; ++c) {
      const float m = clamp01(B::blend(clamp01(b[c] * ib), clamp01(s[c] * is)));
      o[c] = s[c] * (1 - ab) + b[c] * (1 - as) + both * m;
    }
    o[3] = as + ab - both;
  }
};

// The general formula around a non-separable B.
template <class B>
struct NonSeparableBlend {
  static void apply(const float* s, const float* b, float* o) {
    const float as = s[3], ab = b[3];
    const float is = as > 0 ? 1.0f / as : 0.0f, ib = ab > 0 ? 1.0f / ab : 0.0f;
    const float both = as * ab;
    const RGB cs{{clamp01(s[0] * is), clamp01(s[1] * is), clamp01(s[2] * is)}};
    const RGB cb{{clamp01(b[0] * ib), clamp01(b[1] * ib), clamp01(b[2] * ib)}};
    const RGB m = B::blend(cb, cs);
    for (int c = 0; c < 3; ++c) o[c] = s[c] * (1 - ab) + b[c] * (1 - as) + both * clamp01(m.v[c]);
    o[3] = as + ab - both;
  }
};

template <class Op>
void compositeRow(const float* s, const float* b, float* o, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) Op::apply(s + 4 * i, b + 4 * i, o + 4 * i);
}

// ---------------------------------------------------------------------------------------------
// The table of the thirty operations.

constexpr bool kHDR = true;

const CompositeOperation kOperations[] = {
    {"CIAdditionCompositing", "Addition", kHDR, compositeRow<Addition>},
    {"CIColorBlendMode", "Color Blend Mode", !kHDR, compositeRow<NonSeparableBlend<Color>>},
    {"CIColorBurnBlendMode", "Color Burn Blend Mode", !kHDR, compositeRow<SeparableBlend<ColorBurn>>},
    {"CIColorDodgeBlendMode", "Color Dodge Blend Mode", !kHDR, compositeRow<SeparableBlend<ColorDodge>>},
    {"CIDarkenBlendMode", "Darken Blend Mode", !kHDR, compositeRow<SeparableBlend<Darken>>},
    {"CIDifferenceBlendMode", "Difference Blend Mode", !kHDR, compositeRow<SeparableBlend<Difference>>},
    {"CIDivideBlendMode", "Divide Blend Mode", !kHDR, compositeRow<SeparableBlend<Divide>>},
    {"CIExclusionBlendMode", "Exclusion Blend Mode", !kHDR, compositeRow<SeparableBlend<Exclusion>>},
    {"CIHardLightBlendMode", "Hard Light Blend Mode", !kHDR, compositeRow<SeparableBlend<HardLight>>},
    {"CIHueBlendMode", "Hue Blend Mode", !kHDR, compositeRow<NonSeparableBlend<Hue>>},
    {"CILightenBlendMode", "Lighten Blend Mode", !kHDR, compositeRow<SeparableBlend<Lighten>>},
    {"CILinearBurnBlendMode", "Linear Burn Blend Mode", !kHDR, compositeRow<SeparableBlend<LinearBurn>>},
    {"CILinearDodgeBlendMode", "Linear Dodge Blend Mode", !kHDR, compositeRow<SeparableBlend<LinearDodge>>},
    {"CILinearLightBlendMode", "Linear Light Blend Mode", !kHDR, compositeRow<SeparableBlend<LinearLight>>},
    {"CILuminosityBlendMode", "Luminosity Blend Mode", !kHDR, compositeRow<NonSeparableBlend<Luminosity>>},
    {"CIMaximumCompositing", "Maximum", kHDR, compositeRow<Maximum>},
    {"CIMinimumCompositing", "Minimum", kHDR, compositeRow<Minimum>},
    {"CIMultiplyBlendMode", "Multiply Blend Mode", !kHDR, compositeRow<SeparableBlend<Multiply>>},
    {"CIMultiplyCompositing", "Multiply", kHDR, compositeRow<MultiplyCompositing>},
    {"CIOverlayBlendMode", "Overlay Blend Mode", !kHDR, compositeRow<SeparableBlend<Overlay>>},
    {"CIPinLightBlendMode", "Pin Light Blend Mode", !kHDR, compositeRow<SeparableBlend<PinLight>>},
    {"CISaturationBlendMode", "Saturation Blend Mode", !kHDR, compositeRow<NonSeparableBlend<Saturation>>},
    {"CIScreenBlendMode", "Screen Blend Mode", !kHDR, compositeRow<SeparableBlend<Screen>>},
    {"CISoftLightBlendMode", "Soft Light Blend Mode", !kHDR, compositeRow<SeparableBlend<SoftLight>>},
    {"CISourceAtopCompositing", "Source Atop", kHDR, compositeRow<SourceAtop>},
    {"CISourceInCompositing", "Source In", kHDR, compositeRow<SourceIn>},
    {"CISourceOutCompositing", "Source Out", kHDR, compositeRow<SourceOut>},
    {"CISourceOverCompositing", "Source Over", kHDR, compositeRow<SourceOver>},
    {"CISubtractBlendMode", "Subtract Blend Mode", !kHDR, compositeRow<SeparableBlend<Subtract>>},
    {"CIVividLightBlendMode", "Vivid Light Blend Mode", !kHDR, compositeRow<SeparableBlend<VividLight>>},
};

// ---------------------------------------------------------------------------------------------
// Nodes

class CompositeNode final : public ImageNode {
 public:
  CompositeNode(const CompositeOperation& op, CIImage source, CIImage background)
      : ImageNode(unionOfExtents(source.extent(), background.extent()), {source, background}), op_(op) {}
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo&) const override {
    std::vector<float> scratchS, scratchB;
    forEachRowInExtent(out, extent(), [&](float* o, std::int64_t x0, std::int64_t y, std::size_t n) {
      op_.row(inputRow(in[0], x0, y, n, scratchS), inputRow(in[1], x0, y, n, scratchB), o, n);
    });
  }
  std::string name() const override { return op_.name; }

 private:
  const CompositeOperation& op_;
};

// out = s·m + b·(1 − m) on all four premultiplied components, m = the Rec. 709 luminance of the
// mask's premultiplied colour, clamped to [0, 1]; a transparent mask, and any point outside the
// mask's extent, reads as 0 and shows the background. Without a background the background is
// transparent. Extent: the background's, joined with the part of the image inside the mask.
class BlendWithMaskNode final : public ImageNode {
 public:
  // background may be nil.
  BlendWithMaskNode(CIImage image, CIImage background, CIImage mask)
      : ImageNode(unionOfExtents(background.extent(), CGRectIntersection(image.extent(), mask.extent())),
                  background ? std::vector<CIImage>{image, mask, background} : std::vector<CIImage>{image, mask}) {}
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo&) const override {
    std::vector<float> scratchS, scratchM, scratchB;
    const bool hasBackground = in.size() > 2;
    forEachRowInExtent(out, extent(), [&](float* o, std::int64_t x0, std::int64_t y, std::size_t n) {
      const float* s = inputRow(in[0], x0, y, n, scratchS);
      const float* m = inputRow(in[1], x0, y, n, scratchM);
      if (hasBackground) {
        const float* b = inputRow(in[2], x0, y, n, scratchB);
        for (std::size_t i = 0; i < n; ++i) {
          const float k = clamp01(kLumaR * m[4 * i] + kLumaG * m[4 * i + 1] + kLumaB * m[4 * i + 2]);
          for (int c = 0; c < 4; ++c) o[4 * i + c] = s[4 * i + c] * k + b[4 * i + c] * (1 - k);
        }
      } else {
        for (std::size_t i = 0; i < n; ++i) {
          const float k = clamp01(kLumaR * m[4 * i] + kLumaG * m[4 * i + 1] + kLumaB * m[4 * i + 2]);
          for (int c = 0; c < 4; ++c) o[4 * i + c] = s[4 * i + c] * k;
        }
      }
    });
  }
  std::string name() const override { return "CIBlendWithMask"; }
};

// ---------------------------------------------------------------------------------------------
// Filters

class CICompositeFilter final : public CIBuiltinFilter {
 public:
  explicit CICompositeFilter(const CompositeOperation& op) : op_(op) {}
  CIImage outputImage() const override {
    return compositeImage(op_, inputImageForKey(kCIInputImageKey), inputImageForKey(kCIInputBackgroundImageKey));
  }

 private:
  const CompositeOperation& op_;
};

// Without a mask every point reads m = 0: the output is the background (transparent without
// one).
class CIBlendWithMaskFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIImage image = inputImageForKey(kCIInputImageKey);
    if (!image) return {};
    const CIImage background = inputImageForKey(kCIInputBackgroundImageKey);
    const CIImage mask = inputImageForKey(kCIInputMaskImageKey);
    if (!mask) return background ? background : CIImage::emptyImage();
    return CIImage(std::make_shared<BlendWithMaskNode>(image, background, mask));
  }
};

}  // namespace

std::span<const CompositeOperation> compositeOperations() { return kOperations; }

const CompositeOperation* compositeOperationNamed(const std::string& name) {
  for (const CompositeOperation& op : kOperations) {
    if (name == op.name) return &op;
  }
  return nullptr;
}

CIImage compositeImage(const CompositeOperation& op, const CIImage& source, const CIImage& background) {
  if (!source || !background) return {};
  return CIImage(std::make_shared<CompositeNode>(op, source, background));
}

void registerCompositeBuiltins() {
  for (const CompositeOperation& op : kOperations) {
    std::vector<std::string> categories{kCICategoryCompositeOperation, kCICategoryStillImage};
    if (op.highDynamicRange) categories.push_back(kCICategoryHighDynamicRange);
    categories.push_back(kCICategoryBuiltIn);
    const CompositeOperation* operation = &op;
    CIFilter::registerFilter(CIFilterRegistration{
        op.name, [operation] { return CIFilterRef(std::make_shared<CICompositeFilter>(*operation)); },
        op.displayName, std::move(categories),
        {imageInput(kCIInputImageKey, "Image", "The image to use as a foreground image."),
         imageInput(kCIInputBackgroundImageKey, "Background Image", "The image to use as a background image.")},
        {}});
  }

  registerBuiltin<CIBlendWithMaskFilter>(
      "CIBlendWithMask", "Blend With Mask", {kCICategoryStylize, kCICategoryStillImage},
      {imageInput(kCIInputImageKey, "Image", "The image to use as a foreground image."),
       imageInput(kCIInputBackgroundImageKey, "Background Image", "The image to use as a background image."),
       imageInput(kCIInputMaskImageKey, "Mask Image",
                  "A grayscale mask. When a mask value is 0.0, the result is the background. When the mask value "
                  "is 1.0, the result is the image.")});
}
