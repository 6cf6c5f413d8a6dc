#include "CoreImage/CISampler.h"

#include "CoreImage/CIVector.h"

bool CIFilterShape::rectFromValue(const Value& v, CGRect* out) {
  if (auto shape = v.object<CIFilterShape>()) {
    *out = shape->extent();
    return true;
  }
  if (auto vec = v.object<CIVector>()) {
    if (vec->count() != 4) return false;
    *out = vec->CGRectValue();
    return true;
  }
  if (const Array* a = v.array()) {
    if (a->size() != 4) return false;
    for (const Value& n : *a)
      if (!n.isNumber()) return false;
    *out = CGRectMake((*a)[0].doubleValue(), (*a)[1].doubleValue(), (*a)[2].doubleValue(), (*a)[3].doubleValue());
    return true;
  }
  return false;
}

bool CIFilterShape::isEqual(const Object& other) const {
  auto* o = dynamic_cast<const CIFilterShape*>(&other);
  return o && CGRectEqualToRect(o->extent_, extent_);
}

CISamplerRef CISampler::samplerWithImage(const CIImage& image) { return samplerWithImage(image, {}); }

CISamplerRef CISampler::samplerWithImage(const CIImage& image, const Dictionary& options) {
  bool clamp = false, nearest = false;
  if (auto it = options.find(kCISamplerWrapMode); it != options.end()) {
    if (const std::string* s = it->second.string()) clamp = *s == kCISamplerWrapClamp;
  }
  if (auto it = options.find(kCISamplerFilterMode); it != options.end()) {
    if (const std::string* s = it->second.string()) nearest = *s == kCISamplerFilterNearest;
  }
  return std::make_shared<CISampler>(image, clamp, nearest);
}

Value CISampler::definition() const {
  if (!image_) return {};
  return Value(CIFilterShape::shapeWithRect(clamp_ ? CGRectInfinite : image_.extent()));
}
