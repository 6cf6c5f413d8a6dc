// QVFilterExposureAdjust: brightens or darkens by stops of exposure, through the built-in
// "CIExposureAdjust" (its inputs handed on unchanged), with the result cut back to the input's
// extent.
#pragma once

#include "Framework/QVFilter.h"

class QVFilterExposureAdjust : public QVFilter {
 public:
  static constexpr const char* eVKey = "inputEV";

  CIImage inputImage() const { return CIImage::fromValue(storedValue(kCIInputImageKey)); }
  void setInputImage(const CIImage& image) { storeValue(kCIInputImageKey, image); }
  // Exposure change in stops: every value is multiplied by 2 to this power.
  Value inputEV() const { return storedValue(QVFilterExposureAdjust::eVKey); }
  void setInputEV(const Value& value) { storeValue(QVFilterExposureAdjust::eVKey, value); }

  std::vector<std::string> inputKeys() const override { return {kCIInputImageKey, eVKey}; }
  CIImage outputImage() const override;
};
