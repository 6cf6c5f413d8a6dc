// QVFilterColorComposite: a flat colour, the size of the input, composited over it through the
// composite step of the family (mask, opacity, operation, crop).
#pragma once

#include "CoreImage/CIColor.h"
#include "Filters/QVFilterComposite.h"

class QVFilterColorComposite : public QVFilterComposite {
 public:
  // The layer's colour: opaque white by default, transparent white as identity.
  CIColorRef inputColor() const { return CIColor::fromValue(storedValue(kCIInputColorKey)); }
  void setInputColor(const CIColorRef& color) { storeValue(kCIInputColorKey, color); }

  // The composite's keys, then "inputColor".
  std::vector<std::string> customInputKeys() const override;
  Value customAttributes() const override;
  CIImage outputImage() const override;
  // The view of a QVFilterColorCompositeIKFilterUIViewController on "ColorCompositeView"; both arguments are ignored.
  std::shared_ptr<IKFilterUIView> provideViewForUIConfiguration(const Dictionary& configuration,
                                                                const std::vector<std::string>& excludedKeys) override;
};
