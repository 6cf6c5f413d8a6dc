// QVFilterBumpDistortion: bulges (or pinches) the image around a centre given in proportions
// of the input's extent, (0, 0) bottom-left and (1, 1) top-right; the result has exactly the
// input's extent.
#pragma once

#include "Framework/QVFilter.h"

class QVFilterBumpDistortion : public QVFilter {
 public:
  CIImage inputImage() const { return CIImage::fromValue(storedValue(kCIInputImageKey)); }
  void setInputImage(const CIImage& image) { storeValue(kCIInputImageKey, image); }
  // Centre of the bump in proportions of the input's extent.
  CIVectorRef inputCenter() const { return CIVector::fromValue(storedValue(kCIInputCenterKey)); }
  void setInputCenter(const Value& center) { storeValue(kCIInputCenterKey, center); }
  // Radius of the bump in pixels, handed on unchanged.
  Value inputRadius() const { return storedValue(kCIInputRadiusKey); }
  void setInputRadius(const Value& radius) { storeValue(kCIInputRadiusKey, radius); }
  // Strength and direction of the bump, handed on unchanged.
  Value inputScale() const { return storedValue(kCIInputScaleKey); }
  void setInputScale(const Value& scale) { storeValue(kCIInputScaleKey, scale); }

  std::vector<std::string> inputKeys() const override {
    return {kCIInputImageKey, kCIInputCenterKey, kCIInputRadiusKey, kCIInputScaleKey};
  }
  Value customAttributes() const override;
  CIImage outputImage() const override;
};
