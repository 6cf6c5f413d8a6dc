#include "CoreImage/Builtins/BlurKernels.h"

#include "CoreImage/Builtins/BlurNode.h"
#include "CoreImage/TargetClones.h"

#include <algorithm>
#include <cmath>
#include <cstring>

// The hot loops are compiled twice on x86-64, for AVX2 and for the baseline, and the loader
// picks one per process; every tile of a render therefore runs the same code. They are built
// without floating-point trap semantics (no result changes) so that the compiler may turn the
// clamps and selects into vector blends (one version where TargetClones.h says so).
#if QV_TARGET_CLONES
#define QV_BLUR_CLONES __attribute__((target_clones("avx2", "default"), optimize("no-trapping-math")))
#elif QV_GCC
#define QV_BLUR_CLONES __attribute__((optimize("no-trapping-math")))
#else
#define QV_BLUR_CLONES
#endif
#if defined(__GNUC__) && !defined(__clang__)
#define QV_BLUR_NO_TRAPS __attribute__((optimize("no-trapping-math")))
#else
#define QV_BLUR_NO_TRAPS
#endif

namespace qv::blur {
namespace {

constexpr float kInvQuantum = 4194304.0f;  // 1 / kGridQuantum

QV_BLUR_NO_TRAPS inline float onGrid(float v) { return gridValue(double(v)); }

struct Scratch {
  std::vector<float> rowA, rowB, stripA, stripB;
  std::vector<double> sums;
  std::vector<const float*> rows;
};

template <class T>
T* sized(std::vector<T>& v, std::size_t n) {
  if (v.size() < n) v.resize(n);
  return v.data();
}

// One box pass down a strip of nf floats (the vertical half of applySeparable), nOut output
// rows; `sums` holds 2·nf doubles.
QV_BLUR_CLONES void boxColumns(const float* in, std::ptrdiff_t inStride, float* out, std::ptrdiff_t outStride,
                               std::int64_t nOut, std::int64_t nf, int l, double weight, int inner, double innerWeight,
                               double* sums) {
  double* innerSums = sums + nf;
  for (std::int64_t i = 0; i < 2 * nf; ++i) sums[i] = 0;
  for (int k = 0; k <= 2 * l; ++k) {
    const float* r = in + k * inStride;
    for (std::int64_t i = 0; i < nf; ++i) sums[i] += r[i];
  }
  for (int k = l - inner; k <= l + inner; ++k) {
    const float* r = in + k * inStride;
    for (std::int64_t i = 0; i < nf; ++i) innerSums[i] += r[i];
  }
  for (std::int64_t j = 0; j < nOut; ++j) {
    float* o = out + j * outStride;
    if (inner < 0) {
      for (std::int64_t i = 0; i < nf; ++i) o[i] = gridValue(sums[i] * weight);
    } else {
      for (std::int64_t i = 0; i < nf; ++i) o[i] = gridValue(sums[i] * weight + innerSums[i] * innerWeight);
    }
    if (j + 1 < nOut) {
      const float* add = in + (j + 2 * l + 1) * inStride;
      const float* sub = in + j * inStride;
      for (std::int64_t i = 0; i < nf; ++i) sums[i] += double(add[i]) - double(sub[i]);
      if (inner >= 0) {
        const float* addInner = in + (j + l + inner + 1) * inStride;
        const float* subInner = in + (j + l - inner) * inStride;
        for (std::int64_t i = 0; i < nf; ++i) innerSums[i] += double(addInner[i]) - double(subInner[i]);
      }
    }
  }
}

void runColumnPass(const Pass1D& p, const float* in, std::ptrdiff_t inStride, float* out, std::ptrdiff_t outStride,
                   std::int64_t nOut, std::int64_t nf, double* sums, std::vector<const float*>& rows) {
  if (p.fir) {
    rows.resize(std::size_t(nOut) + p.taps.size() - 1);
    for (std::size_t k = 0; k < rows.size(); ++k) rows[k] = in + std::ptrdiff_t(k) * inStride;
    firColumns(rows.data(), out, outStride, nOut, nf, p.taps.data(), int(p.taps.size()));
  } else {
    boxColumns(in, inStride, out, outStride, nOut, nf, p.l, p.weight, p.inner, p.innerWeight, sums);
  }
}

// Two nested boxes of half-widths near innerRatio·sigma and outerRatio·sigma whose weights give
// the pass the variance `variance` exactly: a box of half-width l has variance l(l+1)/3, so the
// inner box (at most the target) takes the share a of the weight and the outer box (at least
// the target) 1 - a, with a·v_inner + (1 - a)·v_outer = variance.
Pass1D nestedBoxes(double sigma, double variance, double innerRatio, double outerRatio) {
  auto boxVariance = [](int l) { return l * (l + 1.0) / 3.0; };
  int inner = std::max(0, int(std::lround(innerRatio * sigma)));
  while (inner > 0 && boxVariance(inner) > variance) --inner;
  int outer = std::max(inner + 1, int(std::lround(outerRatio * sigma)));
  while (boxVariance(outer) < variance) ++outer;
  const double share = std::clamp((boxVariance(outer) - variance) / (boxVariance(outer) - boxVariance(inner)), 0.0, 1.0);
  Pass1D p;
  p.l = outer;
  p.weight = (1.0 - share) / (2.0 * outer + 1.0);
  p.inner = inner;
  p.innerWeight = share / (2.0 * inner + 1.0);
  return p;
}

// The sampled Gaussian truncated at ceil(3 sigma), normalised: 2·ceil(3 sigma) + 1 weights.
std::vector<double> sampledGaussian(double sigma) {
  const int r = int(std::ceil(3.0 * sigma));
  std::vector<double> w(std::size_t(2 * r + 1));
  double sum = 0;
  for (int k = -r; k <= r; ++k) sum += w[std::size_t(k + r)] = std::exp(-0.5 * k * k / (sigma * sigma));
  for (double& v : w) v /= sum;
  return w;
}

}  // namespace

int SeparablePlan::supportX() const {
  int s = 0;
  for (const auto& p : horizontal) s += p.support();
  return s;
}

int SeparablePlan::supportY() const {
  int s = 0;
  for (const auto& p : vertical) s += p.support();
  return s;
}

namespace {

// The sigma a Gaussian plan is made for (NaN and tiny values: none, the identity).
bool gaussianSigma(double& sigma) {
  if (!(sigma >= kIdentitySigma)) return false;  // also NaN
  sigma = std::min(sigma, kMaxSigma);
  return true;
}

}  // namespace

SeparablePlan planGaussianDirect(double sigma) {
  SeparablePlan plan;
  if (!gaussianSigma(sigma)) return plan;
  Pass1D pass;
  pass.fir = true;
  for (double w : sampledGaussian(sigma)) pass.taps.push_back(float(w));
  plan.horizontal = {pass};
  plan.vertical = plan.horizontal;
  return plan;
}

SeparablePlan planGaussianBoxes(double sigma) {
  SeparablePlan plan;
  if (!gaussianSigma(sigma)) return plan;
  // Half-widths 0.6162 sigma and 1.2501 sigma and a variance of 0.9688 sigma^2 in all (the
  // truncated sampled Gaussian has 0.973 sigma^2 at large sigma): the values that minimise,
  // over sigma 16 to 100, the largest difference from the truncated sampled Gaussian of the
  // kernel (1 % of its peak) and of a black-white edge's response (1.8 steps of 8-bit sRGB).
  // Three passes of one width each (extended boxes) differ by 6 % and 7 steps (bench/README.md).
  constexpr double kInner = 0.6162, kOuter = 1.2501;
  const Pass1D pass = nestedBoxes(sigma, kBoxesVariance * sigma * sigma / 3.0, kInner, kOuter);
  plan.horizontal = {pass, pass, pass};
  plan.vertical = plan.horizontal;
  return plan;
}

SeparablePlan planGaussian(double sigma) {
  return sigma < kDirectSigma ? planGaussianDirect(sigma) : planGaussianBoxes(sigma);
}

SeparablePlan planBox(int rx, int ry) {
  SeparablePlan plan;
  if (rx > 0) {
    Pass1D p;
    p.l = rx;
    p.weight = 1.0 / (2.0 * rx + 1.0);
    plan.horizontal.push_back(p);
  }
  if (ry > 0) {
    Pass1D p;
    p.l = ry;
    p.weight = 1.0 / (2.0 * ry + 1.0);
    plan.vertical.push_back(p);
  }
  return plan;
}

void applyHorizontal(const ConstPixelTile& in, const PixelTile& out, const SeparablePlan& plan) {
  thread_local Scratch scratch;
  const std::int64_t W = out.rect.width;
  if (W <= 0 || out.rect.height <= 0) return;
  const int sx = plan.supportX();
  if (plan.horizontal.size() == 1 && plan.horizontal.front().fir) {
    // A direct pass filters blocks of rows at once and applies the input rule itself.
    const Pass1D& p = plan.horizontal.front();
    firRows(in.at(out.rect.x - sx, out.rect.y), in.stride, out.row(out.rect.y), out.stride, out.rect.height, W,
            p.taps.data(), int(p.taps.size()));
    return;
  }
  const std::int64_t nIn = W + 2 * sx;
  float* rowA = sized(scratch.rowA, std::size_t(nIn * 4));
  float* rowB = sized(scratch.rowB, std::size_t(nIn * 4));
  for (std::int64_t y = out.rect.y; y < out.rect.maxY(); ++y) {
    const float* src = in.at(out.rect.x - sx, y);
    float* dstRow = out.row(y);
    if (plan.horizontal.empty()) {
      gridCopy(src, dstRow, W * 4);
      continue;
    }
    // Box passes sum exactly on the grid.
    gridCopy(src, rowA, nIn * 4);
    const float* cur = rowA;
    std::int64_t n = nIn;
    for (std::size_t i = 0; i < plan.horizontal.size(); ++i) {
      const Pass1D& p = plan.horizontal[i];
      const std::int64_t nOut = n - 2 * p.support();
      float* dst = i + 1 == plan.horizontal.size() ? dstRow : (cur == rowA ? rowB : rowA);
      boxRow(cur, dst, nOut, p.l, p.weight, p.inner, p.innerWeight);
      cur = dst;
      n = nOut;
    }
  }
}

void applyVertical(const ConstPixelTile& in, const PixelTile& out, const SeparablePlan& plan) {
  thread_local Scratch scratch;
  const std::int64_t W = out.rect.width, H = out.rect.height;
  if (W <= 0 || H <= 0) return;
  const int sy = plan.supportY();
  const std::int64_t rowsH = H + 2 * sy;
  const float* rows = in.at(out.rect.x, out.rect.y - sy);
  // Strips of columns narrow enough to stay in cache through all vertical passes.
  const std::int64_t stripPx = 64;
  float* stripA = sized(scratch.stripA, std::size_t(rowsH * stripPx * 4));
  float* stripB = sized(scratch.stripB, std::size_t(rowsH * stripPx * 4));
  double* sums = sized(scratch.sums, std::size_t(2 * stripPx * 4));
  for (std::int64_t x0 = 0; x0 < W; x0 += stripPx) {
    const std::int64_t nf = std::min(stripPx, W - x0) * 4;
    float* outBase = out.row(out.rect.y) + x0 * 4;
    if (plan.vertical.empty()) {
      for (std::int64_t j = 0; j < H; ++j)
        std::memcpy(outBase + j * out.stride, rows + (j + sy) * in.stride + x0 * 4, std::size_t(nf) * sizeof(float));
      continue;
    }
    const float* cur = rows + x0 * 4;
    std::ptrdiff_t curStride = in.stride;
    std::int64_t n = rowsH;
    for (std::size_t i = 0; i < plan.vertical.size(); ++i) {
      const Pass1D& p = plan.vertical[i];
      const std::int64_t nOut = n - 2 * p.support();
      const bool last = i + 1 == plan.vertical.size();
      float* dst = last ? outBase : (cur == stripA ? stripB : stripA);
      const std::ptrdiff_t dstStride = last ? out.stride : stripPx * 4;
      runColumnPass(p, cur, curStride, dst, dstStride, nOut, nf, sums, scratch.rows);
      cur = dst;
      curStride = dstStride;
      n = nOut;
    }
  }
}

void applySeparable(const ConstPixelTile& in, const PixelTile& out, const SeparablePlan& plan) {
  thread_local std::vector<float> rows;
  if (out.rect.empty()) return;
  const PixelRect rowsRect = out.rect.outset(0, plan.supportY());
  const PixelTile rowsTile{sized(rows, std::size_t(rowsRect.area() * 4)), rowsRect, rowsRect.width * 4};
  applyHorizontal(in, rowsTile, plan);
  applyVertical(ConstPixelTile{rowsTile.pixels, rowsRect, rowsTile.stride}, out, plan);
}

// ---- Discs ----

int discSupport(double r) { return r >= 0 ? int(std::floor(r)) : 0; }

namespace {

QV_BLUR_CLONES void prefixRow(const float* in, double* prefix, std::int64_t n) {
  double s[4] = {0, 0, 0, 0};
  for (int c = 0; c < 4; ++c) prefix[c] = 0;
  for (std::int64_t i = 0; i < n; ++i)
    for (int c = 0; c < 4; ++c) {
      s[c] += double(onGrid(in[i * 4 + c]));
      prefix[(i + 1) * 4 + c] = s[c];
    }
}

// acc[j] += weight · (prefix[j + hi] − prefix[j + lo]) per channel, for nf floats.
QV_BLUR_CLONES void accumulateSpan(double* acc, const double* prefix, std::int64_t nf, std::int64_t lo, std::int64_t hi,
                                   double weight) {
  const double* a = prefix + hi * 4;
  const double* b = prefix + lo * 4;
  for (std::int64_t i = 0; i < nf; ++i) acc[i] += weight * (a[i] - b[i]);
}

}  // namespace

void discBlur(const ConstPixelTile& in, const PixelTile& out, double r, double ringAmount, double ringSize) {
  const std::int64_t W = out.rect.width, H = out.rect.height;
  if (W <= 0 || H <= 0) return;
  const int R = discSupport(r);
  ringAmount = std::max(0.0, std::isfinite(ringAmount) ? ringAmount : 0.0);
  const double rIn = std::clamp(r * (1.0 - (std::isfinite(ringSize) ? ringSize : 0.0)), -1.0, r);
  const std::int64_t win = W + 2 * R;
  const std::int64_t rowsIn = H + 2 * R;
  std::vector<double> prefix(std::size_t(rowsIn * (win + 1) * 4));
  for (std::int64_t k = 0; k < rowsIn; ++k)
    prefixRow(in.at(out.rect.x - R, out.rect.y - R + k), prefix.data() + k * (win + 1) * 4, win);

  // Half-widths of the disc (and of the inner disc) per row offset, and the total weight.
  std::vector<int> half(std::size_t(2 * R + 1)), halfIn(std::size_t(2 * R + 1), -1);
  double total = 0;
  for (int dy = -R; dy <= R; ++dy) {
    const double q = r * r - double(dy) * dy;
    const int h = q >= 0 ? int(std::floor(std::sqrt(q))) : -1;
    half[std::size_t(dy + R)] = h;
    total += (1.0 + ringAmount) * (2 * h + 1);
    const double qi = rIn * rIn - double(dy) * dy;
    if (ringAmount > 0 && rIn >= 0 && qi >= 0) {
      const int hi = int(std::floor(std::sqrt(qi)));
      halfIn[std::size_t(dy + R)] = hi;
      total -= ringAmount * (2 * hi + 1);
    }
  }
  const double norm = total > 0 ? 1.0 / total : 0.0;

  std::vector<double> acc(std::size_t(W * 4));
  for (std::int64_t j = 0; j < H; ++j) {
    std::fill(acc.begin(), acc.end(), 0.0);
    for (int dy = -R; dy <= R; ++dy) {
      const double* p = prefix.data() + (j + R + dy) * (win + 1) * 4;
      const int h = half[std::size_t(dy + R)];
      if (h >= 0) accumulateSpan(acc.data(), p, W * 4, R - h, R + h + 1, 1.0 + ringAmount);
      const int hi = halfIn[std::size_t(dy + R)];
      if (hi >= 0) accumulateSpan(acc.data(), p, W * 4, R - hi, R + hi + 1, -ringAmount);
    }
    float* o = out.row(out.rect.y + j);
    for (std::int64_t i = 0; i < W * 4; ++i) o[i] = float(acc[std::size_t(i)] * norm);
  }
}

// ---- Morphology ----

namespace {

template <bool Max>
inline float extremum(float a, float b) {
  if constexpr (Max)
    return a > b ? a : b;
  else
    return a < b ? a : b;
}

// van Herk / Gil-Werman running extremum over windows of 2h+1 pixels: three comparisons per
// value whatever the window. in has nOut + 2h pixels; out[j] = extremum of in[j .. j+2h].
// combine: out = extremum(out, result) instead of out = result.
template <bool Max>
void slidingRow(const float* in, float* out, std::int64_t nOut, int h, bool combine, float* g, float* hb) {
  const std::int64_t nIn = nOut + 2 * std::int64_t(h);
  const std::int64_t w = 2 * std::int64_t(h) + 1;
  if (h == 0) {
    for (std::int64_t i = 0; i < nOut * 4; ++i) out[i] = combine ? extremum<Max>(out[i], in[i]) : in[i];
    return;
  }
  for (std::int64_t i = 0; i < nIn; ++i)
    for (int c = 0; c < 4; ++c)
      g[i * 4 + c] = (i % w == 0) ? in[i * 4 + c] : extremum<Max>(g[(i - 1) * 4 + c], in[i * 4 + c]);
  for (std::int64_t i = nIn - 1; i >= 0; --i)
    for (int c = 0; c < 4; ++c)
      hb[i * 4 + c] = (i % w == w - 1 || i == nIn - 1) ? in[i * 4 + c] : extremum<Max>(hb[(i + 1) * 4 + c], in[i * 4 + c]);
  for (std::int64_t j = 0; j < nOut; ++j)
    for (int c = 0; c < 4; ++c) {
      const float v = extremum<Max>(hb[j * 4 + c], g[(j + 2 * h) * 4 + c]);
      out[j * 4 + c] = combine ? extremum<Max>(out[j * 4 + c], v) : v;
    }
}

template <bool Max>
void discExtremum(const ConstPixelTile& in, const PixelTile& out, double r) {
  const std::int64_t W = out.rect.width, H = out.rect.height;
  const int R = discSupport(r);
  std::vector<float> g(std::size_t((W + 2 * R) * 4)), hb(g.size());
  for (std::int64_t j = 0; j < H; ++j) {
    float* o = out.row(out.rect.y + j);
    bool first = true;
    for (int dy = -R; dy <= R; ++dy) {
      const double q = r * r - double(dy) * dy;
      if (q < 0) continue;
      const int h = int(std::floor(std::sqrt(q)));
      slidingRow<Max>(in.at(out.rect.x - h, out.rect.y + j + dy), o, W, h, !first, g.data(), hb.data());
      first = false;
    }
  }
}

template <bool Max>
void rectExtremum(const ConstPixelTile& in, const PixelTile& out, int rx, int ry) {
  const std::int64_t W = out.rect.width, H = out.rect.height;
  const std::int64_t rows = H + 2 * std::int64_t(ry);
  std::vector<float> t(std::size_t(rows * W * 4));
  std::vector<float> g(std::size_t((W + 2 * rx) * 4)), hb(g.size());
  for (std::int64_t k = 0; k < rows; ++k)
    slidingRow<Max>(in.at(out.rect.x - rx, out.rect.y - ry + k), t.data() + k * W * 4, W, rx, false, g.data(),
                    hb.data());
  // Along y, the same scheme on whole rows.
  const std::int64_t nf = W * 4;
  const std::int64_t w = 2 * std::int64_t(ry) + 1;
  std::vector<float> gr(t.size()), hr(t.size());
  for (std::int64_t k = 0; k < rows; ++k) {
    const float* src = t.data() + k * nf;
    float* gk = gr.data() + k * nf;
    if (k % w == 0)
      std::memcpy(gk, src, std::size_t(nf) * sizeof(float));
    else
      for (std::int64_t i = 0; i < nf; ++i) gk[i] = extremum<Max>(gk[i - nf], src[i]);
  }
  for (std::int64_t k = rows - 1; k >= 0; --k) {
    const float* src = t.data() + k * nf;
    float* hk = hr.data() + k * nf;
    if (k % w == w - 1 || k == rows - 1)
      std::memcpy(hk, src, std::size_t(nf) * sizeof(float));
    else
      for (std::int64_t i = 0; i < nf; ++i) hk[i] = extremum<Max>(hk[i + nf], src[i]);
  }
  for (std::int64_t j = 0; j < H; ++j) {
    float* o = out.row(out.rect.y + j);
    const float* a = hr.data() + j * nf;
    const float* b = gr.data() + (j + 2 * ry) * nf;
    for (std::int64_t i = 0; i < nf; ++i) o[i] = extremum<Max>(a[i], b[i]);
  }
}

}  // namespace

void morphologyDisc(const ConstPixelTile& in, const PixelTile& out, double r, bool maximum) {
  if (out.rect.empty()) return;
  if (maximum)
    discExtremum<true>(in, out, r);
  else
    discExtremum<false>(in, out, r);
}

void morphologyRect(const ConstPixelTile& in, const PixelTile& out, int rx, int ry, bool maximum) {
  if (out.rect.empty()) return;
  if (maximum)
    rectExtremum<true>(in, out, rx, ry);
  else
    rectExtremum<false>(in, out, rx, ry);
}

// ---- Median ----

void median3x3(const ConstPixelTile& in, const PixelTile& out) {
  auto sort2 = [](float& a, float& b) {
    const float lo = std::min(a, b), hi = std::max(a, b);
    a = lo;
    b = hi;
  };
  for (std::int64_t y = out.rect.y; y < out.rect.maxY(); ++y) {
    float* o = out.row(y);
    const float* rows[3] = {in.at(out.rect.x - 1, y - 1), in.at(out.rect.x - 1, y), in.at(out.rect.x - 1, y + 1)};
    for (std::int64_t x = 0; x < out.rect.width; ++x)
      for (int c = 0; c < 4; ++c) {
        float p[9];
        for (int dy = 0; dy < 3; ++dy)
          for (int dx = 0; dx < 3; ++dx) p[dy * 3 + dx] = rows[dy][(x + dx) * 4 + c];
        // Paeth's 19-exchange median-of-nine network.
        sort2(p[1], p[2]), sort2(p[4], p[5]), sort2(p[7], p[8]);
        sort2(p[0], p[1]), sort2(p[3], p[4]), sort2(p[6], p[7]);
        sort2(p[1], p[2]), sort2(p[4], p[5]), sort2(p[7], p[8]);
        sort2(p[0], p[3]), sort2(p[5], p[8]), sort2(p[4], p[7]);
        sort2(p[3], p[6]), sort2(p[1], p[4]), sort2(p[2], p[5]);
        sort2(p[4], p[7]), sort2(p[4], p[2]), sort2(p[6], p[4]);
        sort2(p[4], p[2]);
        o[x * 4 + c] = p[4];
      }
  }
}

// ---- Sampling ----

void sampleBilinear(const ConstPixelTile& in, double x, double y, float* rgba) {
  const double fx = x - 0.5, fy = y - 0.5;
  const double x0f = std::floor(fx), y0f = std::floor(fy);
  const float wx = float(fx - x0f), wy = float(fy - y0f);
  rgba[0] = rgba[1] = rgba[2] = rgba[3] = 0;
  if (!(std::fabs(x0f) < 1e15 && std::fabs(y0f) < 1e15)) return;
  const std::int64_t x0 = std::int64_t(x0f), y0 = std::int64_t(y0f);
  const float w[4] = {(1 - wx) * (1 - wy), wx * (1 - wy), (1 - wx) * wy, wx * wy};
  const std::int64_t px[4] = {x0, x0 + 1, x0, x0 + 1};
  const std::int64_t py[4] = {y0, y0, y0 + 1, y0 + 1};
  for (int k = 0; k < 4; ++k) {
    if (w[k] == 0) continue;
    if (px[k] < in.rect.x || px[k] >= in.rect.maxX() || py[k] < in.rect.y || py[k] >= in.rect.maxY()) continue;
    const float* p = in.at(px[k], py[k]);
    for (int c = 0; c < 4; ++c) rgba[c] += w[k] * p[c];
  }
}

}  // namespace qv::blur

