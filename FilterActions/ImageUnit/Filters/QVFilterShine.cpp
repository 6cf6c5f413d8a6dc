#include "Filters/QVFilterShine.h"

#include <optional>
#include <utility>

#include "CoreImage/CIColor.h"
#include "CoreImage/CISampler.h"
#include "CoreImage/CIVector.h"
#include "Framework/QVFilterImageUnitsClasses.h"

namespace {

const QVFilterClassRegistration registration =
    QVFilterClassRegistration::filter<QVFilterShine>("QVFilterShine", "QVFilter");

}  // namespace

CIImage QVFilterShine::outputImage() const {
  const CIImage image = inputImage();
  if (inputAlpha().doubleValue() == 0.0) return image;

  const CGRect extent = image ? image.extent() : CGRectZero;
  std::optional<std::pair<CGPoint, CGPoint>> points;
  const CGPoint centre{CGRectGetMidX(extent), CGRectGetMidY(extent)};
  switch (inputLightSource().integerValue()) {
    case 0: points.emplace(CGPoint{CGRectGetMinX(extent), CGRectGetMaxY(extent)}, centre); break;
    case 1: points.emplace(CGPoint{CGRectGetMidX(extent), CGRectGetMaxY(extent)}, centre); break;
    case 2: points.emplace(CGPoint{CGRectGetMaxX(extent), CGRectGetMaxY(extent)}, centre); break;
    default: break;  // no points: the gradient yields no image
  }
  CIVectorRef light, middle;
  if (points) {
    light = CIVector::vectorWithX(points->first.x, points->first.y);
    middle = CIVector::vectorWithX(points->second.x, points->second.y);
  }

  // The opacities are fixed: inputAlpha only switches the highlight on.
  const CIFilterRef gradient = QVFilterWithDefaults("CILinearGradient");
  if (!gradient) return {};
  if (points) {
    gradient->setValue(light, "inputPoint0");
    gradient->setValue(middle, "inputPoint1");
  }
  gradient->setValue(CIColor::colorWithRed(1.0, 1.0, 1.0, 0.8), "inputColor0");
  gradient->setValue(CIColor::colorWithRed(1.0, 1.0, 1.0, 0.05), "inputColor1");
  const CIImage highlight = QVFilterOutputImage(gradient).imageByCroppingToRect(extent);

  CIImage shine = highlight;
  if (const CIKernelRef kernel = _maskKernel()) {
    const CISamplerRef sampler = CISampler::samplerWithImage(highlight);
    shine = apply(kernel, Array{Value(sampler), Value(light), Value(middle)},
                  Dictionary{{kCIApplyOptionDefinition, sampler->definition()}});
  }

  const CIFilterRef over = QVFilterWithDefaults("CISourceOverCompositing");
  if (!over) return {};
  over->setValue(shine, kCIInputImageKey);
  over->setValue(image, kCIInputBackgroundImageKey);
  return QVFilterOutputImage(over);
}
