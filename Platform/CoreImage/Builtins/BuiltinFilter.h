// The shared shape of the built-in filters: inputs stored generically and declared once, in
// the registration's input table; each family of built-ins registers itself from one function.
#pragma once

#include <string>
#include <vector>

#include "CoreImage/CIColor.h"
#include "CoreImage/CIFilter.h"
#include "CoreImage/CIImage.h"
#include "CoreImage/CIVector.h"

class CIBuiltinFilter : public CIFilter {
 protected:
  Value input(const std::string& key) const { return valueForKey(key); }
  CIImage inputImageForKey(const std::string& key) const { return CIImage::fromValue(valueForKey(key)); }
  CIVectorRef inputVector(const std::string& key) const { return CIVector::fromValue(valueForKey(key)); }
  CIColorRef inputColor(const std::string& key) const { return CIColor::fromValue(valueForKey(key)); }
  double inputDouble(const std::string& key) const { return valueForKey(key).doubleValue(); }
};

// Registers a built-in class T (default-constructible CIBuiltinFilter subclass).
template <class T>
void registerBuiltin(std::string name, std::string displayName, std::vector<std::string> categories,
                     std::vector<CIInputSpec> inputs) {
  categories.push_back(kCICategoryBuiltIn);
  CIFilter::registerFilter(CIFilterRegistration{std::move(name), [] { return CIFilterRef(std::make_shared<T>()); },
                                                std::move(displayName), std::move(categories), std::move(inputs), {}});
}

// The image input every built-in with an image takes.
CIInputSpec imageInputSpec(const std::string& key = kCIInputImageKey);

// One function per family; registerBuiltinFilters() calls them all, once per process, before
// the registry answers its first question.
void registerGeometryBuiltins();    // CIAffineTransform, CICrop, CIAffineClamp, CIAffineTile, CILanczosScaleTransform
void registerCompositeBuiltins();   // the composite operations and blend modes, CIBlendWithMask
void registerColorBuiltins();       // colour matrix, controls, exposure, gamma, white point, mask to alpha
void registerGeneratorBuiltins();   // constant colour, gradients, random, checkerboard
void registerBlurBuiltins();        // the blur category and CIUnsharpMask
void registerDistortionBuiltins();  // CIBumpDistortion, CIPixellate
void registerBuiltinFilters();
