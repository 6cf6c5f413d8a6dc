// QVFilterTextureBorder: sets the input into a frame texture of the catalogue. The picture is
// fitted into the frame's rectangle (kQVGravityResizeAspectMax), the frame fitted over that
// (aspect fit) and drawn on top; the output takes the frame's fitted rectangle, so its size
// follows the frame, not the input. Without a frame texture the input comes back unchanged.
//
// Not a composite: a direct subclass of QVFilter, holding its texture as a name / identifier
// pair with the same rules as the family's (resolved on every assignment of the name and on
// setCalculatedValues; kept by copies; left out of archives and resolved again on decoding).
#pragma once

#include "Framework/QVFilter.h"
#include "Textures/_QVFilterTextureStore.h"

class QVFilterTextureBorder : public QVFilter {
 public:
  static constexpr const char* inputTextureNameKey = "inputTextureName";
  static constexpr const char* inputTextureIdentifierKey = "inputTextureIdentifier";
  static constexpr const char* inputTextureShouldMatchInputImageOrientationKey =
      "inputTextureShouldMatchInputImageOrientation";

  CIImage inputImage() const { return CIImage::fromValue(storedValue(kCIInputImageKey)); }
  void setInputImage(const CIImage& image) { storeValue(kCIInputImageKey, image); }
  // The frame the user chose: a texture identifier string or a tag key.
  Value inputTextureName() const { return storedValue(inputTextureNameKey); }
  // Keeps the name and resolves the identifier from it.
  void setInputTextureName(const Value& name);
  NSURLRef inputTextureIdentifier() const { return storedValue(inputTextureIdentifierKey).object<NSURL>(); }
  void setInputTextureIdentifier(const NSURLRef& identifier) { storeValue(inputTextureIdentifierKey, identifier); }
  // When true, a frame whose orientation differs from the input's is turned a quarter.
  Value inputTextureShouldMatchInputImageOrientation() const {
    return storedValue(inputTextureShouldMatchInputImageOrientationKey);
  }
  void setInputTextureShouldMatchInputImageOrientation(const Value& match) {
    storeValue(inputTextureShouldMatchInputImageOrientationKey, match);
  }

  std::vector<std::string> inputKeys() const override {
    return {kCIInputImageKey, inputTextureNameKey, inputTextureIdentifierKey,
            inputTextureShouldMatchInputImageOrientationKey};
  }
  // QVFilter's entries plus an empty entry for "inputTextureIdentifier".
  Value customAttributes() const override;
  void setValue(const Value& value, const std::string& key) override;
  void setCalculatedValues() override;
  void encodeWithCoder(NSCoder& coder) const override;
  bool initWithCoder(const NSCoder& coder) override;
  void _updateInputTextureIdentifier();

  // The frame texture, decoded no larger than the input; nil without input or texture.
  CIImage _textureBorderImage() const;
  // True when the frame is to be turned: orientation matching is asked for and the frame's
  // orientation differs from the input's; false otherwise; nil without input or frame.
  Value outputTextureMatchedToInputImageOrientation() const;
  CIImage outputImage() const override;
  // The view of a QVFilterTextureBorderIKFilterUIViewController offering the "border" textures; both arguments are ignored.
  std::shared_ptr<IKFilterUIView> provideViewForUIConfiguration(const Dictionary& configuration,
                                                                const std::vector<std::string>& excludedKeys) override;
};
