// QVFilterProportionalCrop: keeps a rectangle given in the units of a reference frame, scaled
// onto the image's extent.
#pragma once

#include "Framework/QVFilter.h"

class QVFilterProportionalCrop : public QVFilter {
 public:
  static constexpr const char* inputRectangleKey = "inputRectangle";

  CIImage inputImage() const { return CIImage::fromValue(storedValue(kCIInputImageKey)); }
  void setInputImage(const CIImage& image) { storeValue(kCIInputImageKey, image); }
  // The reference frame (x, y, width, height) in which inputRectangle is expressed.
  CIVectorRef inputExtent() const { return CIVector::fromValue(storedValue(kCIInputExtentKey)); }
  void setInputExtent(const CIVectorRef& extent) { storeValue(kCIInputExtentKey, extent); }
  // The rectangle to keep (x, y, width, height), in the units of inputExtent.
  CIVectorRef inputRectangle() const { return CIVector::fromValue(storedValue(inputRectangleKey)); }
  void setInputRectangle(const CIVectorRef& rectangle) { storeValue(inputRectangleKey, rectangle); }

  std::vector<std::string> inputKeys() const override {
    return {kCIInputImageKey, kCIInputExtentKey, inputRectangleKey};
  }
  Value customAttributes() const override;
  CIImage outputImage() const override;
};
