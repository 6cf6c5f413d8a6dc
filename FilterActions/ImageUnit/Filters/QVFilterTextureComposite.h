// QVFilterTextureComposite: lays a texture of the catalogue (a light leak, a film burn, dust)
// over the input. The texture is fitted to the input (kQVGravityResizeAspectMax), then moved and
// resized by the placement rules of its texture record, in order, laid on a transparent canvas
// of the input's size and handed to the composite step of the family.
//
// A placement rule sets one attribute of the texture's rectangle ("destinationAttribute":
// MinX, MidX, MaxX, MinY, MidY, MaxY, width, height) from one attribute of the input's extent
// ("sourceAttribute"), optionally multiplied by "scale" and then moved by "offset" times the
// input's width (for an attribute with "X" in its name) or height (with "Y"). Size rules only
// ever grow the texture, keeping its aspect ratio and its origin, so a record lists them before
// the position rules. A source attribute outside the vocabulary, or an offset on "width" or
// "height", raises NSInternalInconsistencyException.
//
// The texture is held as a name / identifier pair, as QVFilterMask holds its mask.
#pragma once

#include "Filters/QVFilterComposite.h"

class QVFilterTextureComposite : public QVFilterComposite {
 public:
  static constexpr const char* inputTextureNameKey = "inputTextureName";
  static constexpr const char* inputTextureIdentifierKey = "inputTextureIdentifier";
  static constexpr const char* inputTextureShouldMatchInputImageOrientationKey =
      "inputTextureShouldMatchInputImageOrientation";

  // The texture the user chose: a texture identifier string or a tag key.
  Value inputTextureName() const { return storedValue(inputTextureNameKey); }
  // Keeps the name and resolves the identifier from it.
  void setInputTextureName(const Value& name);
  NSURLRef inputTextureIdentifier() const { return storedValue(inputTextureIdentifierKey).object<NSURL>(); }
  void setInputTextureIdentifier(const NSURLRef& identifier) { storeValue(inputTextureIdentifierKey, identifier); }
  // When true, the texture is turned to the input's orientation before it is placed.
  Value inputTextureShouldMatchInputImageOrientation() const {
    return storedValue(inputTextureShouldMatchInputImageOrientationKey);
  }
  void setInputTextureShouldMatchInputImageOrientation(const Value& match) {
    storeValue(inputTextureShouldMatchInputImageOrientationKey, match);
  }

  // The composite's keys, then the texture's name, identifier and orientation switch.
  std::vector<std::string> customInputKeys() const override;
  // The composite's entries plus an empty entry for "inputTextureIdentifier".
  Value customAttributes() const override;
  void setValue(const Value& value, const std::string& key) override;
  void setCalculatedValues() override;
  void _updateInputTextureIdentifier();
  CIImage outputImage() const override;
  // The view of a QVFilterTextureIKFilterUIViewController offering the "composite" textures; both arguments are ignored.
  std::shared_ptr<IKFilterUIView> provideViewForUIConfiguration(const Dictionary& configuration,
                                                                const std::vector<std::string>& excludedKeys) override;

 protected:
  std::vector<TexturePair> _texturePairs() const override;
};

// The rectangle a texture of `textureExtent`'s size covers over an input of `inputExtent`:
// fitted by kQVGravityResizeAspectMax, then changed by each rule of `constraints` (an array of
// constraint records, or nil) in order. Raises NSInternalInconsistencyException for a source
// attribute outside the vocabulary and for an offset on a source without "X" or "Y".
CGRect QVFilterTextureCompositePlacement(const CGRect& textureExtent, const CGRect& inputExtent, const Value& constraints);
// One placement rule (a constraint record) applied to `rect`, with its source read from
// `inputExtent`. Raises as QVFilterTextureCompositePlacement does.
void QVFilterTextureCompositeApplyConstraint(CGRect& rect, const Value& constraint, const CGRect& inputExtent);
// The value of an attribute of `rect` named as in a rule's "sourceAttribute"; raises
// NSInternalInconsistencyException, reason "<this function>, cannot evaluate source attribute
// (<attribute>)", for any other name.
double QVFilterTextureCompositeSourceValue(const CGRect& rect, const std::string& attribute);
// The factor of a rule's "offset" for its source attribute: the width of `rect` when the name
// contains "X", else its height when it contains "Y"; raises NSInternalInconsistencyException,
// reason "<this function>, cannot evaluate offsetCoefficient for source attribute
// (<attribute>)", otherwise.
double QVFilterTextureCompositeOffsetCoefficient(const CGRect& rect, const std::string& attribute);
