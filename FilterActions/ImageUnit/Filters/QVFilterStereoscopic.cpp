#include "Filters/QVFilterStereoscopic.h"

#include <cmath>

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

bool isWhole(double v) { return std::isfinite(v) && v == std::floor(v); }

// One colour layer: the given colour rows, alpha scaled by `alpha`. With alpha in 0..1 the
// matrix is linear in premultiplied values (a channel selection times the opacity, no bias), so
// it commutes with resampling, moving and cropping: a layer coloured after it was scaled and
// placed has the pixels of one coloured first, wherever the layer keeps whole pixels.
CIImage colourLayer(const CIImage& image, const CIVectorRef& r, const CIVectorRef& g, const CIVectorRef& b,
                    double alpha) {
  const CIFilterRef matrix = QVFilterWithDefaults("CIColorMatrix");
  if (!matrix) return {};
  matrix->setValue(r, "inputRVector");
  matrix->setValue(g, "inputGVector");
  matrix->setValue(b, "inputBVector");
  matrix->setValue(CIVector::vectorWithX(0, 0, 0, alpha), "inputAVector");
  matrix->setValue(image, kCIInputImageKey);
  return QVFilterOutputImage(matrix);
}

}  // namespace

const CIKernelRef& QVFilterStereoscopic::QVFilterStereoscopic_DesaturateKernel() {
  // Written once, never released; a subclass's construction reaches the same static.
  static const CIKernelRef& kernel = *new CIKernelRef(stereoscopicKernels().kernelAtIndex(0));
  return kernel;
}

const CIKernelRef& QVFilterStereoscopic::QVFilterStereoscopic_StereoscopicKernel() {
  // Written once, never released; a subclass's construction reaches the same static.
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

  // Each layer is the picture coloured, scaled by s about the origin, moved and cut to the
  // picture. When the scaled picture and both moves keep whole pixels (the usual case: a
  // picture's extent is whole pixels, and so is its scaled extent at the default scale for
  // common sizes), colouring commutes with the rest (see colourLayer): the picture is then
  // scaled once, both layers take their colours after being placed, and one resampled picture
  // serves both, computed once per tile. Otherwise each layer is coloured first, as the recipe
  // reads, since a colour matrix keeps only the pixels whose centres lie inside its extent and
  // would drop the partly covered edge of a fractional layer.
  const CGAffineTransform scale = CGAffineTransformMakeScale(s, s);
  const CIImage scaled = image.imageByApplyingTransform(scale);
  const CGRect placed = scaled ? scaled.extent() : CGRectZero;  // each layer's extent before it moves
  const double redX = CGRectGetMaxX(extent) - CGRectGetWidth(placed) - CGRectGetMinX(placed);
  // The cyan layer's horizontal term is the layer's origin less the picture's, which leaves
  // its left edge on the picture's for a picture that starts at x = 0.
  const double cyanX = CGRectGetMinX(placed) - CGRectGetMinX(extent);
  const double y = CGRectGetMidY(extent) + CGRectGetHeight(placed) * -0.5 - CGRectGetMinY(placed);
  const bool wholePixels = isWhole(CGRectGetMinX(placed)) && isWhole(CGRectGetMinY(placed)) &&
                           isWhole(CGRectGetWidth(placed)) && isWhole(CGRectGetHeight(placed)) && isWhole(redX) &&
                           isWhole(cyanX) && isWhole(y);
  auto layer = [&](const CIVectorRef& r, const CIVectorRef& g, const CIVectorRef& b, double x) {
    const CGAffineTransform move = CGAffineTransformMakeTranslation(x, y);
    if (wholePixels)
      return colourLayer(scaled.imageByApplyingTransform(move).imageByCroppingToRect(extent), r, g, b, a);
    return colourLayer(image, r, g, b, a)
        .imageByApplyingTransform(scale)
        .imageByApplyingTransform(move)
        .imageByCroppingToRect(extent);
  };
  // Red right-aligned, cyan left-aligned, both centred vertically.
  const CIImage redPlaced = layer(CIVector::vectorWithX(1, 0, 0, 0), zero, zero, redX);
  const CIImage cyanPlaced = layer(zero, CIVector::vectorWithX(0, 1, 0, 0), CIVector::vectorWithX(0, 0, 1, 0), cyanX);

  CIImage result = image;
  for (const CIImage& layer : {cyanPlaced, redPlaced}) {
    const CIFilterRef lighten = QVFilterWithDefaults("CILightenBlendMode");
    if (!lighten) return {};
    lighten->setValue(result, kCIInputBackgroundImageKey);
    lighten->setValue(layer, kCIInputImageKey);
    result = QVFilterOutputImage(lighten);
  }
  return result;
}
