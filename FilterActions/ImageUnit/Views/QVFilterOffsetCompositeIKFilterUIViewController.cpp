#include "Views/QVFilterOffsetCompositeIKFilterUIViewController.h"

#include "Filters/QVFilterOffsetComposite.h"

namespace {
constexpr const char* kSourceFile = "FilterActions/ImageUnit/QVFilterOffsetCompositeIKFilterUIViewController";
constexpr int kPreconditionLine = 25;
}  // namespace

void QVFilterOffsetCompositeIKFilterUIViewController::loadView() {
  const CIFilterRef& filter = representedObject();
  if (!assertPrecondition(
          filter != nullptr && dynamic_cast<const QVFilterOffsetComposite*>(filter.get()) != nullptr,
          "-[QVFilterOffsetCompositeIKFilterUIViewController loadView]",
          "[self representedObject] != nil && [[self representedObject] isKindOfClass:[QVFilterOffsetComposite class]]",
          kSourceFile, kPreconditionLine))
    return;
  QVFilterCompositeIKFilterUIViewController::loadView();
  bindToFilter(requiredOutlet<NSSlider>("inputOffsetSlider"), NSValueBinding, "inputOffset");
}
