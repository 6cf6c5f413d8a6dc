// QVFilterCompositeIKFilterUIViewController: the part of every composite filter's view that
// edits what the composite family shares: the mask texture (a pop-up of "mask" textures, "None"
// when unset) and its orientation check box, the opacity (slider and text field) and the
// composite operation (a pop-up of the platform's composite operations). The controllers of
// the concrete composite filters extend it.
#pragma once

#include "Views/QVFilterIKFilterUIViewController.h"

class QVFilterCompositeIKFilterUIViewController : public QVFilterIKFilterUIViewController {
 public:
  using QVFilterIKFilterUIViewController::QVFilterIKFilterUIViewController;

  NSPopUpButton* maskIdentifierPopupButton() const { return outlet<NSPopUpButton>("maskIdentifierPopupButton"); }
  NSButton* maskIdentifierMatchInputImageOrientationButton() const {
    return outlet<NSButton>("maskIdentifierMatchInputImageOrientationButton");
  }
  NSSlider* compositeFilterAlphaSlider() const { return outlet<NSSlider>("compositeFilterAlphaSlider"); }
  NSTextField* compositeFilterAlphaTextField() const { return outlet<NSTextField>("compositeFilterAlphaTextField"); }
  NSPopUpButton* compositeFilterNamePopupButton() const {
    return outlet<NSPopUpButton>("compositeFilterNamePopupButton");
  }

  void loadView() override;

 protected:
  // The opacity controls bound to "inputCompositeAlpha" and the operation pop-up filled and
  // bound to "inputCompositeFilterName" (a second call replaces the first's bindings).
  void bindCompositeAlphaAndOperation();
};
