#include "Filters/QVFilterStereoscopic.h"

#include "CoreImage/CIVector.h"
#include "Framework/QVFilterImageUnitsClasses.h"
#include "Framework/QVFilterKernelLoader.h"

namespace {

const QVFilterClassRegistration registration =
    QVFilterClassRegistration::filter<QVFilterStereoscopic>("QVFilterStereoscopic", "QVFilter");

// Both kernels of the resource, loaded once and never released.
const QVFilterKernelList& stereoscopicKernels() {
  static const QVFilterKernelList& kernels = *new QVFilterKernelList(QVFilterKernelsFromResource("QVFilterStereoscopic"));
  return kernels;
}

double clampedOrOne(const Value& v, double upper) {
  const double x = v.isNil() ? 1.0 : v.doubleValue();
  const double atLeastZero = x > 0.0 ? x : 0.0;  // a NaN becomes 0
  return atLeastZero < upper ? atLeastZero : upper;
}

// One colour layer of `image`: the given colour rows, alpha scaled by `alpha`, then scaled by `s`
// about the origin.
CIImage colourLayer(const CIImage& image, const CIVectorRef& r, const CIVectorRef& g, const CIVectorRef& b, double alpha,
                    double s) {
  const CIFilterRef matrix = QVFilterWithDefaults("CIColorMatrix");
  matrix->setValue(r, "inputRVector");
  matrix->setValue(g, "inputGVector");
  matrix->setValue(b, "inputBVector");
  matrix->setValue(CIVector::vectorWithX(0, 0, 0, alpha), "inputAVector");
  matrix->setValue(image, kCIInputImageKey);
  return QVFilterOutputImage(matrix).imageByApplyingTransform(CGAffineTransformMakeScale(s, s));
}

}  // namespace

const CIKernelRef& QVFilterStereoscopic::QVFilterStereoscopic_DesaturateKernel() {
  static const CIKernelRef& kernel = *new CIKernelRef(stereoscopicKernels().kernelAtIndex(0));
  return kernel;
}

const CIKernelRef& QVFilterStereoscopic::QVFilterStereoscopic_StereoscopicKernel() {
  static const CIKernelRef& kernel = *new CIKernelRef(stereoscopicKernels().kernelAtIndex(1));
  return kernel;
}

QVFilterStereoscopic::QVFilterStereoscopic() {
  QVFilterStereoscopic_DesaturateKernel();
  QVFilterStereoscopic_StereoscopicKernel();
}

CIImage QVFilterStereoscopic::outputImage() const {
  const CIImage image = inputImage();
  if (!image) return {};
  const CGRect extent = image.extent();
  const double s = clampedOrOne(inputScale(), 2.0);
  const double a = clampedOrOne(inputIntensity(), 1.0);
  const CIVectorRef zero = CIVector::vectorWithX(0, 0, 0, 0);

  // Red layer, right-aligned and centred vertically.
  const CIImage red = colourLayer(image, CIVector::vectorWithX(1, 0, 0, 0), zero, zero, a, s);
  const CGRect er = red ? red.extent() : CGRectZero;
  const CIImage redPlaced =
      red.imageByApplyingTransform(CGAffineTransformMakeTranslation(
                                       CGRectGetMaxX(extent) - CGRectGetWidth(er) - CGRectGetMinX(er),
                                       CGRectGetMidY(extent) + CGRectGetHeight(er) * -0.5 - CGRectGetMinY(er)))
          .imageByCroppingToRect(extent);

  // Cyan layer: the horizontal term is the layer's origin less the picture's, which leaves the
  // layer's left edge on the picture's for a picture that starts at x = 0.
  const CIImage cyan =
      colourLayer(image, zero, CIVector::vectorWithX(0, 1, 0, 0), CIVector::vectorWithX(0, 0, 1, 0), a, s);
  const CGRect ec = cyan ? cyan.extent() : CGRectZero;
  const CIImage cyanPlaced =
      cyan.imageByApplyingTransform(CGAffineTransformMakeTranslation(
                                        CGRectGetMinX(ec) - CGRectGetMinX(extent),
                                        CGRectGetMidY(extent) + CGRectGetHeight(ec) * -0.5 - CGRectGetMinY(ec)))
          .imageByCroppingToRect(extent);

  CIImage result = image;
  for (const CIImage& layer : {cyanPlaced, redPlaced}) {
    const CIFilterRef lighten = QVFilterWithDefaults("CILightenBlendMode");
    lighten->setValue(result, kCIInputBackgroundImageKey);
    lighten->setValue(layer, kCIInputImageKey);
    result = QVFilterOutputImage(lighten);
  }
  return result;
}
