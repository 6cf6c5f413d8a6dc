#include "Views/QVFilterCompositeIKFilterUIViewController.h"

#include "Filters/QVFilterComposite.h"

namespace {
constexpr const char* kSourceFile = "FilterActions/ImageUnit/QVFilterCompositeIKFilterUIViewController";
constexpr int kPreconditionLine = 32;
constexpr const char* kMaskTag = "mask";
constexpr const char* kMaskNameKey = "inputMaskTextureName";
constexpr const char* kMaskOrientationKey = "inputMaskTextureShouldMatchInputImageOrientation";
constexpr const char* kAlphaKey = "inputCompositeAlpha";
constexpr const char* kOperationKey = "inputCompositeFilterName";
}  // namespace

void QVFilterCompositeIKFilterUIViewController::loadView() {
  if (!assertPrecondition(dynamic_cast<const QVFilterComposite*>(representedObject().get()) != nullptr,
                          "-[QVFilterCompositeIKFilterUIViewController loadView]",
                          "[[self representedObject] isKindOfClass:[QVFilterComposite class]]", kSourceFile,
                          kPreconditionLine))
    return;
  QVFilterIKFilterUIViewController::loadView();

  NSPopUpButton& mask = requiredOutlet<NSPopUpButton>("maskIdentifierPopupButton");
  mask.setMenu(menuForTexturesWithTags({kMaskTag}));
  bindToFilter(mask, NSSelectedObjectBinding, kMaskNameKey);
  // An unset mask shows "None" rather than no choice at all.
  if (boundFilterValue(kMaskNameKey).isNil())
    mask.selectItemWithTag(QVFilterIKFilterUIViewControllerTexturesMenuNoneItemTag);

  bindToFilter(requiredOutlet<NSButton>("maskIdentifierMatchInputImageOrientationButton"), NSValueBinding,
               kMaskOrientationKey);
  bindCompositeAlphaAndOperation();
}

void QVFilterCompositeIKFilterUIViewController::bindCompositeAlphaAndOperation() {
  bindToFilter(requiredOutlet<NSSlider>("compositeFilterAlphaSlider"), NSValueBinding, kAlphaKey);
  bindToFilter(requiredOutlet<NSTextField>("compositeFilterAlphaTextField"), NSValueBinding, kAlphaKey);
  NSPopUpButton& operations = requiredOutlet<NSPopUpButton>("compositeFilterNamePopupButton");
  operations.setMenu(menuWithFilterNamesForCategory(kCICategoryCompositeOperation));
  bindToFilter(operations, NSSelectedObjectBinding, kOperationKey);
}
