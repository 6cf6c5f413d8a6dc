#include "Filters/QVFilterOffsetComposite.h"

#include <cmath>

#include "Framework/QVFilterImageUnitsClasses.h"
#include "Views/QVFilterOffsetCompositeIKFilterUIViewController.h"

namespace {

const QVFilterClassRegistration registration =
    QVFilterClassRegistration::filter<QVFilterOffsetComposite>("QVFilterOffsetComposite", "QVFilterComposite");

}  // namespace

std::vector<std::string> QVFilterOffsetComposite::customInputKeys() const {
  std::vector<std::string> keys = QVFilterComposite::customInputKeys();
  keys.push_back(kQVInputOffsetKey);
  return keys;
}

CIImage QVFilterOffsetComposite::outputImage() const {
  const CIImage image = inputImage();
  if (!image) return {};
  const CGRect extent = image.extent();
  const double dx = std::floor(inputOffset().doubleValue() * CGRectGetWidth(extent));
  const CIImage layer = image.imageByApplyingTransform(CGAffineTransformMakeTranslation(dx, 0));
  const CGRect layerExtent = layer ? layer.extent() : CGRectZero;
  // The strip the shifted copy no longer covers is cut away.
  return applyInputComposite(layer).imageByCroppingToRect(CGRectIntersection(extent, layerExtent));
}

std::shared_ptr<IKFilterUIView> QVFilterOffsetComposite::provideViewForUIConfiguration(
    const Dictionary& /*configuration*/, const std::vector<std::string>& /*excludedKeys*/) {
  return QVFilterIKFilterUIViewForFilter(
      std::make_shared<QVFilterOffsetCompositeIKFilterUIViewController>("OffsetCompositeView", QVFilterIKFilterUIViewController::pluginBundle()), *this);
}
