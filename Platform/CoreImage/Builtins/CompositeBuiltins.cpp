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
#include <array>
#include <cmath>
#include <cstring>
#include <string_view>

#include "CoreImage/Builtins/BuiltinFilter.h"
#include "CoreImage/Builtins/ColorMatrixNode.h"
#include "CoreImage/Builtins/ColorNodeSupport.h"
#include "CoreImage/Builtins/CompositeOperations.h"
#include "CoreImage/Builtins/Float4.h"
#include "CoreImage/ColorSpace.h"
#include "CoreImage/Nodes/CoreNodes.h"

using namespace qv::builtins;

// Float8 values only pass between inline functions of this file (see Float4.h).
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wpsabi"
#endif

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

// Separable blend functions B(Cb, Cs) on [0, 1] values. Each is written once for one value
// (T = float) and for four (T = Float4, four pixels of one channel): the same operations in the
// same order on every lane, with both sides of a choice computed and one kept, so the four-wide
// form gives the very bits of the one-value form.
template <class T>
inline T screen(T cb, T cs) { return cb + cs - cb * cs; }
template <class T>
inline T colorDodge(T cb, T cs) {
  const T one = splat<T>(1), zero = splat<T>(0);
  return cb <= zero ? zero : (cs >= one ? one : minOf(one, cb / (one - cs)));
}
template <class T>
inline T colorBurn(T cb, T cs) {
  const T one = splat<T>(1), zero = splat<T>(0);
  return cb >= one ? one : (cs <= zero ? zero : one - minOf(one, (one - cb) / cs));
}
template <class T>
inline T hardLight(T cb, T cs) {
  return cs <= splat<T>(0.5f) ? cb * splat<T>(2) * cs : screen(cb, splat<T>(2) * cs - splat<T>(1));
}

