// QVFilterPixellate: turns the image into squares aligned on a centre given in pixels. The
// image's edge pixels are extended first, so squares that straddle the border are filled from
// the edge, never from transparency; the result has exactly the input's extent.
#pragma once

#include <cstdint>

#include "Framework/QVFilter.h"

class QVFilterPixellate : public QVFilter {
 public:
  CIImage inputImage() const { return CIImage::fromValue(storedValue(kCIInputImageKey)); }
  void setInputImage(const CIImage& image) { storeValue(kCIInputImageKey, image); }
  // A point in image coordinates (pixels) on which the grid of squares is aligned.
  CIVectorRef inputCenter() const { return CIVector::fromValue(storedValue(kCIInputCenterKey)); }
  void setInputCenter(const Value& center) { storeValue(kCIInputCenterKey, center); }
  // Side of a square in pixels.
  Value inputScale() const { return storedValue(kCIInputScaleKey); }
  void setInputScale(const Value& scale) { storeValue(kCIInputScaleKey, scale); }

  std::vector<std::string> inputKeys() const override { return {kCIInputImageKey, kCIInputCenterKey, kCIInputScaleKey}; }
  Value customAttributes() const override;
  CIImage outputImage() const override;
};

// The transform applied before the edges are extended: a scale by (s + W) / W on x and
// (s + H) / H on y, each truncated towards zero. The identity for any image wider and taller
// than one square; a factor of 2 or more only once the square reaches the image's size.
CGAffineTransform QVFilterPixellateClampTransform(const CGRect& extent, std::int64_t scale);
