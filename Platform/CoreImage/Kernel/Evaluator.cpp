// The evaluator: the prologue runs once per call, the body once per batch of up to kLanes
// pixels (taken row by row across the output rectangle). Every instruction is a tight loop
// over the batch's lanes, which the compiler vectorises.
#include "CoreImage/Kernel/Evaluator.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "CoreImage/TargetClones.h"

// The lane loops are compiled for AVX2 and for the baseline, the loader picking one per
// process (one version where TargetClones.h says so).
#if QV_TARGET_CLONES
#define QV_KERNEL_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define QV_KERNEL_CLONES
#endif

namespace cikl {

namespace {
// Four floats as one value (SSE on x86-64): one texel.
using Float4 = float __attribute__((vector_size(16), aligned(4)));
}  // namespace

PixelRect texelRange(const CGRect& extent) {
  if (CGRectIsNull(extent) || CGRectIsEmpty(extent)) return {};
  const double lim = double(PixelRect::kPixelLimit);
  auto clampd = [&](double v) { return std::clamp(v, -lim, lim); };
  CGRect r = CGRectStandardize(extent);
  double x0 = CGRectIsInfinite(r) ? -lim : clampd(std::floor(r.origin.x));
  double y0 = CGRectIsInfinite(r) ? -lim : clampd(std::floor(r.origin.y));
  double x1 = CGRectIsInfinite(r) ? lim : clampd(std::ceil(r.origin.x + r.size.width));
  double y1 = CGRectIsInfinite(r) ? lim : clampd(std::ceil(r.origin.y + r.size.height));
  if (!(x1 > x0) || !(y1 > y0)) return {};
  return {std::int64_t(x0), std::int64_t(y0), std::int64_t(x1 - x0), std::int64_t(y1 - y0)};
}

namespace {

// An input prepared for reads: texel coordinates relative to the tile's origin, and the
// range of texels that may be read (inside both the tile and the image).
struct View {
  const float* pixels = nullptr;
  std::ptrdiff_t stride = 0;
  std::int64_t ox = 0, oy = 0;  // tile origin
  std::int64_t x0 = 0, y0 = 0, x1 = 0, y1 = 0;  // readable texels, relative, half-open
  bool clamp = false, nearest = false, empty = true;
  float extent[4] = {0, 0, 0, 0};

