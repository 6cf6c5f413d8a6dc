// QVFilterGammaAdjust: applies a power curve to the colour values, through the built-in
// "CIGammaAdjust" (its inputs handed on unchanged), with the result cut back to the input's
// extent.
#pragma once

#include "Framework/QVFilter.h"

class QVFilterGammaAdjust : public QVFilter {
 public:
  static constexpr const char* powerKey = "inputPower";

  CIImage inputImage() const { return CIImage::fromValue(storedValue(kCIInputImageKey)); }
  void setInputImage(const CIImage& image) { storeValue(kCIInputImageKey, image); }
  // The exponent: below 1 lightens mid-tones, above 1 darkens them.
  Value inputPower() const { return storedValue(QVFilterGammaAdjust::powerKey); }
  void setInputPower(const Value& value) { storeValue(QVFilterGammaAdjust::powerKey, value); }

  std::vector<std::string> inputKeys() const override { return {kCIInputImageKey, powerKey}; }
  CIImage outputImage() const override;
};
