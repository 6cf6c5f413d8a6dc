// QVFilterTilt: a tilt-shift look. A horizontal band at a chosen height stays sharp; with
// distance from it the picture turns into a light and then a heavy box blur, mixed by the kernel
// "QVFilterTiltLinear". The edges that the blur softens are cut away.
#pragma once

#include "CoreImage/CIKernel.h"
#include "Framework/QVFilter.h"
#include "Framework/QVFilterImageUnitsConstants.h"

class QVFilterTilt : public QVFilter {
 public:
  QVFilterTilt();  // class initialisation: loads the tilt kernel on first use

  CIImage inputImage() const { return CIImage::fromValue(storedValue(kCIInputImageKey)); }
  void setInputImage(const CIImage& image) { storeValue(kCIInputImageKey, image); }
  // Strength: scales both blur radii (20 and 30 per unit) and the margin cut away (15 per
  // unit); 0 turns the effect off.
  Value inputIntensity() const { return storedValue(kCIInputIntensityKey); }
  void setInputIntensity(const Value& intensity) { storeValue(kCIInputIntensityKey, intensity); }
  // Height of the sharp band as a fraction of the picture's height (0 bottom, 1 top), clamped.
  Value inputOffset() const { return storedValue(kQVInputOffsetKey); }
  void setInputOffset(const Value& offset) { storeValue(kQVInputOffsetKey, offset); }

  std::vector<std::string> inputKeys() const override {
    return {kCIInputImageKey, kCIInputIntensityKey, kQVInputOffsetKey};
  }
  CIImage outputImage() const override;

  // The first kernel of "QVFilterTiltLinear" (nil when the resource is missing).
  static const CIKernelRef& QVFilterTiltLinearKernel();
};
