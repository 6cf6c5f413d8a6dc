#include "Filters/QVFilterSquareCrop.h"

#include <algorithm>

#include "Framework/QVFilterImageUnitsClasses.h"
#include "Framework/QVFilterImageUnitsConstants.h"
#include "Framework/QVSizeScaledToRect.h"

namespace {

const QVFilterClassRegistration registration =
    QVFilterClassRegistration::filter<QVFilterSquareCrop>("QVFilterSquareCrop", "QVFilter");

}  // namespace

CIImage QVFilterSquareCrop::outputImage() const {
  const CIImage image = inputImage();
  if (!image) return {};
  const CGRect extent = image.extent();
  const double side = std::min(extent.size.width, extent.size.height);
  // Not rounded: an odd difference between width and height leaves the square on a half-pixel
  // origin.
  const CGRect square = QVSizeScaledToRect(CGSizeMake(side, side), extent, kCAGravityResizeAspect);
  return image.imageByCroppingToRect(square);
}
