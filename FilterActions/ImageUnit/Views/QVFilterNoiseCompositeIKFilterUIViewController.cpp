#include "Views/QVFilterNoiseCompositeIKFilterUIViewController.h"

#include "Filters/QVFilterNoiseComposite.h"

namespace {
constexpr const char* kSourceFile = "FilterActions/ImageUnit/QVFilterNoiseCompositeIKFilterUIViewController";
constexpr int kPreconditionLine = 19;
}  // namespace

void QVFilterNoiseCompositeIKFilterUIViewController::loadView() {
  const CIFilterRef& filter = representedObject();
  if (!assertPrecondition(
          filter != nullptr && dynamic_cast<const QVFilterNoiseComposite*>(filter.get()) != nullptr,
          "-[QVFilterNoiseCompositeIKFilterUIViewController loadView]",
          "[self representedObject] != nil && [[self representedObject] isKindOfClass:[QVFilterNoiseComposite class]]",
          kSourceFile, kPreconditionLine))
    return;
  QVFilterCompositeIKFilterUIViewController::loadView();
  // The composite controller has bound these already; binding them again replaces those
  // bindings with equal ones and rebuilds the operation menu, which changes nothing.
  bindCompositeAlphaAndOperation();
}
