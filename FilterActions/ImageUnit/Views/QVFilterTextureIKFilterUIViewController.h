// QVFilterTextureIKFilterUIViewController: the view of the texture composite and the texture
// tile ("TextureView"): the composite controls, a pop-up of the textures of its tags, and, for
// the texture composite only, the texture's orientation check box.
#pragma once

#include <memory>
#include <set>
#include <string>

#include "Views/QVFilterCompositeIKFilterUIViewController.h"

class QVFilterTextureIKFilterUIViewController : public QVFilterCompositeIKFilterUIViewController {
 public:
  using QVFilterCompositeIKFilterUIViewController::QVFilterCompositeIKFilterUIViewController;

  // initWithTextureTags: a controller on "TextureView" of the plug-in's bundle offering the
  // textures that carry every tag; nil when the bundle is not loaded.
  static std::shared_ptr<QVFilterTextureIKFilterUIViewController> initWithTextureTags(
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
