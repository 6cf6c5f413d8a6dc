#include "Filters/QVFilterTextureBorder.h"

#include "Filters/QVFilterMask.h"
#include "Foundation/NSKeyedArchiver.h"
#include "Framework/CIImage+QVFilterImageUnitsAdditions.h"
#include "Framework/QVFilterImageUnitsClasses.h"
#include "Framework/QVSizeScaledToRect.h"
#include "Views/QVFilterTextureBorderIKFilterUIViewController.h"

namespace {

const QVFilterClassRegistration registration =
    QVFilterClassRegistration::filter<QVFilterTextureBorder>("QVFilterTextureBorder", "QVFilter");

// The image scaled and moved so that its extent is `rect`.
CIImage fitted(const CIImage& image, const CGRect& rect) {
  const CGRect extent = image.extent();
  const CIImage scaled = image.imageByApplyingTransform(
      CGAffineTransformMakeScale(CGRectGetWidth(rect) / CGRectGetWidth(extent), CGRectGetHeight(rect) / CGRectGetHeight(extent)));
  const CGRect scaledExtent = scaled.extent();
  return scaled.imageByApplyingTransform(CGAffineTransformMakeTranslation(
      CGRectGetMinX(rect) - CGRectGetMinX(scaledExtent), CGRectGetMinY(rect) - CGRectGetMinY(scaledExtent)));
}

}  // namespace

void QVFilterTextureBorder::setInputTextureName(const Value& name) {
  storeValue(inputTextureNameKey, name);
  _updateInputTextureIdentifier();
}

void QVFilterTextureBorder::_updateInputTextureIdentifier() {
  setInputTextureIdentifier(QVFilterResolveTextureName(inputTextureName(), inputTextureIdentifier()));
}

Value QVFilterTextureBorder::customAttributes() const {
  return QVFilterAttributesByAdding(QVFilter::customAttributes(),
                                    Dictionary{{inputTextureIdentifierKey, Value(Dictionary{})}});
}

void QVFilterTextureBorder::setValue(const Value& value, const std::string& key) {
  if (key == inputTextureNameKey) {
    setInputTextureName(value);
    return;
  }
  QVFilter::setValue(value, key);
}

void QVFilterTextureBorder::setCalculatedValues() {
  QVFilter::setCalculatedValues();
  _updateInputTextureIdentifier();
}

void QVFilterTextureBorder::encodeWithCoder(NSCoder& coder) const {
  // Only the name is archived, never the identifier.
  QVFilter::encodeWithCoder(coder);
  coder.removeObjectForKey(inputTextureIdentifierKey);
}

bool QVFilterTextureBorder::initWithCoder(const NSCoder& coder) {
  if (!QVFilter::initWithCoder(coder)) return false;
  setInputTextureIdentifier(QVFilterResolveTextureName(inputTextureName(), nullptr));
  return true;
}

CIImage QVFilterTextureBorder::_textureBorderImage() const {
  const CIImage input = inputImage();
  if (!input) return {};
  return _QVFilterTextureStore::imageForTextureIdentifier(inputTextureIdentifier(), input.extent().size);
}

Value QVFilterTextureBorder::outputTextureMatchedToInputImageOrientation() const {
  const CIImage input = inputImage();
  const CIImage frame = _textureBorderImage();
  if (!input || !frame) return {};
  const bool turned = inputTextureShouldMatchInputImageOrientation().boolValue() &&
                      !CGAffineTransformIsIdentity(affineTransformForMatchingOrientationOfImage(frame, input));
  return Value::boolean(turned);
}

CIImage QVFilterTextureBorder::outputImage() const {
  const CIImage input = inputImage();
  if (!input) return {};
  CIImage frame = _textureBorderImage();
  if (!frame) return input;
  if (outputTextureMatchedToInputImageOrientation().boolValue())
    frame = imageByApplyingTransformToMatchOrientationOfImage(frame, input);
  const CGRect frameExtent = frame ? frame.extent() : CGRectZero;

  // The picture's place inside the frame's rectangle, then the frame fitted over it.
  const CGRect pictureRect = QVSizeScaledToRect(input.extent().size, frameExtent, kQVGravityResizeAspectMax);
  const CGRect frameRect = QVSizeScaledToRect(frameExtent.size, pictureRect, kCAGravityResizeAspect);
  const CIImage background = fitted(input, pictureRect);
  const CIImage top = frame ? fitted(frame, frameRect) : CIImage();

  const CIFilterRef over = QVFilterWithDefaults("CISourceOverCompositing");
  if (!over) return {};
  over->setValue(background, kCIInputBackgroundImageKey);
  over->setValue(top, kCIInputImageKey);
  return QVFilterOutputImage(over).imageByCroppingToRect(top ? top.extent() : CGRectZero);
}

std::shared_ptr<IKFilterUIView> QVFilterTextureBorder::provideViewForUIConfiguration(
    const Dictionary& /*configuration*/, const std::vector<std::string>& /*excludedKeys*/) {
  return QVFilterIKFilterUIViewForFilter(QVFilterTextureBorderIKFilterUIViewController::initWithTextureTags({"border"}), *this);
}
