#include "Filters/QVFilterProportionalCrop.h"

#include <cmath>

#include "Framework/QVFilterImageUnitsClasses.h"
#include "Framework/QVFilterImageUnitsConstants.h"

namespace {

const QVFilterClassRegistration registration =
    QVFilterClassRegistration::filter<QVFilterProportionalCrop>("QVFilterProportionalCrop", "QVFilter");

}  // namespace

Value QVFilterProportionalCrop::customAttributes() const {
  const Value unit = CIVector::vectorWithX(0, 0, 1, 1);
  const Dictionary entry{{kCIAttributeDefault, unit}, {kCIAttributeIdentity, unit}};
  return QVFilterAttributesByAdding(QVFilter::customAttributes(),
                                    Dictionary{{kCIInputExtentKey, entry}, {inputRectangleKey, entry}});
}

CIImage QVFilterProportionalCrop::outputImage() const {
  const CIImage image = inputImage();
  if (!image) return {};
  const CIVectorRef frame = inputExtent();
  const CIVectorRef rectangle = inputRectangle();
  if (!frame || !rectangle) return image;

  const double ex = frame->X(), ey = frame->Y(), ew = frame->Z(), eh = frame->W();
  const double rx = rectangle->X(), ry = rectangle->Y(), rw = rectangle->Z(), rh = rectangle->W();
  const CGRect extent = image.extent();

  // The origin is rounded up and the size down, so the crop never reaches beyond the
  // proportion asked for. A zero-sized frame divides by zero; the result is what IEEE gives.
  const double x = std::ceil(((rx - ex) / ew) * extent.size.width) + extent.origin.x;
  const double y = std::ceil(((ry - ey) / eh) * extent.size.height) + extent.origin.y;
  const double width = std::floor((rw / ew) * extent.size.width);
  const double height = std::floor((rh / eh) * extent.size.height);

  CIFilterRef crop = QVFilterWithDefaults("CICrop");
  if (!crop) return {};
  crop->setValue(image, kCIInputImageKey);
  crop->setValue(CIVector::vectorWithX(x, y, width, height), "inputRectangle");
  return QVFilterOutputImage(crop);
}
