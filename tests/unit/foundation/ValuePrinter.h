// Lets GoogleTest print Values in failure messages.
#pragma once

#include <ostream>

#include "Foundation/Value.h"

inline void PrintTo(const Value& v, std::ostream* os) { *os << v.description(); }
