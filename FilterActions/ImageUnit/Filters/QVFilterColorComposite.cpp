#include "Filters/QVFilterColorComposite.h"

#include "Framework/QVFilterImageUnitsClasses.h"
#include "Views/QVFilterColorCompositeIKFilterUIViewController.h"

namespace {

const QVFilterClassRegistration registration =
    QVFilterClassRegistration::filter<QVFilterColorComposite>("QVFilterColorComposite", "QVFilterComposite");

}  // namespace

std::vector<std::string> QVFilterColorComposite::customInputKeys() const {
  std::vector<std::string> keys = QVFilterComposite::customInputKeys();
  keys.push_back(kCIInputColorKey);
  return keys;
}

Value QVFilterColorComposite::customAttributes() const {
  return QVFilterAttributesByAdding(
      QVFilterComposite::customAttributes(),
      Dictionary{{kCIInputColorKey, Value(Dictionary{{kCIAttributeDefault, Value(CIColor::colorWithRed(1, 1, 1, 1))},
                                                     {kCIAttributeIdentity, Value(CIColor::colorWithRed(1, 1, 1, 0))}})}});
}

CIImage QVFilterColorComposite::outputImage() const {
  const CIImage image = inputImage();
  if (!image) return {};
  const CIImage layer = CIImage::imageWithColor(inputColor()).imageByCroppingToRect(image.extent());
  return applyInputComposite(layer);
}

std::shared_ptr<IKFilterUIView> QVFilterColorComposite::provideViewForUIConfiguration(
    const Dictionary& /*configuration*/, const std::vector<std::string>& /*excludedKeys*/) {
  return QVFilterIKFilterUIViewForFilter(
      std::make_shared<QVFilterColorCompositeIKFilterUIViewController>("ColorCompositeView", QVFilterIKFilterUIViewController::pluginBundle()), *this);
}
