#include "CoreImage/Builtins/BuiltinFilter.h"

void registerBlurBuiltins() {}
