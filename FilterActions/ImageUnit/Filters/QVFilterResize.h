// QVFilterResize: scales the image down so that the limited edges do not exceed a maximum.
#pragma once

#include "Framework/QVFilter.h"
#include "Framework/QVFilterImageUnitsConstants.h"

class QVFilterResize : public QVFilter {
 public:
  static constexpr const char* inputMaximumExtentKey = "inputMaximumExtent";

  CIImage inputImage() const { return CIImage::fromValue(storedValue(kCIInputImageKey)); }
  void setInputImage(const CIImage& image) { storeValue(kCIInputImageKey, image); }
  // Bit mask of the edges to limit: 1 width, 2 height, 3 both.
  Value inputEdge() const { return storedValue(kQVInputEdgeKey); }
  void setInputEdge(const Value& edge) { storeValue(kQVInputEdgeKey, edge); }
  // The largest allowed length, in pixels, of a limited edge.
  Value inputMaximumExtent() const { return storedValue(inputMaximumExtentKey); }
  void setInputMaximumExtent(const Value& extent) { storeValue(inputMaximumExtentKey, extent); }

  std::vector<std::string> inputKeys() const override {
    return {kCIInputImageKey, kQVInputEdgeKey, inputMaximumExtentKey};
  }
  CIImage outputImage() const override;
};
