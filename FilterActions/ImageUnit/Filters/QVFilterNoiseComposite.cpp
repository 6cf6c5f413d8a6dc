#include "Filters/QVFilterNoiseComposite.h"

#include "Framework/QVFilterImageUnitsClasses.h"
#include "Views/QVFilterNoiseCompositeIKFilterUIViewController.h"

namespace {

const QVFilterClassRegistration registration =
    QVFilterClassRegistration::filter<QVFilterNoiseComposite>("QVFilterNoiseComposite", "QVFilterComposite");

}  // namespace

CIImage QVFilterNoiseComposite::outputImage() const {
  const CIImage image = inputImage();
  if (!image) return {};
  // Nothing is built for an operation that does not exist: the input itself comes back.
  if (!_compositeOperation()) return image;

  const CIFilterRef random = QVFilterWithDefaults("CIRandomGenerator");
  if (!random) return {};
  const CIImage noise = QVFilterOutputImage(random).imageByCroppingToRect(image.extent());

  // Saturation 0 turns the coloured noise grey.
  const CIFilterRef grey = QVFilterWithDefaults("QVFilterColorControls");
  if (!grey) return {};
  grey->setValue(Value(0.0), kCIInputSaturationKey);
  grey->setValue(noise, kCIInputImageKey);
  return applyInputComposite(QVFilterOutputImage(grey));
}

std::shared_ptr<IKFilterUIView> QVFilterNoiseComposite::provideViewForUIConfiguration(
    const Dictionary& /*configuration*/, const std::vector<std::string>& /*excludedKeys*/) {
  return QVFilterIKFilterUIViewForFilter(
      std::make_shared<QVFilterNoiseCompositeIKFilterUIViewController>("NoiseCompositeView", QVFilterIKFilterUIViewController::pluginBundle()), *this);
}
