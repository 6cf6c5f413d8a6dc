// QVFilterNoiseCompositeIKFilterUIViewController: the noise composite's view ("NoiseCompositeView"): the composite
// controls only.
#pragma once

#include "Views/QVFilterCompositeIKFilterUIViewController.h"

class QVFilterNoiseCompositeIKFilterUIViewController : public QVFilterCompositeIKFilterUIViewController {
 public:
  using QVFilterCompositeIKFilterUIViewController::QVFilterCompositeIKFilterUIViewController;

  void loadView() override;
};
