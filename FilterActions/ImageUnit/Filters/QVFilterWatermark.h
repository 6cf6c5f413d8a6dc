// QVFilterWatermark: lays a second image (a logo, a signature) over the picture at one of nine
// places of a three-by-three grid, at its own size and with a chosen opacity, and keeps the
// result within the picture's bounds.
#pragma once

#include "Framework/QVFilter.h"

class QVFilterWatermark : public QVFilter {
 public:
  static constexpr const char* inputWatermarkImageKey = "inputWatermarkImage";
  static constexpr const char* inputWatermarkAlphaKey = "inputWatermarkAlpha";
  static constexpr const char* inputWatermarkPositionKey = "inputWatermarkPosition";

  CIImage inputImage() const { return CIImage::fromValue(storedValue(kCIInputImageKey)); }
  void setInputImage(const CIImage& image) { storeValue(kCIInputImageKey, image); }
  // The image laid over the picture; without it the filter does nothing.
  CIImage inputWatermarkImage() const { return CIImage::fromValue(storedValue(inputWatermarkImageKey)); }
  void setInputWatermarkImage(const CIImage& image) { storeValue(inputWatermarkImageKey, image); }
  // Opacity of the watermark, used as given.
  Value inputWatermarkAlpha() const { return storedValue(inputWatermarkAlphaKey); }
  void setInputWatermarkAlpha(const Value& alpha) { storeValue(inputWatermarkAlphaKey, alpha); }
  // Grid place 1 to 9, row by row from the top left; 0 and 10 or more mean the bottom left.
  Value inputWatermarkPosition() const { return storedValue(inputWatermarkPositionKey); }
  void setInputWatermarkPosition(const Value& position) { storeValue(inputWatermarkPositionKey, position); }

  std::vector<std::string> inputKeys() const override {
    return {kCIInputImageKey, inputWatermarkImageKey, inputWatermarkAlphaKey, inputWatermarkPositionKey};
  }
  CIImage outputImage() const override;

  // The translation given to a watermark of size (w, h) on a picture of size (W, H) at grid
  // place `position`. Only sizes enter: both origins are ignored.
  static CGPoint watermarkOffset(std::uint64_t position, double W, double H, double w, double h);
};
