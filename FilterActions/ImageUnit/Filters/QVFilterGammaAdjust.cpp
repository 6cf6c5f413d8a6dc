#include "Filters/QVFilterGammaAdjust.h"

#include "Framework/QVFilterImageUnitsClasses.h"

namespace {

const QVFilterClassRegistration registration = QVFilterClassRegistration::filter<QVFilterGammaAdjust>("QVFilterGammaAdjust", "QVFilter");

}  // namespace

CIImage QVFilterGammaAdjust::outputImage() const {
  const CIImage image = inputImage();
  if (!image) return {};
  const CIFilterRef builtin = QVFilterWithDefaults("CIGammaAdjust");
  if (!builtin) return {};
  // Each input as it stands: a nil value replaces the built-in's own default.
  for (const std::string& key : inputKeys())
    if (key != kCIInputImageKey) builtin->setValue(storedValue(key), key);
  builtin->setValue(image, kCIInputImageKey);
  // Cropped even where the operation cannot grow the image: never larger than the input.
  return QVFilterOutputImage(builtin).imageByCroppingToRect(image.extent());
}
