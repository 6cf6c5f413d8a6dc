#include "Views/QVFilterTextureIKFilterUIViewController.h"

#include "Filters/QVFilterTextureComposite.h"
#include "Foundation/NSBundle.h"

namespace {
constexpr const char* kSourceFile = "FilterActions/ImageUnit/QVFilterTextureIKFilterUIViewController";
constexpr int kPreconditionLine = 50;
constexpr const char* kViewDescriptionName = "TextureView";
}  // namespace

std::shared_ptr<QVFilterTextureIKFilterUIViewController> QVFilterTextureIKFilterUIViewController::initWithTextureTags(
    const std::set<std::string>& tags) {
  std::shared_ptr<NSBundle> bundle = pluginBundle();
  if (!bundle) return nullptr;
  auto controller = std::make_shared<QVFilterTextureIKFilterUIViewController>(kViewDescriptionName, std::move(bundle));
  controller->setTextureTags(tags);
  return controller;
}

void QVFilterTextureIKFilterUIViewController::loadView() {
  const CIFilterRef& filter = representedObject();
  if (!assertPrecondition(
          filter != nullptr, "-[QVFilterTextureIKFilterUIViewController loadView]",
          "[self representedObject] != nil && [[self representedObject] isKindOfClass:[CIFilter class]]", kSourceFile,
          kPreconditionLine))
    return;
  QVFilterCompositeIKFilterUIViewController::loadView();

  NSPopUpButton& textures = requiredOutlet<NSPopUpButton>("textureIdentifierPopupButton");
  textures.setMenu(menuForTexturesWithTags(textureTags_));
  bindToFilter(textures, NSSelectedObjectBinding, "inputTextureName");
  // The texture tile has no orientation input: its check box stays unbound.
  if (dynamic_cast<const QVFilterTextureComposite*>(filter.get()) != nullptr)
    bindToFilter(requiredOutlet<NSButton>("textureIdentifierMatchInputImageOrientationButton"), NSValueBinding,
                 "inputTextureShouldMatchInputImageOrientation");
}