struct Multiply { template <class T> static T blend(T cb, T cs) { return cb * cs; } };
struct Screen { template <class T> static T blend(T cb, T cs) { return screen(cb, cs); } };
struct Overlay { template <class T> static T blend(T cb, T cs) { return hardLight(cs, cb); } };
struct ColorDodge { template <class T> static T blend(T cb, T cs) { return colorDodge(cb, cs); } };
struct ColorBurn { template <class T> static T blend(T cb, T cs) { return colorBurn(cb, cs); } };
struct HardLight {
  template <class T> static T blend(T cb, T cs) { return hardLight(cb, cs); }
  // B(cb, cs) for one source value in every lane: only the side of the choice it takes, with
  // the terms of cs alone computed once (the same operations in the same order: the same bits).
  template <class T>
  struct Constant {
    bool low;
    T k;
    explicit Constant(float cs) : low(cs <= 0.5f), k(splat<T>(low ? cs : 2.0f * cs - 1.0f)) {}
    T operator()(T cb) const { return low ? cb * splat<T>(2) * k : screen(cb, k); }
  };
};
struct SoftLight {
  template <class T>
  static T blend(T cb, T cs) {
    const T one = splat<T>(1), two = splat<T>(2);
    const T d = cb <= splat<T>(0.25f) ? ((splat<T>(16) * cb - splat<T>(12)) * cb + splat<T>(4)) * cb : sqrtOf(cb);
    return cs <= splat<T>(0.5f) ? cb - (one - two * cs) * cb * (one - cb) : cb + (two * cs - one) * (d - cb);
  }
  // A source at or below one half needs neither the square root nor the polynomial.
  template <class T>
  struct Constant {
    bool low;
    T k;
    explicit Constant(float cs) : low(cs <= 0.5f), k(splat<T>(low ? 1.0f - 2.0f * cs : 2.0f * cs - 1.0f)) {}
    T operator()(T cb) const {
      if (low) return cb - k * cb * (splat<T>(1) - cb);
      const T d = cb <= splat<T>(0.25f) ? ((splat<T>(16) * cb - splat<T>(12)) * cb + splat<T>(4)) * cb : sqrtOf(cb);
      return cb + k * (d - cb);
    }
  };
};
struct Difference { template <class T> static T blend(T cb, T cs) { return absOf(cb - cs); } };
struct Exclusion {
  template <class T> static T blend(T cb, T cs) { return cb + cs - splat<T>(2) * cb * cs; }
};
struct Divide {
  template <class T>
  static T blend(T cb, T cs) {
    const T zero = splat<T>(0);
    return cs <= zero ? (cb > zero ? splat<T>(1) : zero) : cb / cs;
  }
};
struct Subtract { template <class T> static T blend(T cb, T cs) { return cb - cs; } };
struct LinearBurn { template <class T> static T blend(T cb, T cs) { return cb + cs - splat<T>(1); } };
struct LinearDodge { template <class T> static T blend(T cb, T cs) { return cb + cs; } };
struct LinearLight {
  template <class T> static T blend(T cb, T cs) { return cb + splat<T>(2) * cs - splat<T>(1); }
};
struct PinLight {
  template <class T>
  static T blend(T cb, T cs) {
    const T twice = splat<T>(2) * cs;
    return cs < splat<T>(0.5f) ? minOf(cb, twice) : maxOf(cb, twice - splat<T>(1));
  }
  template <class T>
  struct Constant {
    bool low;
    T k;
    explicit Constant(float cs) : low(cs < 0.5f), k(splat<T>(low ? 2.0f * cs : 2.0f * cs - 1.0f)) {}
    T operator()(T cb) const { return low ? minOf(cb, k) : maxOf(cb, k); }
  };
};
struct VividLight {
  template <class T>
  static T blend(T cb, T cs) {
    const T twice = splat<T>(2) * cs;
    return cs <= splat<T>(0.5f) ? colorBurn(cb, twice) : colorDodge(cb, twice - splat<T>(1));
  }
  template <class T>
  struct Constant {
    bool low;
    T k;
    explicit Constant(float cs) : low(cs <= 0.5f), k(splat<T>(low ? 2.0f * cs : 2.0f * cs - 1.0f)) {}
    T operator()(T cb) const { return low ? colorBurn(cb, k) : colorDodge(cb, k); }
  };
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

// The general formula around a separable B on one group of pixels (V = Float4: four, Float8:
// eight): the pixels are turned into one vector per component (red of all of them, green, ...),
// so every operation works on the whole group, and back.
template <class B, class V>
[[gnu::always_inline]] inline void separableBlendGroup(const float* sp, const float* bp, float* op) {
  V S[4], Bk[4];
  loadPixels(sp, S);
  loadPixels(bp, Bk);
  const V zero = splat<V>(0), one = splat<V>(1);
  const V as = S[3], ab = Bk[3];
  const V is = as > zero ? one / as : zero, ib = ab > zero ? one / ab : zero;
  const V both = as * ab;
  V O[4];
  for (int c = 0; c < 3; ++c) {
    const V m = clamp01(B::blend(clamp01(Bk[c] * ib), clamp01(S[c] * is)));
    O[c] = S[c] * (one - ab) + Bk[c] * (one - as) + both * m;
  }
  O[3] = as + ab - both;
  storePixels(O, op);
}

// Eight pixels at a time, then four; a last group of fewer than four is padded with transparent
// pixels. Every lane runs the same operations in the same order, so the group size changes no
// bits.
template <class B>
QV_LANE_CLONES void separableBlendRow(const float* s, const float* b, float* o, std::size_t n) {
  std::size_t i = 0;
  for (; i + 8 <= n; i += 8) separableBlendGroup<B, Float8>(s + 4 * i, b + 4 * i, o + 4 * i);
  for (; i + 4 <= n; i += 4) separableBlendGroup<B, Float4>(s + 4 * i, b + 4 * i, o + 4 * i);
  if (i < n) {
    float ps[16] = {}, pb[16] = {}, po[16];
    std::copy(s + 4 * i, s + 4 * n, ps);
    std::copy(b + 4 * i, b + 4 * n, pb);
    separableBlendGroup<B, Float4>(ps, pb, po);
    std::copy(po, po + 4 * (n - i), o + 4 * i);
  }
}

// B(cb, cs) for a source value shared by every lane, prepared once per row: the blend's own
// constant form where it has one (a choice on cs decided once), else the blend of the value in
// every lane.
template <class B, class T>
struct ConstantBlend {
  T cs;
  explicit ConstantBlend(float c) : cs(splat<T>(c)) {}
  T operator()(T cb) const { return B::template blend<T>(cb, cs); }
};
template <class B, class T>
  requires requires { typename B::template Constant<T>; }
struct ConstantBlend<B, T> : B::template Constant<T> {
  using B::template Constant<T>::Constant;
};

// The terms of the general formula that depend on a constant source alone, in every lane of V,
// computed as the group form computes them lane by lane.
template <class B, class V>
struct ConstantSource {
  V s[3];          // the premultiplied colour
  V as, restB;     // α_s, 1 − α_s
  ConstantBlend<B, V> blend[3];  // B(·, Cs) for the un-premultiplied colour, clamped
  explicit ConstantSource(const float* colour)
      : ConstantSource(colour, colour[3] > 0.0f ? 1.0f / colour[3] : 0.0f) {}
  ConstantSource(const float* colour, float is)
      : s{splat<V>(colour[0]), splat<V>(colour[1]), splat<V>(colour[2])},
        as(splat<V>(colour[3])),
        restB(splat<V>(1.0f - colour[3])),
        blend{ConstantBlend<B, V>(clamp01(colour[0] * is)), ConstantBlend<B, V>(clamp01(colour[1] * is)),
              ConstantBlend<B, V>(clamp01(colour[2] * is))} {}
};

// separableBlendGroup with every source pixel the constant's: the background is the only
// per-pixel input.
template <class B, class V>
[[gnu::always_inline]] inline void separableBlendConstantGroup(const ConstantSource<B, V>& k, const float* bp,
                                                               float* op) {
  V Bk[4];
  loadPixels(bp, Bk);
  const V zero = splat<V>(0), one = splat<V>(1);
  const V ab = Bk[3];
  const V ib = ab > zero ? one / ab : zero;
  const V both = k.as * ab, restS = one - ab;
  V O[4];
#pragma GCC unroll 3
  for (int c = 0; c < 3; ++c) {
    const V m = clamp01(k.blend[c](clamp01(Bk[c] * ib)));
    O[c] = k.s[c] * restS + Bk[c] * k.restB + both * m;
  }
  O[3] = k.as + ab - both;
  storePixels(O, op);
}

// separableBlendRow over a source of one colour, in the same groups.
template <class B>
QV_LANE_CLONES void separableBlendConstantRow(const float* colour, const float* b, float* o, std::size_t n) {
  std::size_t i = 0;
  if (n >= 8) {
    const ConstantSource<B, Float8> k8(colour);
    for (; i + 8 <= n; i += 8) separableBlendConstantGroup(k8, b + 4 * i, o + 4 * i);
  }
  if (i == n) return;
  const ConstantSource<B, Float4> k4(colour);
  for (; i + 4 <= n; i += 4) separableBlendConstantGroup(k4, b + 4 * i, o + 4 * i);
  if (i < n) {
    float pb[16] = {}, po[16];
    std::copy(b + 4 * i, b + 4 * n, pb);
    separableBlendConstantGroup(k4, pb, po);
    std::copy(po, po + 4 * (n - i), o + 4 * i);
  }
}

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

// Lighten and darken without un-premultiplying: with both colours clamped to [0, 1],
//   α_s·α_b·max(Cb, Cs) = max(α_s·clamp(c_b, 0, α_b), α_b·clamp(c_s, 0, α_s))
// (likewise min), and B's result needs no clamp, so the general formula runs on premultiplied
// values directly, with no division and no branch per component.
template <bool kLighter>
void extremumRow(const float* s, const float* b, float* o, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i, s += 4, b += 4, o += 4) {
    const float as = s[3], ab = b[3];
    const float ks = as > 0 ? as : 0.0f, kb = ab > 0 ? ab : 0.0f;
    const float restS = 1 - ab, restB = 1 - as;
    for (int c = 0; c < 3; ++c) {
      const float fromB = as * std::min(std::max(b[c], 0.0f), kb);
      const float fromS = ab * std::min(std::max(s[c], 0.0f), ks);
      const float m = kLighter ? std::max(fromB, fromS) : std::min(fromB, fromS);
      o[c] = s[c] * restS + b[c] * restB + m;
    }
    o[3] = as + ab - as * ab;
  }
}

