// QVFilterTextureTile: repeats a texture of the catalogue (canvas, linen, paper) across the
// whole input at the texture's own pixel size, from the texture's origin, and hands the tiled
// layer to the composite step of the family. The texture is held as a name / identifier pair,
// as QVFilterMask holds its mask.
//
// The class loads the kernel of the resource "QVFilterTextureTile" on its first use, as every
// kernel-using filter does; the tiling itself is the built-in "CIAffineTile", and the kernel is
// never run.
#pragma once

#include "CoreImage/CIKernel.h"
#include "Filters/QVFilterComposite.h"

class QVFilterTextureTile : public QVFilterComposite {
 public:
  static constexpr const char* inputTextureNameKey = "inputTextureName";
  static constexpr const char* inputTextureIdentifierKey = "inputTextureIdentifier";

  QVFilterTextureTile();  // class initialisation: loads the tile kernel on first use

  // The texture the user chose: a texture identifier string or a tag key.
  Value inputTextureName() const { return storedValue(inputTextureNameKey); }
  // Keeps the name and resolves the identifier from it.
  void setInputTextureName(const Value& name);
  NSURLRef inputTextureIdentifier() const { return storedValue(inputTextureIdentifierKey).object<NSURL>(); }
  void setInputTextureIdentifier(const NSURLRef& identifier) { storeValue(inputTextureIdentifierKey, identifier); }

  // The composite's keys, then the texture's name and identifier.
  std::vector<std::string> customInputKeys() const override;
  // The composite's entries plus an empty entry for "inputTextureIdentifier".
  Value customAttributes() const override;
  void setValue(const Value& value, const std::string& key) override;
  void setCalculatedValues() override;
  void _updateInputTextureIdentifier();
  CIImage outputImage() const override;
  // The view of a QVFilterTextureIKFilterUIViewController offering the "tile" textures; both arguments are ignored.
  std::shared_ptr<IKFilterUIView> provideViewForUIConfiguration(const Dictionary& configuration,
                                                                const std::vector<std::string>& excludedKeys) override;

  // The first kernel of "QVFilterTextureTile" (nil when the resource is missing).
  static const CIKernelRef& textureTileKernel();

 protected:
  std::vector<TexturePair> _texturePairs() const override;
};
