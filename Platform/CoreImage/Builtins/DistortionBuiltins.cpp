#include "CoreImage/Builtins/BuiltinFilter.h"

void registerDistortionBuiltins() {}
