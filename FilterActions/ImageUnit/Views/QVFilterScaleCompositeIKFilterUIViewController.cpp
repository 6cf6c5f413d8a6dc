#include "Views/QVFilterScaleCompositeIKFilterUIViewController.h"

#include "Filters/QVFilterScaleComposite.h"

namespace {
constexpr const char* kSourceFile = "FilterActions/ImageUnit/QVFilterScaleCompositeIKFilterUIViewController";
constexpr int kPreconditionLine = 25;
}  // namespace

void QVFilterScaleCompositeIKFilterUIViewController::loadView() {
  const CIFilterRef& filter = representedObject();
  if (!assertPrecondition(
          filter != nullptr && dynamic_cast<const QVFilterScaleComposite*>(filter.get()) != nullptr,
          "-[QVFilterScaleCompositeIKFilterUIViewController loadView]",
          "[self representedObject] != nil && [[self representedObject] isKindOfClass:[QVFilterScaleComposite class]]",
          kSourceFile, kPreconditionLine))
    return;
  QVFilterCompositeIKFilterUIViewController::loadView();
  bindToFilter(requiredOutlet<NSSlider>("inputScaleSlider"), NSValueBinding, kCIInputScaleKey);
}
