#include "Filters/QVFilterMask.h"

#include "Foundation/NSKeyedArchiver.h"
#include "Framework/CIImage+QVFilterImageUnitsAdditions.h"
#include "Framework/QVSizeScaledToRect.h"

NSURLRef QVFilterResolveTextureName(const Value& name, const NSURLRef& hint) {
  const std::string* key = name.string();
  if (!key) return nullptr;
  return _QVFilterTextureStore::resolveNewTextureIdentifierForKey(*key, hint);
}

void QVFilterMask::setInputMaskTextureName(const Value& name) {
  storeValue(inputMaskTextureNameKey, name);
  _updateInputMaskTextureIdentifier();
}

void QVFilterMask::_updateInputMaskTextureIdentifier() {
  setInputMaskTextureIdentifier(QVFilterResolveTextureName(inputMaskTextureName(), inputMaskTextureIdentifier()));
}

std::vector<std::string> QVFilterMask::customInputKeys() const {
  return {kCIInputImageKey, inputMaskTextureNameKey, inputMaskTextureIdentifierKey,
          inputMaskTextureShouldMatchInputImageOrientationKey};
}

Value QVFilterMask::customAttributes() const {
  return QVFilterAttributesByAdding(
      QVFilter::customAttributes(),
      Dictionary{{inputMaskTextureNameKey, Value(Dictionary{{kCIAttributeClass, "NSString"}})},
                 {inputMaskTextureIdentifierKey, Value(Dictionary{{kCIAttributeClass, "NSURL"}})},
                 {inputMaskTextureShouldMatchInputImageOrientationKey, Value(Dictionary{{kCIAttributeClass, "NSNumber"}})}});
}

void QVFilterMask::setValue(const Value& value, const std::string& key) {
  if (key == inputMaskTextureNameKey) {
    setInputMaskTextureName(value);
    return;
  }
  QVFilter::setValue(value, key);
}

void QVFilterMask::setCalculatedValues() {
  QVFilter::setCalculatedValues();
  _updateInputMaskTextureIdentifier();
}

std::vector<QVFilterMask::TexturePair> QVFilterMask::_texturePairs() const {
  return {{inputMaskTextureNameKey, inputMaskTextureIdentifierKey}};
}

void QVFilterMask::encodeWithCoder(NSCoder& coder) const {
  // What is written is this filter with its identifiers cleared: only the names are archived.
  QVFilter::encodeWithCoder(coder);
  for (const TexturePair& pair : _texturePairs()) coder.removeObjectForKey(pair.identifierKey);
}

bool QVFilterMask::initWithCoder(const NSCoder& coder) {
  if (!QVFilter::initWithCoder(coder)) return false;
  // Whatever identifier the archive held is dropped: each is resolved afresh, without hint.
  for (const TexturePair& pair : _texturePairs())
    storeValue(pair.identifierKey, QVFilterResolveTextureName(storedValue(pair.nameKey), nullptr));
  return true;
}

CIImage QVFilterMask::applyInputMask(const CIImage& image) const {
  if (!image) return {};
  CIImage mask = _QVFilterTextureStore::imageForTextureIdentifier(inputMaskTextureIdentifier(), CGSizeZero);
  if (!mask) return image;
  if (inputMaskTextureShouldMatchInputImageOrientation().boolValue())
    mask = imageByApplyingTransformToMatchOrientationOfImage(mask, image);

  // Fitted over the image grown by one pixel, so that the mask overlaps the image's edges.
  const CGRect target = CGRectInset(image.extent(), -1.0, -1.0);
  const CGRect maskExtent = mask.extent();
  const CGRect placed = QVSizeScaledToRect(maskExtent.size, target, kCAGravityResizeAspectFill);
  const CIImage scaled = mask.imageByApplyingTransform(CGAffineTransformMakeScale(
      placed.size.width / maskExtent.size.width, placed.size.height / maskExtent.size.height));
  const CGRect scaledExtent = scaled.extent();
  const CIImage fitted = scaled.imageByApplyingTransform(CGAffineTransformMakeTranslation(
      CGRectGetMinX(placed) - CGRectGetMinX(scaledExtent), CGRectGetMinY(placed) - CGRectGetMinY(scaledExtent)));

  // Black keeps the image, white lets the empty image through.
  const CIFilterRef blend = QVFilterWithDefaults("CIBlendWithMask");
  if (!blend) return {};
  blend->setValue(image, kCIInputBackgroundImageKey);
  blend->setValue(CIImage::emptyImage().imageByCroppingToRect(image.extent()), kCIInputImageKey);
  blend->setValue(fitted, kCIInputMaskImageKey);
  return QVFilterOutputImage(blend);
}
