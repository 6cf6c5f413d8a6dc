#include "Filters/QVFilterTextureComposite.h"

#include <cmath>

#include "Foundation/NSException.h"
#include "Framework/CIImage+QVFilterImageUnitsAdditions.h"
#include "Framework/QVFilterImageUnitsClasses.h"
#include "Framework/QVSizeScaledToRect.h"
#include "Views/QVFilterTextureIKFilterUIViewController.h"

namespace {

const QVFilterClassRegistration registration =
    QVFilterClassRegistration::filter<QVFilterTextureComposite>("QVFilterTextureComposite", "QVFilterComposite");

// One rule's value applied to the placement rectangle. Size rules only grow the rectangle,
// keeping its aspect ratio and origin; a name outside the vocabulary changes nothing.
void applyDestination(CGRect& rect, const std::string& attribute, double v) {
  double& x = rect.origin.x;
  double& y = rect.origin.y;
  double& w = rect.size.width;
  double& h = rect.size.height;
  if (attribute == "MinX") {
    x = v;
  } else if (attribute == "MidX") {
    x = v - std::floor(w * 0.5);
  } else if (attribute == "MaxX") {
    x = v - w;
  } else if (attribute == "MinY") {
    y = v;
  } else if (attribute == "MidY") {
    y = v - std::floor(h * 0.5);
  } else if (attribute == "MaxY") {
    y = v - h;
  } else if (attribute == "width") {
    if (w < v) {
      h = (v / w) * h;
      w = v;
    }
  } else if (attribute == "height") {
    if (h < v) {
      w = (v / h) * w;
      h = v;
    }
  }
}

}  // namespace

double QVFilterTextureCompositeSourceValue(const CGRect& rect, const std::string& attribute) {
  if (attribute == "MinX") return CGRectGetMinX(rect);
  if (attribute == "MidX") return CGRectGetMidX(rect);
  if (attribute == "MaxX") return CGRectGetMaxX(rect);
  if (attribute == "MinY") return CGRectGetMinY(rect);
  if (attribute == "MidY") return CGRectGetMidY(rect);
  if (attribute == "MaxY") return CGRectGetMaxY(rect);
  if (attribute == "width") return CGRectGetWidth(rect);
  if (attribute == "height") return CGRectGetHeight(rect);
  NSException::raise(NSInternalInconsistencyException,
                     std::string(__func__) + ", cannot evaluate source attribute (" + attribute + ")");
}

double QVFilterTextureCompositeOffsetCoefficient(const CGRect& rect, const std::string& attribute) {
  if (attribute.find('X') != std::string::npos) return CGRectGetWidth(rect);
  if (attribute.find('Y') != std::string::npos) return CGRectGetHeight(rect);
  NSException::raise(NSInternalInconsistencyException,
                     std::string(__func__) + ", cannot evaluate offsetCoefficient for source attribute (" + attribute + ")");
}

void QVFilterTextureCompositeApplyConstraint(CGRect& rect, const Value& constraint, const CGRect& inputExtent) {
  const Value source = constraint[_QVFilterTextureConstraintSourceAttributeKey];
  const std::string sourceAttribute = source.string() ? *source.string() : std::string();
  double v = QVFilterTextureCompositeSourceValue(inputExtent, sourceAttribute);
  if (const Value scale = constraint[_QVFilterTextureConstraintScaleKey]) v *= scale.doubleValue();
  if (const Value offset = constraint[_QVFilterTextureConstraintOffsetKey])
    v += offset.doubleValue() * QVFilterTextureCompositeOffsetCoefficient(inputExtent, sourceAttribute);
  const Value destination = constraint[_QVFilterTextureConstraintDestinationAttributeKey];
  if (const std::string* name = destination.string()) applyDestination(rect, *name, v);
}

CGRect QVFilterTextureCompositePlacement(const CGRect& textureExtent, const CGRect& inputExtent, const Value& constraints) {
  CGRect rect = QVSizeScaledToRect(textureExtent.size, inputExtent, kQVGravityResizeAspectMax);
  if (const Array* rules = constraints.array())
    for (const Value& rule : *rules) QVFilterTextureCompositeApplyConstraint(rect, rule, inputExtent);
  return rect;
}

