#include "Views/QVFilterGradientCompositeIKFilterUIViewController.h"

#include "Filters/QVFilterGradientComposite.h"

namespace {
constexpr const char* kSourceFile = "FilterActions/ImageUnit/QVFilterGradientCompositeIKFilterUIViewController";
constexpr int kPreconditionLine = 27;
}  // namespace

void QVFilterGradientCompositeIKFilterUIViewController::loadView() {
  const CIFilterRef& filter = representedObject();
  if (!assertPrecondition(filter != nullptr && dynamic_cast<const QVFilterGradientComposite*>(filter.get()) != nullptr,
                          "-[QVFilterGradientCompositeIKFilterUIViewController loadView]",
                          "[self representedObject] != nil && [[self representedObject] "
                          "isKindOfClass:[QVFilterGradientComposite class]]",
                          kSourceFile, kPreconditionLine))
    return;
  QVFilterCompositeIKFilterUIViewController::loadView();
  bindToFilter(requiredOutlet<NSSlider>("radius0Slider"), NSValueBinding, "inputRadius0");
  bindToFilter(requiredOutlet<NSSlider>("radius1Slider"), NSValueBinding, "inputRadius1");
  bindColorWellToFilter(requiredOutlet<NSColorWell>("color0ColorWell"), "inputColor0");
  bindColorWellToFilter(requiredOutlet<NSColorWell>("color1ColorWell"), "inputColor1");
}
