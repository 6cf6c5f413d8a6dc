// QVFilterShine: a soft white highlight over the picture, as if light fell on glass from one of
// its top corners or the middle of its top edge. The highlight is a linear gradient from white
// at 80 % opacity at the light to 5 % at the picture's centre. Subclasses may shape it with a
// kernel of their own (_maskKernel); this class lays the plain gradient.
#pragma once

#include "CoreImage/CIKernel.h"
#include "Framework/QVFilter.h"
#include "Framework/QVFilterImageUnitsConstants.h"

class QVFilterShine : public QVFilter {
 public:
  CIImage inputImage() const { return CIImage::fromValue(storedValue(kCIInputImageKey)); }
  void setInputImage(const CIImage& image) { storeValue(kCIInputImageKey, image); }
  // 0 top-left corner, 1 middle of the top edge, 2 top-right corner; read as an integer.
  Value inputLightSource() const { return storedValue(kQVInputLightSourceKey); }
  void setInputLightSource(const Value& source) { storeValue(kQVInputLightSourceKey, source); }
  // A switch: 0 turns the effect off, any other value gives the same fixed highlight.
  Value inputAlpha() const { return storedValue(kQVInputAlphaKey); }
  void setInputAlpha(const Value& alpha) { storeValue(kQVInputAlphaKey, alpha); }

  std::vector<std::string> inputKeys() const override {
    return {kCIInputImageKey, kQVInputLightSourceKey, kQVInputAlphaKey};
  }
  CIImage outputImage() const override;

  // The kernel that shapes the highlight; nil here (the plain gradient).
  virtual CIKernelRef _maskKernel() const { return nullptr; }
};
