#include "CoreImage/Nodes/GeometryNodes.h"

#include <algorithm>
#include <cmath>
#include <cstring>
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
  const std::int64_t i0 = std::int64_t(std::floor(c - a.support - 0.5)), i1 = std::int64_t(std::ceil(c + a.support - 0.5));
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
  if (src.rect.empty() || cell_.empty()) return;
  for (std::int64_t y = out.rect.y; y < out.rect.maxY(); ++y) {
    const std::int64_t sy = cell_.y + floorMod(y - cell_.y, cell_.height);
    float* o = out.at(out.rect.x, y);
    for (std::int64_t x = out.rect.x; x < out.rect.maxX(); ++x, o += 4) {
      const std::int64_t sx = cell_.x + floorMod(x - cell_.x, cell_.width);
      std::memcpy(o, src.at(sx, sy), 4 * sizeof(float));
    }
  }
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

PixelRect LanczosScaleNode::regionOfInterest(std::size_t, const PixelRect& rect) const {
  if (rect.empty()) return {};
  auto range = [](const Axis& a, std::int64_t lo, std::int64_t hi) {
    const double c0 = a.centre(lo), c1 = a.centre(hi - 1);
    return std::pair<std::int64_t, std::int64_t>{std::int64_t(std::floor(c0 - a.support - 0.5)),
                                                 std::int64_t(std::ceil(c1 + a.support - 0.5)) + 1};
  };
  const auto [x0, x1] = range(ax_, rect.x, rect.maxX());
  const auto [y0, y1] = range(ay_, rect.y, rect.maxY());
  return {x0, y0, x1 - x0, y1 - y0};
}

void LanczosScaleNode::render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo&) const {
  const ConstPixelTile& src = in[0];
  if (src.rect.empty()) return;
  std::vector<Taps> cols(std::size_t(out.rect.width));
  for (std::int64_t X = out.rect.x; X < out.rect.maxX(); ++X) cols[std::size_t(X - out.rect.x)] = tapsFor(ax_, X);
  std::vector<float> temp(std::size_t(src.rect.width) * 4);
  for (std::int64_t Y = out.rect.y; Y < out.rect.maxY(); ++Y) {
    // Vertical pass into one row of input columns.
    const Taps rows = tapsFor(ay_, Y);
    std::fill(temp.begin(), temp.end(), 0.0f);
    for (std::size_t k = 0; k < rows.w.size(); ++k) {
      const std::int64_t j = rows.first + std::int64_t(k);
      const float w = rows.w[k];
      if (w == 0.0f || j < src.rect.y || j >= src.rect.maxY()) continue;
      const float* p = src.row(j);
      for (std::size_t i = 0; i < temp.size(); ++i) temp[i] += w * p[i];
    }
    // Horizontal pass.
    float* o = out.at(out.rect.x, Y);
    for (std::int64_t X = out.rect.x; X < out.rect.maxX(); ++X, o += 4) {
      const Taps& c = cols[std::size_t(X - out.rect.x)];
      float acc[4] = {0, 0, 0, 0};
      for (std::size_t k = 0; k < c.w.size(); ++k) {
        const std::int64_t i = c.first + std::int64_t(k);
        if (i < src.rect.x || i >= src.rect.maxX()) continue;
        const float* p = &temp[std::size_t(i - src.rect.x) * 4];
        for (int q = 0; q < 4; ++q) acc[q] += c.w[k] * p[q];
      }
      std::memcpy(o, acc, sizeof acc);
    }
  }
}
