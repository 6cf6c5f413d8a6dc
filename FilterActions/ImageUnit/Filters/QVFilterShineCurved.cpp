#include "Filters/QVFilterShineCurved.h"

#include "Framework/QVFilterImageUnitsClasses.h"

namespace {

const QVFilterClassRegistration registration =
    QVFilterClassRegistration::filter<QVFilterShineCurved>(QVFilterShineCurvedName, "QVFilterShine");

}  // namespace