template <class Op>
void compositeRow(const float* s, const float* b, float* o, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) Op::apply(s + 4 * i, b + 4 * i, o + 4 * i);
}

// ---------------------------------------------------------------------------------------------
// The table of the thirty operations.

constexpr bool kHDR = true;

// A separable blend mode: its rows for any source and for a source of one colour.
template <class B>
constexpr CompositeOperation separable(const char* name, const char* displayName) {
  return {name, displayName, !kHDR, separableBlendRow<B>, separableBlendConstantRow<B>};
}

const CompositeOperation kOperations[] = {
    {"CIAdditionCompositing", "Addition", kHDR, compositeRow<Addition>},
    {"CIColorBlendMode", "Color Blend Mode", !kHDR, compositeRow<NonSeparableBlend<Color>>},
    separable<ColorBurn>("CIColorBurnBlendMode", "Color Burn Blend Mode"),
    separable<ColorDodge>("CIColorDodgeBlendMode", "Color Dodge Blend Mode"),
    {"CIDarkenBlendMode", "Darken Blend Mode", !kHDR, extremumRow<false>},
    separable<Difference>("CIDifferenceBlendMode", "Difference Blend Mode"),
    separable<Divide>("CIDivideBlendMode", "Divide Blend Mode"),
    separable<Exclusion>("CIExclusionBlendMode", "Exclusion Blend Mode"),
    separable<HardLight>("CIHardLightBlendMode", "Hard Light Blend Mode"),
    {"CIHueBlendMode", "Hue Blend Mode", !kHDR, compositeRow<NonSeparableBlend<Hue>>},
    {"CILightenBlendMode", "Lighten Blend Mode", !kHDR, extremumRow<true>},
    separable<LinearBurn>("CILinearBurnBlendMode", "Linear Burn Blend Mode"),
    separable<LinearDodge>("CILinearDodgeBlendMode", "Linear Dodge Blend Mode"),
    separable<LinearLight>("CILinearLightBlendMode", "Linear Light Blend Mode"),
    {"CILuminosityBlendMode", "Luminosity Blend Mode", !kHDR, compositeRow<NonSeparableBlend<Luminosity>>},
    {"CIMaximumCompositing", "Maximum", kHDR, compositeRow<Maximum>},
    {"CIMinimumCompositing", "Minimum", kHDR, compositeRow<Minimum>},
    separable<Multiply>("CIMultiplyBlendMode", "Multiply Blend Mode"),
    {"CIMultiplyCompositing", "Multiply", kHDR, compositeRow<MultiplyCompositing>},
    separable<Overlay>("CIOverlayBlendMode", "Overlay Blend Mode"),
    separable<PinLight>("CIPinLightBlendMode", "Pin Light Blend Mode"),
    {"CISaturationBlendMode", "Saturation Blend Mode", !kHDR, compositeRow<NonSeparableBlend<Saturation>>},
    separable<Screen>("CIScreenBlendMode", "Screen Blend Mode"),
    separable<SoftLight>("CISoftLightBlendMode", "Soft Light Blend Mode"),
    {"CISourceAtopCompositing", "Source Atop", kHDR, compositeRow<SourceAtop>},
    {"CISourceInCompositing", "Source In", kHDR, compositeRow<SourceIn>},
    {"CISourceOutCompositing", "Source Out", kHDR, compositeRow<SourceOut>},
    {"CISourceOverCompositing", "Source Over", kHDR, compositeRow<SourceOver>},
    separable<Subtract>("CISubtractBlendMode", "Subtract Blend Mode"),
    separable<VividLight>("CIVividLightBlendMode", "Vivid Light Blend Mode"),
};

