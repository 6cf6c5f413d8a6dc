// QVFilterSquareCrop: the largest centred square of the image.
#pragma once

#include "Framework/QVFilter.h"

class QVFilterSquareCrop : public QVFilter {
 public:
  CIImage inputImage() const { return CIImage::fromValue(storedValue(kCIInputImageKey)); }
  void setInputImage(const CIImage& image) { storeValue(kCIInputImageKey, image); }

  std::vector<std::string> inputKeys() const override { return {kCIInputImageKey}; }
  CIImage outputImage() const override;
};
