#include "Filters/QVFilterWhitePointAdjust.h"

#include "CoreImage/CIColor.h"
#include "Framework/QVFilterImageUnitsClasses.h"

namespace {

const QVFilterClassRegistration registration = QVFilterClassRegistration::filter<QVFilterWhitePointAdjust>("QVFilterWhitePointAdjust", "QVFilter");

}  // namespace

Value QVFilterWhitePointAdjust::customAttributes() const {
  const Value white(CIColor::colorWithRed(1, 1, 1, 1));
  return Value(Dictionary{{colorKey, Value(Dictionary{{kCIAttributeDefault, white}, {kCIAttributeIdentity, white}})}});
}

CIImage QVFilterWhitePointAdjust::outputImage() const {
  const CIImage image = inputImage();
  if (!image) return {};
  const CIFilterRef builtin = QVFilterWithDefaults("CIWhitePointAdjust");
  if (!builtin) return {};
  // Each input as it stands: a nil value replaces the built-in's own default.
  for (const std::string& key : inputKeys())
    if (key != kCIInputImageKey) builtin->setValue(storedValue(key), key);
  builtin->setValue(image, kCIInputImageKey);
  // Cropped even where the operation cannot grow the image: never larger than the input.
  return QVFilterOutputImage(builtin).imageByCroppingToRect(image.extent());
}