namespace qv::blur {

ConstPixelTile coverRegion(const ConstPixelTile& in, const PixelRect& need, std::vector<float>& storage) {
  if (need.empty() || (in.pixels != nullptr && in.rect.contains(need))) return in;
  storage.assign(std::size_t(need.width * need.height * 4), 0.0f);
  ConstPixelTile t{storage.data(), need, need.width * 4};
  if (in.pixels != nullptr) {
    const PixelRect common = need.intersection(in.rect);
    for (std::int64_t y = common.y; y < common.maxY(); ++y)
      std::memcpy(storage.data() + ((y - need.y) * need.width + (common.x - need.x)) * 4, in.at(common.x, y),
                  std::size_t(common.width * 4) * sizeof(float));
  }
  return t;
}

}  // namespace qv::blur

// ---- The node ----


namespace qv::blur {

CGRect growExtent(const CGRect& extent, double dx, double dy) {
  if (CGRectIsNull(extent) || CGRectIsInfinite(extent) || CGRectIsEmpty(extent)) return extent;
  return CGRectInset(extent, -dx, -dy);
}

PixelRect BlurNode::active(const PixelRect& rect) const {
  if (CGRectIsInfinite(extent())) return rect;
  return rect.intersection(PixelRect::covering(extent()));
}

PixelRect BlurNode::regionOfInterest(std::size_t index, const PixelRect& rect) const {
  const PixelRect a = active(rect);
  if (a.empty()) return PixelRect{rect.x, rect.y, 0, 0};
  return roi_(index, a);
}

void BlurNode::render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo&) const {
  const PixelRect a = active(out.rect);
  if (a.empty()) return;
  PixelTile sub{out.at(a.x, a.y), a, out.stride};
  std::vector<std::vector<float>> storage(in.size());
  std::vector<ConstPixelTile> tiles(in.size());
  for (std::size_t i = 0; i < in.size(); ++i) tiles[i] = coverRegion(in[i], roi_(i, a), storage[i]);
  render_(sub, tiles);
}

