// QVFilterColorCompositeIKFilterUIViewController: the colour composite's view ("ColorCompositeView"): the composite
// controls and a colour well for the layer's colour.
#pragma once

#include "Views/QVFilterCompositeIKFilterUIViewController.h"

class QVFilterColorCompositeIKFilterUIViewController : public QVFilterCompositeIKFilterUIViewController {
 public:
  using QVFilterCompositeIKFilterUIViewController::QVFilterCompositeIKFilterUIViewController;

  NSColorWell* colorWell() const { return outlet<NSColorWell>("colorWell"); }

  void loadView() override;
};
