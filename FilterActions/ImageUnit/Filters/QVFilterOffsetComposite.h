// QVFilterOffsetComposite: a copy of the input shifted sideways by a fraction of its width,
// composited over the input through the composite step of the family, and cut to where the
// copy and the input overlap (the output loses the shifted width on one side).
#pragma once

#include "Filters/QVFilterComposite.h"
#include "Framework/QVFilterImageUnitsConstants.h"

class QVFilterOffsetComposite : public QVFilterComposite {
 public:
  // Horizontal shift as a fraction of the input's width; positive moves right. Rounded down
  // to whole pixels.
  Value inputOffset() const { return storedValue(kQVInputOffsetKey); }
  void setInputOffset(const Value& offset) { storeValue(kQVInputOffsetKey, offset); }

  // The composite's keys, then "inputOffset".
  std::vector<std::string> customInputKeys() const override;
  CIImage outputImage() const override;
  // The view of a QVFilterOffsetCompositeIKFilterUIViewController on "OffsetCompositeView"; both arguments are ignored.
  std::shared_ptr<IKFilterUIView> provideViewForUIConfiguration(const Dictionary& configuration,
                                                                const std::vector<std::string>& excludedKeys) override;
};
