// QVFilterUnsharpMask: sharpens edges by adding the difference from a blurred copy, through the
// built-in "CIUnsharpMask" (its inputs handed on unchanged), with the result cut back to the
// input's extent.
#pragma once

#include "Framework/QVFilter.h"

class QVFilterUnsharpMask : public QVFilter {
 public:
  static constexpr const char* radiusKey = "inputRadius";
  static constexpr const char* intensityKey = "inputIntensity";

  CIImage inputImage() const { return CIImage::fromValue(storedValue(kCIInputImageKey)); }
  void setInputImage(const CIImage& image) { storeValue(kCIInputImageKey, image); }
  // Radius of the blur the image is compared with, in pixels.
  Value inputRadius() const { return storedValue(QVFilterUnsharpMask::radiusKey); }
  void setInputRadius(const Value& value) { storeValue(QVFilterUnsharpMask::radiusKey, value); }
  // How much of the difference is added.
  Value inputIntensity() const { return storedValue(QVFilterUnsharpMask::intensityKey); }
  void setInputIntensity(const Value& value) { storeValue(QVFilterUnsharpMask::intensityKey, value); }

  std::vector<std::string> inputKeys() const override { return {kCIInputImageKey, radiusKey, intensityKey}; }
  CIImage outputImage() const override;
};
