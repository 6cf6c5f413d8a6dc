#include "Filters/QVFilterColorMatrix.h"

#include "CoreImage/CIVector.h"
#include "Framework/QVFilterImageUnitsClasses.h"

namespace {

const QVFilterClassRegistration registration = QVFilterClassRegistration::filter<QVFilterColorMatrix>("QVFilterColorMatrix", "QVFilter");

}  // namespace

CIVectorRef QVFilterColorMatrixVectorMake(double x, double y, double z, double w) {
  const double values[4] = {x, y, z, w};
  return CIVector::vectorWithValues(values, 4);
}

Value QVFilterColorMatrix::customAttributes() const {
  auto entry = [](CIVectorRef v) {
    return Value(Dictionary{{kCIAttributeDefault, Value(v)}, {kCIAttributeIdentity, Value(v)}});
  };
  return Value(Dictionary{
      {rVectorKey, entry(QVFilterColorMatrixVectorMake(1, 0, 0, 0))},
      {gVectorKey, entry(QVFilterColorMatrixVectorMake(0, 1, 0, 0))},
      {bVectorKey, entry(QVFilterColorMatrixVectorMake(0, 0, 1, 0))},
      {aVectorKey, entry(QVFilterColorMatrixVectorMake(0, 0, 0, 1))},
      {biasVectorKey, entry(QVFilterColorMatrixVectorMake(0, 0, 0, 0))},
  });
}

CIImage QVFilterColorMatrix::outputImage() const {
  const CIImage image = inputImage();
  if (!image) return {};
  const CIFilterRef builtin = QVFilterWithDefaults("CIColorMatrix");
  if (!builtin) return {};
  // Each input as it stands: a nil value replaces the built-in's own default.
  for (const std::string& key : inputKeys())
    if (key != kCIInputImageKey) builtin->setValue(storedValue(key), key);
  builtin->setValue(image, kCIInputImageKey);
  // Cropped even where the operation cannot grow the image: never larger than the input.
  return QVFilterOutputImage(builtin).imageByCroppingToRect(image.extent());
}
