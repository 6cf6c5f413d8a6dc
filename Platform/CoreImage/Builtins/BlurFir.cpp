// The direct (FIR) convolution of the separable blurs, in Highway SIMD with run-time dispatch:
// the file is compiled once per instruction set Highway targets, and the first call picks the
// best one the processor has, for the whole process, so every tile of every render runs the
// same code.
//
// Every output value is the same sum in the same order whatever its position: the first tap
// multiplied, the others added with one fused multiply-add each, tap by tap. The main loops
// take whole vectors, and what remains of a row is taken one pixel (four floats) at a time
// with the same operations on a vector of four lanes, so a pixel computes the same bits at
// the start, the middle or the end of a tile's row: a tiled render equals the whole render.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "CoreImage/Builtins/BlurFir.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep

#include <hwy/highway.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "CoreImage/Builtins/BlurKernels.h"

HWY_BEFORE_NAMESPACE();
namespace qv::blur {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// One block of M × C output vectors. Along a row (Rows = false): M·C consecutive vectors of
// `out` from float i, whose pixel j needs in pixels j .. j + nTaps - 1; every vector loaded from
// `in` serves every output vector that needs it, under the tap that its offset gives. Down the
// columns (Rows = true): C vectors from float i in each of M consecutive output rows; each
// input row loaded serves all M rows. Either way an output value is
// taps[0]·x0 + taps[1]·x1 + ... in that order, as in a block of any other shape.
template <bool Rows, int M, int C, class D>
HWY_INLINE void firBlock(D d, const float* HWY_RESTRICT in, const float* const* HWY_RESTRICT rows,
                         float* HWY_RESTRICT out, std::ptrdiff_t outStride, std::int64_t i,
                         const float* HWY_RESTRICT taps, int nTaps) {
  using V = hn::Vec<D>;
  const std::int64_t n = std::int64_t(hn::Lanes(d));
  // Taps between two neighbouring output blocks: one output row, or the pixels of C vectors.
  const int step = Rows ? 1 : int(C * n / 4);
  V acc[M][C];
  for (int m = 0; m < M; ++m)
    for (int c = 0; c < C; ++c) acc[m][c] = hn::Zero(d);
  const int nIn = nTaps + (M - 1) * step;
  for (int t = 0; t < nIn; ++t) {
    const float* src = Rows ? rows[t] + i : in + i + 4 * std::int64_t(t);
    V x[C];
    for (int c = 0; c < C; ++c) x[c] = hn::LoadU(d, src + c * n);
    for (int m = 0; m < M; ++m) {
      const int k = t - m * step;
      if (k < 0 || k >= nTaps) continue;
      const V w = hn::Set(d, taps[k]);
      for (int c = 0; c < C; ++c) acc[m][c] = k == 0 ? hn::Mul(w, x[c]) : hn::MulAdd(w, x[c], acc[m][c]);
    }
  }
  for (int m = 0; m < M; ++m)
    for (int c = 0; c < C; ++c)
      hn::StoreU(acc[m][c], d, Rows ? out + m * outStride + i + c * n : out + i + (m * C + c) * n);
}

void FirRow(const float* HWY_RESTRICT in, float* HWY_RESTRICT out, std::int64_t nOut, const float* HWY_RESTRICT taps,
            int nTaps) {
  const hn::ScalableTag<float> d;
  const hn::CappedTag<float, 4> d4;  // one pixel
  const std::int64_t nf = nOut * 4, n = std::int64_t(hn::Lanes(d)), n4 = std::int64_t(hn::Lanes(d4));
  std::int64_t i = 0;
  for (; i + 4 * n <= nf; i += 4 * n) firBlock<false, 4, 1>(d, in, nullptr, out, 0, i, taps, nTaps);
  for (; i + n <= nf; i += n) firBlock<false, 1, 1>(d, in, nullptr, out, 0, i, taps, nTaps);
  for (; i < nf; i += n4) firBlock<false, 1, 1>(d4, in, nullptr, out, 0, i, taps, nTaps);
}

// Output rows j .. j + M - 1 over floats x0 .. x1 of the strip.
template <int M>
HWY_INLINE void firColumnRows(const float* const* HWY_RESTRICT rows, float* HWY_RESTRICT out, std::ptrdiff_t outStride,
                              std::int64_t x0, std::int64_t x1, const float* HWY_RESTRICT taps, int nTaps) {
  const hn::ScalableTag<float> d;
  const hn::CappedTag<float, 4> d4;
  const std::int64_t n = std::int64_t(hn::Lanes(d)), n4 = std::int64_t(hn::Lanes(d4));
  std::int64_t i = x0;
  for (; i + 2 * n <= x1; i += 2 * n) firBlock<true, M, 2>(d, nullptr, rows, out, outStride, i, taps, nTaps);
  for (; i + n <= x1; i += n) firBlock<true, M, 1>(d, nullptr, rows, out, outStride, i, taps, nTaps);
  for (; i < x1; i += n4) firBlock<true, M, 1>(d4, nullptr, rows, out, outStride, i, taps, nTaps);
}

void FirColumns(const float* const* HWY_RESTRICT rows, float* HWY_RESTRICT out, std::ptrdiff_t outStride,
                std::int64_t nOut, std::int64_t nf, const float* HWY_RESTRICT taps, int nTaps) {
  // Strips of 64 pixels: the rows one block of output rows reads (nTaps + 3 kilobytes) stay in
  // the first-level cache, the strip's whole window in the second.
  constexpr std::int64_t kStrip = 256;
  for (std::int64_t x0 = 0; x0 < nf; x0 += kStrip) {
    const std::int64_t x1 = std::min(nf, x0 + kStrip);
    std::int64_t j = 0;
    for (; j + 4 <= nOut; j += 4) firColumnRows<4>(rows + j, out + j * outStride, outStride, x0, x1, taps, nTaps);
    for (; j < nOut; ++j) firColumnRows<1>(rows + j, out + j * outStride, outStride, x0, x1, taps, nTaps);
  }
}

template <class D>
HWY_INLINE void clampSpan(D d, const float* HWY_RESTRICT in, float* HWY_RESTRICT out, std::int64_t& i, std::int64_t n) {
  const std::int64_t lanes = std::int64_t(hn::Lanes(d));
  const auto hi = hn::Set(d, kGridLimit), lo = hn::Set(d, -kGridLimit);
  for (; i + lanes <= n; i += lanes) {
    auto v = hn::LoadU(d, in + i);
    v = hn::IfThenElseZero(hn::Eq(v, v), v);
    hn::StoreU(hn::Min(hn::Max(v, lo), hi), d, out + i);
  }
}

void CopyClamped(const float* HWY_RESTRICT in, float* HWY_RESTRICT out, std::int64_t n) {
  std::int64_t i = 0;
  clampSpan(hn::ScalableTag<float>(), in, out, i, n);
  clampSpan(hn::CappedTag<float, 4>(), in, out, i, n);
  for (; i < n; ++i) {
    const float v = in[i] == in[i] ? in[i] : 0.0f;
    out[i] = std::min(std::max(v, -kGridLimit), kGridLimit);
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace qv::blur
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace qv::blur {

HWY_EXPORT(FirRow);
HWY_EXPORT(FirColumns);
HWY_EXPORT(CopyClamped);

void firRow(const float* in, float* out, std::int64_t nOut, const float* taps, int nTaps) {
  HWY_DYNAMIC_DISPATCH(FirRow)(in, out, nOut, taps, nTaps);
}

void firColumns(const float* const* rows, float* out, std::ptrdiff_t outStride, std::int64_t nOut, std::int64_t nf,
                const float* taps, int nTaps) {
  HWY_DYNAMIC_DISPATCH(FirColumns)(rows, out, outStride, nOut, nf, taps, nTaps);
}

void copyClamped(const float* in, float* out, std::int64_t n) { HWY_DYNAMIC_DISPATCH(CopyClamped)(in, out, n); }

}  // namespace qv::blur
#endif  // HWY_ONCE
