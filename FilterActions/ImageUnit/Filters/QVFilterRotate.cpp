#include "Filters/QVFilterRotate.h"

#include <cmath>

#include "Framework/QVFilterImageUnitsClasses.h"
#include "Framework/QVFilterImageUnitsConstants.h"

namespace {

const QVFilterClassRegistration registration =
    QVFilterClassRegistration::filter<QVFilterRotate>(QVFilterRotateName, "QVFilter");

// Nearest whole number in single precision: narrowed to float, rounded half away from zero,
// widened again.
double roundedInSinglePrecision(double v) { return static_cast<double>(std::round(static_cast<float>(v))); }

}  // namespace

CIImage QVFilterRotate::outputImage() const {
  const CIImage image = inputImage();
  if (!image) return {};

  const CGAffineTransform rotation = CGAffineTransformRotate(CGAffineTransformIdentity, inputAngle().doubleValue());
  const CIImage rotated = image.imageByApplyingTransform(rotation);

  // Origin and size are rounded independently, so the crop may sit up to half a pixel inside
  // or outside the turned bounding box on each side. That is the intended rectangle; it is not
  // replaced by an outward rounding.
  const CGRect extent = rotated ? rotated.extent() : CGRectZero;
  const CGRect rounded = CGRectMake(roundedInSinglePrecision(extent.origin.x), roundedInSinglePrecision(extent.origin.y),
                                    roundedInSinglePrecision(extent.size.width),
                                    roundedInSinglePrecision(extent.size.height));
  return rotated.imageByCroppingToRect(rounded);
}
