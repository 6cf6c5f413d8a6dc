#include "Filters/QVFilterScaleComposite.h"

#include "Framework/QVFilterImageUnitsClasses.h"
#include "Views/QVFilterScaleCompositeIKFilterUIViewController.h"

namespace {

const QVFilterClassRegistration registration =
    QVFilterClassRegistration::filter<QVFilterScaleComposite>("QVFilterScaleComposite", "QVFilterComposite");

}  // namespace

std::vector<std::string> QVFilterScaleComposite::customInputKeys() const {
  std::vector<std::string> keys = QVFilterComposite::customInputKeys();
  keys.push_back(kCIInputScaleKey);
  return keys;
}

CIImage QVFilterScaleComposite::outputImage() const {
  const CIImage image = inputImage();
  if (!image) return {};
  const Value scale = inputScale();
  if (!scale) return image;
  const double s = scale.doubleValue();
  const CGRect extent = image.extent();
  const CIImage scaled = image.imageByApplyingTransform(CGAffineTransformMakeScale(s, s));
  const CGRect scaledExtent = scaled.extent();
  // The scaled extent's corner minus the input's, in this order: zero for an input at the
  // origin, so that the copy stays anchored at the input's lower-left corner.
  const CIImage moved = scaled.imageByApplyingTransform(CGAffineTransformMakeTranslation(
      CGRectGetMinX(scaledExtent) - CGRectGetMinX(extent), CGRectGetMinY(scaledExtent) - CGRectGetMinY(extent)));
  return applyInputComposite(moved);
}

std::shared_ptr<IKFilterUIView> QVFilterScaleComposite::provideViewForUIConfiguration(
    const Dictionary& /*configuration*/, const std::vector<std::string>& /*excludedKeys*/) {
  return QVFilterIKFilterUIViewForFilter(
      std::make_shared<QVFilterScaleCompositeIKFilterUIViewController>("ScaleCompositeView", QVFilterIKFilterUIViewController::pluginBundle()), *this);
}