namespace {

// One box pass of a column stream. Input rows arrive from the top down; slot(y) is where input
// row y lives in the ring (the last 2l + 2 rows). After row n has arrived, `sums` covers input
// rows [n, n + 2l] and `innerSums` rows [n + l - inner, n + l + inner], and the pass can emit
// row n + l.
struct BoxStreamPass {
  int l = 0, inner = -1;
  double weight = 0, innerWeight = 0;
  std::int64_t count = 0, capacity = 0, nf = 0;
  std::vector<float> ring;
  std::vector<double> sums, innerSums;

  BoxStreamPass(const Pass1D& p, std::int64_t floatsPerRow)
      : l(p.l), inner(p.inner), weight(p.weight), innerWeight(p.innerWeight), capacity(2 * p.l + 2),
        nf(floatsPerRow), ring(std::size_t(capacity * floatsPerRow)), sums(std::size_t(floatsPerRow)),
        innerSums(std::size_t(p.inner >= 0 ? floatsPerRow : 0)) {}
  float* slot(std::int64_t y) { return ring.data() + ((y % capacity + capacity) % capacity) * nf; }
};

QV_BLUR_CLONES void addRows(double* sums, const float* add, const float* sub, std::int64_t nf) {
  for (std::int64_t i = 0; i < nf; ++i) sums[i] += double(add[i]) - double(sub[i]);
}

QV_BLUR_CLONES void emitRow(float* out, const double* sums, double weight, std::int64_t nf) {
  for (std::int64_t i = 0; i < nf; ++i) out[i] = gridValue(sums[i] * weight);
}

QV_BLUR_CLONES void emitRowInner(float* out, const double* sums, double weight, const double* innerSums,
                                 double innerWeight, std::int64_t nf) {
  for (std::int64_t i = 0; i < nf; ++i) out[i] = gridValue(sums[i] * weight + innerSums[i] * innerWeight);
}

// A vertical pass that streams down a column of tiles: it reads `support` rows beyond a tile
// above and below, and keeps what it read in the column's render state, so that the tile right
// below the one it rendered last goes on where that one stopped.
class ColumnStreamNode : public ImageNode {
 public:
  ColumnStreamNode(std::string name, const CIImage& input, int support)
      : ImageNode(growExtent(input.extent(), 0, support), {input}), support_(support), name_(std::move(name)) {}

