// QVFilterMask: the abstract base of the mask and composite family. It gives its subclasses an
// optional texture mask: a texture of the catalogue, chosen by a texture identifier or a tag
// key, that is fitted over an image (aspect fill over the image grown by one pixel on every
// side) and cuts the image away where the mask is bright (white: gone, black: kept).
//
// The mask is held as two inputs: the name the user sets ("inputMaskTextureName") and the
// texture identifier the filter resolves from it ("inputMaskTextureIdentifier"). Every
// assignment of the name, through setInputMaskTextureName or key-value coding, and every
// setCalculatedValues resolves the identifier again with the current one as hint: a tag key
// thus picks a new texture of its tag, different from the current one when the tag has more.
//
// Input keys: the family lists its keys itself. inputKeys() is customInputKeys(), which every
// subclass extends by appending its own keys to its superclass's list; customAttributes()
// extends the superclass's entries key by key in the same way.
//
// Copying keeps the resolved identifier (CIFilter::copy takes every stored value). Archiving
// writes the inputs without the identifier; unarchiving clears it and resolves the name again
// with no hint, so an archived tag comes back as a random texture of that tag.
#pragma once

#include <string>
#include <vector>

#include "Framework/QVFilter.h"
#include "Textures/_QVFilterTextureStore.h"

class QVFilterMask : public QVFilter {
 public:
  static constexpr const char* inputMaskTextureNameKey = "inputMaskTextureName";
  static constexpr const char* inputMaskTextureIdentifierKey = "inputMaskTextureIdentifier";
  static constexpr const char* inputMaskTextureShouldMatchInputImageOrientationKey =
      "inputMaskTextureShouldMatchInputImageOrientation";

  CIImage inputImage() const { return CIImage::fromValue(storedValue(kCIInputImageKey)); }
  void setInputImage(const CIImage& image) { storeValue(kCIInputImageKey, image); }
  // The mask the user chose: a texture identifier string or a tag key; nil for no mask.
  Value inputMaskTextureName() const { return storedValue(inputMaskTextureNameKey); }
  // Keeps the name and resolves the identifier from it.
  void setInputMaskTextureName(const Value& name);
  // The texture identifier resolved from the name.
  NSURLRef inputMaskTextureIdentifier() const { return storedValue(inputMaskTextureIdentifierKey).object<NSURL>(); }
  void setInputMaskTextureIdentifier(const NSURLRef& identifier) { storeValue(inputMaskTextureIdentifierKey, identifier); }
  // When true, the mask is turned to the orientation of the image it masks.
  Value inputMaskTextureShouldMatchInputImageOrientation() const {
    return storedValue(inputMaskTextureShouldMatchInputImageOrientationKey);
  }
  void setInputMaskTextureShouldMatchInputImageOrientation(const Value& match) {
    storeValue(inputMaskTextureShouldMatchInputImageOrientationKey, match);
  }

  std::vector<std::string> inputKeys() const override { return customInputKeys(); }
  // inputImage, the mask's name, identifier and orientation switch; subclasses append theirs.
  virtual std::vector<std::string> customInputKeys() const;
  Value customAttributes() const override;
  // Routes the name keys through their setters, so that hosts and recipes resolve too.
  void setValue(const Value& value, const std::string& key) override;
  void setCalculatedValues() override;
  void encodeWithCoder(NSCoder& coder) const override;
  bool initWithCoder(const NSCoder& coder) override;

  // The identifier resolved from the name, with the current identifier as hint.
  void _updateInputMaskTextureIdentifier();
  // `image` with the mask texture cut out of it; `image` itself when there is no mask texture;
  // nil for a nil image.
  CIImage applyInputMask(const CIImage& image) const;

 protected:
  // The name/identifier pairs of the filter, for archiving: the identifiers are left out of
  // an archive and resolved again, without hint, from the names after decoding. The mask's
  // pair here; texture filters add theirs.
  struct TexturePair {
    const char* nameKey;
    const char* identifierKey;
  };
  virtual std::vector<TexturePair> _texturePairs() const;
};

// The texture identifier that a texture name resolves to through the texture store: a texture
// identifier string passes unchanged, a tag key picks one texture of its tag (not `hint` when
// there is another); nil for a nil name, a name that is not a string, or a tag no texture has.
NSURLRef QVFilterResolveTextureName(const Value& name, const NSURLRef& hint);
