// QVFilterComposite: the abstract base of every composite filter. A subclass builds a layer
// from its input and ends its outputImage with applyInputComposite(layer), the step all of them
// share, always in this order:
//
//   1. the layer masked by the mask texture (QVFilterMask::applyInputMask);
//   2. faded by "inputCompositeAlpha" through a colour matrix (its alpha vector (0, 0, 0, a));
//   3. put over the input by the composite operation named by "inputCompositeFilterName", a
//      built-in created afresh at every evaluation;
//   4. cropped to the input's extent.
//
// An unknown or nil operation name leaves the input unchanged: the filter then has no effect.
// Neither input has a default here; the concrete filters' description supplies them.
#pragma once

#include "Filters/QVFilterMask.h"

class QVFilterComposite : public QVFilterMask {
 public:
  static constexpr const char* inputCompositeAlphaKey = "inputCompositeAlpha";
  static constexpr const char* inputCompositeFilterNameKey = "inputCompositeFilterName";

  // Opacity of the layer (1 keeps it as it is); nil reads as 0.
  Value inputCompositeAlpha() const { return storedValue(inputCompositeAlphaKey); }
  void setInputCompositeAlpha(const Value& alpha) { storeValue(inputCompositeAlphaKey, alpha); }
  // Name of the composite or blend operation, e.g. "CISourceOverCompositing".
  Value inputCompositeFilterName() const { return storedValue(inputCompositeFilterNameKey); }
  void setInputCompositeFilterName(const Value& name) { storeValue(inputCompositeFilterNameKey, name); }

  // The mask's keys, then "inputCompositeAlpha", "inputCompositeFilterName".
  std::vector<std::string> customInputKeys() const override;
  // The mask's entries plus an empty entry for each of the two keys.
  Value customAttributes() const override;

  // The filter's finished output for `layer`: masked, faded, composited over inputImage and
  // cropped to its extent. The input itself for an unknown operation name.
  CIImage applyInputComposite(const CIImage& layer) const;

 protected:
  // The built-in named by inputCompositeFilterName, with its defaults; nil for a name that is
  // nil, not a string or unknown.
  CIFilterRef _compositeOperation() const;
};
