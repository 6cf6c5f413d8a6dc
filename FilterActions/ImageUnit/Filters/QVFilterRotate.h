// QVFilterRotate: turns the image by an angle about the origin of its coordinate space.
#pragma once

#include "Framework/QVFilter.h"

class QVFilterRotate : public QVFilter {
 public:
  CIImage inputImage() const { return CIImage::fromValue(storedValue(kCIInputImageKey)); }
  void setInputImage(const CIImage& image) { storeValue(kCIInputImageKey, image); }
  // Radians, counter-clockwise, used as given.
  Value inputAngle() const { return storedValue(kCIInputAngleKey); }
  void setInputAngle(const Value& angle) { storeValue(kCIInputAngleKey, angle); }

  std::vector<std::string> inputKeys() const override { return {kCIInputImageKey, kCIInputAngleKey}; }
  CIImage outputImage() const override;
};