  PixelRect regionOfInterest(std::size_t, const PixelRect& rect) const override { return rect.outset(0, support_); }
  PixelRect regionOfInterestBelow(std::size_t, const PixelRect& rect) const override {
    return rect.offset(0, -support_);
  }
  bool continuesDown() const override { return true; }
  std::string name() const override { return name_; }

 protected:
  // The column's stream state S (with a `last` rectangle): the one the tile above left when
  // `rect` lies straight below it (`continuing`), else a fresh one from `make`, kept in the
  // render's state for the tile below (in `local` when the render keeps none).
  template <class S, class Make>
  S* columnStream(const PixelRect& rect, const RenderInfo& info, std::shared_ptr<void>& local, bool& continuing,
                  Make make) const {
    std::shared_ptr<void>& slot = info.state ? *info.state : local;
    auto* stream = static_cast<S*>(slot.get());
    continuing = stream && !stream->last.empty() && stream->last.x == rect.x && stream->last.width == rect.width &&
                 stream->last.y == rect.maxY();
    if (continuing) return stream;
    std::shared_ptr<S> fresh = make();
    stream = fresh.get();
    slot = std::move(fresh);
    return stream;
  }

  int support_;

 private:
  std::string name_;
};

class BoxColumnsNode final : public ColumnStreamNode {
 public:
  BoxColumnsNode(std::string name, const CIImage& input, std::vector<Pass1D> passes, int support)
      : ColumnStreamNode(std::move(name), input, support), passes_(std::move(passes)) {}

  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const override {
    const std::int64_t nf = out.rect.width * 4;
    std::shared_ptr<void> local;
    bool continuing = false;
    Stream* stream = columnStream<Stream>(out.rect, info, local, continuing, [&] {
      auto fresh = std::make_shared<Stream>();
      for (const Pass1D& p : passes_) fresh->passes.emplace_back(p, nf);
      return fresh;
    });
    // Input rows not seen yet, top down: each yields exactly one output row once the passes
    // are primed (a fresh stream first reads the 2·support rows above the tile's bottom row).
    const std::int64_t top = continuing ? out.rect.maxY() - support_ : out.rect.maxY() + support_;
    for (std::int64_t y = top - 1; y >= out.rect.y - support_; --y) {
      std::memcpy(stream->passes[0].slot(y), in[0].at(out.rect.x, y), std::size_t(nf) * sizeof(float));
      push(*stream, 0, y, out);
    }
    stream->last = out.rect;
  }

