// The running-sum kernels of the box passes, in Highway SIMD with run-time dispatch (as
// BlurFir.cpp): the file is compiled once per instruction set Highway targets, and the first
// call picks the best one the processor has, for the whole process.
//
// Every value is computed with the same operations in the same order as the scalar rule
// (gridValue, BlurKernels.h) whatever the target and wherever it lies in a row: the vector
// lanes and the scalar tail give the same bits, and products are never fused into sums (the
// file is built with -ffp-contract=off), so that a tiled render equals the whole render and
// every target gives the same pixels.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "CoreImage/Builtins/BlurBoxes.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep

#include <hwy/highway.h>

#include <cstddef>
#include <cstdint>

#include "CoreImage/Builtins/BlurKernels.h"

HWY_BEFORE_NAMESPACE();
namespace qv::blur {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// Rounding to the grid in float: NaN as 0, clamped to ±kGridLimit, scaled by 2^22 (exact),
// rounded to the nearest whole number (halves to even; + 0 turns a rounded -0 into +0, as
// gridValue's rounding gives) and scaled back (exact). Equal to gridValue of the float: below
// 2 the grid multiple is a float; from 2 up the scaled value is already whole.
void GridCopy(const float* HWY_RESTRICT in, float* HWY_RESTRICT out, std::int64_t n) {
  const hn::ScalableTag<float> d;
  const std::int64_t lanes = std::int64_t(hn::Lanes(d));
  const auto hi = hn::Set(d, kGridLimit), lo = hn::Set(d, -kGridLimit);
  const auto scale = hn::Set(d, 1.0f / kGridQuantum), quantum = hn::Set(d, kGridQuantum);
  std::int64_t i = 0;
  for (; i + lanes <= n; i += lanes) {
    auto v = hn::LoadU(d, in + i);
    v = hn::IfThenElseZero(hn::Eq(v, v), v);
    v = hn::Min(hn::Max(v, lo), hi);
    hn::StoreU(hn::Mul(hn::Add(hn::Round(hn::Mul(v, scale)), hn::Zero(d)), quantum), d, out + i);
  }
  for (; i < n; ++i) out[i] = gridValue(double(in[i]));
}

// The grid value of doubles that are finite and within the grid's range give or take a
// rounding (weighted sums of grid values, weights summing to 1): gridValue without its NaN test,
// which such values never meet.
template <class D>
HWY_INLINE hn::Vec<hn::Rebind<float, D>> gridOfSum(D d, hn::Vec<D> v) {
  const auto limit = hn::Set(d, double(kGridLimit) / double(kGridQuantum));
  v = hn::Mul(v, hn::Set(d, 1.0 / double(kGridQuantum)));
  v = hn::Min(hn::Max(v, hn::Neg(limit)), limit);
  v = hn::Mul(hn::Add(hn::Round(v), hn::Zero(d)), hn::Set(d, double(kGridQuantum)));  // -0 as +0
  return hn::DemoteTo(hn::Rebind<float, D>(), v);
}

template <class D>
HWY_INLINE hn::Vec<D> loadWide(D d, const float* HWY_RESTRICT p) {
  return hn::PromoteTo(d, hn::LoadU(hn::Rebind<float, D>(), p));
}

void BoxSlideEmit(float* HWY_RESTRICT out, double* HWY_RESTRICT sums, const float* HWY_RESTRICT add,
                  const float* HWY_RESTRICT sub, double weight, std::int64_t nf) {
  const hn::ScalableTag<double> d;
  const std::int64_t lanes = std::int64_t(hn::Lanes(d));
  const auto w = hn::Set(d, weight);
  std::int64_t i = 0;
  for (; i + lanes <= nf; i += lanes) {
    const auto s = hn::Add(hn::LoadU(d, sums + i), hn::Sub(loadWide(d, add + i), loadWide(d, sub + i)));
    hn::StoreU(s, d, sums + i);
    hn::StoreU(gridOfSum(d, hn::Mul(s, w)), hn::Rebind<float, decltype(d)>(), out + i);
  }
  for (; i < nf; ++i) {
    const double s = sums[i] + (double(add[i]) - double(sub[i]));
    sums[i] = s;
    out[i] = gridValue(s * weight);
  }
}

void BoxSlideEmitInner(float* HWY_RESTRICT out, double* HWY_RESTRICT sums, const float* HWY_RESTRICT add,
                       const float* HWY_RESTRICT sub, double weight, double* HWY_RESTRICT innerSums,
                       const float* HWY_RESTRICT addInner, const float* HWY_RESTRICT subInner, double innerWeight,
                       std::int64_t nf) {
  const hn::ScalableTag<double> d;
  const std::int64_t lanes = std::int64_t(hn::Lanes(d));
  const auto w = hn::Set(d, weight), iw = hn::Set(d, innerWeight);
  std::int64_t i = 0;
  for (; i + lanes <= nf; i += lanes) {
    const auto s = hn::Add(hn::LoadU(d, sums + i), hn::Sub(loadWide(d, add + i), loadWide(d, sub + i)));
    const auto t =
        hn::Add(hn::LoadU(d, innerSums + i), hn::Sub(loadWide(d, addInner + i), loadWide(d, subInner + i)));
    hn::StoreU(s, d, sums + i);
    hn::StoreU(t, d, innerSums + i);
    hn::StoreU(gridOfSum(d, hn::Add(hn::Mul(s, w), hn::Mul(t, iw))), hn::Rebind<float, decltype(d)>(), out + i);
  }
  for (; i < nf; ++i) {
    const double s = sums[i] + (double(add[i]) - double(sub[i]));
    const double t = innerSums[i] + (double(addInner[i]) - double(subInner[i]));
    sums[i] = s;
    innerSums[i] = t;
    out[i] = gridValue(s * weight + t * innerWeight);
  }
}

// One box pass along a row of interleaved RGBA (boxRow, BlurKernels.h). A pixel's four
// channels are one vector of four doubles, or two of two on 128-bit targets: the sums run
// along the row one pixel at a time, the same additions in the same order on every target.
template <class D, std::size_t K>
struct Pixel {
  hn::Vec<D> v[K];
};

template <class D, std::size_t K>
HWY_INLINE void loadPixel(D d, const float* HWY_RESTRICT p, Pixel<D, K>& px) {
  constexpr std::size_t n = 4 / K;
  for (std::size_t k = 0; k < K; ++k) px.v[k] = loadWide(d, p + k * n);
}

template <bool Inner>
HWY_INLINE void boxRowImpl(const float* HWY_RESTRICT in, float* HWY_RESTRICT out, std::int64_t nOut, int l,
                           double weight, int inner, double innerWeight) {
  using D = hn::CappedTag<double, 4>;
  const D d;
  constexpr std::size_t K = 4 / hn::MaxLanes(D());
  constexpr std::size_t n = 4 / K;
  const hn::Rebind<float, D> df;
  using V = hn::Vec<D>;
  V s[K], t[K];
  Pixel<D, K> a, b;
  for (std::size_t k = 0; k < K; ++k) s[k] = t[k] = hn::Zero(d);
  for (int q = 0; q <= 2 * l; ++q) {
    loadPixel(d, in + q * 4, a);
    for (std::size_t k = 0; k < K; ++k) s[k] = hn::Add(s[k], a.v[k]);
  }
  const int lo = l - inner, hi = l + inner + 1;
  if (Inner)
    for (int q = lo; q < hi; ++q) {
      loadPixel(d, in + q * 4, a);
      for (std::size_t k = 0; k < K; ++k) t[k] = hn::Add(t[k], a.v[k]);
    }
  const V w = hn::Set(d, weight), iw = hn::Set(d, innerWeight);
  for (std::int64_t j = 0; j < nOut; ++j) {
    for (std::size_t k = 0; k < K; ++k) {
      const V v = Inner ? hn::Add(hn::Mul(s[k], w), hn::Mul(t[k], iw)) : hn::Mul(s[k], w);
      hn::StoreU(gridOfSum(d, v), df, out + j * 4 + std::int64_t(k * n));
    }
    if (j + 1 == nOut) break;
    loadPixel(d, in + (j + 2 * l + 1) * 4, a);
    loadPixel(d, in + j * 4, b);
    for (std::size_t k = 0; k < K; ++k) s[k] = hn::Add(s[k], hn::Sub(a.v[k], b.v[k]));
    if (Inner) {
      loadPixel(d, in + (j + hi) * 4, a);
      loadPixel(d, in + (j + lo) * 4, b);
      for (std::size_t k = 0; k < K; ++k) t[k] = hn::Add(t[k], hn::Sub(a.v[k], b.v[k]));
    }
  }
}

void BoxRow(const float* HWY_RESTRICT in, float* HWY_RESTRICT out, std::int64_t nOut, int l, double weight, int inner,
            double innerWeight) {
  if (inner < 0)
    boxRowImpl<false>(in, out, nOut, l, weight, inner, innerWeight);
  else
    boxRowImpl<true>(in, out, nOut, l, weight, inner, innerWeight);
}

}  // namespace HWY_NAMESPACE
}  // namespace qv::blur
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace qv::blur {

HWY_EXPORT(GridCopy);
HWY_EXPORT(BoxSlideEmit);
HWY_EXPORT(BoxSlideEmitInner);
HWY_EXPORT(BoxRow);

void boxRow(const float* in, float* out, std::int64_t nOut, int l, double weight, int inner, double innerWeight) {
  HWY_DYNAMIC_DISPATCH(BoxRow)(in, out, nOut, l, weight, inner, innerWeight);
}

void gridCopy(const float* in, float* out, std::int64_t n) { HWY_DYNAMIC_DISPATCH(GridCopy)(in, out, n); }

void boxSlideEmit(float* out, double* sums, const float* add, const float* sub, double weight, std::int64_t nf) {
  HWY_DYNAMIC_DISPATCH(BoxSlideEmit)(out, sums, add, sub, weight, nf);
}

void boxSlideEmitInner(float* out, double* sums, const float* add, const float* sub, double weight, double* innerSums,
                       const float* addInner, const float* subInner, double innerWeight, std::int64_t nf) {
  HWY_DYNAMIC_DISPATCH(BoxSlideEmitInner)(out, sums, add, sub, weight, innerSums, addInner, subInner, innerWeight, nf);
}

}  // namespace qv::blur
#endif  // HWY_ONCE
