// QVFilterBlurComposite: a blurred copy of the input (through the plug-in's own blur filter,
// "QVFilterBlur", with the blur chosen by name), cut to the input's extent and composited over
// it through the composite step of the family: a glow, a soft focus or a dreamy haze.
#pragma once

#include "Filters/QVFilterComposite.h"

class QVFilterBlurComposite : public QVFilterComposite {
 public:
  static constexpr const char* inputBlurFilterNameKey = "inputBlurFilterName";

  // Radius handed to the blur.
  Value inputRadius() const { return storedValue(kCIInputRadiusKey); }
  void setInputRadius(const Value& radius) { storeValue(kCIInputRadiusKey, radius); }
  // Name of the blur (a built-in of the blur category, or "QVFilterZoomBlur").
  Value inputBlurFilterName() const { return storedValue(inputBlurFilterNameKey); }
  void setInputBlurFilterName(const Value& name) { storeValue(inputBlurFilterNameKey, name); }

  // The composite's keys, then "inputRadius", "inputBlurFilterName".
  std::vector<std::string> customInputKeys() const override;
  CIImage outputImage() const override;
  // The view of a QVFilterBlurCompositeIKFilterUIViewController on "BlurCompositeView"; both arguments are ignored.
  std::shared_ptr<IKFilterUIView> provideViewForUIConfiguration(const Dictionary& configuration,
                                                                const std::vector<std::string>& excludedKeys) override;
};
