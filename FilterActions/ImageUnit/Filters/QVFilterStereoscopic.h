// QVFilterStereoscopic: a red/cyan double-image look. A red layer and a cyan (green and blue)
// layer of the picture are scaled, the red one pushed to the right edge and the cyan one to the
// left, both centred vertically, and the picture is lightened with them.
//
// The class loads two kernels (a desaturation and a red/cyan mix) from the resource
// "QVFilterStereoscopic" on its first use, so that a missing or broken resource shows at class
// initialisation like the other kernel-using filters; the image itself is built from platform
// operations alone.
#pragma once

#include "CoreImage/CIKernel.h"
#include "Framework/QVFilter.h"

class QVFilterStereoscopic : public QVFilter {
 public:
  QVFilterStereoscopic();  // class initialisation: loads both kernels on first use

  CIImage inputImage() const { return CIImage::fromValue(storedValue(kCIInputImageKey)); }
  void setInputImage(const CIImage& image) { storeValue(kCIInputImageKey, image); }
  // Scale of both colour layers; nil means 1, clamped to 0..2.
  Value inputScale() const { return storedValue(kCIInputScaleKey); }
  void setInputScale(const Value& scale) { storeValue(kCIInputScaleKey, scale); }
  // Opacity of both colour layers; nil means 1, clamped to 0..1.
  Value inputIntensity() const { return storedValue(kCIInputIntensityKey); }
  void setInputIntensity(const Value& intensity) { storeValue(kCIInputIntensityKey, intensity); }

  std::vector<std::string> inputKeys() const override {
    return {kCIInputImageKey, kCIInputScaleKey, kCIInputIntensityKey};
  }
  CIImage outputImage() const override;

  // Kernel 0 and kernel 1 of the resource, in file order (nil when it is missing).
  static const CIKernelRef& QVFilterStereoscopic_DesaturateKernel();
  static const CIKernelRef& QVFilterStereoscopic_StereoscopicKernel();
};
