#include "Filters/QVFilterGammaAdjust.h"

#include "Framework/QVFilterImageUnitsClasses.h"

namespace {

const QVFilterClassRegistration registration = QVFilterClassRegistration::filter<QVFilterGammaAdjust>("QVFilterGammaAdjust", "QVFilter");

}  // namespace

CIImage QVFilterGammaAdjust::outputImage() const {
  return QVFilterPointOperationOutput(*this, "CIGammaAdjust", inputImage());
}
