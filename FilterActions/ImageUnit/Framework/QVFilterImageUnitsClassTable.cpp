// The plug-in library's one exported symbol: the entry point through which the host's
// image-unit loader fetches the class table.
#include "Framework/QVFilterImageUnitsClasses.h"

extern "C" __attribute__((visibility("default"))) const CIPlugInClassTable* CIPlugInGetClassTable() {
  return &QVFilterImageUnitsClasses();
}
