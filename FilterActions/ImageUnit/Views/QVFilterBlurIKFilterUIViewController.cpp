#include "Views/QVFilterBlurIKFilterUIViewController.h"

#include "Filters/QVFilterBlur.h"

namespace {
// Where the precondition is reported to be.
constexpr const char* kSourceFile = "FilterActions/ImageUnit/QVFilterBlurIKFilterUIViewController";
constexpr int kPreconditionLine = 28;
}  // namespace

void QVFilterBlurIKFilterUIViewController::loadView() {
  const CIFilterRef& filter = representedObject();
  if (!assertPrecondition(
          filter != nullptr && dynamic_cast<const QVFilterBlur*>(filter.get()) != nullptr,
          "-[QVFilterBlurIKFilterUIViewController loadView]",
          "[self representedObject] != nil && [[self representedObject] isKindOfClass:[QVFilterBlur class]]",
          kSourceFile, kPreconditionLine))
    return;
  QVFilterIKFilterUIViewController::loadView();
  bindBlurControls(*this);
}

void QVFilterBlurIKFilterUIViewController::bindBlurControls(QVFilterIKFilterUIViewController& controller) {
  controller.bindToFilter(controller.requiredOutlet<NSSlider>("blurFilterRadiusSlider"), NSValueBinding,
                          kCIInputRadiusKey);
  controller.bindToFilter(controller.requiredOutlet<NSTextField>("blurFilterRadiusTextField"), NSValueBinding,
                          kCIInputRadiusKey);
  NSPopUpButton& names = controller.requiredOutlet<NSPopUpButton>("blurFilterNamePopupButton");
  names.setMenu(menuWithFilterNamesForCategory(kCICategoryBlur));
  controller.bindToFilter(names, NSSelectedObjectBinding, QVFilterBlur::inputBlurFilterNameKey);
}
