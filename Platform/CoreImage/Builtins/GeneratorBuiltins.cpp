#include "CoreImage/Builtins/BuiltinFilter.h"

void registerGeneratorBuiltins() {}
