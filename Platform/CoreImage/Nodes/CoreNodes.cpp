#include "CoreImage/Nodes/CoreNodes.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "CoreImage/Builtins/Float4.h"
#include "CoreImage/CIContext.h"
#include "CoreImage/ColorSpace.h"
#include "CoreImage/Render/PixelConvert.h"
#include "CoreImage/Render/RenderCache.h"
#include "CoreImage/Render/StoredPixels.h"
#include "CoreImage/Render/StripCache.h"
#include "ImageIO/ImageIO.h"

namespace {

// Copies the part of `src` that overlaps `rect` into `out` (both in plane coordinates).
void copyRegion(const PixelTile& out, const ConstPixelTile& src, const PixelRect& rect) {
  const PixelRect r = rect.intersection(out.rect).intersection(src.rect);
  if (r.empty()) return;
  for (std::int64_t y = r.y; y < r.maxY(); ++y)
    std::memcpy(out.at(r.x, y), src.at(r.x, y), static_cast<std::size_t>(r.width) * 4 * sizeof(float));
}

}  // namespace

// ---- ConstantColorNode ----

void ConstantColorNode::render(const PixelTile& out, std::span<const ConstPixelTile>, const RenderInfo& info) const {
  if (!color_) return;
  const auto c = workingColor(*color_, info.colorManaged);
  const PixelRect r = CGRectIsInfinite(extent()) ? out.rect : PixelRect::centresInside(extent()).intersection(out.rect);
  for (std::int64_t y = r.y; y < r.maxY(); ++y) {
    float* p = out.at(r.x, y);
    for (std::int64_t x = 0; x < r.width; ++x, p += 4) std::memcpy(p, c.data(), sizeof(float) * 4);
  }
}

RegionAnswer ConstantColorNode::describeRegion(const PixelRect& rect, bool colorManaged) const {
  if (!color_) return RegionAnswer::transparent();
  const auto colour = RegionAnswer::constantColor(workingColor(*color_, colorManaged));
  if (CGRectIsInfinite(extent())) return colour;
  return RegionAnswer::within(rect, PixelRect::centresInside(extent()), colour);
}

// ---- Bitmaps ----

BitmapNode::BitmapNode(std::vector<float> pixels, std::size_t width, std::size_t height, std::int64_t x, std::int64_t y)
    : ImageNode(CGRectMake(double(x), double(y), double(width), double(height))),
      pixels_(std::move(pixels)), width_(width), height_(height), x_(x), y_(y) {}

void BitmapNode::render(const PixelTile& out, std::span<const ConstPixelTile>, const RenderInfo&) const {
  const PixelRect mine{x_, y_, std::int64_t(width_), std::int64_t(height_)};
  const PixelRect r = mine.intersection(out.rect);
  for (std::int64_t y = r.y; y < r.maxY(); ++y) {
    const std::size_t row = height_ - 1 - std::size_t(y - y_);
    const float* src = pixels_.data() + (row * width_ + std::size_t(r.x - x_)) * 4;
    std::memcpy(out.at(r.x, y), src, std::size_t(r.width) * 4 * sizeof(float));
  }
}

Bitmap8Node::Bitmap8Node(std::vector<std::uint8_t> pixels, std::size_t width, std::size_t height, std::int64_t x,
                         std::int64_t y)
    : ImageNode(CGRectMake(double(x), double(y), double(width), double(height))),
      pixels_(std::move(pixels)), width_(width), height_(height), x_(x), y_(y) {}

void Bitmap8Node::render(const PixelTile& out, std::span<const ConstPixelTile>, const RenderInfo& info) const {
  const PixelRect mine{x_, y_, std::int64_t(width_), std::int64_t(height_)};
  const PixelRect r = mine.intersection(out.rect);
  for (std::int64_t y = r.y; y < r.maxY(); ++y) {
    const std::size_t row = height_ - 1 - std::size_t(y - y_);
    const std::uint8_t* src = pixels_.data() + (row * width_ + std::size_t(r.x - x_)) * 4;
    qvpixel::decodeStraightRGBA8(src, out.at(r.x, y), std::size_t(r.width), info.colorManaged);
  }
}

RegionAnswer Bitmap8Node::describeRegion(const PixelRect& rect, bool) const {
  RegionAnswer stored;
  stored.kind = RegionAnswer::Kind::stored;
  return RegionAnswer::within(rect, PixelRect{x_, y_, std::int64_t(width_), std::int64_t(height_)}, stored);
}

bool Bitmap8Node::writeStored8(const PixelRect& rect, std::uint8_t* topRow, std::ptrdiff_t rowBytes,
                               const RenderInfo& info) const {
  if (!PixelRect{x_, y_, std::int64_t(width_), std::int64_t(height_)}.contains(rect)) return false;
  for (std::int64_t y = rect.maxY() - 1; y >= rect.y; --y, topRow += rowBytes) {
    const std::size_t row = height_ - 1 - std::size_t(y - y_);
    const std::uint8_t* src = pixels_.data() + (row * width_ + std::size_t(rect.x - x_)) * 4;
    qvpixel::reencodeStraightRGBA8(src, topRow, std::size_t(rect.width), info.colorManaged, false);
  }
  return true;
}

// ---- OffsetNode ----