 private:
  struct Stream {
    PixelRect last;
    std::vector<BoxStreamPass> passes;
  };

  // Input row n of pass p has just been stored in its ring: slide the window and emit row
  // n + support into the next pass's ring or, from the last pass, into `out`. (Running every
  // pass over narrow strips of the columns instead, so that the rings' rows in use stay in the
  // core's cache, was slower: whole rows stream better.)
  void push(Stream& stream, std::size_t p, std::int64_t n, const PixelTile& out) const {
    BoxStreamPass& ps = stream.passes[p];
    const std::int64_t nf = ps.nf;
    if (++ps.count < 2 * ps.l + 1) return;
    const bool priming = ps.count == 2 * ps.l + 1;
    // The rows [n + l - half, n + l + half] summed afresh, or the sum slid by one row.
    auto slide = [&](std::vector<double>& sums, int half) {
      const std::int64_t first = n + ps.l - half;
      if (priming) {
        std::fill(sums.begin(), sums.end(), 0.0);
        for (int k = 0; k <= 2 * half; ++k) {
          const float* r = ps.slot(first + k);
          for (std::int64_t i = 0; i < nf; ++i) sums[std::size_t(i)] += double(r[i]);
        }
      } else {
        addRows(sums.data(), ps.slot(first), ps.slot(first + 2 * half + 1), nf);
      }
    };
    const std::int64_t y = n + ps.l;
    const bool last = p + 1 == stream.passes.size();
    thread_local std::vector<float> spare;
    float* dst;
    if (!last) {
      dst = stream.passes[p + 1].slot(y);
    } else if (y >= out.rect.y && y < out.rect.maxY()) {
      dst = out.row(y);
    } else {
      if (spare.size() < std::size_t(nf)) spare.resize(std::size_t(nf));
      dst = spare.data();
    }
    // Sliding both sums and emitting the row in one sweep over the floats.
    if (ps.inner >= 0 && !priming) {
      boxSlideEmitInner(dst, ps.sums.data(), ps.slot(n), ps.slot(n + 2 * ps.l + 1), ps.weight, ps.innerSums.data(),
                        ps.slot(n + ps.l - ps.inner), ps.slot(n + ps.l + ps.inner + 1), ps.innerWeight, nf);
    } else if (ps.inner >= 0) {
      slide(ps.sums, ps.l);
      slide(ps.innerSums, ps.inner);
      emitRowInner(dst, ps.sums.data(), ps.weight, ps.innerSums.data(), ps.innerWeight, nf);
    } else if (!priming) {
      boxSlideEmit(dst, ps.sums.data(), ps.slot(n), ps.slot(n + 2 * ps.l + 1), ps.weight, nf);
    } else {
      slide(ps.sums, ps.l);
      emitRow(dst, ps.sums.data(), ps.weight, nf);
    }
    if (!last) push(stream, p + 1, y, out);
  }

