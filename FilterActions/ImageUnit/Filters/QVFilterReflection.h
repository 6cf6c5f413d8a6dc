// QVFilterReflection: puts a mirror image of the picture under it, as on a glossy floor. The
// mirror image starts a given gap below the picture with a given opacity, fades to nothing over
// a fraction of the picture's height and is cut off there. When the result would reach below
// y = 0 it is lifted by whole pixels.
#pragma once

#include "Framework/QVFilter.h"
#include "Framework/QVFilterImageUnitsConstants.h"

class QVFilterReflection : public QVFilter {
 public:
  CIImage inputImage() const { return CIImage::fromValue(storedValue(kCIInputImageKey)); }
  void setInputImage(const CIImage& image) { storeValue(kCIInputImageKey, image); }
  // Opacity of the reflection at its edge next to the picture; 0 turns the effect off.
  Value inputAlphaNought() const { return storedValue(kQVInputAlphaNoughtKey); }
  void setInputAlphaNought(const Value& alpha) { storeValue(kQVInputAlphaNoughtKey, alpha); }
  // Length of the fade as a fraction of the picture's height; 0 turns the effect off.
  Value inputProportion() const { return storedValue(kQVInputProportionKey); }
  void setInputProportion(const Value& proportion) { storeValue(kQVInputProportionKey, proportion); }
  // Gap in pixels between the picture and the reflection (negative: overlap).
  Value inputOffset() const { return storedValue(kQVInputOffsetKey); }
  void setInputOffset(const Value& offset) { storeValue(kQVInputOffsetKey, offset); }

  std::vector<std::string> inputKeys() const override {
    return {kCIInputImageKey, kQVInputAlphaNoughtKey, kQVInputProportionKey, kQVInputOffsetKey};
  }
  CIImage outputImage() const override;
};