OffsetNode::OffsetNode(CIImage input, std::int64_t dx, std::int64_t dy)
    : ImageNode(CGRectOffset(input.extent(), double(dx), double(dy)), {input}), dx_(dx), dy_(dy) {}

PixelRect OffsetNode::regionOfInterest(std::size_t, const PixelRect& rect) const { return rect.offset(-dx_, -dy_); }

void OffsetNode::render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo&) const {
  const ConstPixelTile& src = in[0];
  for (std::int64_t y = out.rect.y; y < out.rect.maxY(); ++y)
    std::memcpy(out.at(out.rect.x, y), src.at(out.rect.x - dx_, y - dy_),
                std::size_t(out.rect.width) * 4 * sizeof(float));
}

RegionAnswer OffsetNode::describeRegion(const PixelRect&, bool) const {
  return RegionAnswer::pixelsOf(inputs()[0].node().get(), dx_, dy_);
}

// ---- TransformNode ----

namespace {
double snap(double v) {
  const double r = std::round(v);
  return std::fabs(v - r) < 1e-9 ? r : v;
}

// Below this magnitude a double's nearest integer and floor are computed inline (without a
// library call): adding and subtracting 1.5 * 2^52 rounds to the nearest integer.
constexpr double kInlineRoundLimit = 1e15;
constexpr double kRoundMagic = 6755399441055744.0;

// snap(v), bit for bit: a value within 1e-9 of an integer is never a tie, so rounding half to
// even (the inline rounding) picks the same integer as rounding half away from zero, and the
// integer takes v's sign as std::round's does (-0.0 for a tiny negative v).
inline double snapInline(double v) {
  if (!(std::fabs(v) < kInlineRoundLimit)) return snap(v);
  const double r = (v + kRoundMagic) - kRoundMagic;
  return std::fabs(v - r) < 1e-9 ? std::copysign(r, v) : v;
}

// One pixel's premultiplied RGBA, element-wise IEEE arithmetic.
using qv::builtins::Float4;

// std::floor(v) for |v| < kInlineRoundLimit, except that -0.0 gives +0.0 (callers only take
// v - floor(v) and its integer value, which are the same either way).
inline double floorInline(double v) {
  const double t = double(std::int64_t(v));
  return t > v ? t - 1.0 : t;
}
}  // namespace

TransformNode::TransformNode(CIImage input, const CGAffineTransform& t)
    : ImageNode(CGRectApplyAffineTransform(input.extent(), t), {input}), t_(t) {
  inv_ = CGAffineTransformInvert(t_);
  inv_.a = snap(inv_.a);
  inv_.b = snap(inv_.b);
  inv_.c = snap(inv_.c);
  inv_.d = snap(inv_.d);
  // Footprint of one output pixel in the input, per input axis; never below one pixel
  // (bilinear) and bounded so that extreme shrinks stay affordable.
  rx_ = std::clamp(std::hypot(inv_.a, inv_.c), 1.0, 64.0);
  ry_ = std::clamp(std::hypot(inv_.b, inv_.d), 1.0, 64.0);
  if (rx_ < 1.0 + 1e-9) rx_ = 1.0;
  if (ry_ < 1.0 + 1e-9) ry_ = 1.0;
  // On the grid when the axes map to themselves at scale ±1 and the centre of pixel 0 lands on
  // a pixel centre: then every sample position is a whole texel index, where the tent filter
  // has the single weight 1.
  if (inv_.b == 0 && inv_.c == 0 && std::fabs(inv_.a) == 1.0 && std::fabs(inv_.d) == 1.0) {
    const double u = snap(inv_.a * 0.5 + inv_.tx - 0.5), v = snap(inv_.d * 0.5 + inv_.ty - 0.5);
    onGrid_ = u == std::floor(u) && v == std::floor(v) && std::fabs(u) < 1e15 && std::fabs(v) < 1e15;
  }
}

RegionAnswer TransformNode::describeRegion(const PixelRect&, bool) const {
  // On the grid at scale +1 on both axes: output pixel X is input texel X + inv.tx (see render).
  if (!onGrid_ || inv_.a != 1.0 || inv_.d != 1.0) return RegionAnswer::renderIt();
  const double u = snap(0.5 + inv_.tx - 0.5), v = snap(0.5 + inv_.ty - 0.5);
  return RegionAnswer::pixelsOf(inputs()[0].node().get(), -std::int64_t(u), -std::int64_t(v));
}

PixelRect TransformNode::regionOfInterest(std::size_t, const PixelRect& rect) const {
  if (rect.empty()) return {};
  const CGRect box = CGRectApplyAffineTransform(rect.cgRect(), inv_);
  if (onGrid_) return PixelRect::covering(box);  // exactly the texels copied
  return PixelRect::covering(CGRectInset(box, -(rx_ + 1.0), -(ry_ + 1.0)));
}

