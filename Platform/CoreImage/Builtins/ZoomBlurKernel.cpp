#include "CoreImage/Builtins/ZoomBlurKernel.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "CoreImage/Builtins/BlurKernels.h"
#include "CoreImage/TargetClones.h"

// Compiled twice on x86-64, for AVX2 and for the baseline, the loader picking one per process
// (so every tile of a render runs the same code), without floating-point trap semantics or
// errno for the square root (so that the lines' set-up loop vectorises; no result changes); one
// version where TargetClones.h says so.
// The same rule as the blur kernels' loops (BlurKernels.cpp).
#if QV_TARGET_CLONES
#define QV_ZOOM_CLONES \
  __attribute__((target_clones("avx2", "default"), optimize("no-trapping-math", "no-math-errno")))
#elif QV_GCC
#define QV_ZOOM_CLONES __attribute__((optimize("no-trapping-math", "no-math-errno")))
#else
#define QV_ZOOM_CLONES
#endif

namespace qv::blur {
namespace {

// Eight floats: two RGBA texels side by side, or one value of eight samples.
using Float8 = float __attribute__((vector_size(32), aligned(4)));
using Int8 = std::int32_t __attribute__((vector_size(32)));

constexpr int kLanes = 8;
// Sample arrays padded to whole groups of eight.
constexpr int kMaxPadded = (kMaxLineSamples + kLanes - 1) / kLanes * kLanes;

// Inlined into the cloned row loop (a plain inline function is not: its options differ).
#if defined(__GNUC__)
#define QV_ZOOM_INLINE inline __attribute__((always_inline))
#else
#define QV_ZOOM_INLINE inline
#endif

// Pixels whose lines are set up together.
constexpr int kChunk = 64;

// The lines of pixels x0 + j (j < m) of the row whose centres lie at py: per pixel the step
// between samples (sx, sy), the number of samples n, and whether the whole line lies at least
// one texel inside `in` on every side (as segmentInside), so that its samples need no bounds
// checks. One loop of selects and arithmetic, kept apart from the sampling: the distance to the
// centre is a square root rather than std::hypot (zoomBlur keeps the centre within 1e100 and
// pixels lie within 2^40 of the origin, far from overflow), the direction a product with
// 1 / distance.
struct Lines {
  float sx[kChunk], sy[kChunk];
  std::int32_t n[kChunk], inside[kChunk];
};

QV_ZOOM_INLINE void setUpLines(Lines& l, int m, double x0, double py, double cx, double cy, double amount,
                               const double bounds[4]) {
  const bool towards = amount > 0;
  const double dir = towards ? -1.0 : 1.0, reach = towards ? amount : -amount;
  const double vy = py - cy;
  for (int j = 0; j < m; ++j) {
    const double px = x0 + double(j) + 0.5;  // x0 whole: exact
    const double vx = px - cx, d = std::sqrt(vx * vx + vy * vy);
    const bool away = d > 0;  // the centre's own pixel has no direction: one sample
    const double length = away ? (towards ? (d < amount ? d : amount) : reach) : 0.0;
    const double unit = dir / (away ? d : 1.0);
    const double dx = away ? vx * unit : 0.0, dy = away ? vy * unit : 0.0;
    double n = std::ceil(length) + 1;
    n = n < double(kMaxLineSamples) ? n : double(kMaxLineSamples);
    const double step = n > 1 ? length / (n > 1 ? n - 1 : 1.0) : 0.0;
    l.sx[j] = float(step * dx);
    l.sy[j] = float(step * dy);
    l.n[j] = std::int32_t(n);
    const double ex = px + length * dx, ey = py + length * dy;
    const double minX = ex < px ? ex : px, maxX = ex < px ? px : ex;
    const double minY = ey < py ? ey : py, maxY = ey < py ? py : ey;
    l.inside[j] = (minX - 0.5 >= bounds[0]) & (maxX - 0.5 < bounds[1]) & (minY - 0.5 >= bounds[2]) &
                  (maxY - 0.5 < bounds[3]);
  }
}

// The two texels of one row of a sample, left then right, as one 8-float value; texels outside
// `in` read as transparent, as they would from a tile covering them.
QV_ZOOM_INLINE void pairClipped(const ConstPixelTile& in, std::int64_t tx, std::int64_t ty, Float8& v) {
  float t[8] = {0, 0, 0, 0, 0, 0, 0, 0};
  if (ty >= in.rect.y && ty < in.rect.maxY()) {
    if (tx >= in.rect.x && tx < in.rect.maxX()) std::memcpy(t, in.at(tx, ty), 4 * sizeof(float));
    if (tx + 1 >= in.rect.x && tx + 1 < in.rect.maxX()) std::memcpy(t + 4, in.at(tx + 1, ty), 4 * sizeof(float));
  }
  std::memcpy(&v, t, sizeof v);
}

// One row of `out` (pixels x0 .. x0 + width - 1 of row y) into o.
//
// Sample k of a pixel lies k·(sx, sy) texels from the pixel's own texel (whose centre is the
// pixel's centre), in single precision relative to that texel: the placements are computed
// eight at a time (whole texel offsets and the two weights), then each sample adds its top pair
// and bottom pair of texels, weighted along y and then along x; the two halves of the sum are
// the left and right texels' shares. Where the line lies inside `in` (all but the lines that
// leave the input's pixels) each pair is one 8-float load; elsewhere the pairs are assembled
// texel by texel with transparent outside `in`, through the same arithmetic, so that a pixel's
// result does not depend on which way it went (nor therefore on the tiling).
QV_ZOOM_CLONES void zoomRow(const ConstPixelTile& in, float* o, std::int64_t y, std::int64_t x0, std::int64_t width,
                            double cx, double cy, double amount) {
  // Per sample: texel offsets (whole texels along x and y, and into the tile), and the weights
  // of the left and right texels and of the top and bottom rows.
  alignas(32) std::int32_t ixs[kMaxPadded], iys[kMaxPadded], offs[kMaxPadded];
  alignas(32) float wls[kMaxPadded], wrs[kMaxPadded], wts[kMaxPadded], wbs[kMaxPadded];
  const Float8 lane = {0, 1, 2, 3, 4, 5, 6, 7};
  const std::ptrdiff_t stride = in.stride;
  // Offsets into the tile fit 32 bits for any tile narrower than about 500000 pixels (a line
  // reaches at most 1001 rows away); wider ones take the clipped path.
  const bool offsetsFit = stride > 0 && stride < std::ptrdiff_t(2000000);
  const std::int32_t st = std::int32_t(offsetsFit ? stride : 0);
  const double py = double(y) + 0.5;
  const double bounds[4] = {double(in.rect.x) + 1, double(in.rect.maxX()) - 2, double(in.rect.y) + 1,
                            double(in.rect.maxY()) - 2};
  Lines lines;
  for (std::int64_t x = 0; x < width; ++x) {
    const int j = int(x % kChunk);
    if (j == 0) {
      const std::int64_t left = width - x;
      setUpLines(lines, int(left < kChunk ? left : kChunk), double(x0 + x), py, cx, cy, amount, bounds);
    }
    const std::int64_t bx = x0 + x;
    const int n = lines.n[j];
    const float sx = lines.sx[j], sy = lines.sy[j];
    for (int k = 0; k < n; k += kLanes) {
      const Float8 kk = lane + float(k);
      const Float8 fx = kk * sx, fy = kk * sy;
      // floor: truncate, then step down where that rounded up (negative non-integers).
      Int8 ix = __builtin_convertvector(fx, Int8), iy = __builtin_convertvector(fy, Int8);
      ix += (__builtin_convertvector(ix, Float8) > fx);  // a true comparison is -1
      iy += (__builtin_convertvector(iy, Float8) > fy);
      const Float8 wx = fx - __builtin_convertvector(ix, Float8), wy = fy - __builtin_convertvector(iy, Float8);
      const Float8 wl = 1 - wx, wt = 1 - wy;
      const Int8 off = iy * st + ix * 4;
      std::memcpy(ixs + k, &ix, sizeof ix);
      std::memcpy(iys + k, &iy, sizeof iy);
      std::memcpy(offs + k, &off, sizeof off);
      std::memcpy(wls + k, &wl, sizeof wl);
      std::memcpy(wrs + k, &wx, sizeof wx);
      std::memcpy(wts + k, &wt, sizeof wt);
      std::memcpy(wbs + k, &wy, sizeof wy);
    }
    // Even and odd samples go to two sums, which halves the chain of dependent additions that
    // otherwise bounds the loop.
    Float8 even = {0, 0, 0, 0, 0, 0, 0, 0}, odd = even;
    const auto add = [&](int k, const Float8& top, const Float8& bottom, Float8& acc) {
      const float l = wls[k], r = wrs[k];
      const Float8 column = top * wts[k] + bottom * wbs[k];
      const Float8 w = {l, l, l, l, r, r, r, r};
      acc += column * w;
    };
    if (offsetsFit && lines.inside[j]) {
      const float* base = in.at(bx, y);
      const auto inside = [&](int k, Float8& acc) {
        const float* q = base + offs[k];
        Float8 top, bottom;
        std::memcpy(&top, q, sizeof top);
        std::memcpy(&bottom, q + stride, sizeof bottom);
        add(k, top, bottom, acc);
      };
      int k = 0;
      for (; k + 1 < n; k += 2) {
        inside(k, even);
        inside(k + 1, odd);
      }
      if (k < n) inside(k, even);
    } else {
      for (int k = 0; k < n; ++k) {
        Float8 top, bottom;
        pairClipped(in, bx + ixs[k], y + iys[k], top);
        pairClipped(in, bx + ixs[k], y + iys[k] + 1, bottom);
        add(k, top, bottom, (k & 1) ? odd : even);
      }
    }
    const float inv = 1.0f / float(n);
    const Float8 sum = even + odd;
    for (int c = 0; c < 4; ++c) o[x * 4 + c] = (sum[c] + sum[c + 4]) * inv;
  }
}

}  // namespace

void zoomBlur(const ConstPixelTile& in, const PixelTile& out, double cx, double cy, double amount) {
  // A centre so far away that the squared distance would overflow is brought to 1e100 along the
  // same direction from the origin: every pixel (within 2^40 of the origin) then sees the same
  // direction and a distance far beyond any amount, as it did, and the square root stays finite.
  const double far = std::max(std::fabs(cx), std::fabs(cy));
  if (far > 1e100) {
    cx = cx / far * 1e100;
    cy = cy / far * 1e100;
  }
  for (std::int64_t y = out.rect.y; y < out.rect.maxY(); ++y)
    zoomRow(in, out.row(y), y, out.rect.x, out.rect.width, cx, cy, amount);
}

}  // namespace qv::blur
