#include "Filters/QVFilterExposureAdjust.h"

#include "Framework/QVFilterImageUnitsClasses.h"

namespace {

const QVFilterClassRegistration registration = QVFilterClassRegistration::filter<QVFilterExposureAdjust>("QVFilterExposureAdjust", "QVFilter");

}  // namespace

CIImage QVFilterExposureAdjust::outputImage() const {
  return QVFilterPointOperationOutput(*this, "CIExposureAdjust", inputImage());
}