namespace {
// Clears pixels x0 .. x1 - 1 of row Y of `out` to transparent.
void clearRun(const PixelTile& out, std::int64_t Y, std::int64_t x0, std::int64_t x1) {
  if (x1 > x0) std::memset(out.at(x0, Y), 0, std::size_t(x1 - x0) * 4 * sizeof(float));
}
void clearTile(const PixelTile& out) {
  for (std::int64_t Y = out.rect.y; Y < out.rect.maxY(); ++Y) clearRun(out, Y, out.rect.x, out.rect.maxX());
}

// Output pixel X takes input texel u0 + sx·(X - out.rect.x) of row v0 + sy·(Y - out.rect.y):
// rows copied, reversed where the transform flips x; pixels whose texel lies outside `src` are
// written transparent.
void copyOnGrid(const PixelTile& out, const ConstPixelTile& src, std::int64_t u0, std::int64_t v0, int sx, int sy) {
  const PixelRect& sr = src.rect;
  const std::int64_t x0 = out.rect.x;
  // The output columns whose texel lies inside src.
  const std::int64_t xa = std::max(x0, sx > 0 ? x0 + sr.x - u0 : x0 + u0 - sr.maxX() + 1);
  const std::int64_t xb = std::min(out.rect.maxX(), sx > 0 ? x0 + sr.maxX() - u0 : x0 + u0 - sr.x + 1);
  if (xb <= xa) return clearTile(out);
  for (std::int64_t Y = out.rect.y; Y < out.rect.maxY(); ++Y) {
    const std::int64_t j = v0 + sy * (Y - out.rect.y);
    if (j < sr.y || j >= sr.maxY()) {
      clearRun(out, Y, x0, out.rect.maxX());
      continue;
    }
    clearRun(out, Y, x0, xa);
    clearRun(out, Y, xb, out.rect.maxX());
    float* o = out.at(xa, Y);
    if (sx > 0) {
      std::memcpy(o, src.at(u0 + (xa - x0), j), std::size_t(xb - xa) * 4 * sizeof(float));
      continue;
    }
    const float* p = src.at(u0 - (xa - x0), j);
    for (std::int64_t X = xa; X < xb; ++X, o += 4, p -= 4) std::memcpy(o, p, 4 * sizeof(float));
  }
}
}  // namespace

void TransformNode::render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo&) const {
  const ConstPixelTile& src = in[0];
  if (src.rect.empty()) return clearTile(out);
  const PixelRect sr = src.rect;
  if (onGrid_) {
    const double u0 = snap(inv_.a * (double(out.rect.x) + 0.5) + inv_.tx - 0.5);
    const double v0 = snap(inv_.d * (double(out.rect.y) + 0.5) + inv_.ty - 0.5);
    copyOnGrid(out, src, std::int64_t(u0), std::int64_t(v0), inv_.a > 0 ? 1 : -1, inv_.d > 0 ? 1 : -1);
    return;
  }
  if (inv_.b == 0 && inv_.c == 0) {
    renderSeparable(out, src);
    return;
  }
  if (rx_ == 1.0 && ry_ == 1.0) {
    renderBilinear(out, src);
    return;
  }
  std::vector<float> wx, wy;
  for (std::int64_t Y = out.rect.y; Y < out.rect.maxY(); ++Y) {
    float* o = out.at(out.rect.x, Y);
    const double cy = double(Y) + 0.5;
    for (std::int64_t X = out.rect.x; X < out.rect.maxX(); ++X, o += 4) {
      const double cx = double(X) + 0.5;
      // Sample position in input pixel indices (pixel i has its centre at i + 0.5).
      const double u = snap(inv_.a * cx + inv_.c * cy + inv_.tx - 0.5);
      const double v = snap(inv_.b * cx + inv_.d * cy + inv_.ty - 0.5);
      float acc[4] = {0, 0, 0, 0};
      // Tent filter of radius rx_ × ry_, normalised.
      const std::int64_t i0 = std::int64_t(std::ceil(u - rx_)), i1 = std::int64_t(std::floor(u + rx_));
      const std::int64_t j0 = std::int64_t(std::ceil(v - ry_)), j1 = std::int64_t(std::floor(v + ry_));
      wx.assign(std::size_t(i1 - i0 + 1), 0.0f);
      wy.assign(std::size_t(j1 - j0 + 1), 0.0f);
      double sx = 0, sy = 0;
      for (std::int64_t i = i0; i <= i1; ++i) sx += wx[std::size_t(i - i0)] = float(std::max(0.0, 1.0 - std::fabs(double(i) - u) / rx_));
      for (std::int64_t j = j0; j <= j1; ++j) sy += wy[std::size_t(j - j0)] = float(std::max(0.0, 1.0 - std::fabs(double(j) - v) / ry_));
      if (sx <= 0 || sy <= 0) {
        std::memset(o, 0, 4 * sizeof(float));
        continue;
      }
      const float norm = float(1.0 / (sx * sy));
      for (std::int64_t j = std::max(j0, sr.y); j <= std::min(j1, sr.maxY() - 1); ++j) {
        const float wj = wy[std::size_t(j - j0)];
        if (wj == 0.0f) continue;
        float racc[4] = {0, 0, 0, 0};
        const std::int64_t ia = std::max(i0, sr.x), ib = std::min(i1, sr.maxX() - 1);
        const float* p = ia <= ib ? src.at(ia, j) : nullptr;
        for (std::int64_t i = ia; i <= ib; ++i, p += 4) {
          const float wi = wx[std::size_t(i - i0)];
          for (int k = 0; k < 4; ++k) racc[k] += wi * p[k];
        }
        for (int k = 0; k < 4; ++k) acc[k] += wj * racc[k];
      }
      for (int k = 0; k < 4; ++k) o[k] = acc[k] * norm;
    }
  }
}