  std::vector<Pass1D> passes_;
};

// The direct vertical pass streaming down a column: the node keeps the last 2·support input
// rows it read, in a ring indexed by row, so that a tile below the one it rendered last reads
// only its own new rows and filters each output row once.
class FirColumnsNode final : public ColumnStreamNode {
 public:
  FirColumnsNode(std::string name, const CIImage& input, Pass1D pass)
      : ColumnStreamNode(std::move(name), input, pass.support()), pass_(std::move(pass)) {}

  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const override {
    const std::int64_t nf = out.rect.width * 4, window = 2 * std::int64_t(support_);
    std::shared_ptr<void> local;
    bool continuing = false;
    Stream* stream = columnStream<Stream>(out.rect, info, local, continuing, [&] {
      auto fresh = std::make_shared<Stream>();
      fresh->ring.resize(std::size_t(window * nf));
      return fresh;
    });
    // The window of input rows, bottom up: the rows the ring holds (the 2·support rows from
    // out.rect.maxY() - support up, when continuing) and the tile's new rows from the input.
    const std::int64_t y0 = out.rect.y - support_, y1 = out.rect.maxY() + support_;
    const std::int64_t held = continuing ? out.rect.maxY() - support_ : y1;
    stream->rows.resize(std::size_t(y1 - y0));
    for (std::int64_t y = y0; y < y1; ++y)
      stream->rows[std::size_t(y - y0)] = y >= held ? stream->slot(y, window, nf) : in[0].at(out.rect.x, y);
    firColumns(stream->rows.data(), out.row(out.rect.y), out.stride, out.rect.height, nf, pass_.taps.data(),
               int(pass_.taps.size()));
    // Keep the bottom 2·support rows for the tile below; those already in the ring stay put.
    for (std::int64_t y = y0; y < std::min(y0 + window, held); ++y)
      std::memcpy(stream->slot(y, window, nf), in[0].at(out.rect.x, y), std::size_t(nf) * sizeof(float));
    stream->last = out.rect;
  }

