// The geometry built-ins: affine transform, crop, affine clamp, affine tile and the Lanczos
// rescale. Each returns nil when its input image is nil.
#include <cmath>

#include "CoreImage/Builtins/BuiltinFilter.h"
#include "CoreImage/Nodes/GeometryNodes.h"

namespace {

CGAffineTransform transformOf(const Value& v) {
  if (const CGAffineTransform* t = v.transform()) return *t;
  return CGAffineTransformIdentity;
}

CIInputSpec transformSpec() {
  CIInputSpec s;
  s.key = kCIInputTransformKey;
  s.attributeClass = "NSAffineTransform";
  s.type = kCIAttributeTypeTransform;
  s.defaultValue = Value(CGAffineTransformIdentity);
  s.identity = Value(CGAffineTransformIdentity);
  return s;
}

class CIAffineTransformFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIImage in = inputImageForKey(kCIInputImageKey);
    if (!in) return {};
    return in.imageByApplyingTransform(transformOf(input(kCIInputTransformKey)));
  }
};

class CICropFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIImage in = inputImageForKey(kCIInputImageKey);
    if (!in) return {};
    const CIVectorRef r = inputVector("inputRectangle");
    if (!r) return in;
    return in.imageByCroppingToRect(r->CGRectValue());
  }
};

// The image transformed, then its edge pixels repeated without limit. The default transform
// is the identity (a plain clamp to the extent), so that a host calling setDefaults alone gets
// the image back unscaled.
class CIAffineClampFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIImage in = inputImageForKey(kCIInputImageKey);
    if (!in) return {};
    return in.imageByApplyingTransform(transformOf(input(kCIInputTransformKey))).imageByClampingToExtent();
  }
};

// The image transformed, then repeated over the plane along the transformed lattice: the cell
// is the parallelogram spanned by the transformed edges of the image, so a point and the same
// point moved by either transformed edge vector show the same pixel. A scale and translation
// keeps the cell a rectangle, which is tiled after the transform in whole output pixels; any
// other transform (shear, rotation) repeats the image in its own space and transforms the
// repetition, which is the transformed lattice by construction.
class CIAffineTileFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIImage in = inputImageForKey(kCIInputImageKey);
    if (!in) return {};
    const CGAffineTransform m = transformOf(input(kCIInputTransformKey));
    if (m.b != 0 || m.c != 0) {
      const CGRect ie = in.extent();
      if (CGRectIsInfinite(ie)) return in.imageByApplyingTransform(m);
      if (CGRectIsEmpty(ie) || PixelRect::covering(ie).empty()) return CIImage::emptyImage();
      if (m.a * m.d - m.b * m.c == 0) return CIImage::emptyImage();
      return CIImage(std::make_shared<TileNode>(in)).imageByApplyingTransform(m);
    }
    const CIImage t = in.imageByApplyingTransform(m);
    const CGRect e = t.extent();
    if (CGRectIsInfinite(e)) return t;
    if (CGRectIsEmpty(e) || PixelRect::covering(e).empty()) return CIImage::emptyImage();
    return CIImage(std::make_shared<TileNode>(t));
  }
};

class CILanczosScaleTransformFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIImage in = inputImageForKey(kCIInputImageKey);
    if (!in) return {};
    const double scale = inputDouble(kCIInputScaleKey), aspect = inputDouble(kCIInputAspectRatioKey);
    const double sx = scale * aspect, sy = scale;
    if (!(sx > 0) || !(sy > 0) || !std::isfinite(sx) || !std::isfinite(sy)) return CIImage::emptyImage();
    if (sx == 1 && sy == 1) return in;
    const CGRect e = in.extent();
    if (CGRectIsEmpty(e)) return CIImage::emptyImage();
    // Shrinks beyond 1/4096 would need kernels wider than any tile. An enlargement keeps its
    // three taps whatever the factor, so it is refused only when the scaled extent leaves the
    // range where pixel positions are whole numbers exactly; a large one is a large image,
    // which a host weighs against its own limits.
    if (sx < 1.0 / 4096 || sy < 1.0 / 4096) return CIImage::emptyImage();
    constexpr double kExactLimit = 9007199254740992.0;  // 2^53
    if (!CGRectIsInfinite(e) &&
        (std::fabs(CGRectGetMinX(e) * sx) > kExactLimit || std::fabs(CGRectGetMaxX(e) * sx) > kExactLimit ||
         std::fabs(CGRectGetMinY(e) * sy) > kExactLimit || std::fabs(CGRectGetMaxY(e) * sy) > kExactLimit))
      return CIImage::emptyImage();
    return CIImage(std::make_shared<LanczosScaleNode>(in, sx, sy));
  }
};

CIInputSpec number(const char* key, const char* type, Value def, Value min, Value sliderMin, Value sliderMax,
                   Value identity) {
  CIInputSpec s;
  s.key = key;
  s.attributeClass = "NSNumber";
  s.type = type;
  s.defaultValue = std::move(def);
  s.min = std::move(min);
  s.sliderMin = std::move(sliderMin);
  s.sliderMax = std::move(sliderMax);
  s.identity = std::move(identity);
  return s;
}

// GCC 12 reports a false "may be used uninitialized" inside std::variant when a Value holding
// an object is built here at -O2 with the sanitizers; the value is fully constructed.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
Value infiniteRectangle() { return Value(CIVector::vectorWithCGRect(CGRectInfinite)); }
#pragma GCC diagnostic pop

}  // namespace

void registerGeometryBuiltins() {
  registerBuiltin<CIAffineTransformFilter>("CIAffineTransform", "Affine Transform",
                                           {kCICategoryGeometryAdjustment, kCICategoryStillImage},
                                           {imageInputSpec(), transformSpec()});
  CIInputSpec rect;
  rect.key = "inputRectangle";
  rect.attributeClass = "CIVector";
  rect.type = kCIAttributeTypeRectangle;
  rect.defaultValue = infiniteRectangle();
  rect.identity = rect.defaultValue;
  registerBuiltin<CICropFilter>("CICrop", "Crop", {kCICategoryGeometryAdjustment, kCICategoryStillImage},
                                {imageInputSpec(), rect});
  registerBuiltin<CIAffineClampFilter>("CIAffineClamp", "Affine Clamp", {kCICategoryTileEffect, kCICategoryStillImage},
                                       {imageInputSpec(), transformSpec()});
  registerBuiltin<CIAffineTileFilter>("CIAffineTile", "Affine Tile", {kCICategoryTileEffect, kCICategoryStillImage},
                                      {imageInputSpec(), transformSpec()});
  registerBuiltin<CILanczosScaleTransformFilter>(
      "CILanczosScaleTransform", "Lanczos Scale Transform", {kCICategoryGeometryAdjustment, kCICategoryStillImage},
      {imageInputSpec(), number(kCIInputScaleKey, kCIAttributeTypeScalar, 1, 0, 0.05, 1.5, 1),
       number(kCIInputAspectRatioKey, kCIAttributeTypeScalar, 1, 0, 0.5, 2, 1)});
}
