#include "CoreImage/Nodes/GeometryNodes.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <deque>
#include <vector>

namespace {

std::int64_t floorMod(std::int64_t a, std::int64_t m) {
  const std::int64_t r = a % m;
  return r < 0 ? r + m : r;
}

// The input range of one axis needed for the output range [a, b) of a repeating cell
// [c, c + w): the mapped sub-range when it does not wrap, the whole cell otherwise.
std::pair<std::int64_t, std::int64_t> wrapRange(std::int64_t a, std::int64_t b, std::int64_t c, std::int64_t w) {
  if (b - a >= w) return {c, c + w};
  const std::int64_t s = c + floorMod(a - c, w), e = c + floorMod(b - 1 - c, w);
  if (e >= s) return {s, e + 1};
  return {c, c + w};
}

double lanczos3(double x) {
  x = std::fabs(x);
  if (x < 1e-12) return 1.0;
  if (x >= 3.0) return 0.0;
  const double px = M_PI * x;
  return 3.0 * std::sin(px) * std::sin(px / 3.0) / (px * px);
}

// Normalised weights of output index X on one axis: first input index and the weights.
struct Taps {
  std::int64_t first = 0;
  std::vector<float> w;
};

Taps tapsFor(const LanczosScaleNode::Axis& a, std::int64_t X) {
  Taps t;
  const double c = a.centre(X);
  const std::int64_t i0 = a.first(X), i1 = a.end(X) - 1;
  t.first = i0;
  std::vector<double> w;
  double sum = 0;
  for (std::int64_t i = i0; i <= i1; ++i) {
    const double v = lanczos3((double(i) + 0.5 - c) / a.filterScale);
    w.push_back(v);
    sum += v;
  }
  t.w.resize(w.size());
  for (std::size_t k = 0; k < w.size(); ++k) t.w[k] = float(sum != 0 ? w[k] / sum : 0.0);
  return t;
}

}  // namespace

// ---- TileNode ----

TileNode::TileNode(CIImage input) : ImageNode(CGRectInfinite, {input}) {
  cell_ = PixelRect::centresInside(input.extent());
  if (cell_.empty()) cell_ = PixelRect::covering(input.extent());
}

PixelRect TileNode::regionOfInterest(std::size_t, const PixelRect& rect) const {
  if (rect.empty() || cell_.empty()) return {};
  const auto [x0, x1] = wrapRange(rect.x, rect.maxX(), cell_.x, cell_.width);
  const auto [y0, y1] = wrapRange(rect.y, rect.maxY(), cell_.y, cell_.height);
  return {x0, y0, x1 - x0, y1 - y0};
}

void TileNode::render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo&) const {
  const ConstPixelTile& src = in[0];
  if (cell_.empty()) return;
  if (src.rect.empty()) {  // not asked of a cell with pixels; cleared, as writesEveryPixel says
    for (std::int64_t y = out.rect.y; y < out.rect.maxY(); ++y)
      std::memset(out.at(out.rect.x, y), 0, std::size_t(out.rect.width) * 4 * sizeof(float));
    return;
  }
  // Each row as runs of the cell's row: from the first pixel's place in the cell to the cell's
  // right edge, then whole cell rows from its left edge, one copy each.
  const std::int64_t firstX = cell_.x + floorMod(out.rect.x - cell_.x, cell_.width);
  for (std::int64_t y = out.rect.y; y < out.rect.maxY(); ++y) {
    const std::int64_t sy = cell_.y + floorMod(y - cell_.y, cell_.height);
    float* o = out.at(out.rect.x, y);
    std::int64_t sx = firstX;
    for (std::int64_t left = out.rect.width; left > 0;) {
      const std::int64_t run = std::min(left, cell_.maxX() - sx);
      std::memcpy(o, src.at(sx, sy), std::size_t(run) * 4 * sizeof(float));
      o += run * 4;
      left -= run;
      sx = cell_.x;
    }
  }
}

RegionAnswer TileNode::describeRegion(const PixelRect& rect, bool) const {
  // Only rows: a cut across the columns would split every tile of a column narrower than the
  // cell, and the nodes below could no longer carry rows from tile to tile; a few cuts down a
  // column (one per cell height) cost nothing of the kind.
  if (rect.empty() || cell_.empty() || rect.height >= cell_.height) return RegionAnswer::renderIt();
  const std::int64_t offset = floorMod(rect.y - cell_.y, cell_.height);
  if (offset == 0) return RegionAnswer::renderIt();  // starts at a seam and ends before the next
  return RegionAnswer::cutAt(rect, RegionAnswer::Cut::y, rect.y + (cell_.height - offset));
}

// ---- LanczosScaleNode ----

