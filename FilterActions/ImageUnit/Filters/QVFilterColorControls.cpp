#include "Filters/QVFilterColorControls.h"

#include "Framework/QVFilterImageUnitsClasses.h"

namespace {

const QVFilterClassRegistration registration = QVFilterClassRegistration::filter<QVFilterColorControls>("QVFilterColorControls", "QVFilter");

}  // namespace

CIImage QVFilterColorControls::outputImage() const {
  const CIImage image = inputImage();
  if (!image) return {};
  const CIFilterRef builtin = QVFilterWithDefaults("CIColorControls");
  if (!builtin) return {};
  // Each input as it stands: a nil value replaces the built-in's own default.
  for (const std::string& key : inputKeys())
    if (key != kCIInputImageKey) builtin->setValue(storedValue(key), key);
  builtin->setValue(image, kCIInputImageKey);
  // Cropped even where the operation cannot grow the image: never larger than the input.
  return QVFilterOutputImage(builtin).imageByCroppingToRect(image.extent());
}