void QVFilterTextureComposite::setInputTextureName(const Value& name) {
  storeValue(inputTextureNameKey, name);
  _updateInputTextureIdentifier();
}

void QVFilterTextureComposite::_updateInputTextureIdentifier() {
  setInputTextureIdentifier(QVFilterResolveTextureName(inputTextureName(), inputTextureIdentifier()));
}

std::vector<std::string> QVFilterTextureComposite::customInputKeys() const {
  std::vector<std::string> keys = QVFilterComposite::customInputKeys();
  keys.insert(keys.end(), {inputTextureNameKey, inputTextureIdentifierKey, inputTextureShouldMatchInputImageOrientationKey});
  return keys;
}

Value QVFilterTextureComposite::customAttributes() const {
  return QVFilterAttributesByAdding(QVFilterComposite::customAttributes(),
                                    Dictionary{{inputTextureIdentifierKey, Value(Dictionary{})}});
}

void QVFilterTextureComposite::setValue(const Value& value, const std::string& key) {
  if (key == inputTextureNameKey) {
    setInputTextureName(value);
    return;
  }
  QVFilterComposite::setValue(value, key);
}

void QVFilterTextureComposite::setCalculatedValues() {
  QVFilterComposite::setCalculatedValues();
  _updateInputTextureIdentifier();
}

std::vector<QVFilterMask::TexturePair> QVFilterTextureComposite::_texturePairs() const {
  std::vector<TexturePair> pairs = QVFilterComposite::_texturePairs();
  pairs.push_back({inputTextureNameKey, inputTextureIdentifierKey});
  return pairs;
}

CIImage QVFilterTextureComposite::outputImage() const {
  const CIImage input = inputImage();
  if (!input) return {};
  if (!inputTextureName()) return input;
  const CGRect extent = input.extent();
  const NSURLRef identifier = inputTextureIdentifier();
  const Value record = _QVFilterTextureStore::textureForTextureIdentifier(identifier);
  CIImage texture = _QVFilterTextureStore::imageForTextureIdentifier(identifier, extent.size);
  if (!texture) return input;
  if (inputTextureShouldMatchInputImageOrientation().boolValue())
    texture = imageByApplyingTransformToMatchOrientationOfImage(texture, input);
  const CGRect textureExtent = texture ? texture.extent() : CGRectZero;

  const CGRect rect = QVFilterTextureCompositePlacement(textureExtent, extent, record[_QVFilterTextureConstraintsKey]);
  const CIImage scaled = texture.imageByApplyingTransform(CGAffineTransformMakeScale(
      CGRectGetWidth(rect) / CGRectGetWidth(textureExtent), CGRectGetHeight(rect) / CGRectGetHeight(textureExtent)));
  const CGRect scaledExtent = scaled.extent();
  const CIImage placed = scaled.imageByApplyingTransform(CGAffineTransformMakeTranslation(
      CGRectGetMinX(rect) - CGRectGetMinX(scaledExtent), CGRectGetMinY(rect) - CGRectGetMinY(scaledExtent)));

  // On a transparent canvas of the input's size: what lies outside the input is cut away.
  const CIFilterRef over = QVFilterWithDefaults("CISourceOverCompositing");
  if (!over) return {};
  over->setValue(CIImage::emptyImage().imageByCroppingToRect(extent), kCIInputBackgroundImageKey);
  over->setValue(placed, kCIInputImageKey);
  return applyInputComposite(QVFilterOutputImage(over).imageByCroppingToRect(extent));
}

std::shared_ptr<IKFilterUIView> QVFilterTextureComposite::provideViewForUIConfiguration(
    const Dictionary& /*configuration*/, const std::vector<std::string>& /*excludedKeys*/) {
  return QVFilterIKFilterUIViewForFilter(QVFilterTextureIKFilterUIViewController::initWithTextureTags({"composite"}), *this);
}
