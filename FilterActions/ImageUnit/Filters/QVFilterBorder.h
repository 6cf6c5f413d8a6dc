// QVFilterBorder: frames a picture with a band of one solid colour, either painted over the
// picture's outer edge (inside border, type 0: the size stays) or laid around it (outside
// border, type 1: the result grows by twice the band width). Any other type leaves the
// picture as it is.
#pragma once

#include "CoreImage/CIColor.h"
#include "Framework/QVFilter.h"
#include "Framework/QVFilterImageUnitsConstants.h"

class QVFilterBorder : public QVFilter {
 public:
  CIImage inputImage() const { return CIImage::fromValue(storedValue(kCIInputImageKey)); }
  void setInputImage(const CIImage& image) { storeValue(kCIInputImageKey, image); }
  // Colour of the band.
  CIColorRef inputColor() const { return CIColor::fromValue(storedValue(kCIInputColorKey)); }
  void setInputColor(const CIColorRef& color) { storeValue(kCIInputColorKey, color); }
  // 0 inside, 1 outside, anything else no border; read as an integer.
  Value inputBorderType() const { return storedValue(kQVInputBorderTypeKey); }
  void setInputBorderType(const Value& type) { storeValue(kQVInputBorderTypeKey, type); }
  // Band width in pixels, rounded down before use.
  Value inputWidth() const { return storedValue(kCIInputWidthKey); }
  void setInputWidth(const Value& width) { storeValue(kCIInputWidthKey, width); }

  std::vector<std::string> inputKeys() const override {
    return {kCIInputImageKey, kCIInputColorKey, kQVInputBorderTypeKey, kCIInputWidthKey};
  }
  // The attribute defaults, then an opaque white band.
  void setDefaults() override;
  // The attribute identities, then an opaque white band.
  void setIdentities();
  CIImage outputImage() const override;
};
