// Pixel routines of the blur, morphology and distortion built-ins. Each works on premultiplied
// RGBA float tiles in absolute pixel coordinates: `in` must cover `out.rect` grown by the
// routine's support, and every output pixel is a function of the input pixels alone, never of
// where the tile starts. Running sums are kept exact for that reason: values are first rounded
// to a fixed grid (kGridQuantum) and summed in double precision, where sums of grid values up
// to 2^53 quanta are exact, so a sum slid along a row equals the sum taken directly.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "CoreImage/ImageNode.h"

namespace qv::blur {

// The grid on which running sums are exact, and the magnitude values are clamped to (NaN
// reads as 0). 2^-22 is 1/4 000 000, far below one step of a 16-bit encoded value.
inline constexpr float kGridQuantum = 1.0f / 4194304.0f;  // 2^-22
inline constexpr float kGridLimit = 256.0f;

// Rounds a value to the nearest point of the summation grid (halves to even): scale, clamp
// (NaN reads as 0), round with the 1.5·2^52 trick (exact for the clamped range, and
// vectorisable where std::nearbyint is not), scale back. Every result is a float on the grid:
// below 2 the grid multiple is exact in float, from 2 up every float is a grid multiple.
// Compiled without floating-point trap semantics (no result changes), as the loops that inline
// it are, so that they may turn its clamps and selects into vector blends.
#if defined(__GNUC__) && !defined(__clang__)
__attribute__((optimize("no-trapping-math")))
#endif
inline float gridValue(double v) {
  constexpr double kScale = 1.0 / double(kGridQuantum), kLimit = double(kGridLimit) / double(kGridQuantum);
  constexpr double kRound = 6755399441055744.0;  // 1.5 · 2^52
  double s = v * kScale;
  s = s == s ? s : 0.0;
  s = s < -kLimit ? -kLimit : s;
  s = s > kLimit ? kLimit : s;
  s = (s + kRound) - kRound;
  return float(s * double(kGridQuantum));
}

// One 1-D pass of a separable filter: either boxes, the sum of a box of 2l+1 taps of weight
// `weight` and, when `inner` >= 0, a narrower box of 2·inner+1 taps of weight `innerWeight`
// centred on it (a plain box: no inner box, weight 1/(2l+1)), each kept as a running sum; or
// an explicit symmetric FIR.
struct Pass1D {
  bool fir = false;
  int l = 0;
  double weight = 0;
  int inner = -1;  // < l
  double innerWeight = 0;
  std::vector<float> taps;  // FIR: 2*support+1 weights, centre in the middle
  int support() const { return fir ? int(taps.size() / 2) : l; }
};

// A separable filter: passes along x, then along y.
struct SeparablePlan {
  std::vector<Pass1D> horizontal, vertical;
  int supportX() const;
  int supportY() const;
  bool identity() const { return horizontal.empty() && vertical.empty(); }
};

// Gaussian of standard deviation sigma. Below 0.16 the plan is the identity. Two ways to
// compute it, and planGaussian takes the faster one for sigma:
//   planGaussianDirect: one pass per axis of the exact sampled Gaussian truncated at
//     ceil(3 sigma) and normalised to a sum of 1 (direct convolution, SIMD); its cost grows
//     with sigma.
//   planGaussianBoxes: three passes per axis of two nested boxes, half-widths round(0.6162
//     sigma) and round(1.2501 sigma), weighted so that the three have kBoxesVariance sigma^2,
//     close to the direct kernel's (truncation makes that 2.7 % less than sigma^2); cost
//     independent of sigma, reach about 3.75 sigma. Of the constant-cost shapes measured
//     (bench/README.md) it is the one that agrees with the direct kernel within the golden
//     tolerance: its kernel differs from the truncated sampled Gaussian by about 1 % of the
//     peak, where three extended boxes (one width each) differ by 6 %.
// The switch is at kDirectSigma, where the direct passes stop being faster (measured:
// bench/blur_bench.cpp, BM_GaussianPlan_RGBAf, see bench/README.md): with the symmetric taps
// folded, the direct passes take 107 ms at sigma 18, 112 at 20 and 122 at 22 where the boxes
// take 116, 113 and 111. Were the direct kernel slower, the switch could not go below about 16:
// at sigma 8, 10 and 12.5 the boxes fall outside the golden tolerance of the direct kernel on
// the nearly transparent colour edges of the photo with alpha (they agree from 14 up). Sigma is
// capped at kMaxSigma to bound the region a tile reads.
inline constexpr double kIdentitySigma = 0.16;
inline constexpr double kDirectSigma = 20.0;
inline constexpr double kMaxSigma = 500.0;
// The box passes' variance, in sigma^2 (the truncated sampled Gaussian has 0.973 sigma^2 at large
// sigma; this value, with the boxes' half-widths, fits that kernel best).
inline constexpr double kBoxesVariance = 0.9688;
SeparablePlan planGaussian(double sigma);
SeparablePlan planGaussianDirect(double sigma);
SeparablePlan planGaussianBoxes(double sigma);
// A plain box of (2rx+1) × (2ry+1) pixels.
SeparablePlan planBox(int rx, int ry);

void applySeparable(const ConstPixelTile& in, const PixelTile& out, const SeparablePlan& plan);
// The two halves of applySeparable, for graphs that run them as two nodes: `in` covers out.rect
// grown by supportX() along x, respectively supportY() along y. For box passes the horizontal
// half rounds its input to the summation grid (its output is on the grid) and the vertical half
// expects its input on the grid, as the horizontal half leaves it. Direct passes need no grid.
void applyHorizontal(const ConstPixelTile& in, const PixelTile& out, const SeparablePlan& plan);
void applyVertical(const ConstPixelTile& in, const PixelTile& out, const SeparablePlan& plan);

// Direct convolution kernels (BlurFir.cpp), on interleaved RGBA floats, with symmetric taps
// (taps[k] == taps[nTaps - 1 - k], nTaps odd). Each output value is the same sum of products in
// the same order wherever it lies in a row, a block of rows or a tile: the outermost pair of
// inputs added and multiplied by its tap, each pair inwards added and multiplied-added, the
// centre last.
//   firRows: out row r pixel j = sum over k of taps[k] * in row r pixel j + k, for r < nRows
//     and j < nOut; each `in` row holds nOut + nTaps - 1 pixels and is read with the input rule
//     of every separable pass (NaN as 0, clamped to ±kGridLimit).
//   firColumns: out row j = sum over k of taps[k] * rows[j + k], nf floats per row (a multiple
//     of 4), for j < nOut; `rows` holds nOut + nTaps - 1 row pointers.
void firRows(const float* in, std::ptrdiff_t inStride, float* out, std::ptrdiff_t outStride, std::int64_t nRows,
             std::int64_t nOut, const float* taps, int nTaps);
void firColumns(const float* const* rows, float* out, std::ptrdiff_t outStride, std::int64_t nOut, std::int64_t nf,
                const float* taps, int nTaps);

// Running-sum kernels of the box passes (BlurBoxes.cpp), the same bits on every instruction set
// and at every position:
//   gridCopy: out = gridValue(in), n floats.
//   boxSlideEmit: per float i < nf, sums[i] += add[i] - sub[i], then out[i] =
//     gridValue(sums[i] · weight); `add`, `sub` on the grid.
//   boxSlideEmitInner: the same with a second window sum, out[i] = gridValue(sums[i] · weight +
//     innerSums[i] · innerWeight).
//   boxRow: one box pass (Pass1D's l, weight, inner, innerWeight) along a row of nOut + 2l
//     RGBA pixels on the grid: out pixel j = gridValue(weight · (sum of in pixels j .. j + 2l) +
//     innerWeight · (sum of in pixels j + l - inner .. j + l + inner)), both sums slid along
//     the row (exact on the grid); with inner < 0 the first term alone.
void gridCopy(const float* in, float* out, std::int64_t n);
void boxSlideEmit(float* out, double* sums, const float* add, const float* sub, double weight, std::int64_t nf);
void boxSlideEmitInner(float* out, double* sums, const float* add, const float* sub, double weight, double* innerSums,
                       const float* addInner, const float* subInner, double innerWeight, std::int64_t nf);
void boxRow(const float* in, float* out, std::int64_t nOut, int l, double weight, int inner, double innerWeight);

// Mean over the disc of radius r: pixel offsets with dx² + dy² <= r². When ringAmount is not
// 0, the annulus r·(1 − ringSize) < |d| <= r weighs 1 + ringAmount instead of 1 (a bokeh
// kernel with a bright rim). Support: discSupport(r).
int discSupport(double r);
void discBlur(const ConstPixelTile& in, const PixelTile& out, double r, double ringAmount = 0, double ringSize = 0);

// Per-channel maximum (or minimum) over the disc of radius r (offsets with dx² + dy² <= r²).
void morphologyDisc(const ConstPixelTile& in, const PixelTile& out, double r, bool maximum);
// Per-channel maximum (or minimum) over a (2rx+1) × (2ry+1) rectangle.
void morphologyRect(const ConstPixelTile& in, const PixelTile& out, int rx, int ry, bool maximum);

// Per-channel median of the 3×3 neighbourhood. Support 1.
void median3x3(const ConstPixelTile& in, const PixelTile& out);

// Bilinear sample at a point of the image plane (pixel (i, j) has its centre at (i + ½, j + ½));
// transparent outside the tile.
void sampleBilinear(const ConstPixelTile& in, double x, double y, float* rgba);

// One pixel's premultiplied RGBA in one register: element-wise IEEE arithmetic, the same
// results as four scalar operations.
typedef float Float4 __attribute__((vector_size(16)));

// acc += sampleBilinear(in, x, y) for a point whose four texels lie inside `in` (x - 0.5 and
// y - 0.5 at least one texel inside its left and bottom edges and two inside its right and top
// ones), bit for bit, without bounds checks or library calls.
inline void addBilinearInside(const ConstPixelTile& in, double x, double y, Float4& acc) {
  const double fx = x - 0.5, fy = y - 0.5;
  // floor, inline; for -0.0 it gives +0.0, so the fraction is -0.0 instead of +0.0: the same
  // index, and the weights it makes zero are zero either way (and skipped).
  double x0f = double(std::int64_t(fx)), y0f = double(std::int64_t(fy));
  if (x0f > fx) x0f -= 1.0;
  if (y0f > fy) y0f -= 1.0;
  const float wx = float(fx - x0f), wy = float(fy - y0f);
  const float w[4] = {(1 - wx) * (1 - wy), wx * (1 - wy), (1 - wx) * wy, wx * wy};
  const float* p = in.at(std::int64_t(x0f), std::int64_t(y0f));
  const float* q[4] = {p, p + 4, p + in.stride, p + in.stride + 4};
  Float4 sum = {0, 0, 0, 0};
  for (int k = 0; k < 4; ++k) {
    if (w[k] == 0) continue;
    Float4 texel;
    std::memcpy(&texel, q[k], sizeof texel);
    sum += w[k] * texel;
  }
  acc += sum;
}

// acc += sampleBilinear(in, x, y), bit for bit, inline: where the sample's four texels lie
// inside `in` (all but the tile's border), through addBilinearInside. Lines of samples (the
// motion and zoom blurs) spend nearly all their time here.
inline void addBilinear(const ConstPixelTile& in, double x, double y, Float4& acc) {
  const double fx = x - 0.5, fy = y - 0.5;
  if (std::fabs(fx) < 1e15 && std::fabs(fy) < 1e15) {
    double x0f = double(std::int64_t(fx)), y0f = double(std::int64_t(fy));  // floor, inline
    if (x0f > fx) x0f -= 1.0;
    if (y0f > fy) y0f -= 1.0;
    if (x0f >= double(in.rect.x) && x0f + 1 < double(in.rect.maxX()) && y0f >= double(in.rect.y) &&
        y0f + 1 < double(in.rect.maxY()))
      return addBilinearInside(in, x, y, acc);
  }
  Float4 sum;
  sampleBilinear(in, x, y, reinterpret_cast<float*>(&sum));
  acc += sum;
}

// Whether every point of the segment from (x0, y0) to (x1, y1), give or take a rounding, may be
// sampled by addBilinearInside: its ends lie at least one texel inside `in` on every side.
inline bool segmentInside(const ConstPixelTile& in, double x0, double y0, double x1, double y1) {
  const double lx = std::min(x0, x1) - 0.5, hx = std::max(x0, x1) - 0.5;
  const double ly = std::min(y0, y1) - 0.5, hy = std::max(y0, y1) - 0.5;
  return lx >= double(in.rect.x) + 1 && hx < double(in.rect.maxX()) - 2 && ly >= double(in.rect.y) + 1 &&
         hy < double(in.rect.maxY()) - 2;
}

// `in` itself when it covers `need`; otherwise a copy of it over `need` in `storage`,
// transparent where `in` has no pixels.
ConstPixelTile coverRegion(const ConstPixelTile& in, const PixelRect& need, std::vector<float>& storage);

// A scratch tile owned by the caller.
struct TileBuffer {
  std::vector<float> pixels;
  PixelRect rect;
  explicit TileBuffer(const PixelRect& r) : pixels(std::size_t(r.width * r.height * 4), 0.0f), rect(r) {}
  PixelTile tile() { return PixelTile{pixels.data(), rect, rect.width * 4}; }
  ConstPixelTile constTile() const { return ConstPixelTile{pixels.data(), rect, rect.width * 4}; }
};

}  // namespace qv::blur
