#include "Filters/QVFilterZoomBlur.h"

#include <cmath>

#include "Framework/QVFilterImageUnitsClasses.h"

namespace {

const QVFilterClassRegistration registration =
    QVFilterClassRegistration::filter<QVFilterZoomBlur>("QVFilterZoomBlur", "QVFilter");

}  // namespace

Value QVFilterZoomBlur::customAttributes() const {
  Dictionary center{
      {kCIAttributeMin, Value(CIVector::vectorWithX(0, 0))},
      {kCIAttributeMax, Value(CIVector::vectorWithX(1, 1))},
      {kCIAttributeDefault, Value(CIVector::vectorWithX(0.5, 0.5))},
  };
  return QVFilterAttributesByAdding(QVFilter::customAttributes(), {{kCIInputCenterKey, Value(std::move(center))}});
}

CIImage QVFilterZoomBlur::outputImage() const {
  const CIImage image = inputImage();
  if (!image) return {};
  CIVectorRef center = inputCenter();
  if (!center) center = CIVector::fromValue(QVFilterAttributeDefault(*this, kCIInputCenterKey));
  const CGRect extent = image.extent();
  const double x = CGRectGetMinX(extent) + (center ? center->X() : 0.0) * extent.size.width;
  const double y = CGRectGetMinY(extent) + (center ? center->Y() : 0.0) * extent.size.height;

  Value radius = inputRadius();
  if (!radius) radius = QVFilterAttributeDefault(*this, kCIInputRadiusKey);  // a missing value reads as 0
  const double amount = std::floor(radius.doubleValue());

  const CIFilterRef zoom = QVFilterWithDefaults("CIZoomBlur");
  if (!zoom) return {};
  zoom->setValue(image, kCIInputImageKey);
  zoom->setValue(Value(CIVector::vectorWithX(x, y)), kCIInputCenterKey);
  zoom->setValue(Value(amount), "inputAmount");
  return QVFilterOutputImage(zoom).imageByCroppingToRect(extent);
}
