// The direct (FIR) convolution of the separable blurs, in Highway SIMD with run-time dispatch:
// the file is compiled once per instruction set Highway targets, and the first call picks the
// best one the processor has, for the whole process, so every tile of every render runs the
// same code.
//
// The taps are symmetric, so each pair of input values at the same distance from the centre is
// added first and multiplied once: (n + 1) / 2 products instead of n, and the additions run on
// the processor's adder ports beside the fused multiply-adds. Every output value is the same
// sum in the same order whatever its position: the outermost pair multiplied, the pairs inwards
// added with one fused multiply-add each, the centre last. Both passes run down "columns": each
// vector lane is one float of one column and sees no other lane, so no lane is ever shuffled.
// Along x, a block of rows is first transposed pixel by pixel (a pixel is four floats, the
// smallest unit of the transposition) so that a row's pixels lie one above the other, filtered
// as columns, and transposed back. What remains of a row is taken one pixel (four floats) at a
// time with the same operations on a vector of four lanes, so a pixel computes the same bits at
// the start, the middle or the end of a tile's row, and in any block of rows: a tiled render
// equals the whole render.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "CoreImage/Builtins/BlurFir.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep

#include <hwy/highway.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "CoreImage/Builtins/BlurKernels.h"

HWY_BEFORE_NAMESPACE();
namespace qv::blur {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// Output rows j .. j + M - 1 (out + m·outStride), one vector from float i of each: output row
// j + m is the sum over k < h of taps[k]·(row j + m + k + row j + m + 2h - k), plus taps[h]·row
// j + m + h. At pair k the M rows need the inputs j + k .. j + k + M - 1 above the centre and
// j + 2h - k .. j + 2h - k + M - 1 below it; both windows stay in registers and move by one row
// per pair (one row loaded at each end), so each input row is loaded about twice per block.
template <int M, class D>
HWY_INLINE void foldedBlock(D d, const float* const* HWY_RESTRICT rows, float* HWY_RESTRICT out,
                            std::ptrdiff_t outStride, std::int64_t i, const float* HWY_RESTRICT taps, int h) {
  using V = hn::Vec<D>;
  V acc[M], top[M], bottom[M];
  for (int m = 0; m < M; ++m) {
    acc[m] = hn::Zero(d);  // (only read after the first pair)
    top[m] = hn::LoadU(d, rows[m] + i);
    bottom[m] = hn::LoadU(d, rows[2 * h + m] + i);
  }
  for (int k = 0; k < h; ++k) {
    if (k > 0) {
      for (int m = 0; m + 1 < M; ++m) top[m] = top[m + 1];
      for (int m = M - 1; m > 0; --m) bottom[m] = bottom[m - 1];
      top[M - 1] = hn::LoadU(d, rows[k + M - 1] + i);
      bottom[0] = hn::LoadU(d, rows[2 * h - k] + i);
    }
    const V w = hn::Set(d, taps[k]);
    for (int m = 0; m < M; ++m) {
      const V pair = hn::Add(top[m], bottom[m]);
      acc[m] = k == 0 ? hn::Mul(w, pair) : hn::MulAdd(w, pair, acc[m]);
    }
  }
  const V w = hn::Set(d, taps[h]);
  for (int m = 0; m < M; ++m) {
    const V x = hn::LoadU(d, rows[h + m] + i);
    hn::StoreU(h == 0 ? hn::Mul(w, x) : hn::MulAdd(w, x, acc[m]), d, out + m * outStride + i);
  }
}

// Output rows per block: eight where the processor has the registers for their accumulators
// and both windows (32 vector registers with AVX-512), four below (16). Measured with
// bench/blur_bench.cpp (BM_GaussianKernel_Tile1024): with AVX-512, eight rows of one vector
// matched four rows of two vectors, and both were well ahead of the unfolded kernel.
#if HWY_TARGET <= HWY_AVX3
constexpr int kBlockRows = 8;
#else
constexpr int kBlockRows = 4;
#endif

// Output rows j .. j + M - 1 over floats x0 .. x1: whole vectors, then pixels.
template <int M>
HWY_INLINE void foldedRows(const float* const* HWY_RESTRICT rows, float* HWY_RESTRICT out, std::ptrdiff_t outStride,
                           std::int64_t x0, std::int64_t x1, const float* HWY_RESTRICT taps, int h) {
  const hn::ScalableTag<float> d;
  const hn::CappedTag<float, 4> d4;  // one pixel
  const std::int64_t n = std::int64_t(hn::Lanes(d)), n4 = std::int64_t(hn::Lanes(d4));
  std::int64_t i = x0;
  for (; i + n <= x1; i += n) foldedBlock<M>(d, rows, out, outStride, i, taps, h);
  for (; i < x1; i += n4) foldedBlock<M>(d4, rows, out, outStride, i, taps, h);
}

// Output rows 0 .. nOut - 1 over floats x0 .. x1 of `rows`.
HWY_INLINE void foldedStrip(const float* const* HWY_RESTRICT rows, float* HWY_RESTRICT out, std::ptrdiff_t outStride,
                            std::int64_t nOut, std::int64_t x0, std::int64_t x1, const float* HWY_RESTRICT taps,
                            int h) {
  // The rows left after the whole blocks in blocks of 4, 2 and 1: a single row has only one
  // chain of multiply-adds, each waiting for the one before.
  std::int64_t j = 0;
  for (; j + kBlockRows <= nOut; j += kBlockRows)
    foldedRows<kBlockRows>(rows + j, out + j * outStride, outStride, x0, x1, taps, h);
  if (kBlockRows > 4 && j + 4 <= nOut) {
    foldedRows<4>(rows + j, out + j * outStride, outStride, x0, x1, taps, h);
    j += 4;
  }
  if (j + 2 <= nOut) {
    foldedRows<2>(rows + j, out + j * outStride, outStride, x0, x1, taps, h);
    j += 2;
  }
  if (j < nOut) foldedRows<1>(rows + j, out + j * outStride, outStride, x0, x1, taps, h);
}

// Strips of kStrip floats (16 pixels), each first copied into one contiguous block: the window
// of rows that a block of output rows reads (nTaps + 7 rows of 256 bytes) then stays in the
// first-level cache whatever the rows' stride. (Read in place, rows a power-of-two stride
// apart fall into the same few cache sets, and rows of a wide picture each in their own page.)
// The copies are made for kGroupStrips strips at a time, row by row, so that each input row is
// read as one run of 2 kilobytes and the copies of the group (a tile's rows of 128 pixels) stay
// in the second-level cache until the strips are filtered.
// Kernels of up to kPackedTaps taps (sigma below 1.5) read the rows in place: their copies
// cost more than they save (measured: BM_GaussianPlan_RGBAf at sigma 1).
constexpr std::int64_t kStrip = 64, kGroupStrips = 8;
constexpr int kPackedTaps = 9;

template <class D>
HWY_INLINE void copySpan(D d, const float* HWY_RESTRICT in, float* HWY_RESTRICT out, std::int64_t& i, std::int64_t n) {
  const std::int64_t lanes = std::int64_t(hn::Lanes(d));
  for (; i + lanes <= n; i += lanes) hn::StoreU(hn::LoadU(d, in + i), d, out + i);
}

void FirColumns(const float* const* HWY_RESTRICT rows, float* HWY_RESTRICT out, std::ptrdiff_t outStride,
                std::int64_t nOut, std::int64_t nf, const float* HWY_RESTRICT taps, int nTaps) {
  const int h = nTaps / 2;
  if (nTaps <= kPackedTaps) {
    // A short window fits the first-level cache as it is.
    for (std::int64_t x0 = 0; x0 < nf; x0 += kStrip)
      foldedStrip(rows, out, outStride, nOut, x0, std::min(nf, x0 + kStrip), taps, h);
    return;
  }
  const std::int64_t nIn = nOut + nTaps - 1;
  thread_local std::vector<float> packed;
  thread_local std::vector<const float*> packedRows;
  if (packed.size() < std::size_t(nIn * kStrip * kGroupStrips)) packed.resize(std::size_t(nIn * kStrip * kGroupStrips));
  packedRows.resize(std::size_t(nIn));
  for (std::int64_t g0 = 0; g0 < nf; g0 += kStrip * kGroupStrips) {
    const std::int64_t g1 = std::min(nf, g0 + kStrip * kGroupStrips);
    // Strip s of the group: floats g0 + s·kStrip on, width w, rows at packed + s·nIn·kStrip.
    for (std::int64_t t = 0; t < nIn; ++t)
      for (std::int64_t x0 = g0; x0 < g1; x0 += kStrip) {
        const std::int64_t w = std::min(kStrip, g1 - x0);
        float* dst = packed.data() + (x0 - g0) * nIn + t * w;
        std::int64_t i = 0;
        copySpan(hn::ScalableTag<float>(), rows[t] + x0, dst, i, w);
        copySpan(hn::CappedTag<float, 4>(), rows[t] + x0, dst, i, w);
        copySpan(hn::CappedTag<float, 1>(), rows[t] + x0, dst, i, w);
      }
    for (std::int64_t x0 = g0; x0 < g1; x0 += kStrip) {
      const std::int64_t w = std::min(kStrip, g1 - x0);
      for (std::int64_t t = 0; t < nIn; ++t) packedRows[std::size_t(t)] = packed.data() + (x0 - g0) * nIn + t * w;
      foldedStrip(packedRows.data(), out + x0, outStride, nOut, 0, w, taps, h);
    }
  }
}

// Rows transposed together along x: four, sixteen floats per transposed row, one AVX-512
// vector (two AVX2 ones).
constexpr std::int64_t kRowGroup = 4, kGroupFloats = 4 * kRowGroup;

void FirRows(const float* HWY_RESTRICT in, std::ptrdiff_t inStride, float* HWY_RESTRICT out, std::ptrdiff_t outStride,
             std::int64_t nRows, std::int64_t nOut, const float* HWY_RESTRICT taps, int nTaps) {
  const hn::CappedTag<float, 4> d4;  // a pixel, or a part of one where vectors are narrower
  const std::int64_t n4 = std::int64_t(hn::Lanes(d4));
  const auto hi = hn::Set(d4, kGridLimit), lo = hn::Set(d4, -kGridLimit);
  const std::int64_t nIn = nOut + nTaps - 1;
  thread_local std::vector<float> transposed, filtered;
  thread_local std::vector<const float*> rows;
  if (transposed.size() < std::size_t(nIn * kGroupFloats)) transposed.resize(std::size_t(nIn * kGroupFloats));
  if (filtered.size() < std::size_t(nOut * kGroupFloats)) filtered.resize(std::size_t(nOut * kGroupFloats));
  rows.resize(std::size_t(nIn));
  for (std::int64_t t = 0; t < nIn; ++t) rows[std::size_t(t)] = transposed.data() + t * kGroupFloats;
  for (std::int64_t r0 = 0; r0 < nRows; r0 += kRowGroup) {
    // Pixel x of the group's row r goes to transposed row x, floats 4r .. 4r + 3, with the input
    // rule of every separable pass (NaN as 0, clamped to ±kGridLimit). A group past the last
    // row repeats that row and drops its results.
    const float* src[kRowGroup];
    for (std::int64_t r = 0; r < kRowGroup; ++r) src[r] = in + std::min(r0 + r, nRows - 1) * inStride;
    // One transposed row (a cache line of AVX-512's size) written whole at a time.
    for (std::int64_t x = 0; x < nIn; ++x) {
      float* dst = transposed.data() + x * kGroupFloats;
      for (std::int64_t r = 0; r < kRowGroup; ++r)
        for (std::int64_t c = 0; c < 4; c += n4) {
          auto v = hn::LoadU(d4, src[r] + 4 * x + c);
          v = hn::IfThenElseZero(hn::Eq(v, v), v);
          hn::StoreU(hn::Min(hn::Max(v, lo), hi), d4, dst + 4 * r + c);
        }
    }
    foldedStrip(rows.data(), filtered.data(), kGroupFloats, nOut, 0, kGroupFloats, taps, nTaps / 2);
    const std::int64_t nr = std::min(kRowGroup, nRows - r0);
    float* dst[kRowGroup];
    for (std::int64_t r = 0; r < nr; ++r) dst[r] = out + (r0 + r) * outStride;
    for (std::int64_t x = 0; x < nOut; ++x) {
      const float* f = filtered.data() + x * kGroupFloats;
      for (std::int64_t r = 0; r < nr; ++r)
        for (std::int64_t c = 0; c < 4; c += n4) hn::StoreU(hn::LoadU(d4, f + 4 * r + c), d4, dst[r] + 4 * x + c);
    }
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace qv::blur
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace qv::blur {

HWY_EXPORT(FirRows);
HWY_EXPORT(FirColumns);

void firRows(const float* in, std::ptrdiff_t inStride, float* out, std::ptrdiff_t outStride, std::int64_t nRows,
             std::int64_t nOut, const float* taps, int nTaps) {
  if (nRows <= 0 || nOut <= 0) return;
  HWY_DYNAMIC_DISPATCH(FirRows)(in, inStride, out, outStride, nRows, nOut, taps, nTaps);
}

void firColumns(const float* const* rows, float* out, std::ptrdiff_t outStride, std::int64_t nOut, std::int64_t nf,
                const float* taps, int nTaps) {
  if (nOut <= 0 || nf <= 0) return;
  HWY_DYNAMIC_DISPATCH(FirColumns)(rows, out, outStride, nOut, nf, taps, nTaps);
}

}  // namespace qv::blur
#endif  // HWY_ONCE
