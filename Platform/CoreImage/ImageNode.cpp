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

std::string ImageNode::description() const {
  return "<CIImage " + name() + " extent " + NSStringFromRect(extent_) + ">";
}
