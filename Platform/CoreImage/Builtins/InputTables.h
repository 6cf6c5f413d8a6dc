// Building blocks of the built-ins' input tables: one declared number or position input.
#pragma once

#include <string>
#include <utility>

#include "CoreImage/CIFilter.h"
#include "CoreImage/CIVector.h"

namespace qv::builtins {

inline const Value kAbsent;

// An NSNumber input; nil members are left out of its attribute dictionary.
inline CIInputSpec numberInput(const std::string& key, const char* type, const Value& def,
                               const Value& identity = kAbsent, const Value& min = kAbsent,
                               const Value& max = kAbsent, const Value& sliderMin = kAbsent,
                               const Value& sliderMax = kAbsent) {
  CIInputSpec s;
  s.key = key;
  s.attributeClass = "NSNumber";
  s.type = type;
  s.defaultValue = def;
  s.identity = identity;
  s.min = min;
  s.max = max;
  s.sliderMin = sliderMin;
  s.sliderMax = sliderMax;
  return s;
}

// GCC 12 reports a false "maybe uninitialized" inside std::variant when a Value holding an
// object is assigned here at -O2 with sanitizers; the value is fully constructed.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
// A CIVector position input with a default point.
inline CIInputSpec positionInput(std::string key, double x, double y) {
  CIInputSpec s;
  s.key = std::move(key);
  s.attributeClass = "CIVector";
  s.type = kCIAttributeTypePosition;
  s.defaultValue = Value(CIVector::vectorWithX(x, y));
  return s;
}
#pragma GCC diagnostic pop

}  // namespace qv::builtins