// Rotations and shears at scale one: two by two texels per output pixel. Where all four lie
// inside `src` (all but a border of the tile), the taps are read without bounds checks and the
// sample position is rounded inline; the arithmetic and the order of the sums are those of the
// checked path below, so the results are the same bit for bit.
void TransformNode::renderBilinear(const PixelTile& out, const ConstPixelTile& src) const {
  const PixelRect sr = src.rect;
  const std::ptrdiff_t stride = src.stride;
  for (std::int64_t Y = out.rect.y; Y < out.rect.maxY(); ++Y) {
    float* o = out.at(out.rect.x, Y);
    const double cy = double(Y) + 0.5;
    for (std::int64_t X = out.rect.x; X < out.rect.maxX(); ++X, o += 4) {
      const double cx = double(X) + 0.5;
      // Sample position in input pixel indices (pixel i has its centre at i + 0.5).
      const double u = snapInline(inv_.a * cx + inv_.c * cy + inv_.tx - 0.5);
      const double v = snapInline(inv_.b * cx + inv_.d * cy + inv_.ty - 0.5);
      float acc[4] = {0, 0, 0, 0};
      const bool inline_ = std::fabs(u) < kInlineRoundLimit && std::fabs(v) < kInlineRoundLimit;
      const double fu = inline_ ? floorInline(u) : std::floor(u), fv = inline_ ? floorInline(v) : std::floor(v);
      const std::int64_t i0 = std::int64_t(fu), j0 = std::int64_t(fv);
      const float ax = float(u - fu), ay = float(v - fv);
      const float wxs[2] = {1.0f - ax, ax}, wys[2] = {1.0f - ay, ay};
      if (i0 >= sr.x && i0 + 1 < sr.maxX() && j0 >= sr.y && j0 + 1 < sr.maxY()) {
        // One pixel's four channels in one register (the baseline's vectors; the build's static
        // Highway target is scalar): a product and a sum per tap, never fused.
        Float4 sum = {0, 0, 0, 0};
        const float* p = src.at(i0, j0);
        for (int j = 0; j < 2; ++j, p += stride) {
          if (wys[j] == 0.0f) continue;
          for (int i = 0; i < 2; ++i) {
            if (wxs[i] == 0.0f) continue;
            Float4 texel;
            std::memcpy(&texel, p + i * 4, sizeof texel);
            sum += (wxs[i] * wys[j]) * texel;
          }
        }
        std::memcpy(o, &sum, sizeof sum);
        continue;
      }
      for (int j = 0; j < 2; ++j) {
        const std::int64_t yy = j0 + j;
        if (wys[j] == 0.0f || yy < sr.y || yy >= sr.maxY()) continue;
        for (int i = 0; i < 2; ++i) {
          const std::int64_t xx = i0 + i;
          if (wxs[i] == 0.0f || xx < sr.x || xx >= sr.maxX()) continue;
          const float w = wxs[i] * wys[j];
          const float* p = src.at(xx, yy);
          for (int k = 0; k < 4; ++k) acc[k] += w * p[k];
        }
      }
      std::memcpy(o, acc, sizeof acc);
    }
  }
}

namespace {
// Tent taps of one output index on one axis: first input index and normalised weights.
struct AxisTaps {
  std::int64_t first = 0;
  std::vector<float> w;
};

// The input indices [first, end) the taps of output position u reach (end <= first: none).
std::pair<std::int64_t, std::int64_t> tapRange(double u, double radius) {
  return {std::int64_t(std::ceil(u - radius)), std::int64_t(std::floor(u + radius)) + 1};
}

// Fills `t` with the taps of output position u, reusing its storage and `sums` (the weights in
// double before they are normalised): a tile asks for one per column and one per row, which
// would otherwise be two allocations each.
void axisTaps(double u, double radius, AxisTaps& t, std::vector<double>& sums) {
  const auto [i0, end] = tapRange(u, radius);
  t.first = i0;
  double sum = 0;
  sums.clear();
  for (std::int64_t i = i0; i < end; ++i) {
    const double v = std::max(0.0, 1.0 - std::fabs(double(i) - u) / radius);
    sums.push_back(v);
    sum += v;
  }
  t.w.resize(sums.size());
  for (std::size_t k = 0; k < sums.size(); ++k) t.w[k] = sum > 0 ? float(sums[k] / sum) : 0.0f;
}

// The taps of a run of output indices on one axis, flattened: for output k, count[k] weights
// from weight[offset[k]] for the input indices first[k], first[k] + 1, ... Taps of weight zero
// and taps outside [lo, hi) are dropped; the remaining ones keep their order, so the sums are
// the same as over all taps with those skipped.
struct TapTable {
  std::vector<std::int64_t> first;
  std::vector<std::uint32_t> offset, count;
  std::vector<float> weight;

