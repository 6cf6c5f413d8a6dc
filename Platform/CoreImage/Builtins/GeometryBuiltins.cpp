#include "CoreImage/Builtins/BuiltinFilter.h"

void registerGeometryBuiltins() {}
