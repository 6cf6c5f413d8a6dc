#include "Filters/QVFilterColorControls.h"

#include "Framework/QVFilterImageUnitsClasses.h"

namespace {

const QVFilterClassRegistration registration = QVFilterClassRegistration::filter<QVFilterColorControls>("QVFilterColorControls", "QVFilter");

}  // namespace

CIImage QVFilterColorControls::outputImage() const {
  return QVFilterPointOperationOutput(*this, "CIColorControls", inputImage());
}
