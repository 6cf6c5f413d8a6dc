#include "Filters/QVFilterTextureTile.h"

#include "Framework/QVFilterImageUnitsClasses.h"
#include "Framework/QVFilterKernelLoader.h"
#include "Views/QVFilterTextureIKFilterUIViewController.h"

namespace {

const QVFilterClassRegistration registration =
    QVFilterClassRegistration::filter<QVFilterTextureTile>("QVFilterTextureTile", "QVFilterComposite");

}  // namespace

const CIKernelRef& QVFilterTextureTile::textureTileKernel() {
  // Written once, never released; a subclass's construction reaches the same static.
  static const CIKernelRef& kernel =
      *new CIKernelRef(QVFilterKernelsFromResource("QVFilterTextureTile").kernelAtIndex(0));
  return kernel;
}

QVFilterTextureTile::QVFilterTextureTile() { textureTileKernel(); }

void QVFilterTextureTile::setInputTextureName(const Value& name) {
  storeValue(inputTextureNameKey, name);
  _updateInputTextureIdentifier();
}

void QVFilterTextureTile::_updateInputTextureIdentifier() {
  setInputTextureIdentifier(QVFilterResolveTextureName(inputTextureName(), inputTextureIdentifier()));
}

std::vector<std::string> QVFilterTextureTile::customInputKeys() const {
  std::vector<std::string> keys = QVFilterComposite::customInputKeys();
  keys.insert(keys.end(), {inputTextureNameKey, inputTextureIdentifierKey});
  return keys;
}

Value QVFilterTextureTile::customAttributes() const {
  return QVFilterAttributesByAdding(QVFilterComposite::customAttributes(),
                                    Dictionary{{inputTextureIdentifierKey, Value(Dictionary{})}});
}

void QVFilterTextureTile::setValue(const Value& value, const std::string& key) {
  if (key == inputTextureNameKey) {
    setInputTextureName(value);
    return;
  }
  QVFilterComposite::setValue(value, key);
}

void QVFilterTextureTile::setCalculatedValues() {
  QVFilterComposite::setCalculatedValues();
  _updateInputTextureIdentifier();
}

std::vector<QVFilterMask::TexturePair> QVFilterTextureTile::_texturePairs() const {
  std::vector<TexturePair> pairs = QVFilterComposite::_texturePairs();
  pairs.push_back({inputTextureNameKey, inputTextureIdentifierKey});
  return pairs;
}

CIImage QVFilterTextureTile::outputImage() const {
  const CIImage input = inputImage();
  if (!input) return {};
  if (!inputTextureName()) return input;
  // Full resolution: the texture repeats at its own pixel size.
  const CIImage texture = _QVFilterTextureStore::imageForTextureIdentifier(inputTextureIdentifier(), CGSizeZero);
  if (!texture) return input;
  const CIFilterRef tile = QVFilterWithDefaults("CIAffineTile");
  if (!tile) return {};
  tile->setValue(Value(CGAffineTransformIdentity), kCIInputTransformKey);
  tile->setValue(texture, kCIInputImageKey);
  return applyInputComposite(QVFilterOutputImage(tile).imageByCroppingToRect(input.extent()));
}

std::shared_ptr<IKFilterUIView> QVFilterTextureTile::provideViewForUIConfiguration(
    const Dictionary& /*configuration*/, const std::vector<std::string>& /*excludedKeys*/) {
  return QVFilterIKFilterUIViewForFilter(QVFilterTextureIKFilterUIViewController::initWithTextureTags({"tile"}), *this);
}
