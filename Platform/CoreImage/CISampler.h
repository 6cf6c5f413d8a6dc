// CISampler: an image prepared for reading inside a kernel, with a wrap mode (what reads
// outside the image's extent return) and a filter mode (how reads between texel centres are
// interpolated). CIFilterShape: a domain of definition, the region outside which an image is
// transparent; a sampler's `definition` is one, and kernels take it as kCIApplyOptionDefinition.
#pragma once

#include <memory>
#include <string>

#include "CoreGraphics/CGGeometry.h"
#include "CoreImage/CIImage.h"
#include "Foundation/Object.h"
#include "Foundation/Value.h"

inline constexpr const char* kCISamplerWrapMode = "CISamplerWrapMode";
inline constexpr const char* kCISamplerWrapBlack = "CISamplerWrapBlack";
inline constexpr const char* kCISamplerWrapClamp = "CISamplerWrapClamp";
inline constexpr const char* kCISamplerFilterMode = "CISamplerFilterMode";
inline constexpr const char* kCISamplerFilterNearest = "CISamplerFilterNearest";
inline constexpr const char* kCISamplerFilterLinear = "CISamplerFilterLinear";

class CIFilterShape;
using CIFilterShapeRef = std::shared_ptr<const CIFilterShape>;

class CIFilterShape final : public Object {
 public:
  static CIFilterShapeRef shapeWithRect(const CGRect& r) { return std::make_shared<CIFilterShape>(r); }
  // The rectangle a definition value stands for: a CIFilterShape, a CIVector (x y width height)
  // or an array of four numbers. False when the value is none of these.
  static bool rectFromValue(const Value& v, CGRect* out);

  explicit CIFilterShape(const CGRect& r) : extent_(r) {}
  const CGRect& extent() const { return extent_; }
  // Grown (negative d) or shrunk (positive d) on every side, as CGRectInset.
  CIFilterShapeRef insetByX(double dx, double dy) const { return shapeWithRect(CGRectInset(extent_, dx, dy)); }
  CIFilterShapeRef unionWith(const CIFilterShape& o) const { return shapeWithRect(CGRectUnion(extent_, o.extent_)); }
  CIFilterShapeRef intersectWith(const CIFilterShape& o) const {
    return shapeWithRect(CGRectIntersection(extent_, o.extent_));
  }

  std::string className() const override { return "CIFilterShape"; }
  std::string description() const override { return "<CIFilterShape " + NSStringFromRect(extent_) + ">"; }
  bool isEqual(const Object& other) const override;

 private:
  CGRect extent_;
};

class CISampler;
using CISamplerRef = std::shared_ptr<const CISampler>;

class CISampler final : public Object {
 public:
  // A sampler with default options: black wrap, linear filtering. A nil image gives a sampler
  // without an image; kernels applied to it yield nil.
  static CISamplerRef samplerWithImage(const CIImage& image);
  // Options: kCISamplerWrapMode = kCISamplerWrapBlack | kCISamplerWrapClamp,
  // kCISamplerFilterMode = kCISamplerFilterLinear | kCISamplerFilterNearest. Other keys and
  // unknown values are ignored.
  static CISamplerRef samplerWithImage(const CIImage& image, const Dictionary& options);
  static CISamplerRef fromValue(const Value& v) { return v.object<CISampler>(); }

  CISampler(CIImage image, bool clamp, bool nearest) : image_(std::move(image)), clamp_(clamp), nearest_(nearest) {}

  const CIImage& image() const { return image_; }
  // The image's extent: where the wrap mode starts to apply.
  CGRect extent() const { return image_.extent(); }
  bool clampsToEdge() const { return clamp_; }
  bool filtersNearest() const { return nearest_; }
  // The domain of definition, as a CIFilterShape value: the image's extent with black wrap,
  // infinite with clamp wrap; nil without an image.
  Value definition() const;

  std::string className() const override { return "CISampler"; }

 private:
  CIImage image_;
  bool clamp_;
  bool nearest_;
};