LanczosScaleNode::Setup LanczosScaleNode::setup(const CGRect& in, double sx, double sy) {
  Setup st;
  Axis& ax = st.ax;
  Axis& ay = st.ay;
  auto axis = [](double min, double size, double s, Axis& a) -> std::pair<double, double> {
    a.filterScale = std::max(1.0, 1.0 / s);
    a.support = 3.0 * a.filterScale;
    const double o = std::round(min * s);
    const double n = std::max(1.0, std::round(size * s));
    a.inOrigin = min;
    a.outOrigin = o;
    a.step = size / n;
    return {o, n};
  };
  if (CGRectIsInfinite(in)) {
    ax = {0, 0, 1.0 / sx, std::max(1.0, 1.0 / sx), 3.0 * std::max(1.0, 1.0 / sx)};
    ay = {0, 0, 1.0 / sy, std::max(1.0, 1.0 / sy), 3.0 * std::max(1.0, 1.0 / sy)};
    st.extent = CGRectInfinite;
    return st;
  }
  const auto [x, w] = axis(CGRectGetMinX(in), CGRectGetWidth(in), sx, ax);
  const auto [y, h] = axis(CGRectGetMinY(in), CGRectGetHeight(in), sy, ay);
  st.extent = CGRectMake(x, y, w, h);
  return st;
}

LanczosScaleNode::LanczosScaleNode(CIImage input, double sx, double sy)
    : LanczosScaleNode(input, setup(input.extent(), sx, sy)) {}

LanczosScaleNode::LanczosScaleNode(CIImage input, const Setup& s)
    : ImageNode(s.extent, {input}), ax_(s.ax), ay_(s.ay), inputPixels_(PixelRect::covering(input.extent())) {}

LanczosScaleNode::LanczosScaleNode(CIImage reduced, const LanczosScaleNode& original)
    : ImageNode(original.extent(), {reduced}), ax_(original.ax_), ay_(original.ay_),
      inputPixels_(PixelRect::covering(reduced.extent())) {
  const CGRect in = reduced.extent();
  auto axis = [](Axis& a, double min, double size, std::int64_t outSize) {
    a.inOrigin = min;
    a.step = size / double(outSize);
    a.filterScale = std::max(1.0, a.step);
    a.support = 3.0 * a.filterScale;
  };
  const PixelRect out = PixelRect::covering(original.extent());
  axis(ax_, CGRectGetMinX(in), CGRectGetWidth(in), out.width);
  axis(ay_, CGRectGetMinY(in), CGRectGetHeight(in), out.height);
}

int LanczosScaleNode::shrinkOnLoadDenominator(double scaleX, double scaleY) {
  const double s = std::max(scaleX, scaleY);
  if (!(s > 0)) return 1;
  for (int d : {8, 4, 2})
    if (s * d <= 0.5) return d;
  return 1;
}

std::int64_t LanczosScaleNode::Axis::first(std::int64_t X) const {
  return std::int64_t(std::floor(centre(X) - support - 0.5));
}

std::int64_t LanczosScaleNode::Axis::end(std::int64_t X) const {
  return std::int64_t(std::ceil(centre(X) + support - 0.5)) + 1;
}

PixelRect LanczosScaleNode::inputRows(const PixelRect& rect, std::int64_t first, std::int64_t end) const {
  if (rect.empty() || end <= first) return {};
  const std::int64_t x0 = ax_.first(rect.x), x1 = ax_.end(rect.maxX() - 1);
  // Outside the input's pixels everything is transparent and adds nothing: not asked for.
  return PixelRect{x0, first, x1 - x0, end - first}.intersection(inputPixels_);
}

PixelRect LanczosScaleNode::regionOfInterest(std::size_t, const PixelRect& rect) const {
  if (rect.empty()) return {};
  return inputRows(rect, ay_.first(rect.y), ay_.end(rect.maxY() - 1));
}

// The tile above (the same columns, its bottom row at rect.maxY()) has read every input row
// from ay_.first(rect.maxY()) up: only the rows below those are new.
PixelRect LanczosScaleNode::regionOfInterestBelow(std::size_t, const PixelRect& rect) const {
  if (rect.empty()) return {};
  return inputRows(rect, ay_.first(rect.y), ay_.first(rect.maxY()));
}

// A column's stream: the horizontal taps of its output columns and the horizontally filtered
// input rows [bottom, top) that output rows further down still read, row `top - 1` first.
struct LanczosScaleNode::Stream {
  PixelRect last;     // the output rows rendered last
  PixelRect reading;  // the output rows whose input bands are being read (before their render)
  std::vector<std::int64_t> first;  // per output column, its first tap's input column
  std::vector<std::uint32_t> offset, count;  // per output column, its weights in `weight`
  std::vector<float> weight;
  std::int64_t top = 0, bottom = 0;
  std::deque<std::vector<float>> rows;  // rows[k] is input row top - 1 - k

  const float* row(std::int64_t j) const { return rows[std::size_t(top - 1 - j)].data(); }
};

