#include "Filters/QVFilterPixellate.h"

#include <cmath>

#include "Framework/QVFilterImageUnitsClasses.h"

namespace {

const QVFilterClassRegistration registration =
    QVFilterClassRegistration::filter<QVFilterPixellate>("QVFilterPixellate", "QVFilter");

}  // namespace

Value QVFilterPixellate::customAttributes() const {
  Dictionary scale{
      {kCIAttributeDefault, Value(8)},     {kCIAttributeIdentity, Value(1)},
      {kCIAttributeMin, Value(1)},         {kCIAttributeSliderMin, Value(1)},
      {kCIAttributeSliderMax, Value(100)}, {kCIAttributeType, Value(kCIAttributeTypeDistance)},
  };
  Dictionary center{{kCIAttributeDefault, Value(CIVector::vectorWithX(25, 25))}};
  return QVFilterAttributesByAdding(QVFilter::customAttributes(),
                                    {{kCIInputScaleKey, Value(std::move(scale))},
                                     {kCIInputCenterKey, Value(std::move(center))}});
}

CGAffineTransform QVFilterPixellateClampTransform(const CGRect& extent, std::int64_t scale) {
  const double s = static_cast<double>(scale), w = extent.size.width, h = extent.size.height;
  // Truncated towards zero, as whole numbers; the truncation is what makes the transform the
  // identity for every image larger than one square.
  const double sx = std::trunc((s + w) / w), sy = std::trunc((s + h) / h);
  return CGAffineTransformScale(CGAffineTransformIdentity, sx, sy);
}

CIImage QVFilterPixellate::outputImage() const {
  const CIImage image = inputImage();
  if (!image) return {};
  CIVectorRef center = inputCenter();
  if (!center) center = CIVector::fromValue(QVFilterAttributeDefault(*this, kCIInputCenterKey));
  Value scale = inputScale();
  if (!scale) scale = QVFilterAttributeDefault(*this, kCIInputScaleKey);

  const CGRect extent = image.extent();
  const CIFilterRef clamp = QVFilterWithDefaults("CIAffineClamp");
  if (!clamp) return {};
  clamp->setValue(image, kCIInputImageKey);
  clamp->setValue(Value(QVFilterPixellateClampTransform(extent, scale.integerValue())), kCIInputTransformKey);

  const CIFilterRef pixellate = QVFilterWithDefaults("CIPixellate");
  if (!pixellate) return {};
  pixellate->setValue(QVFilterOutputImage(clamp), kCIInputImageKey);
  pixellate->setValue(center, kCIInputCenterKey);
  pixellate->setValue(scale, kCIInputScaleKey);  // the number as it stands, not its whole part
  return QVFilterOutputImage(pixellate).imageByCroppingToRect(extent);
}
