#include "Filters/QVFilterBlurComposite.h"

#include "Framework/QVFilterImageUnitsClasses.h"
#include "Framework/QVFilterImageUnitsConstants.h"
#include "Views/QVFilterBlurCompositeIKFilterUIViewController.h"

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

std::shared_ptr<IKFilterUIView> QVFilterBlurComposite::provideViewForUIConfiguration(
    const Dictionary& /*configuration*/, const std::vector<std::string>& /*excludedKeys*/) {
  return QVFilterIKFilterUIViewForFilter(
      std::make_shared<QVFilterBlurCompositeIKFilterUIViewController>("BlurCompositeView", QVFilterIKFilterUIViewController::pluginBundle()), *this);
}
