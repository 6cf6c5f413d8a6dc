#include "Filters/QVFilterComposite.h"

#include "CoreImage/CIVector.h"

std::vector<std::string> QVFilterComposite::customInputKeys() const {
  std::vector<std::string> keys = QVFilterMask::customInputKeys();
  keys.insert(keys.end(), {inputCompositeAlphaKey, inputCompositeFilterNameKey});
  return keys;
}

Value QVFilterComposite::customAttributes() const {
  return QVFilterAttributesByAdding(QVFilterMask::customAttributes(),
                                    Dictionary{{inputCompositeAlphaKey, Value(Dictionary{})},
                                               {inputCompositeFilterNameKey, Value(Dictionary{})}});
}

CIFilterRef QVFilterComposite::_compositeOperation() const {
  const Value name = inputCompositeFilterName();
  return name.string() ? QVFilterWithDefaults(*name.string()) : nullptr;
}

CIImage QVFilterComposite::applyInputComposite(const CIImage& layer) const {
  const CIImage input = inputImage();
  const CIFilterRef operation = _compositeOperation();
  if (!operation) return input;

  const CIImage masked = applyInputMask(layer);

  // The colour matrix keeps red, green, blue and the bias at their defaults (identity) and
  // multiplies alpha by the opacity.
  const CIFilterRef fade = QVFilterWithDefaults("CIColorMatrix");
  if (!fade) return {};
  fade->setValue(CIVector::vectorWithX(0, 0, 0, inputCompositeAlpha().doubleValue()), "inputAVector");
  fade->setValue(masked, kCIInputImageKey);

  operation->setValue(input, kCIInputBackgroundImageKey);
  operation->setValue(QVFilterOutputImage(fade), kCIInputImageKey);
  return QVFilterOutputImage(operation).imageByCroppingToRect(input ? input.extent() : CGRectZero);
}