  void add(const AxisTaps& t, std::int64_t lo, std::int64_t hi) {
    std::int64_t a = 0, b = std::int64_t(t.w.size());
    while (a < b && (t.w[std::size_t(a)] == 0.0f || t.first + a < lo)) ++a;
    while (b > a && (t.w[std::size_t(b - 1)] == 0.0f || t.first + b - 1 >= hi)) --b;
    first.push_back(t.first + a);
    offset.push_back(std::uint32_t(weight.size()));
    count.push_back(std::uint32_t(b - a));
    // Zero weights inside the run stay (they add nothing, as when skipped).
    for (std::int64_t k = a; k < b; ++k) weight.push_back(t.w[std::size_t(k)]);
  }
};
}  // namespace

// Axis-aligned transforms (scales, flips, translations): the filter is separable, so the taps
// are computed once per column and per row, and each output row is a vertical pass into one
// row of input columns followed by a horizontal pass.
void TransformNode::renderSeparable(const PixelTile& out, const ConstPixelTile& src) const {
  const PixelRect sr = src.rect;
  const auto columnAt = [&](std::int64_t X) { return snap(inv_.a * (double(X) + 0.5) + inv_.tx - 0.5); };
  // The input columns the taps reach, first (from their ranges alone), then the taps.
  std::int64_t lo = sr.maxX(), hi = sr.x;
  for (std::int64_t X = out.rect.x; X < out.rect.maxX(); ++X) {
    const auto [first, end] = tapRange(columnAt(X), rx_);
    lo = std::min(lo, std::max(sr.x, first));
    hi = std::max(hi, std::min(sr.maxX(), std::max(first, end)));
  }
  if (hi <= lo) return clearTile(out);
  const std::size_t width = std::size_t(out.rect.width);
  TapTable table;
  table.first.reserve(width);
  table.offset.reserve(width);
  table.count.reserve(width);
  AxisTaps taps;
  std::vector<double> sums;
  for (std::int64_t X = out.rect.x; X < out.rect.maxX(); ++X) {
    axisTaps(columnAt(X), rx_, taps, sums);
    table.add(taps, lo, hi);
  }
  std::vector<float> temp(std::size_t(hi - lo) * 4);
  AxisTaps rows;
  for (std::int64_t Y = out.rect.y; Y < out.rect.maxY(); ++Y) {
    const double v = snap(inv_.d * (double(Y) + 0.5) + inv_.ty - 0.5);
    axisTaps(v, ry_, rows, sums);
    std::fill(temp.begin(), temp.end(), 0.0f);
    bool any = false;
    for (std::size_t k = 0; k < rows.w.size(); ++k) {
      const std::int64_t j = rows.first + std::int64_t(k);
      const float w = rows.w[k];
      if (w == 0.0f || j < sr.y || j >= sr.maxY()) continue;
      any = true;
      const float* p = src.at(lo, j);
      float* t = temp.data();
      for (std::size_t i = 0, n = temp.size(); i < n; ++i) t[i] += w * p[i];
    }
    if (!any) {
      clearRun(out, Y, out.rect.x, out.rect.maxX());
      continue;
    }
    float* o = out.at(out.rect.x, Y);
    const float* base = temp.data() - lo * 4;
    for (std::size_t X = 0; X < width; ++X, o += 4) {
      const float* w = table.weight.data() + table.offset[X];
      const float* p = base + table.first[X] * 4;
      Float4 sum = {0, 0, 0, 0};
      for (std::uint32_t k = 0, n = table.count[X]; k < n; ++k, p += 4) {
        Float4 texel;
        std::memcpy(&texel, p, sizeof texel);
        sum += w[k] * texel;
      }
      std::memcpy(o, &sum, sizeof sum);
    }
  }
}

// ---- CropNode ----

CropNode::CropNode(CIImage input, const CGRect& rect)
    : ImageNode(CGRectIntersection(input.extent(), rect), {input}), rect_(rect), kept_(PixelRect::centresInside(rect)) {}

PixelRect CropNode::regionOfInterest(std::size_t, const PixelRect& rect) const { return rect.intersection(kept_); }

void CropNode::render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo&) const {
  copyRegion(out, in[0], kept_);
}

RegionAnswer CropNode::describeRegion(const PixelRect& rect, bool) const {
  return RegionAnswer::within(rect, kept_, RegionAnswer::pixelsOf(inputs()[0].node().get(), 0, 0));
}

// ---- ClampNode ----

ClampNode::ClampNode(CIImage input) : ImageNode(CGRectInfinite, {input}) {
  edge_ = PixelRect::centresInside(input.extent());
  if (edge_.empty()) edge_ = PixelRect::covering(input.extent());
}

PixelRect ClampNode::regionOfInterest(std::size_t, const PixelRect& rect) const {
  if (rect.empty() || edge_.empty()) return {};
  auto cl = [](std::int64_t v, std::int64_t lo, std::int64_t hi) { return std::clamp(v, lo, hi); };
  const std::int64_t x0 = cl(rect.x, edge_.x, edge_.maxX() - 1), x1 = cl(rect.maxX() - 1, edge_.x, edge_.maxX() - 1);
  const std::int64_t y0 = cl(rect.y, edge_.y, edge_.maxY() - 1), y1 = cl(rect.maxY() - 1, edge_.y, edge_.maxY() - 1);
  return {x0, y0, x1 - x0 + 1, y1 - y0 + 1};
}

