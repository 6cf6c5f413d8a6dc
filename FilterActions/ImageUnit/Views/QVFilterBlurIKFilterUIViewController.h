// QVFilterBlurIKFilterUIViewController: the blur's parameter view ("BlurView"): a slider and a
// text field for the radius and a pop-up of the platform's blurs.
#pragma once

#include "Views/QVFilterIKFilterUIViewController.h"

class QVFilterBlurIKFilterUIViewController : public QVFilterIKFilterUIViewController {
 public:
  using QVFilterIKFilterUIViewController::QVFilterIKFilterUIViewController;

  NSSlider* blurFilterRadiusSlider() const { return outlet<NSSlider>("blurFilterRadiusSlider"); }
  NSTextField* blurFilterRadiusTextField() const { return outlet<NSTextField>("blurFilterRadiusTextField"); }
  NSPopUpButton* blurFilterNamePopupButton() const { return outlet<NSPopUpButton>("blurFilterNamePopupButton"); }

  void loadView() override;

  // The three blur controls of a loaded view bound to "inputRadius" and "inputBlurFilterName",
  // the pop-up filled with the platform's blurs; the blur composite's view has the same three.
  static void bindBlurControls(QVFilterIKFilterUIViewController& controller);
};
