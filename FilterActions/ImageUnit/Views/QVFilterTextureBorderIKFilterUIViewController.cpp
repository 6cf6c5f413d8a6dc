#include "Views/QVFilterTextureBorderIKFilterUIViewController.h"

#include "Foundation/NSBundle.h"

namespace {
constexpr const char* kViewDescriptionName = "TextureBorderView";
}

std::shared_ptr<QVFilterTextureBorderIKFilterUIViewController>
QVFilterTextureBorderIKFilterUIViewController::initWithTextureTags(const std::set<std::string>& tags) {
  std::shared_ptr<NSBundle> bundle = pluginBundle();
  if (!bundle) return nullptr;
  auto controller =
      std::make_shared<QVFilterTextureBorderIKFilterUIViewController>(kViewDescriptionName, std::move(bundle));
  controller->setTextureTags(tags);
  return controller;
}

void QVFilterTextureBorderIKFilterUIViewController::loadView() {
  QVFilterIKFilterUIViewController::loadView();
  NSPopUpButton& textures = requiredOutlet<NSPopUpButton>("textureIdentifierPopupButton");
  textures.setMenu(menuForTexturesWithTags(textureTags_));
  bindToFilter(textures, NSSelectedObjectBinding, "inputTextureName");
  bindToFilter(requiredOutlet<NSButton>("textureIdentifierMatchInputImageOrientationButton"), NSValueBinding,
               "inputTextureShouldMatchInputImageOrientation");
}
