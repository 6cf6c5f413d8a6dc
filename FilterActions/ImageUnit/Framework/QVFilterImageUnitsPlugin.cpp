#include "Framework/QVFilterImageUnitsPlugin.h"

bool QVFilterImageUnitsPlugin::load(void* /*host*/) { return true; }
