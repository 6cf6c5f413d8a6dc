#include "Filters/QVFilterShineStraight.h"

#include "Framework/QVFilterImageUnitsClasses.h"
#include "Framework/QVFilterKernelLoader.h"

namespace {

const QVFilterClassRegistration registration =
    QVFilterClassRegistration::filter<QVFilterShineStraight>(QVFilterShineStraightName, "QVFilterShine");

}  // namespace

const CIKernelRef& QVFilterShineStraight::straightMaskKernel() {
  // Written once, never released; a subclass's construction reaches the same static.
  static const CIKernelRef& kernel =
      *new CIKernelRef(QVFilterKernelsFromResource("QVFilterShineStraightMask").kernelAtIndex(0));
  return kernel;
}

QVFilterShineStraight::QVFilterShineStraight() { straightMaskKernel(); }