void ClampNode::render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo&) const {
  const ConstPixelTile& src = in[0];
  if (src.rect.empty()) return;
  // Per row: the edge texel repeated left of the source, its row copied where it lies under
  // the tile, the other edge texel repeated right of it.
  const std::int64_t inA = std::clamp(src.rect.x, out.rect.x, out.rect.maxX());
  const std::int64_t inB = std::clamp(src.rect.maxX(), inA, out.rect.maxX());
  for (std::int64_t y = out.rect.y; y < out.rect.maxY(); ++y) {
    const std::int64_t sy = std::clamp(y, src.rect.y, src.rect.maxY() - 1);
    float* o = out.at(out.rect.x, y);
    const float* left = src.at(src.rect.x, sy);
    const float* right = src.at(src.rect.maxX() - 1, sy);
    for (std::int64_t x = out.rect.x; x < inA; ++x, o += 4) std::memcpy(o, left, 4 * sizeof(float));
    if (inB > inA) {
      std::memcpy(o, src.at(inA, sy), std::size_t(inB - inA) * 4 * sizeof(float));
      o += (inB - inA) * 4;
    }
    for (std::int64_t x = inB; x < out.rect.maxX(); ++x, o += 4) std::memcpy(o, right, 4 * sizeof(float));
  }
}

RegionAnswer ClampNode::describeRegion(const PixelRect& rect, bool) const {
  // Inside the edge every pixel is the input's own.
  if (edge_.empty() || !edge_.contains(rect)) return RegionAnswer::renderIt();
  return RegionAnswer::pixelsOf(inputs()[0].node().get(), 0, 0);
}

// ---- ProviderNode ----

// What the provider gave, as it gave it: converted to working floats only where a tile reads
// (a quarter of the memory of a float copy, which a large texture would hold for a whole render).
struct ProviderNode::Block {
  PixelRect rect;  // in plane coordinates
  std::size_t rowBytes = 0;
  std::vector<std::uint8_t> bytes;  // encoded premultiplied 8-bit pixels, row 0 = top row of rect
};

// The provider's own bitmap, read in place; null when it has none of the image's size.
struct ProviderNode::Shared {
  std::shared_ptr<const CGImage> bitmap;
};

ProviderNode::ProviderNode(std::shared_ptr<CIImageProvider> provider, std::size_t width, std::size_t height,
                           CIFormat format, std::string colorSpace, Dictionary options)
    : ImageNode(CGRectMake(0, 0, double(width), double(height))),
      provider_(std::move(provider)), width_(width), height_(height), format_(format), options_(std::move(options)) {
  linearData_ = colorSpace.find("Linear") != std::string::npos;
  auto it = options_.find("CIImageProviderTileSize");
  if (it != options_.end()) {
    Value v = it->second;
    if (auto* a = v.array(); a && !a->empty()) v = a->front();
    const std::int64_t t = v.integerValue();
    if (t > 0) tileSize_ = std::size_t(t);
  }
  auto ui = options_.find("CIImageProviderUserInfo");
  if (ui != options_.end()) userInfo_ = ui->second;
}

std::shared_ptr<const ProviderNode::Block> ProviderNode::fetch(std::int64_t col, std::int64_t row,
                                                               const RenderInfo& info) const {
  auto make = [&]() -> std::shared_ptr<const Block> {
    auto block = std::make_shared<Block>();
    const std::int64_t W = std::int64_t(width_), H = std::int64_t(height_);
    const std::int64_t ts = tileSize_ ? std::int64_t(tileSize_) : std::max(W, H);
    // Tile (col, row) counted from the top-left corner, as the provider measures.
    const std::int64_t left = col * ts, top = row * ts;
    const std::int64_t w = std::min(ts, W - left), h = std::min(ts, H - top);
    block->rect = {left, H - top - h, w, h};
    block->rowBytes = std::size_t(w) * 4;
    block->bytes.assign(block->rowBytes * std::size_t(h), 0);
    if (provider_)
      provider_->provideImageData(block->bytes.data(), block->rowBytes, std::size_t(left), std::size_t(top),
                                  std::size_t(w), std::size_t(h), userInfo_);
    return block;
  };
  if (!info.cache) return make();
  const long long key = (static_cast<long long>(row) << 32) ^ static_cast<long long>(col);
  return info.cache->getOrCreate<Block>(this, key, make);
}

std::shared_ptr<const ProviderNode::Shared> ProviderNode::shared(const RenderInfo& info) const {
  auto make = [&]() -> std::shared_ptr<const Shared> {
    auto entry = std::make_shared<Shared>();
    std::shared_ptr<const CGImage> bitmap = provider_ ? provider_->sharedBitmap() : nullptr;
    if (bitmap && bitmap->width == width_ && bitmap->height == height_ &&
        (bitmap->bitsPerComponent == 8 || bitmap->bitsPerComponent == 16) &&
        bitmap->bytesPerRow >= width_ * 4 * std::size_t(bitmap->bitsPerComponent / 8) &&
        bitmap->pixels.size() >= bitmap->bytesPerRow * height_)
      entry->bitmap = std::move(bitmap);
    return entry;
  };
  // Key -1: no grid tile has it (tile keys are row << 32 ^ col with non-negative row and col).
  if (!info.cache) return make();
  return info.cache->getOrCreate<Shared>(this, -1, make);
}

