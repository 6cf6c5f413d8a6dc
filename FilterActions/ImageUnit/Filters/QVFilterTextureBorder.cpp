#include "Filters/QVFilterTextureBorder.h"

#include "Framework/CIImage+QVFilterImageUnitsAdditions.h"
#include "Framework/QVFilterImageUnitsClasses.h"
#include "Framework/QVSizeScaledToRect.h"
#include "Views/QVFilterTextureBorderIKFilterUIViewController.h"

namespace {

const QVFilterClassRegistration registration =
    QVFilterClassRegistration::filter<QVFilterTextureBorder>("QVFilterTextureBorder", "QVFilter");

}  // namespace

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
  const CIImage background = imageByFittingToRect(input, pictureRect);
  const CIImage top = imageByFittingToRect(frame, frameRect);

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
