// QVFilterBlur: blurs the image with a blur chosen by name (a built-in of the blur category,
// or "QVFilterZoomBlur") after extending the image's edge pixels outwards without limit, so
// that no dark or transparent fringe comes in from outside; the result is cut back to the
// input's extent. An unknown name gives the input image back.
#pragma once

#include "CoreImage/CIKernel.h"
#include "Framework/QVFilter.h"

class QVFilterBlur : public QVFilter {
 public:
  static constexpr const char* inputBlurFilterNameKey = "inputBlurFilterName";

  QVFilterBlur();  // class initialisation: loads the pass-through kernel on first use

  CIImage inputImage() const { return CIImage::fromValue(storedValue(kCIInputImageKey)); }
  void setInputImage(const CIImage& image) { storeValue(kCIInputImageKey, image); }
  // Radius handed to the chosen blur.
  Value inputRadius() const { return storedValue(kCIInputRadiusKey); }
  void setInputRadius(const Value& radius) { storeValue(kCIInputRadiusKey, radius); }
  // Name of the blur to run.
  Value inputBlurFilterName() const { return storedValue(inputBlurFilterNameKey); }
  void setInputBlurFilterName(const Value& name) { storeValue(inputBlurFilterNameKey, name); }

  std::vector<std::string> inputKeys() const override {
    return {kCIInputImageKey, kCIInputRadiusKey, inputBlurFilterNameKey};
  }
  CIImage outputImage() const override;
  // The view of a QVFilterBlurIKFilterUIViewController on "BlurView"; both arguments are ignored.
  std::shared_ptr<IKFilterUIView> provideViewForUIConfiguration(const Dictionary& configuration,
                                                                const std::vector<std::string>& excludedKeys) override;

  // The pass-through kernel of the resource "NoOp" (nil when the resource is missing),
  // loaded once per process.
  static const CIKernelRef& noOpKernel();
};
