// QVFilterScaleComposite: a copy of the input scaled about the origin, composited over the
// input through the composite step of the family. The copy stays anchored at the input's
// lower-left corner when the input starts at the origin; there is no crop of its own.
#pragma once

#include "Filters/QVFilterComposite.h"

class QVFilterScaleComposite : public QVFilterComposite {
 public:
  // Uniform scale factor of the copy, unclamped; nil leaves the input unchanged.
  Value inputScale() const { return storedValue(kCIInputScaleKey); }
  void setInputScale(const Value& scale) { storeValue(kCIInputScaleKey, scale); }

  // The composite's keys, then "inputScale".
  std::vector<std::string> customInputKeys() const override;
  CIImage outputImage() const override;
  // The view of a QVFilterScaleCompositeIKFilterUIViewController on "ScaleCompositeView"; both arguments are ignored.
  std::shared_ptr<IKFilterUIView> provideViewForUIConfiguration(const Dictionary& configuration,
                                                                const std::vector<std::string>& excludedKeys) override;
};
