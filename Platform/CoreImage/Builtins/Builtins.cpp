#include <mutex>

#include "CoreImage/Builtins/BuiltinFilter.h"

CIInputSpec imageInputSpec(const std::string& key) {
  CIInputSpec spec;
  spec.key = key;
  spec.attributeClass = "CIImage";
  spec.type = kCIAttributeTypeImage;
  return spec;
}

void registerBuiltinFilters() {
  static std::once_flag once;
  std::call_once(once, [] {
    registerGeometryBuiltins();
    registerCompositeBuiltins();
    registerColorBuiltins();
    registerGeneratorBuiltins();
    registerBlurBuiltins();
    registerDistortionBuiltins();
  });
}
