#include "Filters/QVFilterBlurComposite.h"

#include "Framework/QVFilterImageUnitsClasses.h"
#include "Framework/QVFilterImageUnitsConstants.h"

namespace {

const QVFilterClassRegistration registration =
    QVFilterClassRegistration::filter<QVFilterBlurComposite>("QVFilterBlurComposite", "QVFilterComposite");

}  // namespace

std::vector<std::string> QVFilterBlurComposite::customInputKeys() const {
  std::vector<std::string> keys = QVFilterComposite::customInputKeys();
  keys.insert(keys.end(), {kCIInputRadiusKey, inputBlurFilterNameKey});
  return keys;
}

CIImage QVFilterBlurComposite::outputImage() const {
  const CIImage image = inputImage();
  if (!image) return {};
  // Nil name or radius are handed on as nil: the blur filter decides what they mean.
  const CIFilterRef blur = QVFilterWithDefaults(QVFilterBlurName);
  if (!blur) return {};
  blur->setValue(inputBlurFilterName(), inputBlurFilterNameKey);
  blur->setValue(image, kCIInputImageKey);
  blur->setValue(inputRadius(), kCIInputRadiusKey);
  return applyInputComposite(QVFilterOutputImage(blur).imageByCroppingToRect(image.extent()));
}
