#include "Filters/QVFilterReflection.h"

#include <cmath>

#include "CoreImage/CIColor.h"
#include "CoreImage/CIVector.h"
#include "Framework/QVFilterImageUnitsClasses.h"

namespace {

const QVFilterClassRegistration registration =
    QVFilterClassRegistration::filter<QVFilterReflection>(QVFilterReflectionName, "QVFilter");

}  // namespace

CIImage QVFilterReflection::outputImage() const {
  const CIImage image = inputImage();
  const double alphaNought = inputAlphaNought().doubleValue();
  if (alphaNought == 0.0) return image;  // a NaN goes on
  if (inputProportion().doubleValue() == 0.0) return image;

  // Mirror about the picture's horizontal centre line.
  const CIImage copy = image;
  const CGRect extent = copy.extent();
  CGAffineTransform flip = CGAffineTransformTranslate(CGAffineTransformIdentity, CGRectGetMidX(extent),
                                                      CGRectGetMidY(extent));
  flip = CGAffineTransformScale(flip, 1.0, -1.0);
  flip = CGAffineTransformTranslate(flip, -CGRectGetMidX(extent), -CGRectGetMidY(extent));
  const CIImage mirrored = copy.imageByApplyingTransform(flip);

  // Below the picture, the gap rounded outward to whole pixels.
  const double offset = inputOffset().doubleValue();
  const double height = image.extent().size.height;
  const double dy = std::floor(-height - offset);
  const CIImage reflection =
      mirrored.imageByApplyingTransform(CGAffineTransformTranslate(CGAffineTransformIdentity, 0.0, dy));
  const CGRect reflected = reflection.extent();

  const double fade = inputProportion().doubleValue() * reflected.size.height;

  // A vertical ramp from white at opacity a0 at the reflection's top to black `fade` below it,
  // turned into an alpha mask over the reflection.
  const CIFilterRef gradient = QVFilterWithDefaults("CILinearGradient");
  if (!gradient) return {};
  gradient->setValue(CIVector::vectorWithX(0.0, CGRectGetMaxY(reflected)), "inputPoint0");
  gradient->setValue(CIVector::vectorWithX(0.0, CGRectGetMaxY(reflected) - fade), "inputPoint1");
  gradient->setValue(CIColor::colorWithRed(1.0, 1.0, 1.0, alphaNought), "inputColor0");
  gradient->setValue(CIColor::colorWithCGColor(CGColorGetConstantColor(kCGColorBlack)), "inputColor1");
  const CIFilterRef toAlpha = QVFilterWithDefaults("CIMaskToAlpha");
  if (!toAlpha) return {};
  toAlpha->setValue(QVFilterOutputImage(gradient), kCIInputImageKey);
  const CIImage mask = QVFilterOutputImage(toAlpha).imageByCroppingToRect(reflected);

  const CIFilterRef blend = QVFilterWithDefaults("CIBlendWithMask");
  if (!blend) return {};
  blend->setValue(CIImage::emptyImage(), kCIInputBackgroundImageKey);
  blend->setValue(reflection, kCIInputImageKey);
  blend->setValue(mask, kCIInputMaskImageKey);
  const CIImage faded = QVFilterOutputImage(blend);

  // Only the part that is still visible.
  const CGRect fadedExtent = faded.extent();
  const CIImage cut = faded.imageByCroppingToRect(
      CGRectMake(CGRectGetMinX(fadedExtent), CGRectGetMaxY(fadedExtent) - fade, fadedExtent.size.width, fade));

  // Lifted only when the bottom lies below 0, by whole pixels. The joined extent is known before
  // the join (the union of the two), so both parts are moved before they are joined: the
  // composite reads them in place instead of the whole result being copied once more.
  const CGRect top = image.extent(), bottom = cut.extent();
  const CGRect joinedExtent = CGRectIsEmpty(bottom) ? top : CGRectIsEmpty(top) ? bottom : CGRectUnion(top, bottom);
  const double minY = CGRectGetMinY(joinedExtent);
  const CGAffineTransform lift = CGAffineTransformMakeTranslation(0.0, minY < 0 ? std::floor(-minY) : 0.0);

  const CIFilterRef over = QVFilterWithDefaults("CISourceOverCompositing");
  if (!over) return {};
  over->setValue(image.imageByApplyingTransform(lift), kCIInputImageKey);
  over->setValue(cut.imageByApplyingTransform(lift), kCIInputBackgroundImageKey);
  return QVFilterOutputImage(over);
}
