// QVFilterScaleCompositeIKFilterUIViewController: the scale composite's view ("ScaleCompositeView"): the composite
// controls and the scale slider.
#pragma once

#include "Views/QVFilterCompositeIKFilterUIViewController.h"

class QVFilterScaleCompositeIKFilterUIViewController : public QVFilterCompositeIKFilterUIViewController {
 public:
  using QVFilterCompositeIKFilterUIViewController::QVFilterCompositeIKFilterUIViewController;

  NSSlider* inputScaleSlider() const { return outlet<NSSlider>("inputScaleSlider"); }

  void loadView() override;
};
