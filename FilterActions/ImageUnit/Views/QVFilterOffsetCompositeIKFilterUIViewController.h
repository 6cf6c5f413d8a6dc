// QVFilterOffsetCompositeIKFilterUIViewController: the offset composite's view ("OffsetCompositeView"): the composite
// controls and the offset slider.
#pragma once

#include "Views/QVFilterCompositeIKFilterUIViewController.h"

class QVFilterOffsetCompositeIKFilterUIViewController : public QVFilterCompositeIKFilterUIViewController {
 public:
  using QVFilterCompositeIKFilterUIViewController::QVFilterCompositeIKFilterUIViewController;

  NSSlider* inputOffsetSlider() const { return outlet<NSSlider>("inputOffsetSlider"); }

  void loadView() override;
};
