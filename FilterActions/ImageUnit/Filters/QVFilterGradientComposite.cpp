#include "Filters/QVFilterGradientComposite.h"

#include <algorithm>
#include <cmath>

#include "CoreImage/CIVector.h"
#include "Foundation/NSKeyedArchiver.h"
#include "Framework/QVFilterImageUnitsClasses.h"
#include "Views/QVFilterGradientCompositeIKFilterUIViewController.h"

namespace {

const QVFilterClassRegistration registration =
    QVFilterClassRegistration::filter<QVFilterGradientComposite>("QVFilterGradientComposite", "QVFilterComposite");

Value opaqueBlack() { return Value(CIColor::colorWithRed(0, 0, 0, 1)); }

}  // namespace

std::vector<std::string> QVFilterGradientComposite::customInputKeys() const {
  std::vector<std::string> keys = QVFilterComposite::customInputKeys();
  keys.insert(keys.end(), {inputRadius0Key, inputRadius1Key, inputColor0Key, inputColor1Key});
  return keys;
}

Value QVFilterGradientComposite::customAttributes() const {
  const Value black = opaqueBlack();
  return QVFilterAttributesByAdding(
      QVFilterComposite::customAttributes(),
      Dictionary{{inputColor0Key, Value(Dictionary{{kCIAttributeDefault, black}, {kCIAttributeIdentity, black}})},
                 {inputColor1Key, Value(Dictionary{{kCIAttributeDefault, black}, {kCIAttributeIdentity, black}})}});
}

void QVFilterGradientComposite::encodeWithCoder(NSCoder& coder) const {
  QVFilterComposite::encodeWithCoder(coder);
  const CIColorRef color0 = inputColor0();
  const CIColorRef color1 = inputColor1();
  coder.encodeObject(color0 ? Value(color0->stringRepresentation()) : Value(), inputColor0Key);
  coder.encodeObject(color1 ? Value(color1->stringRepresentation()) : Value(), inputColor1Key);
}

bool QVFilterGradientComposite::initWithCoder(const NSCoder& coder) {
  if (!QVFilterComposite::initWithCoder(coder)) return false;
  const Value color0 = coder.decodeObjectForKey(inputColor0Key);
  const Value color1 = coder.decodeObjectForKey(inputColor1Key);
  setInputColor0(color0.string() ? CIColor::colorWithString(*color0.string()) : nullptr);
  setInputColor1(color1.string() ? CIColor::colorWithString(*color1.string()) : nullptr);
  return true;
}

CIImage QVFilterGradientComposite::outputImage() const {
  const CIImage image = inputImage();
  if (!image) return {};
  if (!_compositeOperation()) return image;

  const CGRect e = image.extent();
  const double d = std::max(CGRectGetWidth(e), CGRectGetHeight(e));
  const CIFilterRef gradient = QVFilterWithDefaults("CIRadialGradient");
  if (!gradient) return {};
  gradient->setValue(CIVector::vectorWithX(std::floor(CGRectGetMidX(e)), std::floor(CGRectGetMidY(e))), kCIInputCenterKey);
  gradient->setValue(Value(std::floor(inputRadius0().doubleValue() * d)), inputRadius0Key);
  gradient->setValue(Value(std::floor(inputRadius1().doubleValue() * d)), inputRadius1Key);
  gradient->setValue(inputColor0(), inputColor0Key);
  gradient->setValue(inputColor1(), inputColor1Key);

  // Drawn in a square of the longer side on the centre, then stretched to the input's shape.
  const CGRect square = CGRectMake(std::floor(CGRectGetMidX(e) - d * 0.5), std::floor(CGRectGetMidY(e) - d * 0.5), d, d);
  const CIImage cropped = QVFilterOutputImage(gradient).imageByCroppingToRect(square);
  const CIImage scaled = cropped.imageByApplyingTransform(
      CGAffineTransformMakeScale(CGRectGetWidth(e) / CGRectGetWidth(square), CGRectGetHeight(e) / CGRectGetHeight(square)));
  const CGRect scaledExtent = scaled ? scaled.extent() : CGRectZero;
  const CIImage layer = scaled.imageByApplyingTransform(CGAffineTransformMakeTranslation(
      CGRectGetMinX(e) - CGRectGetMinX(scaledExtent), CGRectGetMinY(e) - CGRectGetMinY(scaledExtent)));
  return applyInputComposite(layer);
}

std::shared_ptr<IKFilterUIView> QVFilterGradientComposite::provideViewForUIConfiguration(
    const Dictionary& /*configuration*/, const std::vector<std::string>& /*excludedKeys*/) {
  return QVFilterIKFilterUIViewForFilter(
      std::make_shared<QVFilterGradientCompositeIKFilterUIViewController>("GradientCompositeView", QVFilterIKFilterUIViewController::pluginBundle()), *this);
}