 private:
  struct Stream {
    PixelRect last;
    std::vector<float> ring;  // input row y at slot y mod 2·support
    std::vector<const float*> rows;
    float* slot(std::int64_t y, std::int64_t window, std::int64_t nf) {
      return ring.data() + ((y % window + window) % window) * nf;
    }
  };

  Pass1D pass_;
};

}  // namespace

CIImage boxColumnsImage(std::string name, const CIImage& input, std::vector<Pass1D> passes) {
  int support = 0;
  for (const Pass1D& p : passes) support += p.support();
  return CIImage(std::make_shared<BoxColumnsNode>(std::move(name), input, std::move(passes), support));
}

CIImage firColumnsImage(std::string name, const CIImage& input, Pass1D pass) {
  return CIImage(std::make_shared<FirColumnsNode>(std::move(name), input, std::move(pass)));
}

CIImage separableImage(const std::string& name, const CIImage& image, const SeparablePlan& plan) {
  const int sx = plan.supportX(), sy = plan.supportY();
  const CIImage rows = BlurNode::make(name + " rows", growExtent(image.extent(), sx, 0), {image}, sx, 0,
                                      [plan](const PixelTile& out, std::span<const ConstPixelTile> in) {
                                        applyHorizontal(in[0], out, plan);
                                      });
  if (plan.vertical.empty()) return rows;
  const bool boxes = std::none_of(plan.vertical.begin(), plan.vertical.end(), [](const auto& p) { return p.fir; });
  if (boxes) return boxColumnsImage(name, rows, plan.vertical);
  if (plan.vertical.size() == 1) return firColumnsImage(name, rows, plan.vertical.front());
  return BlurNode::make(name, growExtent(rows.extent(), 0, sy), {rows}, 0, sy,
                        [plan](const PixelTile& out, std::span<const ConstPixelTile> in) {
                          applyVertical(in[0], out, plan);
                        });
}

CIImage BlurNode::make(std::string name, CGRect extent, std::vector<CIImage> inputs, int sx, int sy, RenderFn render) {
  RoiFn roi = [sx, sy](std::size_t, const PixelRect& r) { return r.outset(sx, sy); };
  return CIImage(std::make_shared<BlurNode>(std::move(name), extent, std::move(inputs), std::move(roi), std::move(render)));
}

}  // namespace qv::blur