// ---------------------------------------------------------------------------------------------
// Nodes

// Mixing by a mask: out = s·k + b·(1 − k) on all four premultiplied components, k the clamped
// Rec. 709 luminance of the mask's premultiplied colour, in the three forms the blend with mask
// takes: with a background, without one (s·k), and with nothing for the image (0·k + b·(1 − k),
// a layer cut by the mask). Eight pixels at a time as vectors (only k needs the mask's pixels
// turned into components; the colours are scaled component by component as they lie), the rest
// one by one, with the same operations: the same bits.
enum class MaskMix { imageAndBackground, imageOnly, nothingOverBackground };

template <MaskMix kMix, class T>
[[gnu::always_inline]] inline T maskMixComponent(T s, T b, T k) {
  if constexpr (kMix == MaskMix::imageAndBackground) return s * k + b * (splat<T>(1) - k);
  if constexpr (kMix == MaskMix::imageOnly) return s * k;
  return splat<T>(0) * k + b * (splat<T>(1) - k);
}

// `s` is unused for nothingOverBackground, `b` for imageOnly; `o` may be `s` or `b`.
template <MaskMix kMix>
QV_LANE_CLONES void maskMixRow(const float* s, const float* b, const float* m, float* o, std::size_t n) {
  std::size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    Float8 M[4];
    loadPixels(m + 4 * i, M);
    const Float8 k = clamp01(splat<Float8>(kLumaR) * M[0] + splat<Float8>(kLumaG) * M[1] + splat<Float8>(kLumaB) * M[2]);
    // k per pixel, repeated over its four components, in the pixels' own order: pixels 0-1,
    // 2-3, 4-5, 6-7 (loadPixels holds pixels 0, 2, 4, 6 in the lower half, 1, 3, 5, 7 in the upper).
    const Float8 kk[4] = {__builtin_shufflevector(k, k, 0, 0, 0, 0, 4, 4, 4, 4),
                          __builtin_shufflevector(k, k, 1, 1, 1, 1, 5, 5, 5, 5),
                          __builtin_shufflevector(k, k, 2, 2, 2, 2, 6, 6, 6, 6),
                          __builtin_shufflevector(k, k, 3, 3, 3, 3, 7, 7, 7, 7)};
    for (int j = 0; j < 4; ++j) {
      const std::size_t at = 4 * i + 8 * std::size_t(j);
      const Float8 sv = kMix == MaskMix::nothingOverBackground ? Float8{} : *reinterpret_cast<const UnalignedFloat8*>(s + at);
      const Float8 bv = kMix == MaskMix::imageOnly ? Float8{} : *reinterpret_cast<const UnalignedFloat8*>(b + at);
      *reinterpret_cast<UnalignedFloat8*>(o + at) = maskMixComponent<kMix>(sv, bv, kk[j]);
    }
  }
  for (; i < n; ++i) {
    const float k = clamp01(kLumaR * m[4 * i] + kLumaG * m[4 * i + 1] + kLumaB * m[4 * i + 2]);
    for (int c = 0; c < 4; ++c) {
      const std::size_t at = 4 * i + std::size_t(c);
      o[at] = maskMixComponent<kMix>(kMix == MaskMix::nothingOverBackground ? 0.0f : s[at],
                                     kMix == MaskMix::imageOnly ? 0.0f : b[at], k);
    }
  }
}


// How a composite reads one of its two images. Whole-pixel offsets, crops and up to two colour
// matrices (a matrix node over another that does not fold into one matrix, such as an opacity
// over a biased colour control) between the composite and the image that holds the pixels are
// folded into the composite's own pass: it reads that image moved by (dx, dy), keeps the pixels
// inside the crops and runs the matrices over each run of a row as it goes, the lower one first,
// so the moved, cut and coloured copies are never written out in full. The pixels are those of
// the unfolded graph: an offset and a crop are exact copies, and the matrices are the matrix
// nodes' own row functions over the same pixels (those inside their extents and every crop,
// moved by the offsets above them), transparent elsewhere (a matrix node's extent is its
// input's, so the lower matrix has no pixel the upper one lacks).
//
// A constant colour (and nothing, the empty image) is not read at all: its runs are filled with
// the colour inside its extent's pixels, so it needs neither a buffer nor a region of interest.
// The source of a source-over composite onto nothing (the empty image, however cropped), or
// nil for any other image. Such a composite is its source, pixel for pixel: s + 0·(1 − α_s) = s
// where the source has pixels and transparent elsewhere, which is also what reading the source
// gives outside its extent. A composite reading it reads the source instead, so a layer put on
// a transparent canvas (to give it the canvas's extent) is not written out in full.
CIImage sourceOfOverNothing(const ImageNode* node);
// For a blend with mask of nothing (the empty image, however cropped) over a background: the
// background (the layer) and the mask; false for any other image. Such a blend is the layer
// times 1 − m, which a composite computes as it reads the layer (see CompositeInput::row).
bool layerAndMaskOfMaskedLayer(const ImageNode* node, CIImage& layer, CIImage& mask);

// The buffers one folded input assembles its runs in, kept across the rows of one render.
struct RowBuffers {
  std::vector<float> scratch, kept;
  // For a constant input: the run `kept` holds (its length and the part inside the window;
  // length 0: none), which every other row with the same run reads again as it is.
  std::size_t constantLength = 0;
  std::int64_t constantFrom = 0, constantTo = 0;
};