  const float* texel(std::int64_t x, std::int64_t y) const { return pixels + y * stride + x * 4; }
};

View makeView(const SamplerInput& in) {
  View v;
  v.pixels = in.tile.pixels;
  v.stride = in.tile.stride;
  v.ox = in.tile.rect.x;
  v.oy = in.tile.rect.y;
  v.clamp = in.clamp;
  v.nearest = in.nearest;
  PixelRect image = texelRange(in.extent);
  const PixelRect& t = in.tile.rect;
  std::int64_t ax = std::max(t.x, image.x), ay = std::max(t.y, image.y);
  std::int64_t bx = std::min(t.maxX(), image.maxX()), by = std::min(t.maxY(), image.maxY());
  v.empty = in.tile.pixels == nullptr || image.empty() || t.empty() || bx <= ax || by <= ay;
  if (!v.empty) {
    v.x0 = ax - t.x;
    v.y0 = ay - t.y;
    v.x1 = bx - t.x;
    v.y1 = by - t.y;
  }
  const CGRect& e = in.extent;
  auto f = [](double d) { return float(std::clamp(d, -3.0e38, 3.0e38)); };
  if (!CGRectIsNull(e)) {
    v.extent[0] = f(e.origin.x);
    v.extent[1] = f(e.origin.y);
    v.extent[2] = f(e.size.width);
    v.extent[3] = f(e.size.height);
  }
  return v;
}

// Reads texel (x, y) (relative) under the wrap rule; null for transparent.
inline const float* fetch(const View& v, std::int64_t x, std::int64_t y) {
  if (v.empty) return nullptr;
  if (v.clamp) {
    x = std::clamp(x, v.x0, v.x1 - 1);
    y = std::clamp(y, v.y0, v.y1 - 1);
  } else if (x < v.x0 || x >= v.x1 || y < v.y0 || y >= v.y1) {
    return nullptr;
  }
  return v.texel(x, y);
}

// A float position converted to a texel index without undefined behaviour for NaN or huge values.
// Clamps into [lo, hi]; NaN becomes lo. Plain comparisons, so the compiler inlines them.
inline float clampf(float f, float lo, float hi) {
  f = f > lo ? f : lo;
  return f < hi ? f : hi;
}
inline float safeFloor(float f, float lo, float hi) { return std::floor(clampf(f, lo, hi)); }

// One lane's bilinear read of the texels t00 (at the floor of the position), t10 (right of it),
// t01 (above it) and t11, any of them null for transparent, with fractions tx and ty: along x in
// each row, then between the rows; a pair that reads one texel (a clamped edge) gives that texel
// exactly, as does a position on a texel centre.
inline void bilinearLane(const float* t00, const float* t10, const float* t01, const float* t11, float tx, float ty,
                         float* out) {
  static const float zero[4] = {0, 0, 0, 0};
  if (tx == 0 && ty == 0) {
    std::memcpy(out, t00 ? t00 : zero, 4 * sizeof(float));
    return;
  }
  if (!t00) t00 = zero;
  if (!t10) t10 = zero;
  if (!t01) t01 = zero;
  if (!t11) t11 = zero;
  float r0[4], r1[4];
  for (int c = 0; c < 4; ++c) {
    r0[c] = t00 == t10 ? t00[c] : t00[c] * (1 - tx) + t10[c] * tx;
    r1[c] = t01 == t11 ? t01[c] : t01[c] * (1 - tx) + t11[c] * tx;
  }
  const bool sameRow = t00 == t01 && t10 == t11;
  for (int c = 0; c < 4; ++c) out[c] = sameRow ? r0[c] : r0[c] * (1 - ty) + r1[c] * ty;
}

// Positions are turned into texel indices and fractions in absolute coordinates, so a read
// gives the same bits whichever tile it happens in.
//
// Bilinear reads go in two passes over the lanes. The first, a loop of plain arithmetic that
// the compiler vectorises, places every lane: the clamped position, its floor (by truncation,
// stepping down where that rounded up: the same value as std::floor in the range it is used
// in), the fractions, the texel indices relative to the tile, and whether all four texels lie
// in the readable range. The second reads: a lane inside that range takes its four texels as
// four 4-float loads and the same operations, channel by channel, as bilinearLane (no pointer
// can coincide there, so none of its shortcuts but the texel centre applies); any other lane
// goes through fetch and bilinearLane. Same bits either way. Tiles whose coordinates exceed
// 32 bits take the second way for every lane.
QV_KERNEL_CLONES void sample(const View& v, const float* xs, const float* ys, float* d0, float* d1, float* d2,
                             float* d3, int n) {
  if (v.empty) {
    for (int k = 0; k < n; ++k) d0[k] = d1[k] = d2[k] = d3[k] = 0;
    return;
  }
  const float lox = float(v.ox + v.x0) - 2, hix = float(v.ox + v.x1) + 1;
  const float loy = float(v.oy + v.y0) - 2, hiy = float(v.oy + v.y1) + 1;
  auto put = [&](int k, const float* t) {
    d0[k] = t[0];
    d1[k] = t[1];
    d2[k] = t[2];
    d3[k] = t[3];
  };
  static const float zero[4] = {0, 0, 0, 0};
  if (v.nearest) {
    for (int k = 0; k < n; ++k) {
      float fx = safeFloor(xs[k], lox, hix), fy = safeFloor(ys[k], loy, hiy);
      const float* t = fetch(v, std::int64_t(fx) - v.ox, std::int64_t(fy) - v.oy);
      put(k, t ? t : zero);
    }
    return;
  }
  constexpr std::int64_t kSmall = std::int64_t{1} << 30;
  const bool small = std::max({std::abs(v.ox + v.x0), std::abs(v.ox + v.x1), std::abs(v.oy + v.y0),
                               std::abs(v.oy + v.y1)}) < kSmall;
  alignas(32) float txs[kLanes], tys[kLanes];
  alignas(32) std::int32_t ixs[kLanes], iys[kLanes], inside[kLanes];
  if (small) {
    const auto ox = std::int32_t(v.ox), oy = std::int32_t(v.oy);
    const auto x0 = std::int32_t(v.x0), x1 = std::int32_t(v.x1), y0 = std::int32_t(v.y0), y1 = std::int32_t(v.y1);
    for (int k = 0; k < n; ++k) {
      const float px = clampf(xs[k] - 0.5f, lox, hix), py = clampf(ys[k] - 0.5f, loy, hiy);
      std::int32_t ix = std::int32_t(px), iy = std::int32_t(py);
      ix -= float(ix) > px ? 1 : 0;
      iy -= float(iy) > py ? 1 : 0;
      txs[k] = px - float(ix);
      tys[k] = py - float(iy);
      ix -= ox;
      iy -= oy;
      ixs[k] = ix;
      iys[k] = iy;
      inside[k] = (ix >= x0) & (ix + 1 < x1) & (iy >= y0) & (iy + 1 < y1);
    }
  } else {
    for (int k = 0; k < n; ++k) inside[k] = 0;
  }
  for (int k = 0; k < n; ++k) {
    if (inside[k]) {
      const float tx = txs[k], ty = tys[k];
      const float* t00 = v.texel(ixs[k], iys[k]);
      if (tx == 0 && ty == 0) {
        put(k, t00);
        continue;
      }
      Float4 a, b, c, d;
      std::memcpy(&a, t00, sizeof a);
      std::memcpy(&b, t00 + 4, sizeof b);
      std::memcpy(&c, t00 + v.stride, sizeof c);
      std::memcpy(&d, t00 + v.stride + 4, sizeof d);
      const Float4 r0 = a * (1 - tx) + b * tx, r1 = c * (1 - tx) + d * tx;
      const Float4 o = r0 * (1 - ty) + r1 * ty;
      d0[k] = o[0];
      d1[k] = o[1];
      d2[k] = o[2];
      d3[k] = o[3];
      continue;
    }
    float px = clampf(xs[k] - 0.5f, lox, hix);
    float py = clampf(ys[k] - 0.5f, loy, hiy);
    float fx = std::floor(px), fy = std::floor(py);
    float tx = px - fx, ty = py - fy;
    auto ix = std::int64_t(fx) - v.ox, iy = std::int64_t(fy) - v.oy;
    float out[4];
    bilinearLane(fetch(v, ix, iy), fetch(v, ix + 1, iy), fetch(v, ix, iy + 1), fetch(v, ix + 1, iy + 1), tx, ty, out);
    put(k, out);
  }
}

// The batch of lanes: pixel p of the output rectangle is lane p - start.
struct Batch {
  const PixelRect* rect;
  std::int64_t start;
  int n;
  // Calls f(k, x, y, count) for each run of the batch that lies in one row: lanes k to
  // k + count - 1 are the pixels x to x + count - 1 of row y. Loops over a run are plain
  // strided loops, which the compiler vectorises.
  template <class F>
  void forEachRun(F&& f) const {
    const std::int64_t w = rect->width;
    std::int64_t col = start % w, row = start / w;
    for (int k = 0; k < n;) {
      const int count = int(std::min<std::int64_t>(w - col, n - k));
      f(k, rect->x + col, rect->y + row, count);
      k += count;
      col = 0;
      ++row;
    }
  }
};

// Lanes k to k + count - 1 get the texels under pixels x to x + count - 1 of row y (absolute),
// split into the four component registers; transparent where the wrap rule gives no texel.
void sampleRun(const View& v, std::int64_t x, std::int64_t y, int k, int count, float* d0, float* d1, float* d2,
               float* d3) {
  auto zero = [&](int from, int to) {
    for (int j = from; j < to; ++j) d0[k + j] = d1[k + j] = d2[k + j] = d3[k + j] = 0.0f;
  };
  auto copy = [&](int from, int to, const float* t, std::ptrdiff_t step) {
    for (int j = from; j < to; ++j, t += step) {
      d0[k + j] = t[0];
      d1[k + j] = t[1];
      d2[k + j] = t[2];
      d3[k + j] = t[3];
    }
  };
  if (v.empty) return zero(0, count);
  std::int64_t ty = y - v.oy;
  if (v.clamp) {
    ty = std::clamp(ty, v.y0, v.y1 - 1);
  } else if (ty < v.y0 || ty >= v.y1) {
    return zero(0, count);
  }
  // Lanes [0, a) lie left of the readable texels, [a, b) on them, [b, count) right of them.
  const std::int64_t tx = x - v.ox;
  const int a = int(std::clamp<std::int64_t>(v.x0 - tx, 0, count));
  const int b = int(std::clamp<std::int64_t>(v.x1 - tx, a, count));
  if (v.clamp) {
    copy(0, a, v.texel(v.x0, ty), 0);
    copy(b, count, v.texel(v.x1 - 1, ty), 0);
  } else {
    zero(0, a);
    zero(b, count);
  }
  if (b > a) copy(a, b, v.texel(tx + a, ty), 4);
}

struct Machine {
  const Program& p;
  std::span<const View> views;
  std::span<const float> params;
  float* regs;
  std::vector<int> counters;

