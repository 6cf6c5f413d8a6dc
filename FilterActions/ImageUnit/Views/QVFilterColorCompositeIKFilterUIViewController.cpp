#include "Views/QVFilterColorCompositeIKFilterUIViewController.h"

#include "Filters/QVFilterColorComposite.h"

namespace {
constexpr const char* kSourceFile = "FilterActions/ImageUnit/QVFilterColorCompositeIKFilterUIViewController";
constexpr int kPreconditionLine = 27;
}  // namespace

void QVFilterColorCompositeIKFilterUIViewController::loadView() {
  const CIFilterRef& filter = representedObject();
  if (!assertPrecondition(
          filter != nullptr && dynamic_cast<const QVFilterColorComposite*>(filter.get()) != nullptr,
          "-[QVFilterColorCompositeIKFilterUIViewController loadView]",
          "[self representedObject] != nil && [[self representedObject] isKindOfClass:[QVFilterColorComposite class]]",
          kSourceFile, kPreconditionLine))
    return;
  QVFilterCompositeIKFilterUIViewController::loadView();
  bindColorWellToFilter(requiredOutlet<NSColorWell>("colorWell"), kCIInputColorKey);
}
