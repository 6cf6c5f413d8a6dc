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
  return QVFilterPointOperationOutput(*this, "CIColorMatrix", inputImage());
}