  float* R(int r) const { return regs + std::ptrdiff_t(r) * kLanes; }

  void run(const std::vector<Instr>& code, const Batch* batch, int n) { runCode(*this, code, batch, n); }

  // The lane loops, compiled for AVX2 too (chosen at load time where the processor has it): the
  // same IEEE operations one by one, eight lanes per instruction instead of four, and never
  // fused (the AVX2 target has no fused multiply-add), so the results are the same bits.
  QV_KERNEL_CLONES static void runCode(Machine& m, const std::vector<Instr>& code, const Batch* batch, int n) {
    m.runBody(code, batch, n);
  }

  __attribute__((always_inline)) inline void runBody(const std::vector<Instr>& code, const Batch* batch, int n) {
    int budget = kMaxLoopIterationsPerBatch;
    for (std::size_t pc = 0; pc < code.size(); ++pc) {
      const Instr& in = code[pc];
      float* __restrict d = in.dst >= 0 ? R(in.dst) : nullptr;
      const float* a = in.a >= 0 ? R(in.a) : nullptr;
      const float* b = in.b >= 0 ? R(in.b) : nullptr;
      const float* c = in.c >= 0 ? R(in.c) : nullptr;
#define QV_LANES(expr) \
  for (int k = 0; k < n; ++k) d[k] = (expr);
      switch (in.op) {
        case Op::Const: {
          float v = in.imm;
          QV_LANES(v);
          break;
        }
        case Op::Param: {
          float v = in.aux < int(params.size()) ? params[in.aux] : 0.0f;
          QV_LANES(v);
          break;
        }
        case Op::SamplerInfo: {
          float v = in.aux < int(views.size()) ? views[in.aux].extent[in.b & 3] : 0.0f;
          QV_LANES(v);
          break;
        }
        case Op::DestX:
          if (batch)
            batch->forEachRun([&](int k, std::int64_t x, std::int64_t, int count) {
              for (int j = 0; j < count; ++j) d[k + j] = float(x + j) + 0.5f;
            });
          break;
        case Op::DestY:
          if (batch)
            batch->forEachRun([&](int k, std::int64_t, std::int64_t y, int count) {
              const float centre = float(y) + 0.5f;
              for (int j = 0; j < count; ++j) d[k + j] = centre;
            });
          break;
        case Op::Sample:
          sample(views[in.aux], a, b, d, d + kLanes, d + 2 * kLanes, d + 3 * kLanes, n);
          break;
        case Op::SampleAtDest: {
          if (!batch) break;
          const View& v = views[in.aux];
          batch->forEachRun([&](int k, std::int64_t x, std::int64_t y, int count) {
            sampleRun(v, x, y, k, count, d, d + kLanes, d + 2 * kLanes, d + 3 * kLanes);
          });
          break;
        }
        case Op::Mov: QV_LANES(a[k]); break;
        case Op::Add: QV_LANES(a[k] + b[k]); break;
        case Op::Sub: QV_LANES(a[k] - b[k]); break;
        case Op::Mul: QV_LANES(a[k] * b[k]); break;
        case Op::Div: QV_LANES(a[k] / b[k]); break;
        case Op::Neg: QV_LANES(-a[k]); break;
        case Op::Min: QV_LANES(b[k] < a[k] ? b[k] : a[k]); break;
        case Op::Max: QV_LANES(a[k] < b[k] ? b[k] : a[k]); break;
        case Op::Abs: QV_LANES(std::fabs(a[k])); break;
        case Op::Sign: QV_LANES(a[k] > 0 ? 1.0f : (a[k] < 0 ? -1.0f : 0.0f)); break;
        case Op::Floor: QV_LANES(std::floor(a[k])); break;
        case Op::Ceil: QV_LANES(std::ceil(a[k])); break;
        case Op::Fract: QV_LANES(a[k] - std::floor(a[k])); break;
        case Op::Trunc: QV_LANES(std::trunc(a[k])); break;
        case Op::Mod: QV_LANES(a[k] - b[k] * std::floor(a[k] / b[k])); break;
        case Op::Sqrt: QV_LANES(std::sqrt(a[k])); break;
        case Op::InvSqrt: QV_LANES(1.0f / std::sqrt(a[k])); break;
        case Op::Sin: QV_LANES(std::sin(a[k])); break;
        case Op::Cos: QV_LANES(std::cos(a[k])); break;
        case Op::Tan: QV_LANES(std::tan(a[k])); break;
        case Op::Asin: QV_LANES(std::asin(a[k])); break;
        case Op::Acos: QV_LANES(std::acos(a[k])); break;
        case Op::Atan: QV_LANES(std::atan(a[k])); break;
        case Op::Atan2: QV_LANES(std::atan2(a[k], b[k])); break;
        case Op::Pow: QV_LANES(std::pow(a[k], b[k])); break;
        case Op::Exp: QV_LANES(std::exp(a[k])); break;
        case Op::Log: QV_LANES(std::log(a[k])); break;
        case Op::Exp2: QV_LANES(std::exp2(a[k])); break;
        case Op::Log2: QV_LANES(std::log2(a[k])); break;
        case Op::Step: QV_LANES(b[k] < a[k] ? 0.0f : 1.0f); break;
        case Op::Mix: QV_LANES(a[k] * (1.0f - c[k]) + b[k] * c[k]); break;
        case Op::Lt: QV_LANES(a[k] < b[k] ? 1.0f : 0.0f); break;
        case Op::Le: QV_LANES(a[k] <= b[k] ? 1.0f : 0.0f); break;
        case Op::Eq: QV_LANES(a[k] == b[k] ? 1.0f : 0.0f); break;
        case Op::Ne: QV_LANES(a[k] != b[k] ? 1.0f : 0.0f); break;
        case Op::And: QV_LANES((a[k] != 0 && b[k] != 0) ? 1.0f : 0.0f); break;
        case Op::Or: QV_LANES((a[k] != 0 || b[k] != 0) ? 1.0f : 0.0f); break;
        case Op::Not: QV_LANES(a[k] == 0 ? 1.0f : 0.0f); break;
        case Op::Select: QV_LANES(a[k] != 0 ? b[k] : c[k]); break;
        case Op::LoopHead:
          counters[in.aux] = 0;
          break;
        case Op::BranchIfNone: {
          bool any = false;
          for (int k = 0; k < n; ++k) any = any || a[k] != 0;
          if (!any) pc = std::size_t(in.aux) - 1;
          break;
        }
        case Op::LoopBack: {
          int& count = counters[code[in.aux].aux];
          if (++count < kMaxLoopIterations && --budget > 0) pc = std::size_t(in.aux);
          break;
        }
      }
#undef QV_LANES
    }
  }
};

// A pass-through program: copy rows, repeating edge texels for clamp samplers.
void copyThrough(const View& v, const PixelTile& out) {
  const PixelRect& r = out.rect;
  for (std::int64_t y = r.y; y < r.maxY(); ++y) {
    float* dst = out.row(y);
    if (v.empty) continue;  // the output arrives transparent
    std::int64_t ty = y - v.oy;
    if (v.clamp) ty = std::clamp(ty, v.y0, v.y1 - 1);
    else if (ty < v.y0 || ty >= v.y1) continue;
    std::int64_t tx0 = r.x - v.ox, tx1 = r.maxX() - v.ox;
    std::int64_t in0 = std::clamp(tx0, v.x0, v.x1), in1 = std::clamp(tx1, v.x0, v.x1);
    if (in1 > in0) std::memcpy(dst + (in0 - tx0) * 4, v.texel(in0, ty), std::size_t(in1 - in0) * 4 * sizeof(float));
    if (v.clamp) {
      const float* left = v.texel(v.x0, ty);
      for (std::int64_t x = tx0; x < std::min(tx1, v.x0); ++x) std::memcpy(dst + (x - tx0) * 4, left, 4 * sizeof(float));
      const float* right = v.texel(v.x1 - 1, ty);
      for (std::int64_t x = std::max(tx0, v.x1); x < tx1; ++x) std::memcpy(dst + (x - tx0) * 4, right, 4 * sizeof(float));
    }
  }
}

}  // namespace

void evaluate(const Program& program, const PixelTile& out, std::span<const SamplerInput> inputs,
              std::span<const float> params) {
  if (out.rect.empty() || !out.pixels) return;
  std::vector<View> views;
  views.reserve(inputs.size());
  for (const SamplerInput& in : inputs) views.push_back(makeView(in));
  while (views.size() < std::size_t(program.inputCount)) views.push_back(View{});
  if (program.passThroughInput >= 0) {
    copyThrough(views[program.passThroughInput], out);
    return;
  }
  thread_local std::vector<float> storage;
  std::size_t need = std::size_t(program.registerCount) * kLanes;
  if (storage.size() < need) storage.assign(need, 0.0f);
  Machine m{program, views, params, storage.data(), std::vector<int>(std::max(program.loopSlots, 1), 0)};
  m.run(program.prologue, nullptr, kLanes);
  const std::int64_t total = out.rect.width * out.rect.height;
  for (std::int64_t start = 0; start < total; start += kLanes) {
    Batch batch{&out.rect, start, int(std::min<std::int64_t>(kLanes, total - start))};
    m.run(program.body, &batch, batch.n);
    const float* r0 = m.R(program.result[0]);
    const float* r1 = m.R(program.result[1]);
    const float* r2 = m.R(program.result[2]);
    const float* r3 = m.R(program.result[3]);
    batch.forEachRun([&](int k, std::int64_t x, std::int64_t y, int count) {
      float* px = out.at(x, y);
      for (int j = 0; j < count; ++j, px += 4) {
        px[0] = r0[k + j];
        px[1] = r1[k + j];
        px[2] = r2[k + j];
        px[3] = r3[k + j];
      }
    });
  }
}

}  // namespace cikl
