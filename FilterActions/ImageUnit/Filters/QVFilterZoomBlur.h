// QVFilterZoomBlur: a zoom blur about a centre given in proportions of the input's extent,
// (0, 0) bottom-left and (1, 1) top-right, whose strength is a whole-pixel radius; the result
// has exactly the input's extent.
#pragma once

#include "Framework/QVFilter.h"

class QVFilterZoomBlur : public QVFilter {
 public:
  CIImage inputImage() const { return CIImage::fromValue(storedValue(kCIInputImageKey)); }
  void setInputImage(const CIImage& image) { storeValue(kCIInputImageKey, image); }
  // Centre of the zoom in proportions of the input's extent.
  CIVectorRef inputCenter() const { return CIVector::fromValue(storedValue(kCIInputCenterKey)); }
  void setInputCenter(const Value& center) { storeValue(kCIInputCenterKey, center); }
  // Length of the zoom in pixels; only its whole part (floor) is used.
  Value inputRadius() const { return storedValue(kCIInputRadiusKey); }
  void setInputRadius(const Value& radius) { storeValue(kCIInputRadiusKey, radius); }

  std::vector<std::string> inputKeys() const override { return {kCIInputImageKey, kCIInputCenterKey, kCIInputRadiusKey}; }
  Value customAttributes() const override;
  CIImage outputImage() const override;
};
