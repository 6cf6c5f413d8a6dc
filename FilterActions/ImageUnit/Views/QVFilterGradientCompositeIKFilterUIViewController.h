// QVFilterGradientCompositeIKFilterUIViewController: the gradient composite's view ("GradientCompositeView"): the
// composite controls, the two radii and the two colours.
#pragma once

#include "Views/QVFilterCompositeIKFilterUIViewController.h"

class QVFilterGradientCompositeIKFilterUIViewController : public QVFilterCompositeIKFilterUIViewController {
 public:
  using QVFilterCompositeIKFilterUIViewController::QVFilterCompositeIKFilterUIViewController;

  NSColorWell* color0ColorWell() const { return outlet<NSColorWell>("color0ColorWell"); }
  NSColorWell* color1ColorWell() const { return outlet<NSColorWell>("color1ColorWell"); }
  NSSlider* radius0Slider() const { return outlet<NSSlider>("radius0Slider"); }
  NSSlider* radius1Slider() const { return outlet<NSSlider>("radius1Slider"); }

  void loadView() override;
};
