#include "Filters/QVFilterBumpDistortion.h"

#include "Framework/QVFilterImageUnitsClasses.h"

namespace {

const QVFilterClassRegistration registration =
    QVFilterClassRegistration::filter<QVFilterBumpDistortion>("QVFilterBumpDistortion", "QVFilter");

}  // namespace

Value QVFilterBumpDistortion::customAttributes() const {
  Dictionary center{
      {kCIAttributeDefault, Value(CIVector::vectorWithX(0.5, 0.5))},
      {kCIAttributeMin, Value(CIVector::vectorWithX(0, 0))},
      {kCIAttributeMax, Value(CIVector::vectorWithX(1, 1))},
  };
  return QVFilterAttributesByAdding(QVFilter::customAttributes(), {{kCIInputCenterKey, Value(std::move(center))}});
}

CIImage QVFilterBumpDistortion::outputImage() const {
  const CIImage image = inputImage();
  if (!image) return {};
  CIVectorRef center = inputCenter();
  if (!center) center = CIVector::fromValue(QVFilterAttributeDefault(*this, kCIInputCenterKey));
  const double cx = center ? center->X() : 0.0, cy = center ? center->Y() : 0.0;
  const CGRect extent = image.extent();

  const CIFilterRef bump = QVFilterWithDefaults("CIBumpDistortion");
  if (!bump) return {};
  bump->setValue(image, kCIInputImageKey);
  bump->setValue(Value(CIVector::vectorWithX(CGRectGetMinX(extent) + extent.size.width * cx,
                                             CGRectGetMinY(extent) + extent.size.height * cy)),
                 kCIInputCenterKey);
  bump->setValue(inputRadius(), kCIInputRadiusKey);
  bump->setValue(inputScale(), kCIInputScaleKey);
  return QVFilterOutputImage(bump).imageByCroppingToRect(extent);
}
