// QVFilterGradientComposite: a radial gradient fitted to the input and composited over it
// through the composite step of the family: a vignette, a spotlight, a coloured glow. The
// radii are fractions of the input's longer side, so one setting looks alike at every size;
// the gradient is drawn in a square on the input's centre and then stretched to the input's
// shape, so on a picture that is not square its circles become ellipses.
//
// Keyed archiving writes the two colours in their string form under "inputColor0" and
// "inputColor1", after the composite's own inputs.
#pragma once

#include "CoreImage/CIColor.h"
#include "Filters/QVFilterComposite.h"

class QVFilterGradientComposite : public QVFilterComposite {
 public:
  static constexpr const char* inputRadius0Key = "inputRadius0";
  static constexpr const char* inputRadius1Key = "inputRadius1";
  static constexpr const char* inputColor0Key = "inputColor0";
  static constexpr const char* inputColor1Key = "inputColor1";

  // Inner radius, as a fraction of the longer side.
  Value inputRadius0() const { return storedValue(inputRadius0Key); }
  void setInputRadius0(const Value& radius) { storeValue(inputRadius0Key, radius); }
  // Outer radius, as a fraction of the longer side.
  Value inputRadius1() const { return storedValue(inputRadius1Key); }
  void setInputRadius1(const Value& radius) { storeValue(inputRadius1Key, radius); }
  // Colour within the inner radius.
  CIColorRef inputColor0() const { return CIColor::fromValue(storedValue(inputColor0Key)); }
  void setInputColor0(const CIColorRef& color) { storeValue(inputColor0Key, color); }
  // Colour beyond the outer radius.
  CIColorRef inputColor1() const { return CIColor::fromValue(storedValue(inputColor1Key)); }
  void setInputColor1(const CIColorRef& color) { storeValue(inputColor1Key, color); }

  // The composite's keys, then the two radii and the two colours.
  std::vector<std::string> customInputKeys() const override;
  // The composite's entries plus both colours: opaque black as default and as identity.
  Value customAttributes() const override;
  void encodeWithCoder(NSCoder& coder) const override;
  bool initWithCoder(const NSCoder& coder) override;
  CIImage outputImage() const override;
  // The view of a QVFilterGradientCompositeIKFilterUIViewController on "GradientCompositeView"; both arguments are ignored.
  std::shared_ptr<IKFilterUIView> provideViewForUIConfiguration(const Dictionary& configuration,
                                                                const std::vector<std::string>& excludedKeys) override;
};