struct CompositeInput {
  CIImage image;  // the image whose pixels are read; nil for a constant
  CIColorRef constant;  // the colour of a constant input (null: transparent, or not a constant)
  bool isConstant = false;
  int slot = -1;  // the index of `image` among the node's inputs
  // The slot of an earlier input that reads the same image on the same rows (only its columns
  // moved), or -1. Where the two reads together cover less than apart, that input's region
  // holds this one's as well and this slot asks for nothing (see sharedRead): one render of
  // the image (one decode of a file) serves both, as for a picture composited over itself
  // moved sideways.
  int partner = -1;
  CGRect extent;  // the extent of the image as given to the composite
  std::int64_t dx = 0, dy = 0;
  std::shared_ptr<const ColorMatrixNode> matrix;  // may be null
  // A second matrix node below `matrix` that does not fold into it (a colour bias the outer
  // matrix would carry into transparent pixels): run before `matrix` in the same pass. Null
  // without `matrix`.
  std::shared_ptr<const ColorMatrixNode> innerMatrix;
  bool windowed = false;  // pixels outside `window` (composite coordinates) are transparent
  PixelRect window{-PixelRect::kPixelLimit, -PixelRect::kPixelLimit, 2 * PixelRect::kPixelLimit,
                   2 * PixelRect::kPixelLimit};
  // A mask the image is cut by (as a blend with mask of nothing over it would), read through its
  // own folds, at (maskDx, maskDy) from the composite's coordinates; applied before the matrix,
  // which is then the only one (one found below the mask would have to run before it). Only
  // images are taken as layer and mask (constants are not read from tiles), and a mask has no
  // mask of its own.
  std::shared_ptr<CompositeInput> mask;
  std::int64_t maskDx = 0, maskDy = 0;

  static CompositeInput fold(const CIImage& given, bool maskAllowed = true) {
    CompositeInput f;
    f.extent = given.extent();
    CIImage image = given;
    for (;;) {
      const ImageNode* node = image.node().get();
      if (auto* offset = dynamic_cast<const OffsetNode*>(node)) {
        f.dx += offset->dx();
        f.dy += offset->dy();
        image = offset->inputs()[0];
        continue;
      }
      if (auto* crop = dynamic_cast<const CropNode*>(node)) {
        f.cut(PixelRect::centresInside(crop->rect()));
        image = crop->inputs()[0];
        continue;
      }
      if (CIImage source = sourceOfOverNothing(node)) {
        image = source;
        continue;
      }
      CIImage layer, maskImage;
      if (maskAllowed && !f.mask && layerAndMaskOfMaskedLayer(node, layer, maskImage)) {
        // A constant layer (or mask) is not read from a tile: the blend stays a node of its own.
        auto m = std::make_shared<CompositeInput>(fold(maskImage, false));
        if (!m->isConstant && !fold(layer, false).isConstant) {
          f.cut(PixelRect::centresInside(node->extent()));
          f.mask = std::move(m);
          f.maskDx = f.dx;
          f.maskDy = f.dy;
          image = layer;
          continue;
        }
      }
      auto matrix = std::dynamic_pointer_cast<const ColorMatrixNode>(image.node());
      if (matrix && !f.innerMatrix && !f.mask) {
        (f.matrix ? f.innerMatrix : f.matrix) = matrix;
        f.cut(PixelRect::centresInside(matrix->extent()));
        image = matrix->inputs()[0];
        continue;
      }
      if (auto* colour = dynamic_cast<const ConstantColorNode*>(node)) {
        f.isConstant = true;
        f.constant = colour->color();
        if (!CGRectIsInfinite(colour->extent())) f.cut(PixelRect::centresInside(colour->extent()));
        image = CIImage();
      } else if (dynamic_cast<const EmptyNode*>(node)) {
        f.isConstant = true;
        image = CIImage();
      }
      break;
    }
    f.image = image;
    return f;
  }

  // The constant's working colour for this render, run through the matrix (transparent for
  // nothing or no colour).
  std::array<float, 4> constantPixel(const RenderInfo& info) const {
    std::array<float, 4> c{0, 0, 0, 0};
    if (!constant) return c;
    c = workingColor(*constant, info.colorManaged);
    for (const ColorMatrixNode* m : {innerMatrix.get(), matrix.get()}) {
      if (!m) continue;
      std::array<float, 4> mapped{};
      m->applyRow(c.data(), mapped.data(), 1);
      c = mapped;
    }
    return c;
  }

  // Whether row() gives the constant's colour at each of the n pixels from (x0, y): a constant
  // whose window holds the whole run.
  bool constantOver(std::int64_t x0, std::int64_t y, std::size_t n) const {
    if (!isConstant) return false;
    if (!windowed) return true;
    return y >= window.y && y < window.maxY() && x0 >= window.x && x0 + std::int64_t(n) <= window.maxX();
  }

  // Keeps only `kept` (in the coordinates below the offsets found so far).
  void cut(const PixelRect& kept) {
    window = window.intersection(kept.offset(dx, dy));
    windowed = true;
  }