void ProviderNode::render(const PixelTile& out, std::span<const ConstPixelTile>, const RenderInfo& info) const {
  const std::int64_t W = std::int64_t(width_), H = std::int64_t(height_);
  const PixelRect r = out.rect.intersection({0, 0, W, H});
  if (r.empty()) return;
  const bool managed = info.colorManaged && !linearData_;
  if (const std::shared_ptr<const Shared> own = shared(info); own->bitmap) {
    const CGImage& bitmap = *own->bitmap;
    for (std::int64_t y = r.y; y < r.maxY(); ++y) {
      const std::uint8_t* row = bitmap.row(std::size_t(H - 1 - y));  // bottom-up plane, top-down rows
      if (bitmap.bitsPerComponent == 8)
        qvpixel::decodeStraightRGBA8(row + std::size_t(r.x) * 4, out.at(r.x, y), std::size_t(r.width), managed);
      else
        qvpixel::decodeStraightRGBA16(reinterpret_cast<const std::uint16_t*>(row) + std::size_t(r.x) * 4,
                                      out.at(r.x, y), std::size_t(r.width), managed);
    }
    return;
  }
  const std::int64_t ts = tileSize_ ? std::int64_t(tileSize_) : std::max(W, H);
  // Rows counted from the top: plane row y is image row H - 1 - y.
  const std::int64_t col0 = r.x / ts, col1 = (r.maxX() - 1) / ts;
  const std::int64_t row0 = (H - r.maxY()) / ts, row1 = (H - 1 - r.y) / ts;
  for (std::int64_t row = row0; row <= row1; ++row) {
    for (std::int64_t col = col0; col <= col1; ++col) {
      auto block = fetch(col, row, info);
      const PixelRect part = block->rect.intersection(r);
      for (std::int64_t y = part.y; y < part.maxY(); ++y) {
        const std::size_t top = std::size_t(block->rect.maxY() - 1 - y);  // bottom-up plane, top-down bytes
        const std::uint8_t* src = block->bytes.data() + top * block->rowBytes + std::size_t(part.x - block->rect.x) * 4;
        if (format_ == CIFormat::ARGB8)
          qvpixel::decodePremultipliedARGB8(src, out.at(part.x, y), std::size_t(part.width), managed);
        else
          qvpixel::decodePremultipliedRGBA8(src, out.at(part.x, y), std::size_t(part.width), managed);
      }
    }
  }
}

// ---- FileNode ----

namespace {

bool swapsAxes(int orientation) { return orientation >= 5 && orientation <= 8; }

CGRect orientedExtent(std::size_t width, std::size_t height, int orientation) {
  return swapsAxes(orientation) ? CGRectMake(0, 0, double(height), double(width))
                                : CGRectMake(0, 0, double(width), double(height));
}

int validOrientation(int orientation) { return orientation >= 1 && orientation <= 8 ? orientation : 1; }

// `count` pixels of `bytes` each, in reverse order.
void reversePixels(const std::uint8_t* src, std::uint8_t* dst, std::size_t count, std::size_t bytes) {
  for (std::size_t i = 0; i < count; ++i) std::memcpy(dst + (count - 1 - i) * bytes, src + i * bytes, bytes);
}

}  // namespace

FileNode::FileNode(std::string path, std::size_t width, std::size_t height, Stored stored)
    : ImageNode(orientedExtent(width, height, validOrientation(stored.orientation))),
      path_(std::move(path)),
      width_(width),
      height_(height),
      stored_(stored) {
  stored_.orientation = validOrientation(stored.orientation);
}

std::shared_ptr<const FileNode> FileNode::reducedBy(int denominator) const {
  const std::size_t d = std::size_t(denominator);
  auto reduced = std::make_shared<FileNode>(path_, (width_ + d - 1) / d, (height_ + d - 1) / d, stored_);
  reduced->scaleDenominator_ = denominator;
  return reduced;
}

StripCache::Opener FileNode::opener() const {
  return [path = path_, denominator = scaleDenominator_](std::string& error) -> std::unique_ptr<CGImageSourceRowReader> {
    auto src = CGImageSourceCreateWithURL(path);
    if (!src) {
      error = CGImageSourceGetCreateError();
      return nullptr;
    }
    auto reader = CGImageSourceCreateRowReaderAtIndex(src, 0, denominator);
    if (!reader) error = CGImageSourceGetLastError(src);
    return reader;
  };
}

// One cache per render, shared by its tiles and threads; outside a render, one per call.
std::shared_ptr<const StripCache> FileNode::stripCache(const RenderInfo& info) const {
  auto make = [this] {
    return std::make_shared<const StripCache>(opener(), path_, width_, height_, stored_.bitsPerComponent);
  };
  return info.cache ? info.cache->getOrCreate<StripCache>(this, 0, make) : make();
}

// Only the stored orientation writes rows as the file holds them; a turned or mirrored file
// renders.
RegionAnswer FileNode::describeRegion(const PixelRect& rect, bool colorManaged) const {
  if (stored_.orientation != 1) return ImageNode::describeRegion(rect, colorManaged);
  const PixelRect mine{0, 0, std::int64_t(width_), std::int64_t(height_)};
  RegionAnswer stored;
  if (stored_.bitsPerComponent == 8) {
    stored.kind = RegionAnswer::Kind::stored;
    stored.opaque = stored_.opaque;
  }
  return RegionAnswer::within(rect, mine, stored);
}

