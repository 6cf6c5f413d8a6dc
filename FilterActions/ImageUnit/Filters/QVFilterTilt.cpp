#include "Filters/QVFilterTilt.h"

#include "CoreImage/CISampler.h"
#include "CoreImage/CIVector.h"
#include "Framework/QVFilterImageUnitsClasses.h"
#include "Framework/QVFilterKernelLoader.h"

namespace {

const QVFilterClassRegistration registration = QVFilterClassRegistration::filter<QVFilterTilt>("QVFilterTilt", "QVFilter");

}  // namespace

const CIKernelRef& QVFilterTilt::QVFilterTiltLinearKernel() {
  // Written once, never released; a subclass's construction reaches the same static.
  static const CIKernelRef& kernel = *new CIKernelRef(QVFilterKernelsFromResource("QVFilterTiltLinear").kernelAtIndex(0));
  return kernel;
}

QVFilterTilt::QVFilterTilt() { QVFilterTiltLinearKernel(); }

CIImage QVFilterTilt::outputImage() const {
  const CIImage image = inputImage();
  const double intensity = inputIntensity().doubleValue();
  if (intensity == 0.0) return image;
  const CGRect extent = image ? image.extent() : CGRectZero;

  // Both blurs from one filter object: the light one is taken before the radius grows, and an
  // image once taken keeps the radius it was made with.
  const CIFilterRef blur = QVFilterWithDefaults("CIBoxBlur");
  if (!blur) return {};
  blur->setValue(image, kCIInputImageKey);
  blur->setValue(20.0 * intensity, kCIInputRadiusKey);
  const CIImage lightBlur = QVFilterOutputImage(blur).imageByCroppingToRect(extent);
  blur->setValue(30.0 * intensity, kCIInputRadiusKey);
  const CIImage heavyBlur = QVFilterOutputImage(blur).imageByCroppingToRect(extent);

  // The maximum first, so that a NaN becomes 0.
  const double read = inputOffset().doubleValue();
  const double atLeastZero = read > 0.0 ? read : 0.0;
  const double offset = atLeastZero < 1.0 ? atLeastZero : 1.0;

  const CISamplerRef sharp = CISampler::samplerWithImage(image);
  const CIImage mixed = apply(QVFilterTiltLinearKernel(),
                              Array{Value(sharp), Value(CISampler::samplerWithImage(lightBlur)),
                                    Value(CISampler::samplerWithImage(heavyBlur)),
                                    Value(CIVector::vectorWithX(0.0, offset)), Value(CIVector::vectorWithX(1.0, offset))},
                              Dictionary{{kCIApplyOptionDefinition, sharp->definition()}});

  // Half the heavy blur's radius, as the blur filter holds it now.
  const double margin = blur->valueForKey(kCIInputRadiusKey).doubleValue() * 0.5;
  return mixed.imageByCroppingToRect(CGRectIntegral(CGRectInset(mixed.extent(), margin, margin)));
}
