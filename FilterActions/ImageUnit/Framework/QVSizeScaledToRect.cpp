#include "Framework/QVSizeScaledToRect.h"

#include <algorithm>

CGRect QVSizeScaledToRect(CGSize size, CGRect rect, const std::string& gravity) {
  const bool aspect = gravity == kCAGravityResizeAspect;
  const bool cover = gravity == kCAGravityResizeAspectFill || gravity == kQVGravityResizeAspectMax;
  if (!aspect && !cover) return rect;

  const double midX = rect.origin.x + rect.size.width * 0.5;
  const double midY = rect.origin.y + rect.size.height * 0.5;
  if (!(size.width > 0) || !(size.height > 0)) return CGRectMake(midX, midY, 0, 0);

  const double ratioX = rect.size.width / size.width;
  const double ratioY = rect.size.height / size.height;
  const double scale = aspect ? std::min(ratioX, ratioY) : std::max(ratioX, ratioY);
  const double width = size.width * scale;
  const double height = size.height * scale;
  return CGRectMake(midX - width * 0.5, midY - height * 0.5, width, height);
}
