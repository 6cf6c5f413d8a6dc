#include "Filters/QVFilterBorder.h"

#include <cmath>

#include "Framework/QVFilterImageUnitsClasses.h"

namespace {

const QVFilterClassRegistration registration =
    QVFilterClassRegistration::filter<QVFilterBorder>(QVFilterBorderName, "QVFilter");

CIColorRef opaqueWhite() { return CIColor::colorWithRed(1.0, 1.0, 1.0); }

}  // namespace

void QVFilterBorder::setDefaults() {
  QVFilter::setDefaults();
  setInputColor(opaqueWhite());
}

void QVFilterBorder::setIdentities() {
  const Dictionary attrs = attributes();
  for (const std::string& key : inputKeys()) {
    auto it = attrs.find(key);
    if (it == attrs.end()) continue;
    const Value identity = it->second[kCIAttributeIdentity];
    if (identity) setValue(identity, key);
  }
  setInputColor(opaqueWhite());
}

CIImage QVFilterBorder::outputImage() const {
  const CIImage image = inputImage();
  const double w = std::floor(inputWidth().doubleValue());
  const CGAffineTransform shift = CGAffineTransformMakeTranslation(w, w);
  const std::int64_t type = inputBorderType().integerValue();
  const CGRect extent = image ? image.extent() : CGRectZero;

  if (type == 0) {
    // Inside: the band colour everywhere, the picture let through a mask that is opaque over
    // the inner rectangle only. The band replaces the edge pixels; transparent pixels of the
    // picture inside stay transparent.
    const CIImage background = CIImage::imageWithColor(inputColor()).imageByCroppingToRect(extent);
    const CIImage mask = CIImage::imageWithColor(CIColor::colorWithString("1.0 1.0 1.0 1.0"))
                             .imageByCroppingToRect(CGRectMake(extent.origin.x, extent.origin.y,
                                                               extent.size.width - 2 * w, extent.size.height - 2 * w))
                             .imageByApplyingTransform(shift);
    const CIFilterRef blend = QVFilterWithDefaults("CIBlendWithMask");
    if (!blend) return {};
    blend->setValue(background, kCIInputBackgroundImageKey);
    blend->setValue(image, kCIInputImageKey);
    blend->setValue(mask, kCIInputMaskImageKey);
    return QVFilterOutputImage(blend);
  }
  if (type == 1) {
    // Outside: the picture over a coloured rectangle grown by the band on every side, moved
    // so that the frame's lower-left corner lands on the picture's. The band colour shows
    // through every transparent or translucent pixel of the picture.
    const CGRect framed = CGRectInset(extent, -w, -w);
    const CIImage background = CIImage::imageWithColor(inputColor()).imageByCroppingToRect(framed);
    const CIFilterRef over = QVFilterWithDefaults("CISourceOverCompositing");
    if (!over) return {};
    over->setValue(background, kCIInputBackgroundImageKey);
    over->setValue(image, kCIInputImageKey);
    return QVFilterOutputImage(over).imageByApplyingTransform(shift);
  }
  return image;
}
