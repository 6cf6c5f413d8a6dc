#include "CoreImage/ImageNode.h"

#include <algorithm>
#include <cmath>

namespace {

// Clamps a real pixel coordinate into ±kPixelLimit before converting it (infinite and NaN
// coordinates never reach the integer conversion).
std::int64_t clampCoord(double v) {
  const double lim = static_cast<double>(PixelRect::kPixelLimit);
  if (!(v > -lim)) return -PixelRect::kPixelLimit;
  if (!(v < lim)) return PixelRect::kPixelLimit;
  return static_cast<std::int64_t>(v);
}

}  // namespace

PixelRect PixelRect::intersection(const PixelRect& o) const {
  if (empty() || o.empty()) return {};
  const std::int64_t x0 = std::max(x, o.x), y0 = std::max(y, o.y);
  const std::int64_t x1 = std::min(maxX(), o.maxX()), y1 = std::min(maxY(), o.maxY());
  if (x1 <= x0 || y1 <= y0) return {};
  return {x0, y0, x1 - x0, y1 - y0};
}

PixelRect PixelRect::unionWith(const PixelRect& o) const {
  if (empty()) return o.empty() ? PixelRect{} : o;
  if (o.empty()) return *this;
  const std::int64_t x0 = std::min(x, o.x), y0 = std::min(y, o.y);
  const std::int64_t x1 = std::max(maxX(), o.maxX()), y1 = std::max(maxY(), o.maxY());
  return {x0, y0, x1 - x0, y1 - y0};
}

PixelRect PixelRect::covering(const CGRect& r) {
  if (CGRectIsNull(r) || CGRectIsEmpty(r)) return {};
  const CGRect s = CGRectStandardize(r);
  const std::int64_t x0 = clampCoord(std::floor(s.origin.x));
  const std::int64_t y0 = clampCoord(std::floor(s.origin.y));
  const std::int64_t x1 = clampCoord(std::ceil(s.origin.x + s.size.width));
  const std::int64_t y1 = clampCoord(std::ceil(s.origin.y + s.size.height));
  if (x1 <= x0 || y1 <= y0) return {};
  return {x0, y0, x1 - x0, y1 - y0};
}

PixelRect PixelRect::centresInside(const CGRect& r) {
  if (CGRectIsNull(r) || CGRectIsEmpty(r)) return {};
  const CGRect s = CGRectStandardize(r);
  // Pixel i is inside when minX <= i + 0.5 < maxX, i.e. i in [ceil(minX - 0.5), ceil(maxX - 0.5)).
  const std::int64_t x0 = clampCoord(std::ceil(s.origin.x - 0.5));
  const std::int64_t y0 = clampCoord(std::ceil(s.origin.y - 0.5));
  const std::int64_t x1 = clampCoord(std::ceil(s.origin.x + s.size.width - 0.5));
  const std::int64_t y1 = clampCoord(std::ceil(s.origin.y + s.size.height - 0.5));
  if (x1 <= x0 || y1 <= y0) return {};
  return {x0, y0, x1 - x0, y1 - y0};
}

PixelRect ImageNode::regionOfInterest(std::size_t, const PixelRect& rect) const { return rect; }

RegionAnswer ImageNode::describeRegion(const PixelRect&, bool) const { return RegionAnswer::renderIt(); }

bool ImageNode::writeStored8(const PixelRect&, std::uint8_t*, std::ptrdiff_t, const RenderInfo&) const { return false; }

void ImageNode::readInputBand(const PixelRect&, const ConstPixelTile&, const RenderInfo&) const {}

RegionAnswer RegionAnswer::cutAt(const PixelRect& rect, Cut cut, std::int64_t at) {
  RegionAnswer a;
  const bool inside = cut == Cut::x ? at > rect.x && at < rect.maxX() : cut == Cut::y && at > rect.y && at < rect.maxY();
  if (inside) {
    a.cut = cut;
    a.at = at;
  }
  return a;
}

RegionAnswer RegionAnswer::within(const PixelRect& rect, const PixelRect& area, const RegionAnswer& inside) {
  if (area.contains(rect)) return inside;
  if (area.intersection(rect).empty()) return transparent();
  if (area.y > rect.y) return cutAt(rect, Cut::y, area.y);
  if (area.maxY() < rect.maxY()) return cutAt(rect, Cut::y, area.maxY());
  if (area.x > rect.x) return cutAt(rect, Cut::x, area.x);
  return cutAt(rect, Cut::x, area.maxX());
}

RegionAnswer RegionAnswer::movedBy(std::int64_t mx, std::int64_t my) const {
  RegionAnswer a = *this;
  if (kind == Kind::input || kind == Kind::stored) {
    a.dx += mx;
    a.dy += my;
  }
  if (cut == Cut::x) a.at += mx;
  if (cut == Cut::y) a.at += my;
  return a;
}

RegionAnswer resolveRegion(const ImageNode& node, const PixelRect& rect, bool colorManaged) {
  // Each step names a node further down the graph (an input, or an input's input): the walk
  // ends, and a cycle cannot arise in an immutable graph; the bound only guards against a
  // node that names itself by mistake.
  const ImageNode* at = &node;
  std::int64_t dx = 0, dy = 0;
  for (int step = 0; step < 4096; ++step) {
    RegionAnswer a = at->describeRegion(rect.offset(-dx, -dy), colorManaged);
    if (a.kind == RegionAnswer::Kind::stored) {
      // A node answers its own stored pixels without naming itself; a node that resolved its
      // inputs' answers itself (a composite) names whose they are.
      if (a.node == nullptr) {
        a.node = at;
        a.dx = 0;
        a.dy = 0;
      }
      return a.movedBy(dx, dy);
    }
    if (a.kind != RegionAnswer::Kind::input || a.node == nullptr || a.node == at) {
      if (a.kind == RegionAnswer::Kind::input) return RegionAnswer::renderIt();
      return a.movedBy(dx, dy);
    }
    at = a.node;
    dx += a.dx;
    dy += a.dy;
  }
  return RegionAnswer::renderIt();
}

std::string ImageNode::description() const {
  return "<CIImage " + name() + " extent " + NSStringFromRect(extent_) + ">";
}
