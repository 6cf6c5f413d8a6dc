#include "Filters/QVFilterWatermark.h"

#include "CoreImage/CIVector.h"
#include "Framework/QVFilterImageUnitsClasses.h"
#include "Framework/QVFilterImageUnitsConstants.h"

namespace {

const QVFilterClassRegistration registration =
    QVFilterClassRegistration::filter<QVFilterWatermark>(QVFilterWatermarkName, "QVFilter");

}  // namespace

CGPoint QVFilterWatermark::watermarkOffset(std::uint64_t position, double W, double H, double w, double h) {
  const double left = 0, centre = W * 0.5 - w * 0.5, right = W - w;
  const double top = H - h, middle = H * 0.5 - h * 0.5, bottom = 0;
  switch (position) {
    case 1: return CGPoint{left, top};
    case 2: return CGPoint{centre, top};
    case 3: return CGPoint{right, top};
    case 4: return CGPoint{left, middle};
    case 5: return CGPoint{centre, middle};
    case 6: return CGPoint{right, middle};
    case 8: return CGPoint{centre, bottom};
    case 9: return CGPoint{right, bottom};
    default: return CGPoint{left, bottom};  // 7, and 0 or 10 and above
  }
}

CIImage QVFilterWatermark::outputImage() const {
  const CIImage image = inputImage();
  const CIImage watermark = inputWatermarkImage();
  if (!watermark) return image;

  const CGRect extent = image ? image.extent() : CGRectZero;
  const CGRect markExtent = watermark.extent();
  const CGPoint offset = watermarkOffset(inputWatermarkPosition().unsignedIntegerValue(), extent.size.width,
                                         extent.size.height, markExtent.size.width, markExtent.size.height);
  const CIImage moved =
      watermark.imageByApplyingTransform(CGAffineTransformTranslate(CGAffineTransformIdentity, offset.x, offset.y));

  // Only the alpha row changes: the colour rows keep their identity defaults.
  const CIFilterRef fade = QVFilterWithDefaults("CIColorMatrix");
  if (!fade) return {};
  fade->setValue(CIVector::vectorWithX(0, 0, 0, inputWatermarkAlpha().doubleValue()), "inputAVector");
  fade->setValue(moved, kCIInputImageKey);

  const CIFilterRef over = QVFilterWithDefaults("CISourceOverCompositing");
  if (!over) return {};
  over->setValue(image, kCIInputBackgroundImageKey);
  over->setValue(QVFilterOutputImage(fade), kCIInputImageKey);
  return QVFilterOutputImage(over).imageByCroppingToRect(
      CGRectMake(CGRectGetMinX(extent), CGRectGetMinY(extent), CGRectGetWidth(extent), CGRectGetHeight(extent)));
}
