// QVFilterNoiseComposite: grey noise, the size of the input, composited over it through the
// composite step of the family: film grain. It alone of the family checks the operation's name
// before building anything, and gives back the input image itself for an unknown name.
#pragma once

#include "Filters/QVFilterComposite.h"

class QVFilterNoiseComposite : public QVFilterComposite {
 public:
  CIImage outputImage() const override;
  // The view of a QVFilterNoiseCompositeIKFilterUIViewController on "NoiseCompositeView"; both arguments are ignored.
  std::shared_ptr<IKFilterUIView> provideViewForUIConfiguration(const Dictionary& configuration,
                                                                const std::vector<std::string>& excludedKeys) override;
};
