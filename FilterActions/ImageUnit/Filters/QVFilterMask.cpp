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

void QVFilterMask::encodeWithCoder(NSCoder& coder) const {
  // What is written is this filter with its identifier cleared: only the name is archived.
  QVFilter::encodeWithCoder(coder);
  coder.removeObjectForKey(inputMaskTextureIdentifierKey);
}

bool QVFilterMask::initWithCoder(const NSCoder& coder) {
  if (!QVFilter::initWithCoder(coder)) return false;
  // Whatever identifier the archive held is dropped: it is resolved afresh, without hint.
  setInputMaskTextureIdentifier(QVFilterResolveTextureName(inputMaskTextureName(), nullptr));
  return true;
}

CIImage QVFilterMask::applyInputMask(const CIImage& image) const {
  if (!image) return {};
  const NSURLRef identifier = inputMaskTextureIdentifier();
  const bool matchOrientation = inputMaskTextureShouldMatchInputImageOrientation().boolValue();
  auto maskForHint = [&](CGSize hint) {
    CIImage mask = _QVFilterTextureStore::imageForTextureIdentifier(identifier, hint);
    if (mask && matchOrientation) mask = imageByApplyingTransformToMatchOrientationOfImage(mask, image);
    return mask;
  };
  CIImage mask = maskForHint(CGSizeZero);
  if (!mask) return image;

  // Fitted over the image grown by one pixel, so that the mask overlaps the image's edges.
  const CGRect target = CGRectInset(image.extent(), -1.0, -1.0);
  const CGRect placed = QVSizeScaledToRect(mask.extent().size, target, kCAGravityResizeAspectFill);
  // Decoded no larger than it is drawn: a mask over a picture smaller than the texture file
  // comes from a smaller decode, with the same extent.
  const CGSize hint = _QVFilterTextureStore::drawnSizeHint(CGSizeZero, mask.extent().size, placed.size);
  if (!CGSizeEqualToSize(hint, CGSizeZero))
    if (CIImage smaller = maskForHint(hint); smaller && CGRectEqualToRect(smaller.extent(), mask.extent()))
      mask = smaller;
  const CIImage fitted = imageByFittingToRect(mask, placed);

  // Black keeps the image, white lets the empty image through.
  const CIFilterRef blend = QVFilterWithDefaults("CIBlendWithMask");
  if (!blend) return {};
  blend->setValue(image, kCIInputBackgroundImageKey);
  blend->setValue(CIImage::emptyImage().imageByCroppingToRect(image.extent()), kCIInputImageKey);
  blend->setValue(fitted, kCIInputMaskImageKey);
  return QVFilterOutputImage(blend);
}