  // What `rect` of the composite needs of `image`: `rect`, less whatever lies outside the given
  // image's extent and the window (read as transparent anyway), moved back by the offsets.
  // Without the cut, a tile whose inputs lie far apart (a picture and its reflection below it)
  // would ask an image they share for the whole span between them.
  PixelRect regionOfInterest(const PixelRect& rect) const {
    if (isConstant) return {};
    PixelRect r = rect.intersection(PixelRect::covering(extent));
    if (windowed) r = r.intersection(window);
    return r.offset(-dx, -dy);
  }
  // The tile this input reads: its own, or its partner's when its own region went to the
  // partner's (an empty tile of its own then). Both hold the same image's pixels wherever they
  // have them, and this input's reads outside its own region are outside the image or cut by
  // its window, transparent either way.
  const ConstPixelTile& tileOf(std::span<const ConstPixelTile> tiles) const {
    const ConstPixelTile& own = tiles[std::size_t(slot)];
    return partner >= 0 && own.rect.empty() ? tiles[std::size_t(partner)] : own;
  }

  // What `rect` of the composite needs of the mask's image.
  PixelRect maskRegionOfInterest(const PixelRect& rect) const {
    if (!mask || isConstant) return {};
    PixelRect r = rect.intersection(PixelRect::covering(extent));
    if (windowed) r = r.intersection(window);
    return mask->regionOfInterest(r.offset(-maskDx, -maskDy));
  }

  // The n pixels from (x0, y) in the composite's coordinates. `tiles` are the node's inputs;
  // `colour` is constantPixel() of this render; `buffers` are this input's for this render.
  const float* row(std::span<const ConstPixelTile> tiles, const std::array<float, 4>& colour, std::int64_t x0,
                   std::int64_t y, std::size_t n, RowBuffers& buffers) const {
    std::vector<float>& scratch = buffers.scratch;
    std::vector<float>& kept = buffers.kept;
    const float* p = isConstant ? nullptr : inputRow(tileOf(tiles), x0 - dx, y - dy, n, scratch);
    if (mask && p) {
      // out = s·k + b·(1 − k) with s = nothing and b = the layer, as the blend with mask
      // computes it; k is the clamped Rec. 709 luminance of the mask's premultiplied colour.
      // The mask's row is used up here, so its buffers can be this thread's; the masked layer
      // goes to `scratch` (in place when the layer's row is already there: pixel by pixel).
      thread_local RowBuffers maskBuffers;
      const float* m = mask->row(tiles, {}, x0 - maskDx, y - maskDy, n, maskBuffers);
      if (p != scratch.data()) scratch.resize(n * 4);
      float* masked = scratch.data();
      maskMixRow<MaskMix::nothingOverBackground>(nullptr, p, m, masked, n);
      p = masked;
    }
    if (!windowed && !isConstant) return p;
    const std::int64_t count = std::int64_t(n);
    const bool inRow = y >= window.y && y < window.maxY();
    const std::int64_t a = inRow ? std::clamp<std::int64_t>(window.x - x0, 0, count) : count;
    const std::int64_t b = inRow ? std::clamp<std::int64_t>(window.maxX() - x0, a, count) : count;
    // A run wholly inside the window, with no matrix to run, is the image's own pixels: read
    // in place, not copied.
    if (!isConstant && !matrix && a == 0 && b == count) return p;
    if (isConstant) {
      if (buffers.constantLength == n && buffers.constantFrom == a && buffers.constantTo == b) return kept.data();
      buffers.constantLength = n;
      buffers.constantFrom = a;
      buffers.constantTo = b;
    }
    kept.resize(n * 4);
    std::fill(kept.begin(), kept.begin() + a * 4, 0.0f);
    std::fill(kept.begin() + b * 4, kept.end(), 0.0f);
    if (b <= a) return kept.data();
    if (isConstant) {
      for (std::int64_t i = a; i < b; ++i) std::copy(colour.begin(), colour.end(), kept.begin() + i * 4);
    } else if (innerMatrix) {
      innerMatrix->applyRowThen(*matrix, p + a * 4, kept.data() + a * 4, std::size_t(b - a));
    } else if (matrix) {
      matrix->applyRow(p + a * 4, kept.data() + a * 4, std::size_t(b - a));
    } else {
      std::copy(p + a * 4, p + b * 4, kept.data() + a * 4);
    }
    return kept.data();
  }

  // What `rect` (composite coordinates) of this input reads as, resolved down to a colour,
  // stored pixels or a render (see RegionAnswer): a constant inside its window, the folded
  // image's pixels moved by the offsets inside the window, transparent outside it; nothing
  // simpler through a matrix or a mask.
  RegionAnswer describe(const PixelRect& rect, bool colorManaged) const {
    if (windowed && !window.contains(rect)) return RegionAnswer::within(rect, window, RegionAnswer::renderIt());
    if (isConstant) {
      RenderInfo info;
      info.colorManaged = colorManaged;
      return RegionAnswer::constantColor(constantPixel(info));
    }
    if (!image) return RegionAnswer::renderIt();
    const RegionAnswer a = resolveRegion(*image.node(), rect.offset(-dx, -dy), colorManaged).movedBy(dx, dy);
    // Through a matrix or a mask the pixels change, but where the image's answer changes (its
    // cut) still tells the renderer where smaller parts need less of it.
    if (matrix || mask) return a.kind == RegionAnswer::Kind::render ? a : RegionAnswer::renderIt();
    return a;
  }
  // A render whose only news is where an input's answer changes: the first input's cut that
  // lies in `rect`, else a plain render.
  static RegionAnswer cutOfInputs(const std::vector<CompositeInput>& inputs, const PixelRect& rect, bool colorManaged) {
    for (const CompositeInput& f : inputs) {
      const RegionAnswer a = f.describe(rect, colorManaged);
      if (a.kind == RegionAnswer::Kind::render && a.cut != RegionAnswer::Cut::none) return a;
    }
    return RegionAnswer::renderIt();
  }

