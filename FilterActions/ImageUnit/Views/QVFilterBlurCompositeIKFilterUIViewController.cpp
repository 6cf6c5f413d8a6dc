#include "Views/QVFilterBlurCompositeIKFilterUIViewController.h"

#include "Views/QVFilterBlurIKFilterUIViewController.h"
namespace {
constexpr const char* kSourceFile = "FilterActions/ImageUnit/QVFilterBlurCompositeIKFilterUIViewController";
constexpr int kPreconditionLine = 27;
}  // namespace

void QVFilterBlurCompositeIKFilterUIViewController::loadView() {
  const CIFilterRef& filter = representedObject();
  if (!assertPrecondition(filter != nullptr && filterIsKindOfClass(filter.get(), "QVFilterBlurComposite"),
                          "-[QVFilterBlurCompositeIKFilterUIViewController loadView]",
                          "[self representedObject] != nil && [[self representedObject] isKindOfClass:[QVFilterBlurComposite class]]",
                          kSourceFile, kPreconditionLine))
    return;
  QVFilterCompositeIKFilterUIViewController::loadView();
  QVFilterBlurIKFilterUIViewController::bindBlurControls(*this);
}
