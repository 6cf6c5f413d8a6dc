// The composite operations of the engine, by name: one table from which the thirty built-ins of
// the composite category are registered. Exposed so that graph builders and benchmarks can
// composite without going through a filter object.
#pragma once

#include <cstddef>
#include <span>
#include <string>

#include "CoreImage/CIImage.h"

struct CompositeOperation {
  // Produces n output pixels from n source and n background pixels (premultiplied RGBA float).
  using RowFunction = void (*)(const float* source, const float* background, float* out, std::size_t n);
  // The same n pixels when every source pixel is `colour` (four floats): the terms of the
  // formula that depend on the source alone are computed once, and the result is bit for bit
  // that of `row` over a run filled with the colour.
  using ConstantSourceRowFunction = void (*)(const float* colour, const float* background, float* out, std::size_t n);

  const char* name;         // the built-in's name, "CISourceOverCompositing"
  const char* displayName;  // "Source Over"
  bool highDynamicRange;    // in kCICategoryHighDynamicRange: colour is not clamped
  RowFunction row;
  ConstantSourceRowFunction constantSourceRow = nullptr;  // null: `row` over a filled run
};

// All thirty, in name order.
std::span<const CompositeOperation> compositeOperations();
// The operation of that built-in name, or nullptr.
const CompositeOperation* compositeOperationNamed(const std::string& name);
// `source` composited over `background` with the operation; nil when either is nil. The extent
// is the union of the two extents.
CIImage compositeImage(const CompositeOperation& op, const CIImage& source, const CIImage& background);