  // Folds each of `given` and numbers the images they read: the node's inputs.
  static std::vector<CompositeInput> foldAll(const std::vector<CIImage>& given, std::vector<CIImage>& images) {
    std::vector<CompositeInput> folded;
    for (const CIImage& g : given) {
      folded.push_back(fold(g));
      if (!folded.back().isConstant) {
        CompositeInput& f = folded.back();
        for (std::size_t k = 0; k + 1 < folded.size() && f.partner < 0; ++k) {
          const CompositeInput& other = folded[k];
          if (!other.isConstant && other.partner < 0 && other.image.node() == f.image.node() && other.dy == f.dy)
            f.partner = other.slot;
        }
        folded.back().slot = int(images.size());
        images.push_back(folded.back().image);
        if (CompositeInput* m = folded.back().mask.get()) {
          m->slot = int(images.size());
          images.push_back(m->image);
        }
      }
    }
    return folded;
  }
};

// The region of the node's input `index` that the folded inputs need for `rect`.
// Whether the regions `a` and `b` need of one image are asked for as one: when they overlap,
// so that the rectangle around both is smaller than the two apart.
bool sharedRead(const PixelRect& a, const PixelRect& b) {
  return !a.empty() && !b.empty() && a.unionWith(b).area() < a.area() + b.area();
}

PixelRect foldedRegionOfInterest(const std::vector<CompositeInput>& folded, std::size_t index, const PixelRect& rect) {
  for (const CompositeInput& f : folded) {
    if (f.slot == int(index)) {
      const PixelRect own = f.regionOfInterest(rect);
      PixelRect r = own;
      for (const CompositeInput& g : folded) {
        if (g.partner == f.slot) {
          // This slot reads for its partner too where the two reads overlap (decided on this
          // slot's own region, as the partner decides it).
          const PixelRect other = g.regionOfInterest(rect);
          if (sharedRead(own, other)) r = r.unionWith(other);
        }
      }
      if (f.partner >= 0) {
        for (const CompositeInput& g : folded) {
          if (g.slot == f.partner && sharedRead(g.regionOfInterest(rect), r)) return {};
        }
      }
      return r;
    }
    if (f.mask && f.mask->slot == int(index)) return f.maskRegionOfInterest(rect);
  }
  return {};
}

// The inputs of a node built on folded inputs: built once, then handed to ImageNode.
struct FoldedInputs {
  std::vector<CIImage> images;
  std::vector<CompositeInput> folded;
  explicit FoldedInputs(const std::vector<CIImage>& given) : folded(CompositeInput::foldAll(given, images)) {}
};

class CompositeNode final : public ImageNode {
 public:
  CompositeNode(const CompositeOperation& op, const CIImage& source, const CIImage& background)
      : CompositeNode(op, unionOfExtents(source.extent(), background.extent()), FoldedInputs({source, background})) {
    source_ = source;
  }
  // The source when this is a source-over onto nothing (see sourceOfOverNothing), else nil.
  CIImage sourceOverNothing() const {
    const CompositeInput& b = folded_[1];
    const bool nothing = b.isConstant && !b.constant && !b.matrix;
    return nothing && std::string_view(op_.name) == "CISourceOverCompositing" ? source_ : CIImage();
  }
  PixelRect regionOfInterest(std::size_t index, const PixelRect& rect) const override {
    return foldedRegionOfInterest(folded_, index, rect);
  }
  // Source over only: s + b·(1 − α_s) is s exactly where s is opaque (b·0 adds 0) or b is
  // transparent, and b exactly where s is transparent (0 + b·1).
  RegionAnswer describeRegion(const PixelRect& rect, bool colorManaged) const override {
    const PixelRect active = PixelRect::centresInside(extent());
    // Any other operation mixes its inputs: nothing simpler, but their cuts still split the
    // render where one of them needs less on each side (a tiled texture at its seams).
    if (std::string_view(op_.name) != "CISourceOverCompositing") return CompositeInput::cutOfInputs(folded_, rect, colorManaged);
    if (!active.contains(rect)) return RegionAnswer::within(rect, active, RegionAnswer::renderIt());
    const RegionAnswer s = folded_[0].describe(rect, colorManaged);
    if (s.kind == RegionAnswer::Kind::render || s.isOpaque()) return s;
    const RegionAnswer b = folded_[1].describe(rect, colorManaged);
    if (s.isTransparent()) return b;
    if (b.isTransparent()) return s;
    return b.kind == RegionAnswer::Kind::render ? b : RegionAnswer::renderIt();
  }
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const override {
    // Rows in short runs, so that the folded inputs' runs stay in the first-level cache.
    constexpr std::size_t kRun = 256;
    const CompositeInput &s = folded_[0], &b = folded_[1];
    const auto colourS = s.constantPixel(info), colourB = b.constantPixel(info);
    RowBuffers buffersS, buffersB;
    forEachRowInExtent(out, extent(), [&](float* o, std::int64_t x0, std::int64_t y, std::size_t n) {
      for (std::size_t j = 0; j < n; j += kRun) {
        const std::size_t m = std::min(kRun, n - j);
        const std::int64_t x = x0 + std::int64_t(j);
        const float* background = b.row(in, colourB, x, y, m, buffersB);
        // A source of one colour over the whole run (a colour layer): its terms once.
        if (op_.constantSourceRow && s.constantOver(x, y, m)) {
          op_.constantSourceRow(colourS.data(), background, o + j * 4, m);
        } else {
          op_.row(s.row(in, colourS, x, y, m, buffersS), background, o + j * 4, m);
        }
      }
    });
  }
  std::string name() const override { return op_.name; }
  bool writesEveryPixel() const override { return centresCoverExtent(extent()); }

