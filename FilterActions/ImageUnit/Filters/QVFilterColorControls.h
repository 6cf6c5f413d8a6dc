// QVFilterColorControls: changes saturation, brightness and contrast, through the built-in
// "CIColorControls" (its inputs handed on unchanged), with the result cut back to the input's
// extent.
#pragma once

#include "Framework/QVFilter.h"

class QVFilterColorControls : public QVFilter {
 public:
  static constexpr const char* saturationKey = "inputSaturation";
  static constexpr const char* brightnessKey = "inputBrightness";
  static constexpr const char* contrastKey = "inputContrast";

  CIImage inputImage() const { return CIImage::fromValue(storedValue(kCIInputImageKey)); }
  void setInputImage(const CIImage& image) { storeValue(kCIInputImageKey, image); }
  // Saturation: 0 grey, 1 unchanged.
  Value inputSaturation() const { return storedValue(QVFilterColorControls::saturationKey); }
  void setInputSaturation(const Value& value) { storeValue(QVFilterColorControls::saturationKey, value); }
  // Brightness added to every colour value.
  Value inputBrightness() const { return storedValue(QVFilterColorControls::brightnessKey); }
  void setInputBrightness(const Value& value) { storeValue(QVFilterColorControls::brightnessKey, value); }
  // Contrast about mid-grey: 1 unchanged.
  Value inputContrast() const { return storedValue(QVFilterColorControls::contrastKey); }
  void setInputContrast(const Value& value) { storeValue(QVFilterColorControls::contrastKey, value); }

  std::vector<std::string> inputKeys() const override { return {kCIInputImageKey, saturationKey, brightnessKey, contrastKey}; }
  CIImage outputImage() const override;
};