bool FileNode::writeStored8(const PixelRect& rect, std::uint8_t* topRow, std::ptrdiff_t rowBytes,
                            const RenderInfo& info) const {
  if (stored_.bitsPerComponent != 8 || stored_.orientation != 1 ||
      !PixelRect{0, 0, std::int64_t(width_), std::int64_t(height_)}.contains(rect) || rect.empty())
    return false;
  const std::size_t first = height_ - std::size_t(rect.maxY());
  const std::size_t x0 = std::size_t(rect.x);
  stripCache(info)->forEachRun(
      first, std::size_t(rect.height), x0, std::size_t(rect.width),
      [&](std::size_t row, std::size_t x, const std::uint8_t* p, std::size_t n) {
        qvpixel::reencodeStraightRGBA8(p, topRow + std::ptrdiff_t(row - first) * rowBytes + std::ptrdiff_t(x - x0) * 4,
                                       n, info.colorManaged, stored_.opaque);
      });
  return true;
}

// The upright picture's pixel (x, y), counted from its top-left corner, shows the file's pixel
// (sx, sy) (W x H stored): orientations 1 to 4 keep rows as rows (2 and 3 mirror them, 3 and 4
// read them bottom up), so a tile reads a run of file rows through the strip cache; 5 to 8 make
// rows of columns (sx from y, sy from x), which the tile reads from the column bands.
void FileNode::render(const PixelTile& out, std::span<const ConstPixelTile>, const RenderInfo& info) const {
  const int orientation = stored_.orientation;
  const bool swap = swapsAxes(orientation);
  const std::size_t OW = swap ? height_ : width_, OH = swap ? width_ : height_;
  const PixelRect r = out.rect.intersection({0, 0, std::int64_t(OW), std::int64_t(OH)});
  if (r.empty()) return;
  const bool sixteen = stored_.bitsPerComponent == 16;
  const std::size_t bpp = sixteen ? 8 : 4;
  auto decode = [&](const std::uint8_t* p, float* dst, std::size_t n) {
    if (sixteen)
      qvpixel::decodeStraightRGBA16(reinterpret_cast<const std::uint16_t*>(p), dst, n, info.colorManaged);
    else
      qvpixel::decodeStraightRGBA8(p, dst, n, info.colorManaged);
  };
  thread_local std::vector<std::uint8_t> mirrored;
  const std::size_t n = std::size_t(r.width);
  // The tile's top row (upright, counted from the top) and its columns.
  const std::size_t top = OH - std::size_t(r.maxY()), x0 = std::size_t(r.x);
  if (!swap) {
    std::shared_ptr<const StripCache> cache = stripCache(info);
    const bool mirror = orientation == 2 || orientation == 3, upward = orientation == 3 || orientation == 4;
    const std::size_t first = upward ? height_ - top - std::size_t(r.height) : top;
    const std::size_t sx0 = mirror ? width_ - x0 - n : x0;
    // A run of file columns [x, x + m) is upright columns x - sx0 on, or mirrored, the m
    // columns ending at n - (x - sx0).
    cache->forEachRun(first, std::size_t(r.height), sx0, n,
                      [&](std::size_t row, std::size_t x, const std::uint8_t* p, std::size_t m) {
                        const std::size_t y = upward ? height_ - 1 - row : row;  // upright row
                        float* dst = out.at(r.x, std::int64_t(OH - 1 - y));
                        if (!mirror) return decode(p, dst + (x - sx0) * 4, m);
                        if (mirrored.size() < m * bpp) mirrored.resize(m * bpp);
                        reversePixels(p, mirrored.data(), m, bpp);
                        decode(mirrored.data(), dst + (n - (x - sx0) - m) * 4, m);
                      });
    return;
  }
  auto make = [&] {
    return std::make_shared<const ColumnBands>(opener(), path_, width_, height_, stored_.bitsPerComponent);
  };
  std::shared_ptr<const ColumnBands> bands = info.cache ? info.cache->getOrCreate<ColumnBands>(this, 1, make) : make();
  // Upright row y is file column y (5, 6) or W - 1 - y (7, 8); upright column x is file row x
  // (5, 8) or H - 1 - x (6, 7).
  const bool columnsFromRight = orientation == 7 || orientation == 8;
  const bool rowsFromBottom = orientation == 6 || orientation == 7;
  for (std::size_t y = top; y < top + std::size_t(r.height); ++y) {
    const std::size_t column = columnsFromRight ? width_ - 1 - y : y;
    float* dst = out.at(r.x, std::int64_t(OH - 1 - y));
    bands->withColumn(column, [&](const std::uint8_t* pixels) {
      if (!rowsFromBottom) return decode(pixels + x0 * bpp, dst, n);
      if (mirrored.size() < n * bpp) mirrored.resize(n * bpp);
      reversePixels(pixels + (height_ - x0 - n) * bpp, mirrored.data(), n, bpp);
      decode(mirrored.data(), dst, n);
    });
  }
}
