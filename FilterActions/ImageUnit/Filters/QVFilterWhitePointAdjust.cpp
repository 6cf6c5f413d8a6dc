#include "Filters/QVFilterWhitePointAdjust.h"

#include "CoreImage/CIColor.h"
#include "Framework/QVFilterImageUnitsClasses.h"

namespace {

const QVFilterClassRegistration registration = QVFilterClassRegistration::filter<QVFilterWhitePointAdjust>("QVFilterWhitePointAdjust", "QVFilter");

}  // namespace

Value QVFilterWhitePointAdjust::customAttributes() const {
  const Value white(CIColor::colorWithRed(1, 1, 1, 1));
  return Value(Dictionary{{colorKey, Value(Dictionary{{kCIAttributeDefault, white}, {kCIAttributeIdentity, white}})}});
}

CIImage QVFilterWhitePointAdjust::outputImage() const {
  return QVFilterPointOperationOutput(*this, "CIWhitePointAdjust", inputImage());
}
