// QVFilterTextureBorderIKFilterUIViewController: the texture border's view
// ("TextureBorderView"): a pop-up of the frame textures of its tags and the frame's orientation
// check box.
#pragma once

#include <memory>
#include <set>
#include <string>

#include "Views/QVFilterIKFilterUIViewController.h"

class QVFilterTextureBorderIKFilterUIViewController : public QVFilterIKFilterUIViewController {
 public:
  using QVFilterIKFilterUIViewController::QVFilterIKFilterUIViewController;

  // initWithTextureTags: a controller on "TextureBorderView" of the plug-in's bundle offering
  // the textures that carry every tag; nil when the bundle is not loaded.
  static std::shared_ptr<QVFilterTextureBorderIKFilterUIViewController> initWithTextureTags(
      const std::set<std::string>& tags);

  const std::set<std::string>& textureTags() const { return textureTags_; }
  void setTextureTags(std::set<std::string> tags) { textureTags_ = std::move(tags); }

  NSPopUpButton* textureIdentifierPopupButton() const { return outlet<NSPopUpButton>("textureIdentifierPopupButton"); }
  NSButton* textureIdentifierMatchInputImageOrientationButton() const {
    return outlet<NSButton>("textureIdentifierMatchInputImageOrientationButton");
  }

  void loadView() override;

 private:
  std::set<std::string> textureTags_;
};
