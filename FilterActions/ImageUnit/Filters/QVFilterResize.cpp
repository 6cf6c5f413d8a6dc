#include "Filters/QVFilterResize.h"

#include <cstdint>

#include "Framework/QVFilterImageUnitsClasses.h"

namespace {

const QVFilterClassRegistration registration =
    QVFilterClassRegistration::filter<QVFilterResize>(QVFilterResizeName, "QVFilter");

}  // namespace

CIImage QVFilterResize::outputImage() const {
  const CIImage image = inputImage();
  const CGRect extent = image.extent();  // zeros for nil
  const std::int64_t edge = inputEdge().integerValue();
  const double maximum = inputMaximumExtent().doubleValue();

  const double widthFactor = (edge & 1) ? extent.size.width / maximum : 1.0;
  const double heightFactor = (edge & 2) ? extent.size.height / maximum : 1.0;

  // An image passes unchanged as soon as one limited edge is below the maximum, even when the
  // other is above it: with both edges limited, the image is reduced only when both reach the
  // maximum. This is the filter's rule, not an oversight. (A factor that is not a number
  // passes the test and goes on to the scale.)
  if (heightFactor < 1.0 || widthFactor < 1.0) return image;

  const double factor = widthFactor > heightFactor ? widthFactor : heightFactor;
  CIFilterRef scale = QVFilterWithDefaults("CILanczosScaleTransform");
  if (!scale) return {};
  scale->setValue(1.0 / factor, kCIInputScaleKey);
  scale->setValue(image, kCIInputImageKey);
  return QVFilterOutputImage(scale);
}
