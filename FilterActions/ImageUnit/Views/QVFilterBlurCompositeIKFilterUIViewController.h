// QVFilterBlurCompositeIKFilterUIViewController: the blur composite's view ("BlurCompositeView"): the composite
// controls and the blur's radius and blur pop-up.
#pragma once

#include "Views/QVFilterCompositeIKFilterUIViewController.h"

class QVFilterBlurCompositeIKFilterUIViewController : public QVFilterCompositeIKFilterUIViewController {
 public:
  using QVFilterCompositeIKFilterUIViewController::QVFilterCompositeIKFilterUIViewController;

  NSSlider* blurFilterRadiusSlider() const { return outlet<NSSlider>("blurFilterRadiusSlider"); }
  NSTextField* blurFilterRadiusTextField() const { return outlet<NSTextField>("blurFilterRadiusTextField"); }
  NSPopUpButton* blurFilterNamePopupButton() const { return outlet<NSPopUpButton>("blurFilterNamePopupButton"); }

  void loadView() override;
};