 private:
  CompositeNode(const CompositeOperation& op, const CGRect& extent, FoldedInputs f)
      : ImageNode(extent, std::move(f.images)), op_(op), folded_(std::move(f.folded)) {}

  const CompositeOperation& op_;
  std::vector<CompositeInput> folded_;  // source, background
  CIImage source_;  // as given
};

CIImage sourceOfOverNothing(const ImageNode* node) {
  auto* composite = dynamic_cast<const CompositeNode*>(node);
  return composite ? composite->sourceOverNothing() : CIImage();
}

// out = s·m + b·(1 − m) on all four premultiplied components, m = the Rec. 709 luminance of the
// mask's premultiplied colour, clamped to [0, 1]; a transparent mask, and any point outside the
// mask's extent, reads as 0 and shows the background. Without a background the background is
// transparent. Extent: the background's, joined with the part of the image inside the mask.
class BlendWithMaskNode final : public ImageNode {
 public:
  // background may be nil.
  BlendWithMaskNode(const CIImage& image, const CIImage& background, const CIImage& mask)
      : BlendWithMaskNode(unionOfExtents(background.extent(), CGRectIntersection(image.extent(), mask.extent())),
                          background ? FoldedInputs({image, mask, background}) : FoldedInputs({image, mask})) {
    background_ = background;
    mask_ = mask;
  }
  // See layerAndMaskOfMaskedLayer.
  bool isMaskedLayer(CIImage& layer, CIImage& mask) const {
    const CompositeInput& s = folded_[0];
    if (!background_ || !(s.isConstant && !s.constant && !s.matrix)) return false;
    layer = background_;
    mask = mask_;
    return true;
  }
  PixelRect regionOfInterest(std::size_t index, const PixelRect& rect) const override {
    return foldedRegionOfInterest(folded_, index, rect);
  }
  // Where the mask is one colour whose clamped luminance k is exactly 1 or 0, s·k + b·(1 − k)
  // is s (s·1 + b·0) or b (s·0 + b·1); without a background, s or transparent.
  RegionAnswer describeRegion(const PixelRect& rect, bool colorManaged) const override {
    const PixelRect active = PixelRect::centresInside(extent());
    if (!active.contains(rect)) return RegionAnswer::within(rect, active, RegionAnswer::renderIt());
    const RegionAnswer m = folded_[1].describe(rect, colorManaged);
    if (!m.isConstant()) return m.kind == RegionAnswer::Kind::render ? m : RegionAnswer::renderIt();
    const float k = clamp01(kLumaR * m.color[0] + kLumaG * m.color[1] + kLumaB * m.color[2]);
    if (k == 1.0f) return folded_[0].describe(rect, colorManaged);
    if (k != 0.0f) return RegionAnswer::renderIt();
    return folded_.size() > 2 ? folded_[2].describe(rect, colorManaged) : RegionAnswer::transparent();
  }
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const override {
    constexpr std::size_t kRun = 256;
    const bool hasBackground = folded_.size() > 2;
    std::array<std::array<float, 4>, 3> colour{};
    for (std::size_t k = 0; k < folded_.size(); ++k) colour[k] = folded_[k].constantPixel(info);
    RowBuffers buffers[3];
    forEachRowInExtent(out, extent(), [&](float* row, std::int64_t x0, std::int64_t y, std::size_t width) {
      for (std::size_t j = 0; j < width; j += kRun) {
        const std::size_t n = std::min(kRun, width - j);
        const std::int64_t x = x0 + std::int64_t(j);
        float* o = row + j * 4;
        const float* s = folded_[0].row(in, colour[0], x, y, n, buffers[0]);
        const float* m = folded_[1].row(in, colour[1], x, y, n, buffers[1]);
        if (hasBackground) {
          const float* b = folded_[2].row(in, colour[2], x, y, n, buffers[2]);
          maskMixRow<MaskMix::imageAndBackground>(s, b, m, o, n);
        } else {
          maskMixRow<MaskMix::imageOnly>(s, nullptr, m, o, n);
        }
      }
    });
  }
  std::string name() const override { return "CIBlendWithMask"; }
  bool writesEveryPixel() const override { return centresCoverExtent(extent()); }

 private:
  BlendWithMaskNode(const CGRect& extent, FoldedInputs f)
      : ImageNode(extent, std::move(f.images)), folded_(std::move(f.folded)) {}

  std::vector<CompositeInput> folded_;  // image, mask and (when given) background
  CIImage background_, mask_;  // as given
};

bool layerAndMaskOfMaskedLayer(const ImageNode* node, CIImage& layer, CIImage& mask) {
  auto* blend = dynamic_cast<const BlendWithMaskNode*>(node);
  return blend && blend->isMaskedLayer(layer, mask);
}

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
