#include "CoreImage/Builtins/BuiltinFilter.h"

void registerColorBuiltins() {}
