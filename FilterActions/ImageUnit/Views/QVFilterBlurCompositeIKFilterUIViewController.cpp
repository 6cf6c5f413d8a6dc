#include "Views/QVFilterBlurCompositeIKFilterUIViewController.h"

#include "Filters/QVFilterBlurComposite.h"
#include "Views/QVFilterBlurIKFilterUIViewController.h"
namespace {
constexpr const char* kSourceFile = "FilterActions/ImageUnit/QVFilterBlurCompositeIKFilterUIViewController";
constexpr int kPreconditionLine = 27;
}  // namespace

void QVFilterBlurCompositeIKFilterUIViewController::loadView() {
  const CIFilterRef& filter = representedObject();
  if (!assertPrecondition(
          filter != nullptr && dynamic_cast<const QVFilterBlurComposite*>(filter.get()) != nullptr,
          "-[QVFilterBlurCompositeIKFilterUIViewController loadView]",
          "[self representedObject] != nil && [[self representedObject] isKindOfClass:[QVFilterBlurComposite class]]",
          kSourceFile, kPreconditionLine))
    return;
  QVFilterCompositeIKFilterUIViewController::loadView();
  QVFilterBlurIKFilterUIViewController::bindBlurControls(*this);
}