LanczosScaleNode::Stream& LanczosScaleNode::streamFor(const PixelRect& rect, const ConstPixelTile& src,
                                                      const RenderInfo& info, std::shared_ptr<void>& local) const {
  std::shared_ptr<void>& slot = info.state ? *info.state : local;
  auto* stream = static_cast<Stream*>(slot.get());
  const bool continuing = stream && ((!stream->last.empty() && stream->last.x == rect.x &&
                                      stream->last.width == rect.width && stream->last.y == rect.maxY()) ||
                                     (!stream->reading.empty() && stream->reading == rect));
  if (continuing) return *stream;
  auto fresh = std::make_shared<Stream>();
  stream = fresh.get();
  slot = std::move(fresh);
  // Horizontal taps of the column, cut to the input columns that hold pixels (the others are
  // transparent: leaving them out changes no sum). Every band of a region spans its columns.
  const std::int64_t lo = src.rect.x, hi = src.rect.maxX();
  for (std::int64_t X = rect.x; X < rect.maxX(); ++X) {
    const Taps t = tapsFor(ax_, X);
    const std::int64_t a = std::max(lo, t.first), b = std::min(hi, t.first + std::int64_t(t.w.size()));
    stream->first.push_back(a);
    stream->offset.push_back(std::uint32_t(stream->weight.size()));
    stream->count.push_back(std::uint32_t(std::max<std::int64_t>(0, b - a)));
    for (std::int64_t i = a; i < b; ++i) stream->weight.push_back(t.w[std::size_t(i - t.first)]);
  }
  stream->top = stream->bottom = src.rect.empty() ? inputPixels_.maxY() : src.rect.maxY();
  return *stream;
}

void LanczosScaleNode::readRows(Stream& stream, const ConstPixelTile& src) const {
  if (src.rect.empty()) return;
  const std::size_t columns = stream.first.size();
  for (std::int64_t j = src.rect.maxY() - 1; j >= src.rect.y; --j) {
    if (j >= stream.bottom) continue;  // cannot happen for a tile straight below; kept safe
    std::vector<float> filtered(columns * 4);
    const float* base = src.row(j) - src.rect.x * 4;
    for (std::size_t X = 0; X < columns; ++X) {
      const float* w = stream.weight.data() + stream.offset[X];
      const float* p = base + stream.first[X] * 4;
      float a0 = 0, a1 = 0, a2 = 0, a3 = 0;
      for (std::uint32_t k = 0, n = stream.count[X]; k < n; ++k, p += 4) {
        a0 += w[k] * p[0];
        a1 += w[k] * p[1];
        a2 += w[k] * p[2];
        a3 += w[k] * p[3];
      }
      float* o = &filtered[X * 4];
      o[0] = a0;
      o[1] = a1;
      o[2] = a2;
      o[3] = a3;
    }
    if (stream.rows.empty()) stream.top = j + 1;
    stream.rows.push_back(std::move(filtered));
    stream.bottom = j;
  }
}

void LanczosScaleNode::readInputBand(const PixelRect& rect, const ConstPixelTile& band, const RenderInfo& info) const {
  std::shared_ptr<void> local;
  Stream& stream = streamFor(rect, band, info, local);
  stream.reading = rect;
  readRows(stream, band);
}

void LanczosScaleNode::render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const {
  const ConstPixelTile& src = in[0];
  std::shared_ptr<void> local;
  Stream* stream = &streamFor(out.rect, src, info, local);
  stream->last = out.rect;
  stream->reading = PixelRect{};

  // The new input rows, top down, each filtered to the column's output pixels.
  const std::size_t columns = std::size_t(out.rect.width);
  readRows(*stream, src);

  // The vertical pass: every output row sums the filtered rows of its taps in tap order.
  std::vector<float> acc(columns * 4);
  for (std::int64_t Y = out.rect.maxY() - 1; Y >= out.rect.y; --Y) {
    const Taps t = tapsFor(ay_, Y);
    std::fill(acc.begin(), acc.end(), 0.0f);
    bool any = false;
    for (std::size_t k = 0; k < t.w.size(); ++k) {
      const std::int64_t j = t.first + std::int64_t(k);
      const float w = t.w[k];
      if (w == 0.0f || j < stream->bottom || j >= stream->top) continue;  // outside: transparent
      any = true;
      const float* p = stream->row(j);
      float* a = acc.data();
      for (std::size_t i = 0, n = acc.size(); i < n; ++i) a[i] += w * p[i];
    }
    if (any) std::memcpy(out.at(out.rect.x, Y), acc.data(), acc.size() * sizeof(float));
  }

  // Rows above what the next output row reads are not needed again in this column.
  const std::int64_t keepBelow = ay_.end(out.rect.y - 1);
  while (!stream->rows.empty() && stream->top > keepBelow) {
    stream->rows.pop_front();
    --stream->top;
  }
  if (stream->rows.empty()) stream->top = stream->bottom;
}
