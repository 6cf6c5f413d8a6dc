#include "Filters/QVFilterUnsharpMask.h"

#include "Framework/QVFilterImageUnitsClasses.h"

namespace {

const QVFilterClassRegistration registration = QVFilterClassRegistration::filter<QVFilterUnsharpMask>("QVFilterUnsharpMask", "QVFilter");

}  // namespace

CIImage QVFilterUnsharpMask::outputImage() const {
  return QVFilterPointOperationOutput(*this, "CIUnsharpMask", inputImage());
}
