// QVFilterShineStraight: the shine whose highlight ends at a straight edge through the
// picture's centre, square to the direction of the light. Its kernel comes from the resource
// "QVFilterShineStraightMask", loaded once per process on the class's first use.
#pragma once

#include "Filters/QVFilterShine.h"

class QVFilterShineStraight : public QVFilterShine {
 public:
  QVFilterShineStraight();  // class initialisation: loads the mask kernel on first use

  CIKernelRef _maskKernel() const override { return straightMaskKernel(); }

  // The first kernel of "QVFilterShineStraightMask" (nil when the resource is missing).
  static const CIKernelRef& straightMaskKernel();
};
