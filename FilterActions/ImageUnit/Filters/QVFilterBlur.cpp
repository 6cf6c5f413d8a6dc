#include "Filters/QVFilterBlur.h"

#include "CoreImage/CISampler.h"
#include "Framework/QVFilterImageUnitsClasses.h"
#include "Framework/QVFilterImageUnitsConstants.h"
#include "Framework/QVFilterKernelLoader.h"
#include "Views/QVFilterBlurIKFilterUIViewController.h"

namespace {

const QVFilterClassRegistration registration =
    QVFilterClassRegistration::filter<QVFilterBlur>(QVFilterBlurName, "QVFilter");

// The one blur that sees the image without extended edges: it pulls pixels towards its centre
// only, so nothing outside the extent reaches the cropped result.
constexpr const char* kZoomBlurName = "QVFilterZoomBlur";

}  // namespace

const CIKernelRef& QVFilterBlur::noOpKernel() {
  // Written once, never released; a subclass's construction reaches the same static.
  static const CIKernelRef& kernel = *new CIKernelRef(QVFilterKernelsFromResource("NoOp").kernelAtIndex(0));
  return kernel;
}

QVFilterBlur::QVFilterBlur() { noOpKernel(); }

CIImage QVFilterBlur::outputImage() const {
  const CIImage image = inputImage();
  if (!image) return {};
  const Value nameValue = inputBlurFilterName();
  const std::string* name = nameValue.string();
  const CIFilterRef blur = name ? QVFilterWithDefaults(*name) : CIFilterRef();
  if (!blur) return image;  // a bad name answers with the input itself
  blur->setValue(inputRadius(), kCIInputRadiusKey);

  CIImage source;
  if (*name == kZoomBlurName) {
    source = image;
  } else {
    // Edge pixels repeated outwards: an infinite image equal to the input inside its extent.
    const CISamplerRef sampler =
        CISampler::samplerWithImage(image, Dictionary{{kCISamplerWrapMode, Value(kCISamplerWrapClamp)}});
    source = apply(noOpKernel(), Array{Value(sampler)}, Dictionary{});
  }
  blur->setValue(source, kCIInputImageKey);
  return QVFilterOutputImage(blur).imageByCroppingToRect(image.extent());
}

std::shared_ptr<IKFilterUIView> QVFilterBlur::provideViewForUIConfiguration(const Dictionary& /*configuration*/,
                                                                          const std::vector<std::string>& /*excludedKeys*/) {
  return QVFilterIKFilterUIViewForFilter(std::make_shared<QVFilterBlurIKFilterUIViewController>(
                                             "BlurView", QVFilterIKFilterUIViewController::pluginBundle()),
                                         *this);
}
