// QVFilterWhitePointAdjust: maps white to a given colour, through the built-in
// "CIWhitePointAdjust" (its inputs handed on unchanged), with the result cut back to the input's
// extent.
#pragma once

#include "CoreImage/CIColor.h"
#include "Framework/QVFilter.h"

class QVFilterWhitePointAdjust : public QVFilter {
 public:
  static constexpr const char* colorKey = "inputColor";

  CIImage inputImage() const { return CIImage::fromValue(storedValue(kCIInputImageKey)); }
  void setInputImage(const CIImage& image) { storeValue(kCIInputImageKey, image); }
  // The colour that white becomes.
  CIColorRef inputColor() const { return CIColor::fromValue(storedValue(QVFilterWhitePointAdjust::colorKey)); }
  void setInputColor(const Value& value) { storeValue(QVFilterWhitePointAdjust::colorKey, value); }

  std::vector<std::string> inputKeys() const override { return {kCIInputImageKey, colorKey}; }
  // Only this filter's own entries, not added to the superclass's dictionary.
  Value customAttributes() const override;
  CIImage outputImage() const override;
};
