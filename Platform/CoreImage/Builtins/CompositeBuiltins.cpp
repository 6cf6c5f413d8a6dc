#include "CoreImage/Builtins/BuiltinFilter.h"

void registerCompositeBuiltins() {}
