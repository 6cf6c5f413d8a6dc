// The assertion handler lives with the exceptions it raises.
#pragma once

#include "Foundation/NSException.h"
