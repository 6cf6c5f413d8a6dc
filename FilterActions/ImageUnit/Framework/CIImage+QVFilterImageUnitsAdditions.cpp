#include "Framework/CIImage+QVFilterImageUnitsAdditions.h"

namespace {

// The band that decides near-square images is kept in single precision on purpose: the
// constants are 0.01f and 1.02f widened (0.009999999776482582 and 1.0199999809265137), which
// makes a 100 x 99 image landscape and a 100 x 101 image square.
constexpr double kSquareBias = static_cast<double>(0.01f);
constexpr double kSquareUpperBound = static_cast<double>(1.02f);

// Exactly pi/2 in double precision (1.5707963267948966).
constexpr double kQuarterTurn = 1.5707963267948966;

}  // namespace

int QVFilterImageOrientationClass(const CIImage& image) {
  const CGRect extent = image.extent();  // zeros for nil
  const double ratio = extent.size.width / extent.size.height;
  const double t = ratio + kSquareBias;
  if (1.0 <= t && t <= kSquareUpperBound) return 0;
  return ratio > 1.0 ? 1 : 2;  // NaN compares false: portrait
}

CGAffineTransform affineTransformForMatchingOrientationOfImage(const CIImage& receiver, const CIImage& image) {
  const int a = QVFilterImageOrientationClass(image);
  const int b = QVFilterImageOrientationClass(receiver);
  if (a != b && ((a == 1 && b == 2) || (a == 2 && b == 1)))
    return CGAffineTransformRotate(CGAffineTransformIdentity, kQuarterTurn);
  return CGAffineTransformIdentity;
}

CIImage imageByApplyingTransformToMatchOrientationOfImage(const CIImage& receiver, const CIImage& image) {
  return receiver.imageByApplyingTransform(affineTransformForMatchingOrientationOfImage(receiver, image));
}

CIImage imageByFittingToRect(const CIImage& receiver, const CGRect& rect) {
  const CGRect extent = receiver.extent();
  const CIImage scaled = receiver.imageByApplyingTransform(CGAffineTransformMakeScale(
      CGRectGetWidth(rect) / CGRectGetWidth(extent), CGRectGetHeight(rect) / CGRectGetHeight(extent)));
  const CGRect scaledExtent = scaled.extent();
  return scaled.imageByApplyingTransform(CGAffineTransformMakeTranslation(
      CGRectGetMinX(rect) - CGRectGetMinX(scaledExtent), CGRectGetMinY(rect) - CGRectGetMinY(scaledExtent)));
}
